#pragma once

#include <cstdint>
#include <string_view>

namespace skein {

enum class DownloadType : std::uint8_t { torrent, http };

std::string_view textOf(DownloadType type) noexcept;
/// Everything but "http" is a torrent: old lists knew nothing else.
DownloadType downloadTypeFrom(std::string_view text) noexcept;

}  // namespace skein
