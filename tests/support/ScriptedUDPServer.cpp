#include "tests/support/ScriptedUDPServer.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <utility>

namespace skein {

ScriptedUDPServer::ScriptedUDPServer(const asio::any_io_executor& pool, Script script, std::string_view address,
                                     std::uint16_t port)
    : script_(std::move(script)),
      tasks_(pool),
      socket_(tasks_.strand(), asio::ip::udp::endpoint(asio::ip::make_address(address), port)) {
    const auto endpoint = socket_.local_endpoint();
    port_ = endpoint.port();
    host_ = endpoint.address().is_v6() ? "[" + std::string(address) + "]" : std::string(address);
    tasks_.spawn(serve());
}

asio::awaitable<void> ScriptedUDPServer::stop() {
    co_await tasks_.stop();
    socket_.close();
}

std::string ScriptedUDPServer::url(std::string_view path) const {
    return "udp://" + host_ + ":" + std::to_string(port_) + std::string(path);
}

asio::awaitable<void> ScriptedUDPServer::serve() {
    Bytes buffer(65'535);
    for (;;) {
        asio::ip::udp::endpoint from;
        const auto space = asio::buffer(buffer);
        const auto [failure, size] =
            co_await socket_.async_receive_from(space, from, asio::as_tuple(asio::use_awaitable));
        if (failure == asio::error::operation_aborted) co_return;
        if (failure) continue;  // an earlier answer found nobody listening
        const auto remote = IPAddress::parse(from.address().to_string());
        seen_.push_back(
            {Bytes(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(size)), *remote, from.port()});
        for (const Bytes& answer : script_(seen_.back())) {
            const auto data = asio::buffer(answer);
            co_await socket_.async_send_to(data, from, asio::as_tuple(asio::use_awaitable));
        }
    }
}

}  // namespace skein
