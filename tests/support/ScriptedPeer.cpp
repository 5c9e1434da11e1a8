#include "tests/support/ScriptedPeer.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>

#include <array>

namespace skein {

using asio::ip::tcp;

ScriptedPeer::ScriptedPeer(const asio::any_io_executor& executor, const std::string& host)
    : acceptor_(executor, tcp::endpoint(asio::ip::make_address(host), 0)), socket_(executor) {}

PeerAddress ScriptedPeer::address() const {
    const tcp::endpoint local = acceptor_.local_endpoint();
    return {local.address().to_string(), local.port()};
}

bool ScriptedPeer::isKnockedAt() {
    acceptor_.non_blocking(true);
    boost::system::error_code error;
    const tcp::socket socket = acceptor_.accept(error);
    return !error;
}

asio::awaitable<void> ScriptedPeer::accept() { socket_ = co_await acceptor_.async_accept(asio::use_awaitable); }

asio::awaitable<PeerHandshake> ScriptedPeer::shakeHands(SHA1Digest infoHash, PeerID peerID) {
    const PeerHandshake ours{infoHash, peerID, true};
    const auto encoded = ours.encode();
    Bytes bytes(encoded.begin(), encoded.end());
    co_await send(std::move(bytes));
    const Bytes theirs = co_await read(PeerHandshake::size);
    co_return PeerHandshake::decode(theirs);
}

asio::awaitable<void> ScriptedPeer::send(Bytes bytes) {
    co_await asio::async_write(socket_, asio::buffer(bytes), asio::use_awaitable);
}

asio::awaitable<void> ScriptedPeer::sendMessage(MessageID id, Bytes body) {
    Bytes bytes;
    wire::appendMessage(bytes, id, body);
    co_await send(std::move(bytes));
}

asio::awaitable<void> ScriptedPeer::sendPiece(BlockRequest block, Bytes data) {
    block.length = static_cast<int>(data.size());
    Bytes bytes(wire::pieceHeaderSize);
    wire::writePieceHeader(bytes.data(), block);
    append(bytes, data);
    co_await send(std::move(bytes));
}

asio::awaitable<Bytes> ScriptedPeer::read(std::size_t count) {
    Bytes bytes(count);
    co_await asio::async_read(socket_, asio::buffer(bytes), asio::use_awaitable);
    co_return bytes;
}

asio::awaitable<ScriptedPeer::Message> ScriptedPeer::readMessage() {
    Message message;
    const Bytes prefix = co_await read(4);
    const auto length = readBigEndian<std::uint32_t>(prefix);
    if (length == 0) co_return message;
    const Bytes content = co_await read(length);
    message.id = content.front();
    message.body.assign(content.begin() + 1, content.end());
    co_return message;
}

asio::awaitable<Bytes> ScriptedPeer::readUntil(MessageID id) {
    for (;;) {
        Message message = co_await readMessage();
        if (message.id == static_cast<int>(id)) co_return std::move(message.body);
    }
}

asio::awaitable<void> ScriptedPeer::waitForClose() {
    std::array<std::uint8_t, 4096> dropped{};
    boost::system::error_code error;
    while (!error)
        co_await socket_.async_read_some(asio::buffer(dropped), asio::redirect_error(asio::use_awaitable, error));
}

void ScriptedPeer::close() { socket_.close(); }

BlockRequest ScriptedPeer::requestIn(const Bytes& body) {
    const ByteView view(body);
    return {static_cast<int>(readBigEndian<std::uint32_t>(view)),
            static_cast<int>(readBigEndian<std::uint32_t>(view.subspan(4))),
            static_cast<int>(readBigEndian<std::uint32_t>(view.subspan(8)))};
}

PeerID peerIDOf(char letter) {
    PeerID id{};
    id.fill(static_cast<std::uint8_t>(letter));
    return id;
}

}  // namespace skein
