#include "tests/support/ScriptedHTTPServer.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/websocket/rfc6455.hpp>
#include <boost/system/system_error.hpp>

#include <algorithm>
#include <utility>

namespace skein {

namespace {

namespace http = boost::beast::http;

constexpr std::size_t mostRequestBytes = std::size_t{64} << 20U;

SeenHTTPRequest seenIn(const http::request<http::string_body>& request, const asio::ip::tcp::socket& socket) {
    SeenHTTPRequest seen{std::string(request.method_string()),
                         std::string(request.target()),
                         {},
                         toBytes(request.body()),
                         IPAddress::parse(socket.remote_endpoint().address().to_string())};
    for (const auto& field : request) seen.headers[std::string(field.name_string())] = std::string(field.value());
    return seen;
}

std::string headOf(const HTTPReply& reply) {
    std::string head = "HTTP/1.1 " + std::to_string(reply.status) + " Scripted\r\n";
    for (const HTTPHeader& header : reply.headers) head += header.name + ": " + header.value + "\r\n";
    head += "Content-Length: " + std::to_string(reply.body.size() * reply.repeats) + "\r\n";
    if (reply.closes) head += "Connection: close\r\n";
    return head + "\r\n";
}

}  // namespace

HTTPReply HTTPReply::text(std::string_view body, int status) {
    return {.status = status, .headers = {}, .body = toBytes(body)};
}

HTTPReply HTTPReply::file(const SeenHTTPRequest& request, ByteView content, const std::string& entityTag) {
    const std::string range = request.header("Range");
    const bool isSame = !request.headers.contains("If-Range") || request.header("If-Range") == entityTag;
    const std::size_t first = range.empty() || !isSame ? 0 : std::stoul(range.substr(6));  // after "bytes="
    HTTPReply reply = text(asText(content.subspan(first)), first > 0 ? 206 : 200);
    reply.headers = {{"ETag", entityTag}};
    if (first > 0)
        reply.headers.push_back({"Content-Range", "bytes " + std::to_string(first) + "-" +
                                                      std::to_string(content.size() - 1) + "/" +
                                                      std::to_string(content.size())});
    return reply;
}

HTTPReply HTTPReply::redirect(std::string location, int status) {
    HTTPReply reply = text("moved", status);
    reply.headers.push_back({"Location", std::move(location)});
    return reply;
}

ScriptedHTTPServer::ScriptedHTTPServer(const asio::any_io_executor& pool, Script script, std::string_view address,
                                       std::uint16_t port)
    : script_(std::move(script)),
      host_(address.find(':') == std::string_view::npos ? address : "[" + std::string(address) + "]"),
      tasks_(pool),
      acceptor_(tasks_.strand(), {asio::ip::make_address(address), port}),
      port_(acceptor_.local_endpoint().port()) {
    tasks_.spawn(acceptAll());
}

asio::awaitable<void> ScriptedHTTPServer::stop() {
    co_await tasks_.stop();
    acceptor_.close();
}

std::string ScriptedHTTPServer::url(std::string_view target) const {
    return "http://" + host_ + ":" + std::to_string(port_) + std::string(target);
}

asio::awaitable<void> ScriptedHTTPServer::acceptAll() {
    for (;;) {
        asio::ip::tcp::socket socket = co_await acceptor_.async_accept(asio::use_awaitable);
        ++accepted_;
        // Head and body go out by themselves, and must not wait for an acknowledgement in between.
        socket.set_option(asio::ip::tcp::no_delay(true));
        tasks_.spawn(serve(std::move(socket)));
    }
}

asio::awaitable<void> ScriptedHTTPServer::serve(asio::ip::tcp::socket socket) {
    ++open_;
    try {
        co_await serveAll(socket);
    } catch (const boost::system::system_error&) {
        // The client went away, or the server stops.
    }
    --open_;
}

asio::awaitable<void> ScriptedHTTPServer::serveAll(asio::ip::tcp::socket& socket) {
    boost::beast::flat_buffer buffer;
    for (bool goesOn = true; goesOn;) {
        http::request_parser<http::string_body> parser;
        parser.body_limit(mostRequestBytes);
        co_await http::async_read(socket, buffer, parser, asio::use_awaitable);
        const SeenHTTPRequest request = seenIn(parser.get(), socket);
        requests_.push_back(request);
        if (conversation_ && boost::beast::websocket::is_upgrade(parser.get())) {
            auto conversation = converse(std::move(socket), request);
            co_await std::move(conversation);
            co_return;
        }
        HTTPReply reply = script_(request);
        goesOn = co_await answer(socket, request.method == "HEAD", std::move(reply));
    }
}

asio::awaitable<void> ScriptedHTTPServer::converse(asio::ip::tcp::socket socket, SeenHTTPRequest upgrade) {
    const auto place = webSockets_.emplace(webSockets_.end(), std::move(socket), std::move(upgrade));
    try {
        co_await conversation_(*place);
    } catch (const std::exception&) {
        // The client has left, or the test has.
    }
    webSockets_.erase(place);
}

void ScriptedHTTPServer::cutAll() {
    for (ServerWebSocket& socket : webSockets_) socket.cut();
}

asio::awaitable<bool> ScriptedHTTPServer::answer(asio::ip::tcp::socket& socket, bool isHead, HTTPReply reply) {
    const Bytes head = reply.raw ? *reply.raw : toBytes(headOf(reply));
    co_await send(socket, head);
    const bool hasBody = !reply.raw && !isHead;
    std::size_t left = reply.stallAfter;
    for (std::uint64_t i = 0; hasBody && i < reply.repeats && left > 0; ++i) {
        const ByteView part = ByteView(reply.body).first(std::min(left, reply.body.size()));
        left -= reply.stallAfter == SIZE_MAX ? 0 : part.size();
        co_await send(socket, part);
    }
    const bool isCut = hasBody && left == 0;
    if (isCut && !reply.cutsOff) co_await waitForEnd(socket);
    co_return !isCut && !reply.closes;
}

asio::awaitable<void> ScriptedHTTPServer::send(asio::ip::tcp::socket& socket, ByteView bytes) {
    const auto data = asio::buffer(bytes.data(), bytes.size());
    sent_ += co_await asio::async_write(socket, data, asio::use_awaitable);
}

asio::awaitable<void> ScriptedHTTPServer::waitForEnd(asio::ip::tcp::socket& socket) {
    for (;;) {
        std::uint8_t ignored = 0;
        const auto data = asio::buffer(&ignored, 1);
        co_await socket.async_read_some(data, asio::use_awaitable);
    }
}

}  // namespace skein
