#pragma once

#include "public/common/Bytes.h"

#include <boost/json/value.hpp>

#include <string>

namespace skein {

/// Whoever answers calls of the local API: the daemon, or this process itself. Owner and thread: a command, on the main
/// thread.
///
/// `path` goes without its first slash, and with its query: "api/v1/tasks?…". All throw CommandFailure with what is
/// said against the call.
class APIPort {
public:
    APIPort() = default;
    APIPort(const APIPort&) = delete;
    APIPort& operator=(const APIPort&) = delete;
    virtual ~APIPort() = default;

    boost::json::value get(const std::string& path);
    boost::json::value post(const std::string& path, const boost::json::value& body = nullptr);
    boost::json::value patch(const std::string& path, const boost::json::value& body);
    boost::json::value remove(const std::string& path);

protected:
    virtual boost::json::value send(const std::string& method, const std::string& path, const std::string& contentType,
                                    Bytes body) = 0;
};

/// `text` as a part of a path or query.
std::string percentEncoded(const std::string& text);

}  // namespace skein
