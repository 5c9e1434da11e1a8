#pragma once

#include "Core/formats/TorrentMetaInfo.h"

#include <memory>
#include <utility>
#include <vector>

namespace skein {

/// The files of a task. Immutable and shared by its copies: a task, its saved record and whoever looks through its
/// files hold one list, which may be long. Any thread.
class FileList {
public:
    using Files = std::vector<TorrentFileInfo>;

    FileList() = default;
    FileList(Files files) : files_(std::make_shared<const Files>(std::move(files))) {}

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

    friend bool operator==(const FileList& one, const FileList& other) {
        return one.files_ == other.files_ || one.all() == other.all();
    }

private:
    std::shared_ptr<const Files> files_;
};

}  // namespace skein
