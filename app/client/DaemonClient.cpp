#include "app/client/DaemonClient.h"

#include "app/Command.h"
#include "app/client/DaemonRefusal.h"
#include "public/common/ErrorText.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/deferred.hpp>
#include <boost/asio/experimental/parallel_group.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>

#include <charconv>
#include <chrono>
#include <optional>
#include <thread>

namespace skein {

namespace {

namespace json = boost::json;

constexpr int httpOK = 200;
constexpr std::size_t maxAnswerBytes = std::size_t{256} << 20U;
constexpr std::size_t shortestPrefix = 4;
/// A verification or a clean stop takes as long as it takes.
constexpr std::chrono::hours patience{24};
/// A daemon that runs says so at once, whatever else it does.
constexpr std::chrono::seconds greetingPatience{5};
constexpr std::chrono::milliseconds pollInterval{50};

DaemonAddress found(const std::filesystem::path& home) {
    auto daemon = DaemonAddress::find(home);
    if (!daemon) throw NoDaemon();
    return std::move(*daemon);
}

/// Nobody listens where a daemon was; whatever else goes wrong, it is there.
[[noreturn]] void tell(const HTTPException& error) {
    if (error.error == HTTPError::cannotConnect) throw NoDaemon();
    throw CommandFailure("the daemon", error.what());
}

json::value answerIn(const HTTPResponse& response) {
    boost::system::error_code error;
    json::value answer = json::parse(asText(response.body), error);
    if (response.status == httpOK && !error) return answer;
    const json::object* const object = answer.if_object();
    const json::value* const text = object == nullptr ? nullptr : object->if_contains("error");
    throw DaemonRefusal(text != nullptr && text->is_string() ? std::string(text->as_string())
                                                             : "HTTP " + std::to_string(response.status));
}

/// The number in "12" or "#1200"; nothing in what is a prefix of an info-hash or no name of a task at all.
std::optional<std::int64_t> taskNumberIn(std::string_view name) {
    const bool isMarked = name.starts_with('#');
    if (isMarked) name.remove_prefix(1);
    if (!isMarked && name.size() >= shortestPrefix) return std::nullopt;
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    return error == std::errc() && end == name.data() + name.size() ? std::optional(number) : std::nullopt;
}

}  // namespace

DaemonClient::DaemonClient(const std::filesystem::path& home) : home_(home), daemon_(found(home)) {}

DaemonClient::~DaemonClient() { http_.stop(); }

bool DaemonClient::waitForEnd(std::chrono::seconds limit) const {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (DaemonAddress::isClaimed(home_)) {
        // Another one may have come in its place already.
        const auto now = DaemonAddress::find(home_);
        if (now && now->processID != daemon_.processID) break;
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(pollInterval);
    }
    return true;
}

json::value DaemonClient::addTorrent(Bytes torrentData, const std::string& query) {
    return send("POST", "api/v1/tasks" + query, "application/x-bittorrent", std::move(torrentData));
}

HTTPRequest DaemonClient::request(const std::string& method, const std::string& path, const std::string& contentType,
                                  Bytes body) const {
    HTTPRequest request;
    request.method = method;
    request.url = daemon_.url() + path;
    request.headers = {{"Authorization", "Bearer " + daemon_.token}, {"Content-Type", contentType}};
    request.body = std::move(body);
    request.totalTimeout = patience;
    request.maxBodyBytes = maxAnswerBytes;
    request.usesProxy = false;
    return request;
}

json::value DaemonClient::send(const std::string& method, const std::string& path, const std::string& contentType,
                               Bytes body) {
    HTTPRequest question = request(method, path, contentType, std::move(body));
    HTTPResponse response;
    try {
        response = asio::co_spawn(asio::make_strand(pools_.io()), watched(std::move(question)), asio::use_future).get();
    } catch (const HTTPException& error) {
        tell(error);
    }
    return answerIn(response);
}

/// First, so that a daemon that hangs is given nothing that it would do later, when nobody expects it any more.
asio::awaitable<HTTPResponse> DaemonClient::watched(HTTPRequest question) {
    co_await greet();
    const auto executor = co_await asio::this_coro::executor;
    auto both = asio::experimental::make_parallel_group(
        asio::co_spawn(executor, http_.fetch(std::move(question)), asio::deferred),
        asio::co_spawn(executor, keepGreeting(), asio::deferred));
    auto [order, failure, response, silence] =
        co_await both.async_wait(asio::experimental::wait_for_one(), asio::use_awaitable);
    const bool isSilent = order[0] == 1;
    if (isSilent && silence) std::rethrow_exception(silence);
    if (failure) std::rethrow_exception(failure);
    co_return std::move(response);
}

asio::awaitable<void> DaemonClient::greet() {
    HTTPRequest question = request("GET", "api/v1/status", "application/json", {});
    question.totalTimeout = greetingPatience;
    bool isSilent = false;
    try {
        co_await http_.fetch(std::move(question));
    } catch (const HTTPException& error) {
        isSilent = error.error == HTTPError::timeout;
        if (!isSilent) throw;
    }
    if (isSilent)
        throw CommandFailure("the daemon", "no answer within " + std::to_string(greetingPatience.count()) + " s");
}

asio::awaitable<void> DaemonClient::keepGreeting() {
    asio::steady_timer timer(co_await asio::this_coro::executor);
    for (;;) {
        timer.expires_after(greetingPatience);
        co_await timer.async_wait(asio::use_awaitable);
        co_await greet();
    }
}

asio::awaitable<json::value> DaemonClient::ask(std::string method, std::string path) {
    HTTPResponse response;
    try {
        HTTPRequest question = request(method, path, "application/json", {});
        response = co_await http_.fetch(std::move(question));
    } catch (const HTTPException& error) {
        tell(error);
    }
    co_return answerIn(response);
}

WebSocketRequest DaemonClient::eventStream() const {
    const std::string url = daemon_.url();
    return {.url = "ws" + url.substr(url.find(':')) + "api/v1/events",
            .headers = {{"Authorization", "Bearer " + daemon_.token}},
            .openTimeout = greetingPatience,
            .maxMessageBytes = maxAnswerBytes};
}

std::vector<std::string> DaemonClient::resolve(const std::vector<std::string>& names) {
    const json::value list = get("api/v1/tasks");
    std::vector<std::string> resolved;
    resolved.reserve(names.size());
    for (const std::string& name : names) resolved.push_back(resolveTask(list.as_array(), name));
    return resolved;
}

std::string resolveTask(const json::array& tasks, const std::string& name) {
    const auto number = taskNumberIn(name);
    std::vector<std::string> matches;
    for (const json::value& item : tasks) {
        const json::object& task = item.as_object();
        std::string infoHash(task.at("infoHash").as_string());
        if (infoHash == name) return infoHash;
        const bool isMeant = number ? task.at("number").to_number<std::int64_t>() == *number
                                    : name.size() >= shortestPrefix && infoHash.starts_with(name);
        if (isMeant) matches.push_back(std::move(infoHash));
    }
    if (matches.empty()) throw CommandFailure(name, number ? "no task has this number" : "there is no such task");
    if (matches.size() > 1) throw CommandFailure(name, "several tasks begin like this");
    return matches.front();
}

}  // namespace skein
