#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>

#include <charconv>
#include <csignal>
#include <string_view>
#include <system_error>

namespace skein {

/// Reads all of `text` as a number; false when it is none or does not fit.
template <class Number>
bool parseNumber(std::string_view text, Number& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

/// Runs what `context` has to do until SIGINT or SIGTERM, then calls `stop` and returns when nothing is left.
template <class Stop>
void runUntilSignalled(boost::asio::io_context& context, Stop stop) {
    boost::asio::signal_set signals(context, SIGINT, SIGTERM);
    signals.async_wait([&stop](const boost::system::error_code&, int) { stop(); });
    context.run();
}

}  // namespace skein
