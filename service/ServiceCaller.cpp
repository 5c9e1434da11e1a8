#include "service/ServiceCaller.h"

#include "public/common/ErrorText.h"

#include <boost/asio/error.hpp>
#include <boost/system/system_error.hpp>
#include <boost/url/url.hpp>

#include <array>
#include <ctime>

namespace skein {

namespace {

std::string encoded(const ServiceCaller::Query& query) {
    boost::urls::url url;
    for (const auto& [key, value] : query) url.params().append({key, value});
    return std::string(url.buffer());
}

}  // namespace

ServiceCaller::ServiceCaller(HTTPFetcher& http, ServiceAccount account, Clock& clock, FileLogger& log)
    : http_(http), account_(std::move(account)), clock_(clock), log_(log) {}

asio::awaitable<ServiceAccess> ServiceCaller::access() const {
    std::string failure;
    try {
        co_return co_await account_.access();
    } catch (const DatabaseException& error) {
        failure = error.what();
    }
    note(LogLevel::warning, "reading who is signed in failed: ", failure);
    co_return ServiceAccess{};
}

asio::awaitable<std::optional<ServiceCaller::Request>> ServiceCaller::makeRequest(std::string path, std::string method,
                                                                                  std::string tag, Query query) const {
    std::optional<Request> request(std::in_place);
    request->access = co_await access();
    if (!request->access.isUsable()) {
        note(LogLevel::info, "⚠️ skip ", tag,
             request->access.userID.empty() ? " — no user is signed in" : " — skeinserverUrl 未配置");
        co_return std::nullopt;
    }
    HTTPRequest& http = request->http;
    http.method = std::move(method);
    http.url = request->access.serverURL + path + encoded(query);
    http.headers = {{"Content-Type", "application/json"}};
    http.totalTimeout = timeLimit;
    http.maxBodyBytes = maxBodyBytes;
    // Who the user is goes to the service alone, and another page's answer confirms nothing.
    http.followsRedirects = false;
    addAuthHeaders(http, request->access);
    co_return request;
}

asio::awaitable<std::optional<ServiceCaller::Request>> ServiceCaller::makePost(std::string path, std::string json,
                                                                               std::string tag) const {
    auto request = co_await makeRequest(std::move(path), "POST", std::move(tag));
    if (request) request->http.body = toBytes(json);
    co_return request;
}

void ServiceCaller::addAuthHeaders(HTTPRequest& request, const ServiceAccess& access) {
    request.headers.push_back({"X-User-Id", access.userID});
    request.headers.push_back({"X-User-Token", access.token});
    request.headers.push_back({"X-Device-Id", access.deviceId});
}

asio::awaitable<ServiceAnswer> ServiceCaller::send(Request request) const {
    ServiceAnswer answer;
    answer.secret = std::move(request.access.token);
    try {
        const HTTPResponse response = co_await http_.fetch(std::move(request.http));
        answer.status = response.status;
        answer.body = asText(response.body);
    } catch (const boost::system::system_error& error) {
        if (error.code() == asio::error::operation_aborted) throw;
        answer.failure = answer.quoted(textOf(error));
    } catch (const std::exception& error) {
        answer.failure = answer.quoted(error.what());
    }
    co_return answer;
}

asio::awaitable<bool> ServiceCaller::fire(Request request, std::string tag) const {
    const ServiceAnswer answer = co_await send(std::move(request));
    if (answer.isSuccess()) {
        note(LogLevel::info, "✓ ", tag);
    } else {
        note(LogLevel::warning, "❌ ", tag, " ", answer.whyNot());
    }
    co_return answer.isSuccess();
}

std::string ServiceCaller::prefix() const {
    const std::time_t time = Clock::WallTime::clock::to_time_t(clock_.wallNow());
    std::tm parts{};
    gmtime_r(&time, &parts);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "[%Y-%m-%dT%H:%M:%SZ]", &parts);
    return std::string(text.data()) + "[SkeinSvc] ";
}

}  // namespace skein
