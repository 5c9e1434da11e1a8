#include "tests/support/TestChatRoom.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <algorithm>
#include <utility>

namespace skein {

namespace json = boost::json;

namespace {

std::string field(const json::object& frame, std::string_view key) {
    const auto* const value = frame.if_contains(key);
    return value != nullptr && value->is_string() ? std::string(value->get_string()) : "";
}

std::string pairOf(const std::string& one, const std::string& other) {
    return std::min(one, other) + "\n" + std::max(one, other);
}

}  // namespace

TestChatRoom::TestChatRoom(const asio::any_io_executor& pool, Clock& clock, Options options)
    : clock_(clock), options_(std::move(options)), pool_(pool), port_(options_.port) {
    start();
}

void TestChatRoom::start() {
    if (server_) return;
    const auto script = [this](ServerWebSocket& socket) { return serve(socket); };
    server_.emplace(pool_, script, port_);
    port_ = server_->port();
}

asio::awaitable<void> TestChatRoom::stop() {
    if (!server_) co_return;
    cutAll();
    co_await server_->stop();
    server_.reset();
}

void TestChatRoom::cutAll() { server_->cutAll(); }

void TestChatRoom::tellAll(const std::string& frame) {
    for (Guest& guest : guests_) guest.socket.post(WebSocketMessage::text(frame));
}

std::size_t TestChatRoom::count(std::string_view cmd) const {
    const std::string start = R"({"cmd":")" + std::string(cmd) + '"';
    return static_cast<std::size_t>(std::count_if(frames_.begin(), frames_.end(),
                                                  [&](const std::string& frame) { return frame.starts_with(start); }));
}

bool TestChatRoom::isOnline(const std::string& user) const {
    return std::any_of(guests_.begin(), guests_.end(), [&](const Guest& guest) { return guest.user == user; });
}

asio::awaitable<void> TestChatRoom::serve(ServerWebSocket& socket) {
    ++accepted_;
    co_await socket.accept();
    const auto guest = guests_.insert(guests_.end(), {socket, ""});
    try {
        for (;;) {
            const WebSocketMessage message = co_await socket.receive();
            frames_.emplace_back(message.view());
            if (isSilent_) continue;
            const Frame frame = json::parse(message.view()).as_object();
            if (ignored_.contains(field(frame, "cmd"))) continue;
            Frame answer = answerTo(*guest, frame);
            if (answer.empty()) continue;
            if (options_.repeatsSeq && frame.contains("seq")) answer["seq"] = frame.at("seq");
            socket.post(WebSocketMessage::text(json::serialize(answer)));
        }
    } catch (const std::exception&) {
        // The client has left, the server is cut off, or a request makes no sense.
    }
    guests_.erase(guest);
}

json::object TestChatRoom::answerTo(Guest& guest, const Frame& frame) {
    const std::string cmd = field(frame, "cmd");
    const std::string to = field(frame, "to");
    const std::string friendId = field(frame, "friendId");
    const std::string groupId = field(frame, "groupId");
    const auto group = groups_.find(groupId);
    if (cmd == "login") return logIn(guest, frame);
    if (cmd == "ping") return {{"cmd", "pong"}};
    if (guest.user.empty()) return {};
    if (cmd == "sendChat") chat(guest, frame);
    if (cmd == "getChatHistory")
        return {{"cmd", "chatHistory"}, {"to", to}, {"list", historyOf(pairOf(guest.user, to), frame)}};
    if (cmd == "readChat")
        std::erase_if(waiting_[guest.user], [&](const Frame& chat) { return field(chat, "from") == to; });
    if (cmd == "getFriendList") {
        json::array list;
        for (const std::string& id : friends_[guest.user]) list.push_back(Frame{{"friendId", id}});
        return {{"cmd", "friendList"}, {"list", std::move(list)}};
    }
    if (cmd == "addFriend") {
        const bool isKnown = options_.users.contains(friendId);
        if (isKnown) friends_[guest.user].insert(friendId);
        return {{"cmd", "addFriendResp"}, {"code", isKnown ? 0 : 404}, {"friendId", friendId}};
    }
    if (cmd == "deleteFriend") friends_[guest.user].erase(friendId);
    if (cmd == "joinGroup") {
        if (group != groups_.end()) group->second.insert(guest.user);
        return {{"cmd", "joinGroupResp"}, {"code", group != groups_.end() ? 0 : 404}};
    }
    if (cmd == "sendGroupMsg") return {{"cmd", "sendGroupMsgResp"}, {"code", tellGroup(guest, frame) ? 0 : 403}};
    if (cmd == "getGroupList") {
        json::array list;
        for (const auto& [id, members] : groups_)
            if (members.contains(guest.user)) list.push_back(Frame{{"groupId", id}});
        return {{"cmd", "groupList"}, {"list", std::move(list)}};
    }
    if (cmd == "getGroupHistory")
        return {{"cmd", "groupHistory"}, {"groupId", groupId}, {"list", historyOf(groupId, frame)}};
    if (cmd == "logout") guest.socket.cut();
    return {};
}

json::object TestChatRoom::logIn(Guest& guest, const Frame& frame) {
    const auto user = options_.users.find(field(frame, "user"));
    if (refusesLogins_ || user == options_.users.end() || user->second != field(frame, "pass"))
        return {{"cmd", "loginResp"}, {"code", 401}};
    guest.user = user->first;
    std::set<std::string> senders;
    for (const Frame& chat : waiting_[guest.user]) {
        senders.insert(field(chat, "from"));
        friends_[guest.user].insert(field(chat, "from"));  // so that whoever wrote can be found
        if (options_.pushesWaiting) guest.socket.post(WebSocketMessage::text(json::serialize(chat)));
    }
    return {{"cmd", "loginResp"},
            {"code", 0},
            {"userId", guest.user},
            {"sessionId", "session-" + std::to_string(accepted_)},
            {"newChatCount", senders.size()}};
}

void TestChatRoom::chat(const Guest& guest, const json::object& frame) {
    const std::string to = field(frame, "to");
    const json::object chat{{"cmd", "newChat"},    {"from", guest.user}, {"msg", field(frame, "msg")},
                            {"ts", nextTime()},    {"to", to},           {"bundId", field(frame, "bundId")},
                            {"appType", "desktop"}};
    said_[pairOf(guest.user, to)].push_back(chat);
    if (!tell(to, chat)) waiting_[to].push_back(chat);
}

/// False when the guest is not in the group.
bool TestChatRoom::tellGroup(const Guest& guest, const Frame& frame) {
    const std::string id = field(frame, "groupId");
    const auto group = groups_.find(id);
    if (group == groups_.end() || !group->second.contains(guest.user)) return false;
    const Frame message{
        {"cmd", "groupMsg"}, {"from", guest.user}, {"msg", field(frame, "msg")}, {"ts", nextTime()}, {"groupId", id}};
    said_[id].push_back(message);
    for (const std::string& member : group->second)
        if (member != guest.user) tell(member, message);
    return true;
}

/// False when the user is away.
bool TestChatRoom::tell(const std::string& user, const Frame& frame) {
    for (Guest& guest : guests_)
        if (guest.user == user) guest.socket.post(WebSocketMessage::text(json::serialize(frame)));
    return isOnline(user);
}

/// The newest "limit" before "before", oldest first.
json::array TestChatRoom::historyOf(const std::string& key, const json::object& frame) const {
    json::array list;
    const auto all = said_.find(key);
    if (all == said_.end()) return list;
    for (const json::object& message : all->second)
        if (message.at("ts").as_int64() < frame.at("before").as_int64()) list.push_back(message);
    const auto limit = static_cast<std::size_t>(std::clamp<std::int64_t>(frame.at("limit").as_int64(), 0, 1000));
    if (list.size() > limit) list.erase(list.begin(), list.end() - static_cast<std::ptrdiff_t>(limit));
    return list;
}

/// Milliseconds since 1970; no two messages have the same.
std::int64_t TestChatRoom::nextTime() {
    const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(clock_.wallNow().time_since_epoch());
    lastTime_ = std::max<std::int64_t>(lastTime_ + 1, now.count());
    return lastTime_;
}

}  // namespace skein
