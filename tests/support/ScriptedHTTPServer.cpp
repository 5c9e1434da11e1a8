#include "tests/support/ScriptedHTTPServer.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>

#include <algorithm>
#include <charconv>
#include <memory>
#include <utility>

namespace skein {

namespace {

constexpr std::size_t mostRequestBytes = std::size_t{64} << 20U;

std::string lowerCase(std::string text) {
    for (char& character : text)
        if (character >= 'A' && character <= 'Z') character = static_cast<char>(character - 'A' + 'a');
    return text;
}

/// 0 for what is no number.
std::size_t parseNumber(std::string_view text) {
    std::size_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

SeenHTTPRequest parseHead(std::string_view head) {
    SeenHTTPRequest request;
    const std::size_t firstLine = head.find("\r\n");
    const std::size_t space = head.find(' ');
    request.method = head.substr(0, space);
    request.target = head.substr(space + 1, head.find(' ', space + 1) - space - 1);
    for (std::size_t at = firstLine + 2; at < head.size();) {
        const std::size_t end = head.find("\r\n", at);
        const std::string_view header = head.substr(at, end - at);
        const std::size_t colon = header.find(':');
        if (colon == std::string_view::npos) break;
        const std::size_t value = header.find_first_not_of(' ', colon + 1);
        request.headers[lowerCase(std::string(header.substr(0, colon)))] =
            value == std::string_view::npos ? "" : header.substr(value);
        at = end + 2;
    }
    return request;
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
    HTTPReply reply;
    reply.status = status;
    reply.body = toBytes(body);
    return reply;
}

HTTPReply HTTPReply::file(const SeenHTTPRequest& request, ByteView content, const std::string& entityTag) {
    HTTPReply reply;
    reply.headers = {{"ETag", entityTag}};
    const auto range = request.headers.find("range");
    const auto condition = request.headers.find("if-range");
    const bool isSame = condition == request.headers.end() || condition->second == entityTag;
    const std::size_t first =
        range == request.headers.end() || !isSame ? 0 : parseNumber(std::string_view(range->second).substr(6));
    if (first > 0) {
        reply.status = 206;
        reply.headers.push_back({"Content-Range", "bytes " + std::to_string(first) + "-" +
                                                      std::to_string(content.size() - 1) + "/" +
                                                      std::to_string(content.size())});
    }
    reply.body.assign(content.begin() + static_cast<std::ptrdiff_t>(first), content.end());
    return reply;
}

HTTPReply HTTPReply::redirect(std::string location, int status) {
    HTTPReply reply = text("moved", status);
    reply.headers.push_back({"Location", std::move(location)});
    return reply;
}

ScriptedHTTPServer::ScriptedHTTPServer(const asio::any_io_executor& pool, Script script, std::string_view address,
                                       std::uint16_t port)
    : script_(std::move(script)), tasks_(pool), acceptor_(tasks_.strand()) {
    const asio::ip::tcp::endpoint endpoint(asio::ip::make_address(address), port);
    acceptor_.open(endpoint.protocol());
    acceptor_.set_option(asio::socket_base::reuse_address(true));
    acceptor_.bind(endpoint);
    acceptor_.listen();
    port_ = acceptor_.local_endpoint().port();
    host_ = endpoint.address().is_v6() ? "[" + std::string(address) + "]" : std::string(address);
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
    std::string buffer;
    for (;;) {
        const auto request = co_await readRequest(socket, buffer);
        if (!request) co_return;
        requests_.push_back(*request);
        const bool isHead = request->method == "HEAD";
        HTTPReply reply = script_(*request);
        const bool goesOn = co_await answer(socket, isHead, std::move(reply));
        if (!goesOn) co_return;
    }
}

asio::awaitable<std::optional<SeenHTTPRequest>> ScriptedHTTPServer::readRequest(asio::ip::tcp::socket& socket,
                                                                                std::string& buffer) {
    auto bytes = asio::dynamic_buffer(buffer, mostRequestBytes);
    const std::size_t headSize = co_await asio::async_read_until(socket, bytes, "\r\n\r\n", asio::use_awaitable);
    SeenHTTPRequest request = parseHead(std::string_view(buffer).substr(0, headSize));
    buffer.erase(0, headSize);
    request.remote = IPAddress::parse(socket.remote_endpoint().address().to_string());
    const auto length = request.headers.find("content-length");
    const std::size_t bodySize = length == request.headers.end() ? 0 : parseNumber(length->second);
    if (bodySize > mostRequestBytes) co_return std::nullopt;
    while (buffer.size() < bodySize) {
        const std::size_t before = buffer.size();
        buffer.resize(bodySize);
        auto rest = asio::buffer(buffer.data() + before, bodySize - before);
        const std::size_t count = co_await socket.async_read_some(rest, asio::use_awaitable);
        buffer.resize(before + count);
    }
    request.body = toBytes(std::string_view(buffer).substr(0, bodySize));
    buffer.erase(0, bodySize);
    co_return request;
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
