#include "downloads/DownloadType.h"

namespace skein {

std::string_view textOf(DownloadType type) noexcept {
    switch (type) {
        case DownloadType::torrent: return "torrent";
        case DownloadType::http: return "http";
    }
    return {};
}

DownloadType downloadTypeFrom(std::string_view text) noexcept {
    return text == textOf(DownloadType::http) ? DownloadType::http : DownloadType::torrent;
}

}  // namespace skein
