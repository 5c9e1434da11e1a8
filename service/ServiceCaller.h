#pragma once

#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/HTTPFetcher.h"
#include "service/ServiceAccount.h"
#include "service/ServiceAnswer.h"

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace skein {

/// One call's way to the resource service and back: whose it is, how long it may take, what is logged of it.
///
/// Owner: the client of the service. `http`, `clock` and `log` outlive it. Thread: any; it has no state. Nothing of it
/// throws but the end by cancellation.
class ServiceCaller {
public:
    static constexpr std::chrono::seconds timeLimit{30};
    static constexpr std::size_t maxBodyBytes = std::size_t{8} << 20U;

    /// A request that may be sent, and on whose behalf.
    struct Request {
        HTTPRequest http;
        ServiceAccess access;
    };
    using Query = std::vector<std::pair<std::string, std::string>>;

    ServiceCaller(HTTPFetcher& http, ServiceAccount account, Clock& clock, FileLogger& log);

    /// Without user or service URL: unusable, and so it is when the settings cannot be read.
    asio::awaitable<ServiceAccess> access() const;
    /// Nothing, and a line in the log under `tag`, when nobody is signed in or no service is set.
    asio::awaitable<std::optional<Request>> makeRequest(std::string path, std::string method, std::string tag,
                                                        Query query = {}) const;
    /// The same for a body of JSON, posted.
    asio::awaitable<std::optional<Request>> makePost(std::string path, std::string json, std::string tag) const;
    asio::awaitable<ServiceAnswer> send(Request request) const;
    /// Sends, and logs under `tag` what came of it: true when the service confirmed.
    asio::awaitable<bool> fire(Request request, std::string tag) const;

    /// One line of the log.
    template <class... Parts>
    void note(LogLevel level, const Parts&... parts) const {
        if (log_.wants(level)) log_.log(level, prefix(), parts...);
    }

private:
    static void addAuthHeaders(HTTPRequest& request, const ServiceAccess& access);
    std::string prefix() const;

    HTTPFetcher& http_;
    const ServiceAccount account_;
    Clock& clock_;
    FileLogger& log_;
};

}  // namespace skein
