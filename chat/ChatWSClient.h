#pragma once

#include "chat/AccelerateMessage.h"
#include "chat/ChatAnswers.h"
#include "chat/ChatIdentity.h"
#include "chat/ChatInbox.h"
#include "chat/ChatLink.h"
#include "chat/ChatState.h"
#include "chat/ChatTerminal.h"
#include "public/common/ActorSettings.h"

#include <set>
#include <string>
#include <vector>

namespace skein {

/// The client's end of the chat: signs in, sends and receives messages, and stays connected.
///
/// A login has succeeded when its answer's "code" is 0 or 200 (number or text). The reconnect delay is back at 2 s
/// then. After a refused login the connection stays, and the login is sent again after `loginRetryPeriod` or by
/// `checkConnect`. A login after a lost connection, or with unread chats at the server, is followed by a look at the
/// histories of those we talk with, so that nothing sent meanwhile is lost; what is stored already is not told twice.
///
/// Publishes ChatStatusChanged, ChatMessageReceived, ChatReplyReceived. Messages go into TalkData, ours included.
/// Requests while not signed in are not kept for later: they return false or nothing at once. Answers are matched as
/// ChatAnswers says and waited for at most `answerLimit`; nothing is returned then, or when the connection breaks.
/// Sends that need their order await one another. Times on the wire are milliseconds since 1970.
/// Owner: the program, which awaits `stop()`. Thread: any; the state lives on the strand of `tasks_`. What `Parts`
/// refers to outlives the client.
class ChatWSClient final : private ChatLink::Owner {
public:
    using Answer = std::optional<boost::json::object>;
    using History = std::optional<std::vector<ChatMessage>>;

    // The keys of the settings, of the group "RemoteService".
    static constexpr const char* myIdKey = "RemoteService.myId";
    static constexpr const char* sessionIdKey = "RemoteService.sessionId";  ///< a secret: never logged

    static constexpr std::chrono::seconds answerLimit{15};
    static constexpr std::chrono::seconds loginRetryPeriod{300};
    /// How long an acceleration request waits for the login.
    static constexpr std::chrono::seconds accelerateLimit{60};
    /// Messages asked for at once: a time span says nothing of their number.
    static constexpr std::int64_t historyPage = 100;
    /// Partners whose history is looked at after a login.
    static constexpr std::size_t catchUpPartners = 100;

    struct Parts {
        Clock& clock;
        WayOut way;
        ChatIdentity& identity;
        ActorSettings settings;
        TalkData& talk;
        MsgCenter& center;
        FileLogger& log;
        ChatTerminal terminal;
    };

    ChatWSClient(const asio::any_io_executor& pool, Parts parts);
    /// On the strand of the interface: the observable state changes there.
    ChatWSClient(const Strand& strand, Parts parts);

    /// The chat socket listens on the second port: "8010" becomes "8020".
    static std::string urlOf(const std::string& ip, const std::string& port);
    /// To `urlOf` both. Returns once it is on its way.
    asio::awaitable<void> connect(std::string ip, std::string port);
    /// In place of what is open now; an order to close later is void.
    asio::awaitable<void> connect(std::string wsUrl);
    /// Closes after `delay` (by default at once). Nothing reconnects after it.
    asio::awaitable<void> disconnect(std::chrono::seconds delay = std::chrono::seconds(0));
    asio::awaitable<void> cancelDisconnect();
    /// Reconnects at once when not connected; signs in again when that was refused. For after a sign-in, or a sleep.
    asio::awaitable<void> checkConnect();
    /// True once signed in; false when that is refused, nobody is there to sign in, or after `limit`.
    asio::awaitable<bool> waitForLogin(Clock::Duration limit);
    asio::awaitable<ChatState> state();

    /// Sends `message` with "seq" added as its last key. False when not connected.
    asio::awaitable<bool> sendJSON(boost::json::object message);
    asio::awaitable<bool> clientLogin();
    /// True when the message is with the system; the protocol confirms no chat.
    asio::awaitable<bool> sendChat(std::string type, std::string destVip, std::string text);
    /// The newest `historyPage` messages before `endTime`, without those before `startTime`.
    asio::awaitable<History> getChatHistory(std::string destVip, Clock::WallTime startTime, Clock::WallTime endTime);
    /// Tells the server; the store is marked by whoever shows the messages.
    asio::awaitable<bool> readChat(std::string destVip, Clock::WallTime readTime);
    asio::awaitable<Answer> getFriendList();
    asio::awaitable<Answer> addFriend(std::string newFriend);
    asio::awaitable<bool> deleteFriend(std::string friendId);
    asio::awaitable<Answer> sendGroupMsg(std::string groupId, std::int64_t level, std::string text);
    /// The same, but joins the group first where this connection has not, and once more when the server refuses the
    /// message of one who has. The answer to the message.
    asio::awaitable<Answer> tellGroup(std::string groupId, std::int64_t level, std::string text);
    asio::awaitable<Answer> joinGroup(std::string groupId);
    asio::awaitable<Answer> getGroupList();
    asio::awaitable<History> getGroupHistory(std::string groupId, Clock::WallTime before, std::int64_t limit);
    asio::awaitable<bool> sendLogout();
    /// Waits for the login, joins the group when needed, and sends the message: once a call, whatever becomes of the
    /// connection then. False when it did not go out.
    asio::awaitable<bool> sendAccelerateMessage(AccelerateMessage message);

    /// Returns when nothing of the client runs any more; what waits ends with operation_aborted.
    asio::awaitable<void> stop();

private:
    asio::awaitable<std::optional<boost::json::object>> firstRequest() override;
    asio::awaitable<void> frameCame(boost::json::object frame) override;
    void linkChanged(ClientStatus status) override;

    asio::awaitable<void> shutDown();
    asio::awaitable<void> handleLoginResp(boost::json::object reply);
    asio::awaitable<void> storeSession(std::string sessionId);
    void passOn(const boost::json::object& frame);
    void setStatus(ClientStatus status, std::string text = {}, std::int64_t newChatCount = 0);
    asio::awaitable<void> loginAgain(std::uint64_t session);
    asio::awaitable<void> loginLater();
    asio::awaitable<void> catchUp(std::uint64_t session, bool hasNewChats);

    asio::awaitable<void> doConnect(std::string wsUrl);
    asio::awaitable<void> doDisconnect(std::chrono::seconds delay);
    asio::awaitable<void> doCancelDisconnect();
    asio::awaitable<void> doCheckConnect();
    asio::awaitable<bool> doWaitForLogin(Clock::Duration limit);
    asio::awaitable<ChatState> doState();
    asio::awaitable<bool> doSend(boost::json::object message);
    asio::awaitable<bool> doLogin();
    asio::awaitable<bool> request(boost::json::object message);
    asio::awaitable<Answer> ask(boost::json::object message, ChatAnswers::Awaited awaited);
    asio::awaitable<bool> doSendChat(std::string type, std::string destVip, std::string text);
    asio::awaitable<History> doGetChatHistory(std::string destVip, std::int64_t start, std::int64_t end);
    asio::awaitable<Answer> doSendGroupMsg(std::string groupId, std::int64_t level, std::string text);
    asio::awaitable<Answer> doTellGroup(std::string groupId, std::int64_t level, std::string text);
    asio::awaitable<Answer> doJoinGroup(std::string groupId);
    asio::awaitable<History> doGetGroupHistory(std::string groupId, std::int64_t before, std::int64_t limit);
    asio::awaitable<bool> doSendAccelerateMessage(AccelerateMessage message);
    asio::awaitable<TalkRecord> storeOwn(std::string to, std::string text, bool isGroup);
    asio::awaitable<void> takeBack(std::int64_t id);

    Parts parts_;
    ClientStatus status_ = ClientStatus::disconnected;
    std::string signedIn_;  ///< the user of the last login
    std::string me_;        ///< the server's name for that user
    std::int64_t newChatCount_ = 0;
    std::string cacheList_;
    std::set<std::string> joinedGroups_;  ///< of this connection's server, which lets us in
    std::uint64_t session_ = 0;           ///< grows with each connection
    bool hasBeenLoggedIn_ = false;
    bool isNobodyThere_ = false;    ///< to sign in
    bool isLoginPlanned_ = false;   ///< for nextLogin_
    Clock::TimePoint nextLogin_{};  ///< after a refusal
    std::int64_t lastOwnTime_ = 0;
    ChangeCount statusChanges_;
    ChatInbox inbox_;
    ChatAnswers answers_;
    ChatLink link_;
    TaskGroup tasks_;
};

}  // namespace skein
