#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>

#include <cstddef>
#include <memory>
#include <utility>

namespace skein {

namespace asio = boost::asio;

/// Lets so many through at a time; the others wait, in the order in which they came.
///
/// A value: copies are the same gate. Thread: any.
class Gate {
    class Places;

public:
    /// A place, until this goes.
    class Pass {
    public:
        Pass() = default;
        explicit Pass(std::shared_ptr<Places> places) : places_(std::move(places)) {}
        Pass(Pass&&) noexcept = default;
        Pass& operator=(Pass&& other) noexcept {
            std::swap(places_, other.places_);
            return *this;
        }
        ~Pass();

    private:
        std::shared_ptr<Places> places_;
    };

    /// Open to all.
    Gate() = default;
    Gate(const asio::any_io_executor& executor, std::size_t places);

    /// Throws boost::system::system_error (operation_aborted) when the caller is cancelled.
    asio::awaitable<Pass> enter() const;

private:
    std::shared_ptr<Places> places_;
};

}  // namespace skein
