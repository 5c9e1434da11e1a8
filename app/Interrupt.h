#pragma once

#include <boost/asio/any_io_executor.hpp>

#include <functional>
#include <memory>
#include <stop_token>

namespace skein {

namespace asio = boost::asio;

/// SIGINT and SIGTERM: the first asks for a clean stop, a second SIGINT ends the program at once.
///
/// Owner: the command that runs; one at a time. Thread: any.
class Interrupt {
public:
    /// `lastWish` is called on a thread of `io` before the program ends at once.
    explicit Interrupt(const asio::any_io_executor& io, std::function<void()> lastWish = nullptr);
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;
    /// From here on the signals end the program again.
    ~Interrupt();

    /// Stop is requested by the first signal, on a thread of `io`.
    std::stop_token token() const noexcept;
    /// The exit status that the signal stands for: 130, 143, or 0 as long as none came.
    int exitStatus() const noexcept;

private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace skein
