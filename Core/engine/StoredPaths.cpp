#include "Core/engine/StoredPaths.h"

#include "Core/formats/TorrentPaths.h"
#include "public/common/OddCharacters.h"

#include <algorithm>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <unordered_set>

namespace skein {

namespace {

namespace fs = std::filesystem;

/// Calls `visit` with each component of `path`.
template <class Visit>
void forEachComponent(std::string_view path, Visit visit) {
    for (std::size_t start = 0; start <= path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        visit(path.substr(start, end - start));
        start = end + 1;
    }
}

/// The components of one torrent's paths, and what those with odd characters are called on disk.
class PlainNames {
public:
    explicit PlainNames(const FileList& files) {
        for (const TorrentFileInfo& file : files)
            forEachComponent(file.path, [this](std::string_view component) {
                if (!hasOdd(component)) taken_.emplace(component);
            });
    }

    std::string path(std::string_view given) {
        std::string plain;
        forEachComponent(given, [&](std::string_view component) {
            if (component.data() != given.data()) plain += '/';
            plain += hasOdd(component) ? name(component) : component;
        });
        return plain;
    }

private:
    std::string_view name(std::string_view given) {
        const auto [entry, isNew] = names_.try_emplace(std::string(given));
        if (!isNew) return entry->second;
        const std::string plain = withoutOdd(given, '_');
        std::string chosen = plain;
        for (std::size_t number = 2; !taken_.insert(chosen).second; ++number)
            chosen = TorrentPaths::numbered(plain, number);
        entry->second = std::move(chosen);
        return entry->second;
    }

    std::unordered_set<std::string> taken_;
    std::unordered_map<std::string, std::string> names_;  ///< by the name given
};

bool isThere(const fs::path& path) {
    std::error_code error;
    return fs::exists(fs::symlink_status(path, error));
}

}  // namespace

std::shared_ptr<const TorrentMetaInfo> storedIn(const fs::path& folder, const std::string& top,
                                                std::shared_ptr<const TorrentMetaInfo> torrent) {
    if (!top.empty()) torrent = std::make_shared<TorrentMetaInfo>(torrent->storedAs(top));
    const auto isOdd = [](const TorrentFileInfo& file) { return hasOdd(file.path); };
    if (std::none_of(torrent->files.begin(), torrent->files.end(), isOdd)) return torrent;
    PlainNames names(torrent->files);
    const auto stored = std::make_shared<TorrentMetaInfo>(*torrent);
    for (TorrentFileInfo& file : stored->files.edit())
        if (isOdd(file) && !isThere(folder / file.path)) file.path = names.path(file.path);
    return stored;
}

}  // namespace skein
