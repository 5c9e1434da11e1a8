#pragma once

#include "public/common/Notifier.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/json/object.hpp>

#include <cstdint>
#include <list>
#include <optional>
#include <string>

namespace skein {

/// The requests that wait for an answer, and which of them an incoming frame answers.
///
/// The protocol does not say that answers repeat the request's "seq". So: a frame of the awaited "cmd" that has the
/// "seq" of a waiting request answers that one, and shows that this server repeats it. Until then a frame answers the
/// oldest request that awaits its "cmd", and later only its own. Where an answer names what it is about (the group, the
/// friend, the partner) it is never given to a request about something else.
/// Owner: the chat client. Thread: its strand.
class ChatAnswers {
public:
    struct Awaited {
        std::string cmd;         ///< of the answer
        std::string subjectKey;  ///< what an answer may repeat of the request, "groupId" for example; empty: nothing
        std::string subject;
    };

    /// One request's place among those that wait, from before it is sent.
    class Place {
    public:
        Place(ChatAnswers& answers, std::int64_t seq, Awaited awaited);
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;
        ~Place();
        /// Returns when the answer is there, or none will come.
        asio::awaitable<void> wait();
        std::optional<boost::json::object> take() { return std::move(answer_); }

    private:
        friend class ChatAnswers;
        ChatAnswers& answers_;
        const std::int64_t seq_;
        const Awaited awaited_;
        std::optional<boost::json::object> answer_;
        bool isOver_ = false;
        const std::list<Place*>::iterator position_;
    };

    explicit ChatAnswers(const asio::any_io_executor& strand) : changed_(strand) {}

    void offer(const boost::json::object& frame);
    /// The connection is gone: none of those that wait gets an answer, and the next server may be another one.
    void giveUp();

private:
    Place* placeFor(const boost::json::object& frame);

    std::list<Place*> waiting_;
    bool isSeqRepeated_ = false;
    Notifier changed_;
};

}  // namespace skein
