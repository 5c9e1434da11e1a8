#pragma once

#include "tests/support/Simulation.h"

#include <boost/asio/awaitable.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>

#include <future>
#include <string>
#include <string_view>

namespace skein {

/// A client that says to a server on loopback just what the test wants. Thread: the simulation's.
class RawClient {
public:
    RawClient(Simulation& simulation, std::uint16_t port) : simulation_(simulation), socket_(simulation.executor()) {
        socket_.connect({asio::ip::make_address("127.0.0.1"), port});
    }

    /// What is short enough for the system to take at once; a server that left does not hear it.
    void say(std::string_view text) {
        boost::system::error_code ignored;
        asio::write(socket_, asio::buffer(text), ignored);
    }
    /// An answer's head, and what came along.
    std::string hear() {
        simulation_.finish(readHead());
        return answer_;
    }
    /// All that comes until the server is done with us.
    std::string hearOut() {
        simulation_.finish(beginToHearOut());
        return answer_;
    }
    /// Ready when the server leaves.
    std::future<void> beginToHearOut() { return simulation_.begin(readAll()); }

private:
    asio::awaitable<void> readHead() {
        co_await asio::async_read_until(socket_, asio::dynamic_buffer(answer_), "\r\n\r\n", asio::use_awaitable);
    }
    asio::awaitable<void> readAll() {
        boost::system::error_code error;
        co_await asio::async_read(socket_, asio::dynamic_buffer(answer_),
                                  asio::redirect_error(asio::use_awaitable, error));
    }

    Simulation& simulation_;
    asio::ip::tcp::socket socket_;
    std::string answer_;
};

}  // namespace skein
