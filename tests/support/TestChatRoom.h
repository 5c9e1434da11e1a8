#pragma once

#include "public/common/Clock.h"
#include "tests/support/ScriptedWebSocketServer.h"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace skein {

/// A chat server on loopback that really carries messages: logins, chats kept for who is away, histories, friends,
/// groups (of which "grp_magnet" is there from the start), and switches for its bad days.
///
/// Owner: the test or program, which awaits `stop()`. Thread: the one of the given executor.
class TestChatRoom {
public:
    struct Options {
        std::uint16_t port = 0;  ///< 0: the system's choice
        std::map<std::string, std::string> users{{"alice", "open sesame"}, {"bob", "swordfish"}};  ///< and passwords
        bool repeatsSeq = true;                                                                    ///< in its answers
        bool pushesWaiting = false;  ///< to who comes back, beside counting it
    };

    TestChatRoom(const asio::any_io_executor& pool, Clock& clock) : TestChatRoom(pool, clock, Options()) {}
    TestChatRoom(const asio::any_io_executor& pool, Clock& clock, Options options);

    /// Ends all connections without a goodbye. What was said is kept.
    asio::awaitable<void> stop();
    /// After `stop`: listens again on the same port.
    void start();

    std::uint16_t port() const noexcept { return port_; }
    std::string url() const { return "ws://127.0.0.1:" + std::to_string(port_) + "/ws"; }
    /// What clients sent, in its order.
    const std::vector<std::string>& frames() const noexcept { return frames_; }
    /// How many frames with that "cmd" came.
    std::size_t count(std::string_view cmd) const;
    int acceptedConnections() const noexcept { return accepted_; }
    bool isOnline(const std::string& user) const;

    // Switches.
    void refuseLogins(bool isOn) { refusesLogins_ = isOn; }
    /// Reads and neither does nor answers anything.
    void goSilent(bool isOn) { isSilent_ = isOn; }
    void cutAll();
    /// Out of a group, without a word.
    void putOut(const std::string& user, const std::string& group) { groups_[group].erase(user); }
    /// Reads requests with that "cmd" and answers them never.
    void ignore(const std::string& cmd) { ignored_.insert(cmd); }
    /// Sends a frame of the test's making to everybody.
    void tellAll(const std::string& frame);

private:
    using Frame = boost::json::object;
    struct Guest {
        ServerWebSocket& socket;
        std::string user;
    };

    asio::awaitable<void> serve(ServerWebSocket& socket);
    /// What is answered, if anything is.
    Frame answerTo(Guest& guest, const Frame& frame);
    Frame logIn(Guest& guest, const Frame& frame);
    void chat(const Guest& guest, const Frame& frame);
    bool tellGroup(const Guest& guest, const Frame& frame);
    bool tell(const std::string& user, const Frame& frame);
    boost::json::array historyOf(const std::string& key, const Frame& frame) const;
    std::int64_t nextTime();

    Clock& clock_;
    const Options options_;
    const asio::any_io_executor pool_;
    std::uint16_t port_ = 0;
    int accepted_ = 0;
    std::int64_t lastTime_ = 0;
    bool refusesLogins_ = false;
    bool isSilent_ = false;
    std::set<std::string> ignored_;
    std::vector<std::string> frames_;
    std::map<std::string, std::vector<Frame>> said_;  ///< by pair of users, or group
    std::map<std::string, std::vector<Frame>> waiting_;
    std::map<std::string, std::set<std::string>> friends_;
    std::map<std::string, std::set<std::string>> groups_{{"grp_magnet", {}}};
    std::list<Guest> guests_;
    std::optional<ScriptedWebSocketServer> server_;
};

}  // namespace skein
