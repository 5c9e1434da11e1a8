#include "app/Interrupt.h"

#include <boost/asio/signal_set.hpp>
#include <boost/asio/strand.hpp>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <utility>

namespace skein {

namespace {

constexpr int signalStatusBase = 128;

}  // namespace

struct Interrupt::State : std::enable_shared_from_this<State> {
    State(const asio::any_io_executor& io, std::function<void()> wish)
        : signals(asio::make_strand(io), SIGINT, SIGTERM), lastWish(std::move(wish)) {}

    void wait() {
        // Weak, as the signal set owns its handlers: a pool that ends without running them would keep both for ever.
        signals.async_wait([state = weak_from_this()](const boost::system::error_code& error, int signal) {
            const auto self = state.lock();
            if (error || !self) return;
            if (self->status != 0 && signal == SIGINT) {
                if (self->lastWish) self->lastWish();
                std::_Exit(signalStatusBase + SIGINT);
            }
            if (self->status == 0) {
                self->status = signalStatusBase + signal;
                self->stop.request_stop();
            }
            self->wait();
        });
    }

    asio::signal_set signals;
    const std::function<void()> lastWish;
    std::atomic<int> status = 0;
    std::stop_source stop;
};

Interrupt::Interrupt(const asio::any_io_executor& io, std::function<void()> lastWish)
    : state_(std::make_shared<State>(io, std::move(lastWish))) {
    state_->wait();
}

Interrupt::~Interrupt() = default;

std::stop_token Interrupt::token() const noexcept { return state_->stop.get_token(); }

int Interrupt::exitStatus() const noexcept { return state_->status; }

}  // namespace skein
