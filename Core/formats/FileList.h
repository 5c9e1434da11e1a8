#pragma once

#include "Core/formats/TorrentFileInfo.h"

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <utility>
#include <vector>

namespace skein {

/// The files of a torrent or a task. Shared by its copies: a torrent, its task, the saved record and whoever looks
/// through the files hold one list, which may be a million long. Copies may be on different threads.
class FileList {
public:
    using Files = std::vector<TorrentFileInfo>;

    FileList() = default;
    FileList(Files files) : files_(std::make_shared<Files>(std::move(files))) {}
    FileList(std::initializer_list<TorrentFileInfo> files) : FileList(Files(files)) {}

    operator const Files&() const noexcept { return all(); }
    const Files& all() const noexcept {
        static const Files none;
        return files_ ? *files_ : none;
    }
    Files::const_iterator begin() const noexcept { return all().begin(); }
    Files::const_iterator end() const noexcept { return all().end(); }
    std::size_t size() const noexcept { return all().size(); }
    bool empty() const noexcept { return all().empty(); }
    const TorrentFileInfo& operator[](std::size_t index) const { return all()[index]; }
    const TorrentFileInfo& front() const { return all().front(); }

    /// The files to be changed: a list that is shared is copied first.
    Files& edit() {
        if (!files_ || files_.use_count() > 1) files_ = std::make_shared<Files>(all());
        return *files_;
    }

    friend bool operator==(const FileList& one, const FileList& other) {
        return one.files_ == other.files_ || one.all() == other.all();
    }

private:
    std::shared_ptr<Files> files_;
};

}  // namespace skein
