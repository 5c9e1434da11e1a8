#pragma once

#include <cstddef>
#include <functional>
#include <list>

namespace skein {

/// How many connections a server holds: those that have shown that they may ask, and, counted apart, those that have
/// not. A newcomer always finds room, as the oldest of those that have shown nothing is cut for it; so whoever opens
/// connections and stays silent keeps nobody out.
///
/// Owner: the server. Not locked; its places go before it.
class ConnectionRoom {
public:
    /// A client shows its right with its first request, so that few are at this at once.
    static constexpr std::size_t maxUnproven = 32;
    static constexpr std::size_t maxProven = 64;

    /// One connection's place, from its beginning to its end.
    class Place {
    public:
        /// `cut` closes the connection, and is called at most once, while it has not proven itself.
        Place(ConnectionRoom& room, std::function<void()> cut);
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;
        ~Place();

        /// From here on it is not cut for another one. False when there are too many of its kind.
        bool prove();

    private:
        friend class ConnectionRoom;

        enum class State { unproven, proven, cut };

        ConnectionRoom& room_;
        const std::function<void()> cut_;
        State state_ = State::unproven;
    };

private:
    std::list<Place*> unproven_;  // the oldest first
    std::size_t proven_ = 0;
};

}  // namespace skein
