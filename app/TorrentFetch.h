#pragma once

#include "public/common/Bytes.h"
#include "public/common/HTTPClient.h"

#include <boost/asio/awaitable.hpp>

#include <string>

namespace skein {

/// The bytes at an HTTP(S) address that is taken for a `.torrent`. Throws HTTPException, std::runtime_error ("HTTP
/// 404") for any answer but 200, and boost::system::system_error when the caller is cancelled.
asio::awaitable<Bytes> fetchTorrent(HTTPClient& http, std::string url);

}  // namespace skein
