#pragma once

#include "tests/support/RelayPairing.h"
#include "tests/support/ScriptedHTTPServer.h"
#include "tests/support/ServiceLedger.h"

#include <boost/describe/enum.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace skein {

/// How the test service fails.
enum class ServiceFault : std::uint8_t {
    none,
    serverError,      ///< answers 500
    silent,           ///< never answers, and does nothing
    hangUp,           ///< closes the connection, and does nothing
    loseAnswer,       ///< does what is asked, and closes the connection in place of the answer
    duplicateAnswer,  ///< sends the answer twice
    garbage,          ///< answers 200 with what is no JSON
    html,             ///< answers 200 with a page
    oversize,         ///< answers 200 with 9 MiB
};
BOOST_DESCRIBE_ENUM(ServiceFault, none, serverError, silent, hangUp, loseAnswer, duplicateAnswer, garbage, html,
                    oversize)

/// A resource service on loopback that really keeps accounts: "/api/resource" and "/api/wallet", relays at
/// "/api/relay/ws", the ledger at "/ledger", and faults set by a POST of {"fault", "path", "times"} to "/faults".
///
/// Owner: the test or program, which awaits `stop()`. Thread: all runs on a strand over the given executor, which has
/// one thread.
class SkeinTestService {
public:
    struct Options {
        std::string address = "127.0.0.1";
        std::uint16_t port = 0;                                              ///< 0: the system's choice
        std::map<std::string, std::string> users{{"alice", "open sesame"}};  ///< and their credentials
        double startCredit = 10;                                             ///< in each wallet
    };

    explicit SkeinTestService(const asio::any_io_executor& pool) : SkeinTestService(pool, Options()) {}
    SkeinTestService(const asio::any_io_executor& pool, Options options);
    asio::awaitable<void> stop() { return http_.stop(); }

    std::string url() const { return http_.url(""); }
    const std::vector<SeenHTTPRequest>& requests() const { return http_.requests(); }
    ServiceLedger& ledger() { return ledger_; }
    /// Who sent the request; nothing when the credentials are wrong.
    std::optional<ServiceLedger::Caller> callerOf(const SeenHTTPRequest& request) const;

    /// Fails the next `times` requests (-1: all from now on) whose path starts with `path`.
    void fail(ServiceFault fault, std::string path = "/", int times = -1);
    /// Answers every request so, in place of the service; nothing: the service answers again.
    void answerWith(std::optional<HTTPReply> reply) { fixedReply_ = std::move(reply); }
    RelayPairing& relays() { return relays_; }

private:
    using Query = ServiceLedger::Query;

    asio::awaitable<void> serveRelay(ServerWebSocket& side);
    HTTPReply answer(const SeenHTTPRequest& request);
    HTTPReply answerTruly(const SeenHTTPRequest& request);
    HTTPReply setFault(const SeenHTTPRequest& request);
    boost::json::object serve(const ServiceLedger::Caller& caller, const std::string& endpoint, const Query& query,
                              const SeenHTTPRequest& request);
    ServiceFault faultFor(std::string_view target);

    const Options options_;
    ServiceLedger ledger_;
    ServiceFault fault_ = ServiceFault::none;
    std::string faultPath_;
    int faultTimes_ = 0;
    std::optional<HTTPReply> fixedReply_;
    RelayPairing relays_;
    ScriptedHTTPServer http_;
};

}  // namespace skein
