#include "chat/ChatLink.h"

#include "chat/ChatFrame.h"
#include "chat/ChatRequests.h"
#include "public/common/ErrorText.h"
#include "public/common/PlainJSON.h"

#include <algorithm>
#include <utility>

namespace skein {

ChatLink::ChatLink(const Strand& strand, Clock& clock, WayOut way, FileLogger& log, Owner& owner)
    : clock_(clock), way_(std::move(way)), log_(log), owner_(owner), changes_(strand), tasks_(strand) {}

void ChatLink::connect(std::string wsUrl) {
    if (tasks_.isStopping()) return;
    url_ = std::move(wsUrl);
    isWanted_ = true;
    isReplaced_ = isConversing_;
    isHurried_ = true;
    cancelDisconnect();
    if (!std::exchange(isRunning_, true)) tasks_.spawn(run());
    changes_.note();
}

void ChatLink::disconnect(std::chrono::seconds delay) {
    if (tasks_.isStopping()) return;
    const std::uint64_t order = ++disconnectOrder_;
    if (delay <= std::chrono::seconds::zero()) return disconnectNow();
    tasks_.spawn(disconnectLater(delay, order));
}

asio::awaitable<void> ChatLink::disconnectLater(std::chrono::seconds delay, std::uint64_t order) {
    co_await clock_.sleep(delay);
    if (order == disconnectOrder_) disconnectNow();
}

void ChatLink::disconnectNow() {
    isWanted_ = false;
    changes_.note();
}

void ChatLink::checkConnect() {
    if (url_.empty() || (isWanted_ && isConversing_)) return;
    isWanted_ = true;
    isHurried_ = true;
    cancelDisconnect();
    changes_.note();
}

asio::awaitable<void> ChatLink::run() {
    for (;;) {
        const std::uint64_t seen = changes_.seen();
        if (!isWanted_) {
            co_await changes_.since(seen);
            continue;
        }
        co_await keepOpen();
        if (isWanted_ && !isReplaced_) co_await waitBeforeRetry();
    }
}

/// One connection, from its opening to its end, however it ends.
asio::awaitable<void> ChatLink::keepOpen() {
    isReplaced_ = false;
    isHurried_ = false;
    failure_.clear();
    owner_.linkChanged(ClientStatus::connecting);
    WebSocketRequest request;
    request.url = url_;
    request.maxMessageBytes = maxFrameBytes;
    socket_ = std::make_shared<WebSocketClient>(tasks_.strand(), clock_, way_, std::move(request));
    isConversing_ = true;
    tasks_.spawn(converse(socket_));
    co_await hold();
    isOpen_ = false;
    co_await socket_->stop();
    while (isConversing_) co_await changes_.since(changes_.seen());
    socket_.reset();
    if (!failure_.empty()) log_.warning("[Chat] connection lost: ", failure_);
    owner_.linkChanged(ClientStatus::disconnected);
}

/// Beside `hold`: opens the socket and hands over what comes. Its end is told through `isConversing_`.
asio::awaitable<void> ChatLink::converse(std::shared_ptr<WebSocketClient> socket) {
    try {
        std::optional<boost::json::object> first = co_await owner_.firstRequest();
        if (first) {
            co_await socket->open();
            isOpen_ = true;
            lastHeard_ = clock_.now();
            changes_.note();
            owner_.linkChanged(ClientStatus::connected);
            co_await send(*std::move(first), nextSeq());
        } else {
            isWanted_ = false;
        }
        while (isOpen_) {
            const WebSocketMessage message = co_await socket->receive();
            lastHeard_ = clock_.now();
            if (!message.isText) continue;
            std::optional<boost::json::object> frame = chatFrame::read(message.view());
            if (frame) co_await owner_.frameCame(*std::move(frame));
        }
    } catch (const WebSocketException& error) {
        // The end of a connection that we end ourselves is no failure.
        if (isWanted_ && !isReplaced_ && failure_.empty()) failure_ = error.what();
        if (error.error == WebSocketError::invalidURL) isWanted_ = false;
    } catch (const std::exception& error) {
        if (isWanted_ && !isReplaced_ && failure_.empty()) failure_ = textOf(error);
    }
    isConversing_ = false;
    changes_.note();
}

/// Returns when the connection is over, or is to be.
asio::awaitable<void> ChatLink::hold() {
    std::optional<Clock::TimePoint> nextPing;
    for (;;) {
        const std::uint64_t seen = changes_.seen();
        if (!isConversing_ || !isWanted_ || isReplaced_) co_return;
        if (!isOpen_) {
            co_await changes_.since(seen);
            continue;
        }
        if (!nextPing) nextPing = clock_.now() + heartbeatPeriod;
        if (clock_.now() >= lastHeard_ + silenceLimit) {
            failure_ = "the server is silent";
            co_return;
        }
        if (clock_.now() >= *nextPing) {
            *nextPing += heartbeatPeriod;
            tasks_.spawn(ping());
        }
        co_await changes_.since(seen, clock_, std::min(*nextPing, lastHeard_ + silenceLimit) - clock_.now());
    }
}

asio::awaitable<void> ChatLink::ping() {
    boost::json::object request = chatRequests::ping();
    co_await send(std::move(request), nextSeq());
}

asio::awaitable<void> ChatLink::waitBeforeRetry() {
    const auto delay = std::chrono::duration_cast<Clock::Duration>(delay_.next());
    const Clock::TimePoint until = clock_.now() + delay;
    log_.info("[Chat] next attempt in ", std::chrono::duration_cast<std::chrono::milliseconds>(delay).count(), " ms");
    while (isWanted_ && !isHurried_ && clock_.now() < until)
        co_await changes_.since(changes_.seen(), clock_, until - clock_.now());
}

asio::awaitable<bool> ChatLink::send(boost::json::object request, std::int64_t seq) {
    const std::shared_ptr<WebSocketClient> socket = socket_;
    if (!socket || !isOpen_) co_return false;
    request.stable_erase("seq");
    request.emplace("seq", seq);
    const std::string text = plainJSONOfBytes(request);
    // A server ends the connection over a frame that is not UTF-8, and so over one user's odd message.
    if (text.size() > maxFrameBytes || !chatFrame::read(text)) co_return false;
    WebSocketMessage message = WebSocketMessage::text(text);
    try {
        co_await socket->send(std::move(message));
    } catch (const std::exception&) {
        co_return false;  // the reader meets the same broken connection, and tells of it
    }
    co_return true;
}

asio::awaitable<void> ChatLink::stop() { return tasks_.finish(shutDown()); }

asio::awaitable<void> ChatLink::shutDown() {
    isWanted_ = false;
    isOpen_ = false;
    co_await tasks_.stop();
    if (socket_) co_await socket_->stop();
}

}  // namespace skein
