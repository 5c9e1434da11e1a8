#include "chat/ChatAnswers.h"

#include "chat/ChatFrame.h"

#include <utility>

namespace skein {

ChatAnswers::Place::Place(ChatAnswers& answers, std::int64_t seq, Awaited awaited)
    : answers_(answers),
      seq_(seq),
      awaited_(std::move(awaited)),
      position_(answers.waiting_.insert(answers.waiting_.end(), this)) {}

ChatAnswers::Place::~Place() { answers_.waiting_.erase(position_); }

asio::awaitable<void> ChatAnswers::Place::wait() {
    while (!isOver_) co_await answers_.changed_.wait();
}

void ChatAnswers::offer(const boost::json::object& frame) {
    Place* const place = placeFor(frame);
    if (place == nullptr) return;
    place->answer_ = frame;
    place->isOver_ = true;
    changed_.notify();
}

ChatAnswers::Place* ChatAnswers::placeFor(const boost::json::object& frame) {
    const std::string cmd = chatFrame::textOf(frame, "cmd");
    const auto seq = chatFrame::numberOf(frame, "seq");
    Place* oldest = nullptr;
    for (Place* const place : waiting_) {
        if (place->isOver_ || place->awaited_.cmd != cmd) continue;
        if (seq == place->seq_) {
            isSeqRepeated_ = true;
            return place;
        }
        const std::string subject =
            place->awaited_.subjectKey.empty() ? "" : chatFrame::textOf(frame, place->awaited_.subjectKey);
        const bool isItsSubject = subject.empty() || subject == place->awaited_.subject;
        if (oldest == nullptr && isItsSubject) oldest = place;
    }
    return isSeqRepeated_ ? nullptr : oldest;
}

void ChatAnswers::giveUp() {
    for (Place* const place : waiting_) place->isOver_ = true;
    isSeqRepeated_ = false;
    changed_.notify();
}

}  // namespace skein
