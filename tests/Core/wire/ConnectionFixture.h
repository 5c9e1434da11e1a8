#pragma once

#include "Core/wire/NWPeerWireTransport.h"
#include "Core/wire/PeerConnection.h"
#include "tests/support/RecordingLogger.h"
#include "tests/support/ScriptedPeer.h"
#include "tests/support/Simulation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace skein {

/// A connection over any transport, and what came of it; blocks of pieces below 100 are served.
class ConnectionFixture : public testing::Test {
protected:
    static constexpr std::chrono::seconds timeout{5};

    ~ConnectionFixture() override { hangUp(); }
    void hangUp() {
        if (connection) simulation.finish(connection->stop());
        connection.reset();
    }
    /// In place of the last one.
    void makeConnection(std::unique_ptr<PeerWireTransport> transport, const PeerAddress& to) {
        hangUp();
        connection = std::make_unique<PeerConnection>(
            PeerConnection::Environment{strand, simulation, log, download, upload}, to,
            PeerConnection::Identity{infoHash, peerIDOf('o')}, std::move(transport), PeerDirection::outgoing);
        PeerConnection::Callbacks callbacks;
        callbacks.onPieceReceived = [this](std::uint32_t, std::uint32_t, ByteView block) { append(received, block); };
        callbacks.onPieceRequested = [this](std::vector<BlockRead>& reads) { return serve(reads); };
        callbacks.onDisconnected = [this](const std::string& reason) { endReason = reason; };
        connection->setCallbacks(std::move(callbacks));
        received.clear();
        endReason.clear();
    }
    /// Dials `peer` over TCP, which accepts and says nothing yet.
    void startDial(PeerConnection::EncryptionPreference encryption = PeerConnection::EncryptionPreference::plaintext) {
        const PeerAddress to = peer.address();
        makeConnection(std::make_unique<NWPeerWireTransport>(simulation.executor(), simulation, resolver, to, timeout),
                       to);
        dial = simulation.begin(connection->connect(timeout, encryption, MSEPrime::deployed));
        simulation.finish(peer.accept());
    }
    std::string failureToDial() { return simulation.failureOf(std::move(dial)); }
    /// Waits for it.
    std::string endOfConversation() {
        simulation.runUntil([&] { return !endReason.empty(); });
        return endReason;
    }
    asio::awaitable<void> serve(std::vector<BlockRead>& reads) {
        for (BlockRead& read : reads) {
            std::fill(read.into.begin(), read.into.end(), static_cast<std::uint8_t>(read.request.pieceIndex));
            read.ok = read.request.pieceIndex < 100;
            ++served;
        }
        co_return;
    }

    Simulation simulation;
    SystemNameResolver resolver;
    RecordingLogger log{LogLevel::debug};
    Throttle download;
    Throttle upload;
    const SHA1Digest infoHash = sha1(toBytes("a torrent"));
    Strand strand = asio::make_strand(simulation.executor());
    ScriptedPeer peer{simulation.executor()};
    std::future<void> dial;
    Bytes received;
    std::string endReason;
    int served = 0;
    std::unique_ptr<PeerConnection> connection;
};

}  // namespace skein
