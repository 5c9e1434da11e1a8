#include "tests/support/SkeinTestService.h"

#include <boost/describe/enum_from_string.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/url/parse.hpp>

#include <stdexcept>
#include <utility>

namespace skein {

namespace {

namespace json = boost::json;

HTTPReply asJSON(const json::object& fields, int status = 200) {
    HTTPReply reply = HTTPReply::text(json::serialize(fields), status);
    reply.headers = {{"Content-Type", "application/json"}};
    return reply;
}

/// In place of an answer: nothing at all.
HTTPReply nothing(bool closes) { return {.raw = Bytes(), .closes = closes}; }

HTTPReply twice(const HTTPReply& reply) {
    const std::string once = "HTTP/1.1 " + std::to_string(reply.status) +
                             " Twice\r\nContent-Length: " + std::to_string(reply.body.size()) + "\r\n\r\n" +
                             std::string(asText(reply.body));
    return {.raw = toBytes(once + once)};
}

json::object bodyOf(const SeenHTTPRequest& request) { return json::parse(asText(request.body)).as_object(); }

}  // namespace

SkeinTestService::SkeinTestService(const asio::any_io_executor& pool, Options options)
    : options_(std::move(options)),
      http_(
          pool, [this](const SeenHTTPRequest& request) { return answer(request); }, options_.address, options_.port) {
    for (const auto& [user, credential] : options_.users) ledger_.wallets[user] = options_.startCredit;
    http_.onUpgrade([this](ServerWebSocket& side) { return serveRelay(side); });
}

asio::awaitable<void> SkeinTestService::serveRelay(ServerWebSocket& side) {
    if (!side.target().starts_with("/api/relay/ws?")) return side.refuse(404);
    return callerOf(side.upgrade()) ? relays_.serve(side) : side.refuse(401);
}

std::optional<ServiceLedger::Caller> SkeinTestService::callerOf(const SeenHTTPRequest& request) const {
    const auto user = options_.users.find(request.header("X-User-Id"));
    const std::string device = request.header("X-Device-Id");
    if (user == options_.users.end() || request.header("X-User-Token") != user->second || device.empty())
        return std::nullopt;
    return ServiceLedger::Caller{user->first, device, request.remote ? request.remote->text() : ""};
}

void SkeinTestService::fail(ServiceFault fault, std::string path, int times) {
    fault_ = fault;
    faultPath_ = std::move(path);
    faultTimes_ = times;
}

ServiceFault SkeinTestService::faultFor(std::string_view target) {
    if (faultTimes_ == 0 || !target.starts_with(faultPath_)) return ServiceFault::none;
    if (faultTimes_ > 0) --faultTimes_;
    return fault_;
}

HTTPReply SkeinTestService::answer(const SeenHTTPRequest& request) {
    if (request.target == "/ledger") return asJSON(ledger_.describe());
    if (request.target == "/faults" && request.method == "POST") return setFault(request);
    if (fixedReply_) return *fixedReply_;
    switch (faultFor(request.target)) {
        case ServiceFault::none: break;
        case ServiceFault::serverError: return asJSON({{"error", "out of order"}}, 500);
        case ServiceFault::silent: return nothing(false);
        case ServiceFault::hangUp: return nothing(true);
        case ServiceFault::loseAnswer: answerTruly(request); return nothing(true);
        case ServiceFault::duplicateAnswer: return twice(answerTruly(request));
        case ServiceFault::garbage: return HTTPReply::text("\x01{\xFF\"ok\": tru");
        case ServiceFault::html: return HTTPReply::text("<!DOCTYPE html><title>Sign in</title>\n<p>Welcome");
        case ServiceFault::oversize: return {.body = Bytes(std::size_t{1} << 20U, ' '), .repeats = 9};
    }
    return answerTruly(request);
}

HTTPReply SkeinTestService::answerTruly(const SeenHTTPRequest& request) try {
    const auto caller = callerOf(request);
    if (!caller) return asJSON({{"error", "unknown user or wrong credential"}}, 401);
    const auto target = boost::urls::parse_origin_form(request.target).value();
    Query query;
    for (const auto& parameter : target.params()) query[parameter.key] = parameter.value;
    return asJSON(serve(*caller, request.method + " " + target.path(), query, request));
} catch (const std::exception& error) {
    return asJSON({{"error", error.what()}}, 400);
}

json::object SkeinTestService::serve(const ServiceLedger::Caller& caller, const std::string& endpoint,
                                     const Query& query, const SeenHTTPRequest& request) {
    if (endpoint == "GET /api/resource/balance") return ledger_.balance(caller.user);
    if (endpoint == "GET /api/resource/peers") return ledger_.peers(caller, query.at("info_hash"), query.at("mode"));
    if (endpoint == "GET /api/wallet/transactions") return ledger_.transactions(caller.user, query);
    if (endpoint == "GET /api/wallet/pending") return ledger_.pending(caller.user, query);
    if (endpoint == "POST /api/wallet/settle") return ledger_.settle(caller.user);
    if (endpoint == "POST /api/resource/release") return ledger_.release(caller, "");
    const json::object body = bodyOf(request);
    if (endpoint == "POST /api/resource/register") return ledger_.registerResource(caller, body);
    if (endpoint == "POST /api/resource/heartbeat/batch") {
        for (const auto& [route, bytes] : relays_.carried())
            ledger_.account(route.toUser, route.infoHash).carriedByRelay = bytes;
        return ledger_.countBatch(caller, body);
    }
    if (endpoint == "POST /api/wallet/transfer") return ledger_.transfer(caller.user, body);
    const std::string infoHash(body.at("info_hash").as_string());
    if (endpoint == "POST /api/resource/complete") return ledger_.complete(caller, infoHash);
    if (endpoint == "POST /api/resource/unregister" || endpoint == "POST /api/resource/delete")
        return ledger_.release(caller, infoHash);
    throw std::invalid_argument("no such endpoint: " + endpoint);
}

HTTPReply SkeinTestService::setFault(const SeenHTTPRequest& request) try {
    json::object wanted{{"path", "/"}, {"times", -1}};
    for (const auto& field : bodyOf(request)) wanted[field.key()] = field.value();
    ServiceFault fault{};
    if (!boost::describe::enum_from_string(wanted.at("fault").as_string().c_str(), fault))
        throw std::invalid_argument("no such fault");
    fail(fault, std::string(wanted.at("path").as_string()), wanted.at("times").to_number<int>());
    return asJSON({{"ok", true}});
} catch (const std::exception& error) {
    return asJSON({{"error", error.what()}}, 400);
}

}  // namespace skein
