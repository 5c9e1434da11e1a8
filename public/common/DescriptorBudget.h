#pragma once

#include <boost/system/error_code.hpp>

#include <atomic>
#include <cstddef>
#include <limits>
#include <memory>
#include <utility>

namespace skein {

/// How many sockets the sessions of a process may have open together, so that files, databases and web requests find
/// a descriptor too. Whoever opens a socket asks `hasRoom` first, waits when there is none, and holds a ticket while
/// the socket is there; a few that ask at the same moment may go beyond.
///
/// A value: copies share one count. Thread: any.
class DescriptorBudget {
    struct State {
        explicit State(std::size_t most) : limit(most) {}
        const std::size_t limit;
        std::atomic<std::size_t> used{0};
    };

public:
    /// By default nothing is bounded.
    explicit DescriptorBudget(std::size_t limit = std::numeric_limits<std::size_t>::max())
        : state_(std::make_shared<State>(limit)) {}
    /// Raises what the system allows this process as far as it may, and leaves a part of it to others than sessions.
    static DescriptorBudget ofProcess();

    class Ticket {
    public:
        Ticket() = default;
        explicit Ticket(std::shared_ptr<State> state) : state_(std::move(state)) { ++state_->used; }
        Ticket(Ticket&& other) noexcept = default;
        Ticket& operator=(Ticket&& other) noexcept {
            std::swap(state_, other.state_);
            return *this;
        }
        ~Ticket() {
            if (state_) --state_->used;
        }

    private:
        std::shared_ptr<State> state_;
    };

    bool hasRoom() const noexcept { return state_->used < state_->limit; }
    std::size_t limit() const noexcept { return state_->limit; }
    Ticket take() const { return Ticket(state_); }

private:
    std::shared_ptr<State> state_;
};

/// The system has no descriptor or no memory for another socket: whom it was for has no part in that.
bool isOutOfDescriptors(const boost::system::error_code& error) noexcept;

}  // namespace skein
