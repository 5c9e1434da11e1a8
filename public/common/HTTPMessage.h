#pragma once

#include "public/common/AddressOrigin.h"
#include "public/common/Bytes.h"
#include "public/common/IPAddress.h"

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace skein {

struct HTTPHeader {
    std::string name;
    std::string value;
};

struct HTTPRequest {
    std::string method = "GET";
    std::string url;  ///< http or https; sent as it stands, without a fragment
    std::vector<HTTPHeader> headers;
    Bytes body;
    std::chrono::milliseconds connectTimeout{15'000};  ///< looking up the name, TCP and TLS, for each redirect anew
    std::chrono::milliseconds totalTimeout{60'000};    ///< all of it, redirects included; 0 for no limit
    /// Headers are limited by themselves. The default is the largest `.torrent` that is accepted from the network.
    std::size_t maxBodyBytes = std::size_t{32} << 20U;
    bool acceptsCompression = false;  ///< offers gzip and deflate; `maxBodyBytes` counts what comes of it
    AddressOrigin origin = AddressOrigin::userNamed;  ///< of `url`; a redirect is the server's
    bool usesProxy = true;         ///< false goes straight to the host, whatever the environment names
    bool followsRedirects = true;  ///< false takes a redirect for the response
};

struct HTTPResponse {
    int status = 0;
    std::string url;                  ///< where it came from, after redirects
    std::vector<HTTPHeader> headers;  ///< names in lower case, in the order received
    Bytes body;
    std::optional<IPAddress> remoteAddress;  ///< of the host; not known where a proxy may stand in between

    /// The first header of that lower-case name.
    std::optional<std::string_view> header(std::string_view name) const noexcept;
};

}  // namespace skein
