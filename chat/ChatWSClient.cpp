#include "chat/ChatWSClient.h"

#include "chat/ChatFrame.h"
#include "chat/ChatReplyReceived.h"
#include "chat/ChatRequests.h"
#include "chat/ChatStatusChanged.h"
#include "public/common/PlainJSON.h"

#include <algorithm>
#include <utility>

namespace skein {

namespace json = boost::json;

ChatWSClient::ChatWSClient(const asio::any_io_executor& pool, Parts parts)
    : ChatWSClient(asio::make_strand(pool), std::move(parts)) {}

ChatWSClient::ChatWSClient(const Strand& strand, Parts parts)
    : parts_(std::move(parts)),
      statusChanges_(strand),
      inbox_(parts_.clock, parts_.talk, parts_.center, parts_.log),
      answers_(strand),
      link_(strand, parts_.clock, parts_.way, parts_.log, *this),
      tasks_(strand) {}

asio::awaitable<void> ChatWSClient::stop() { return tasks_.finish(shutDown()); }

asio::awaitable<void> ChatWSClient::shutDown() {
    co_await link_.stop();  // first, as it calls us
    co_await tasks_.stop();
}

asio::awaitable<void> ChatWSClient::doConnect(std::string wsUrl) {
    isNobodyThere_ = false;
    setStatus(ClientStatus::connecting);
    link_.connect(std::move(wsUrl));
    co_return;
}

asio::awaitable<void> ChatWSClient::doDisconnect(std::chrono::seconds delay) {
    link_.disconnect(delay);
    co_return;
}

asio::awaitable<void> ChatWSClient::doCancelDisconnect() {
    link_.cancelDisconnect();
    co_return;
}

asio::awaitable<void> ChatWSClient::doCheckConnect() {
    isNobodyThere_ = false;
    if (status_ == ClientStatus::refused) {
        setStatus(ClientStatus::connected);
        tasks_.spawn(loginAgain(session_));
    }
    link_.checkConnect();
    co_return;
}

asio::awaitable<bool> ChatWSClient::doWaitForLogin(Clock::Duration limit) {
    const Clock::TimePoint until = parts_.clock.now() + limit;
    for (;;) {
        const std::uint64_t seen = statusChanges_.seen();
        if (status_ == ClientStatus::loggedIn) co_return true;
        if (status_ == ClientStatus::refused || isNobodyThere_ || parts_.clock.now() >= until) co_return false;
        co_await statusChanges_.since(seen, parts_.clock, until - parts_.clock.now());
    }
}

asio::awaitable<ChatState> ChatWSClient::doState() {
    ChatState state;
    state.active = status_ == ClientStatus::loggedIn;
    state.status = status_;
    state.account = signedIn_;
    state.user = me_;
    state.newChatCount = newChatCount_;
    state.cacheList = cacheList_;
    state.latestImage = inbox_.latestImage();
    co_return state;
}

asio::awaitable<std::optional<json::object>> ChatWSClient::firstRequest() {
    const ChatAccount account = co_await parts_.identity.account();
    if (account.user.empty()) {
        isNobodyThere_ = true;
        setStatus(status_, "status:fail");
        co_return std::nullopt;
    }
    if (std::exchange(signedIn_, account.user) != account.user) {  // nothing of another account is shown
        cacheList_.clear();
        newChatCount_ = 0;
        hasBeenLoggedIn_ = false;
        inbox_.forgetImage();
        me_ = account.user;
    }
    co_return chatRequests::login(account, parts_.terminal);
}

asio::awaitable<bool> ChatWSClient::doLogin() {
    std::optional<json::object> login = co_await firstRequest();
    if (!login) {
        link_.disconnect(std::chrono::seconds(0));
        co_return false;
    }
    co_return co_await link_.send(*std::move(login), link_.nextSeq());
}

asio::awaitable<void> ChatWSClient::loginAgain(std::uint64_t session) {
    if (session_ != session) co_return;
    try {
        co_await doLogin();
    } catch (const std::exception& error) {
        parts_.log.warning("[Chat] login not sent: ", error.what());
    }
}

/// Only one of these runs, however often the server refuses us.
asio::awaitable<void> ChatWSClient::loginLater() {
    while (parts_.clock.now() < nextLogin_) co_await parts_.clock.sleep(nextLogin_ - parts_.clock.now());
    isLoginPlanned_ = false;
    if (status_ == ClientStatus::refused) co_await loginAgain(session_);
}

void ChatWSClient::linkChanged(ClientStatus status) {
    if (status == ClientStatus::connected) ++session_;
    if (status == ClientStatus::disconnected) {
        joinedGroups_.clear();
        answers_.giveUp();
    }
    setStatus(status);
}

void ChatWSClient::setStatus(ClientStatus status, std::string text, std::int64_t newChatCount) {
    if (status == status_ && text.empty()) return;
    status_ = status;
    statusChanges_.note();
    const ChatStatusChanged change{status, std::move(text), newChatCount};
    parts_.center.publish(change);
}

asio::awaitable<void> ChatWSClient::frameCame(json::object frame) {
    const std::string cmd = chatFrame::textOf(frame, "cmd");
    if (cmd == "loginResp") {
        co_await handleLoginResp(std::move(frame));
    } else if (cmd == "newChat") {
        co_await inbox_.takeChat(std::move(frame), me_);
    } else if (cmd == "groupMsg") {
        co_await inbox_.takeGroupMessage(std::move(frame), me_);
    } else if (cmd == "chatHistory") {
        co_await inbox_.takeHistory(frame, me_);
        passOn(frame);
    } else if (cmd == "groupHistory") {
        co_await inbox_.takeGroupHistory(frame, me_);
        passOn(frame);
    } else if (cmd == "friendList" || cmd == "groupList") {
        cacheList_ = plainJSON(frame);
        passOn(frame);
    } else if (cmd == "addFriendResp" || cmd == "joinGroupResp" || cmd == "sendGroupMsgResp") {
        passOn(frame);
    }
}

void ChatWSClient::passOn(const json::object& frame) {
    const ChatReplyReceived reply{chatFrame::textOf(frame, "cmd"), plainJSON(frame)};
    parts_.center.publish(reply);
    answers_.offer(frame);
}

asio::awaitable<void> ChatWSClient::handleLoginResp(json::object reply) {
    if (!chatFrame::isSuccess(reply)) {
        if (status_ == ClientStatus::refused && isLoginPlanned_) co_return;  // nothing new, and not asked for
        parts_.log.warning("WebSocket 登录失败");
        setStatus(ClientStatus::refused, "status:fail");
        nextLogin_ = parts_.clock.now() + loginRetryPeriod;
        if (!std::exchange(isLoginPlanned_, true)) tasks_.spawn(loginLater());
        co_return;
    }
    if (std::string id = chatFrame::textOf(reply, "userId"); !id.empty()) me_ = std::move(id);
    co_await storeSession(chatFrame::textOf(reply, "sessionId"));
    parts_.log.info("WebSocket 登录成功");
    newChatCount_ = std::max<std::int64_t>(chatFrame::numberOf(reply, "newChatCount").value_or(0), 0);
    link_.resetDelay();
    const bool isFirst = status_ != ClientStatus::loggedIn;
    setStatus(ClientStatus::loggedIn, "status:success", newChatCount_);
    if (isFirst && (newChatCount_ > 0 || hasBeenLoggedIn_)) tasks_.spawn(catchUp(session_, newChatCount_ > 0));
    hasBeenLoggedIn_ = true;
}

asio::awaitable<void> ChatWSClient::storeSession(std::string sessionId) {
    auto work = [id = me_, sessionId = std::move(sessionId)](SettingsStore& store) {
        store.set(myIdKey, id);
        store.set(sessionIdKey, sessionId);
    };
    try {
        co_await parts_.settings.with(std::move(work));
    } catch (const DatabaseException& error) {
        parts_.log.error("[Chat] the session could not be stored: ", error.what());
    }
}

/// What was sent to us while we were away comes with the histories; their frames are handled like any others.
asio::awaitable<void> ChatWSClient::catchUp(std::uint64_t session, bool hasNewChats) {
    std::vector<TalkPartner> partners;
    try {
        std::vector<TalkConversation> known = co_await parts_.talk.conversations(me_);
        for (TalkConversation& one : known) partners.push_back(std::move(one.partner));
    } catch (const DatabaseException& error) {
        parts_.log.warning("[Chat] the store cannot be read: ", error.what());
    }
    const auto add = [&partners](const Answer& list, bool isGroup) {
        std::vector<std::string> ids;
        if (list) ids = chatFrame::idsOf(*list);
        for (std::string& id : ids) {
            const bool isKnown = std::any_of(partners.begin(), partners.end(), [&](const TalkPartner& partner) {
                return partner.isGroup == isGroup && partner.id == id;
            });
            if (!isKnown) partners.push_back({std::move(id), isGroup});
        }
    };
    const Answer groups = co_await getGroupList();
    add(groups, true);
    Answer friends;
    if (hasNewChats) friends = co_await getFriendList();
    add(friends, false);
    if (partners.size() > catchUpPartners) partners.resize(catchUpPartners);
    // The server's clock may be ahead of ours.
    const Clock::WallTime end = parts_.clock.wallNow() + std::chrono::hours(24);
    for (TalkPartner& partner : partners) {
        if (session_ != session || status_ != ClientStatus::loggedIn) co_return;
        if (partner.isGroup) {
            co_await getGroupHistory(std::move(partner.id), end, historyPage);
        } else {
            co_await getChatHistory(std::move(partner.id), Clock::WallTime(), end);
        }
    }
}

}  // namespace skein
