#pragma once

#include "Core/wire/PeerAddress.h"
#include "Core/wire/PeerHandshake.h"
#include "Core/wire/WireMessage.h"
#include "public/common/Bytes.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <string>

namespace skein {

namespace asio = boost::asio;

/// A peer on a real loopback socket that does what the test says, byte by byte if need be.
class ScriptedPeer {
public:
    struct Message {
        int id = -1;  ///< -1: a keep-alive
        Bytes body;
    };

    /// Listens on a free port of `host`.
    explicit ScriptedPeer(const asio::any_io_executor& executor, const std::string& host = "127.0.0.1");

    PeerAddress address() const;
    asio::awaitable<void> accept();
    /// Sends our handshake, then reads the other side's.
    asio::awaitable<PeerHandshake> shakeHands(SHA1Digest infoHash, PeerID peerID);

    asio::awaitable<void> send(Bytes bytes);
    asio::awaitable<void> sendMessage(MessageID id, Bytes body);
    asio::awaitable<void> sendPiece(BlockRequest block, Bytes data);
    asio::awaitable<Bytes> read(std::size_t count);
    asio::awaitable<Message> readMessage();
    /// Skips messages until one of `id` comes.
    asio::awaitable<Bytes> readUntil(MessageID id);
    /// Returns when the other side has closed the connection; what it sends meanwhile is dropped.
    asio::awaitable<void> waitForClose();
    void close();
    /// From where the other side has connected.
    std::string remoteHost() const { return socket_.remote_endpoint().address().to_string(); }
    /// Whether somebody has connected who was not accepted yet; hangs up.
    bool isKnockedAt();
    /// Bytes that have arrived and were not read.
    std::size_t available() { return socket_.available(); }

    static BlockRequest requestIn(const Bytes& body);

private:
    asio::ip::tcp::acceptor acceptor_;
    asio::ip::tcp::socket socket_;
};

/// A recognisable peer id: twenty times `letter`.
PeerID peerIDOf(char letter);

}  // namespace skein
