#pragma once

#include <string>
#include <string_view>

namespace skein {

/// `url` as logs and screens may show it: user name and password, the values of the query, the fragment and parts of
/// the path that look like a key are written as "…". The trackers within a magnet link are treated alike.
///
/// A path part of 40 hex digits before ".torrent" is shown: it is an info-hash, which is no secret.
std::string shownURL(std::string_view url);

/// `text` with every URL and magnet link in it as `shownURL` writes it.
std::string withShownURLs(std::string_view text);

}  // namespace skein
