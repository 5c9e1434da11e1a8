#pragma once

#include "public/common/Bytes.h"
#include "public/common/IPAddress.h"

#include <map>
#include <optional>
#include <string>
#include <strings.h>

namespace skein {

/// A request as the server read it.
struct SeenHTTPRequest {
    struct IgnoresCase {
        bool operator()(const std::string& one, const std::string& other) const {
            return ::strcasecmp(one.c_str(), other.c_str()) < 0;
        }
    };

    std::string method;
    std::string target;  ///< path and query, as sent
    std::map<std::string, std::string, IgnoresCase> headers;
    Bytes body;
    std::optional<IPAddress> remote;

    /// Empty when it was not sent.
    std::string header(const std::string& name) const {
        const auto found = headers.find(name);
        return found == headers.end() ? std::string() : found->second;
    }
};

}  // namespace skein
