#pragma once

#include "app/client/WatchOutput.h"

#include <boost/asio/any_io_executor.hpp>

#include <iosfwd>

namespace skein {

/// `watch --json`: every message as a line. A reader of ours that is slow slows the daemon's messages down.
class MessageLines final : public WatchOutput {
public:
    /// `out` is written to on `disk`.
    MessageLines(asio::any_io_executor disk, std::ostream& out) : disk_(std::move(disk)), out_(out) {}

    asio::awaitable<void> take(boost::json::object message) override;
    asio::awaitable<void> stop() override { co_return; }

private:
    const asio::any_io_executor disk_;
    std::ostream& out_;
};

}  // namespace skein
