#pragma once

#include "Core/engine/PeerPool.h"
#include "tests/support/RecordingLogger.h"
#include "tests/support/ScriptedPeer.h"
#include "tests/support/Simulation.h"

#include <boost/asio/strand.hpp>
#include <boost/system/system_error.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace skein {

/// A transport whose connection is made, or refused, when the test says so.
class HeldTransport final : public PeerWireTransport {
public:
    enum class Fate : std::uint8_t { open, fails, hangs, hasNoSocket };
    HeldTransport(Clock& clock, PeerTransport kind, Fate& fate) : clock_(clock), kind_(kind), fate_(fate) {}
    PeerTransport kind() const noexcept override { return kind_; }
    asio::awaitable<void> start() override {
        while (fate_ == Fate::hangs) co_await clock_.sleep(std::chrono::seconds(1));
        if (fate_ == Fate::hasNoSocket)
            throw boost::system::system_error(make_error_code(boost::system::errc::too_many_files_open));
        if (fate_ == Fate::fails) throw PeerException(PeerError::connectionClosed);
    }
    asio::awaitable<void> send(ByteView) override { co_return; }
    asio::awaitable<std::size_t> receiveSome(std::span<std::uint8_t>) override {
        throw PeerException(PeerError::connectionClosed);
        co_return 0;
    }
    void cancel() noexcept override {}

private:
    Clock& clock_;
    const PeerTransport kind_;
    Fate& fate_;
};

/// A pool whose dials the test sees, and of whose peers nobody speaks.
class PeerPoolFixture : public testing::Test {
protected:
    using Fate = HeldTransport::Fate;

    explicit PeerPoolFixture(TransportChoice transport = TransportChoice::tcp)
        : pool{PeerPool::Environment{strand, simulation, log, PeerConnection::Identity{SHA1Digest{}, peerIDOf('m')}, 50,
                                     DialOptions{.transport = transport},
                                     [this](const PeerAddress& to, const DialAttempt& how) { return dial(to, how); },
                                     LocalBinding(), budget},
               callbacks()} {}
    ~PeerPoolFixture() override { simulation.finish(pool.stop()); }

    std::unique_ptr<PeerWireTransport> dial(const PeerAddress& address, const DialAttempt& how) {
        const bool isTCP = how.transport == PeerTransport::tcp;
        (isTCP ? dialled : dialledOverUTP).push_back(address.port);
        dialledPeers.push_back(address.description());
        auto transport = std::make_unique<HeldTransport>(simulation, how.transport, isTCP ? fate : utpFate);
        transport->hold(budget.take());
        return transport;
    }
    PeerPool::Callbacks callbacks() {
        PeerPool::Callbacks callbacks;
        callbacks.connectionCallbacks = [](PeerKey) { return PeerConnection::Callbacks(); };
        callbacks.onDialFailed = [this](const DialRequest& request) { onDialFailed(request); };
        callbacks.onOutOfReach = [](const DialRequest&) { ADD_FAILURE() << "everybody can be reached"; };
        callbacks.onPeerReady = [this](PeerPool::Peer& peer) { onPeerReady(peer); };
        callbacks.onPeerGone = [](const PeerPool::Peer&) {};
        return callbacks;
    }

    Simulation simulation;
    Strand strand = asio::make_strand(simulation.executor());
    RecordingLogger log{LogLevel::debug};
    DescriptorBudget budget{100};
    Fate fate = Fate::hangs;
    Fate utpFate = Fate::hangs;
    std::vector<int> dialled;  ///< the ports
    std::vector<int> dialledOverUTP;
    std::vector<std::string> dialledPeers;  ///< over either
    std::function<void(const DialRequest&)> onDialFailed = [](const DialRequest&) {};
    std::function<void(PeerPool::Peer&)> onPeerReady = [](PeerPool::Peer&) { ADD_FAILURE() << "nobody answers here"; };
    PeerPool pool;
};

}  // namespace skein
