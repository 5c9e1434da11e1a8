#pragma once

#include "Core/engine/AddressCooldowns.h"
#include "Core/engine/DialPlan.h"
#include "Core/engine/DialQueue.h"
#include "Core/engine/DialRequest.h"
#include "Core/engine/UTPProber.h"
#include "Core/wire/PeerConnection.h"
#include "Core/wire/PeerRuntimeInfo.h"
#include "public/common/Clock.h"
#include "public/common/DescriptorBudget.h"
#include "public/common/FileLogger.h"
#include "public/common/LocalBinding.h"
#include "public/common/TaskGroup.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace skein {

/// Whom to dial, when and how: the budget of dials, the queue for it, the cooldowns, and what was learnt of whom.
///
/// Owner: the pool of connections, which awaits `stop()`. Thread: the session's strand, on which callbacks come too.
class PeerDialer {
public:
    static constexpr std::size_t maxPublicPeerDialInFlight = 16;
    static constexpr std::ptrdiff_t maxDialsToOneHost = 8;
    static constexpr std::chrono::seconds publicBTConnectTimeout{15};
    /// A peer that the resource service listed was there a moment ago, and the relay comes next.
    static constexpr std::chrono::seconds platformConnectTimeout{5};
    /// A peer that knows nothing of encryption may wait for more of what it takes for a handshake. Shorter, because
    /// other attempts come after this one while the dial keeps its place in the budget.
    static constexpr std::chrono::seconds encryptedConnectTimeout{10};
    static constexpr std::chrono::seconds publicPeerFailureCooldown{600};
    static constexpr std::chrono::seconds namedPeerRetry{5};
    /// Between two looks whether there are descriptors again for the dials that wait.
    static constexpr std::chrono::seconds descriptorPause{1};
    /// What is remembered of more peers than this makes room for the new.
    static constexpr std::size_t maxExperiences = 1024;
    /// Marks a peer in its row.
    static constexpr std::string_view utpPeerMark = "uTP peer detected after TCP failure";

    /// Makes the transport of an attempt.
    using Dial = std::function<std::unique_ptr<PeerWireTransport>(const PeerAddress& address, const DialAttempt&)>;

    struct Environment {
        Strand strand;
        Clock& clock;
        FileLogger& log;
        DialOptions options;
        Dial dial;
        LocalBinding binding;
        DescriptorBudget descriptors;
    };

    struct Callbacks {
        std::function<std::unique_ptr<PeerConnection>(const PeerAddress&, std::unique_ptr<PeerWireTransport>)>
            makeConnection;
        std::function<bool(const PeerAddress&)> isConnectedTo;
        /// How many connections more there may be, the dials in flight among them.
        std::function<std::size_t()> room;
        /// A peer that the user named is to be dialled, and there is no room.
        std::function<void()> onRoomNeeded;
        /// A handshake is done.
        std::function<void(const DialRequest&, std::unique_ptr<PeerConnection>)> onConnected;
        /// A dial came to nothing.
        std::function<void(const DialRequest&)> onFailed;
        /// There is no way to the peer from where traffic may leave: it was not dialled.
        std::function<void(const DialRequest&)> onOutOfReach;
        /// What is to be shown of a peer that is not connected.
        std::function<void(PeerRuntimeInfo)> onRow;
    };

    PeerDialer(Environment environment, Callbacks callbacks);

    /// Dials the peer, or queues it until there is room; not while it is connected, or is to be left alone.
    void connectToPeer(const DialRequest& request);
    /// There may be room for a dial that waits.
    void drainPendingPublicPeerDials();
    void leaveAlone(const PeerAddress& address, Clock::Duration cooldown);
    /// The torrent is private: peers of public sources are given up, those being dialled too, and are not dialled
    /// again.
    void givePublicPeersUp();
    /// A connection that `origin` led to has ended; `wasFruitless` when nothing came of it, not even time.
    void noteDisconnect(const DialRequest& origin, bool wasFruitless);
    /// Forgets what waits, and dials nobody until `open`.
    void close();
    void open() noexcept { isOpen_ = true; }
    /// Returns when nothing of the dialer runs any more.
    asio::awaitable<void> stop();

    std::size_t dialsInFlight() const noexcept { return publicPeerDialInFlight_.size(); }
    /// Dials and probes: peers that may yet turn out to be reachable.
    std::size_t attemptsInFlight() const noexcept { return dialsInFlight() + prober_.probesInFlight(); }
    std::size_t pendingDials() const noexcept { return pendingPublicPeerDials_.size(); }
    /// Addresses that any source named and that were new then: an address is counted again once it was forgotten.
    std::size_t addressesOffered() const noexcept { return addressesOffered_; }
    /// TCP did not reach it, and it answered over uTP.
    bool isDetectedUTPPeer(const PeerAddress& address) const;

private:
    /// Of an attempt.
    struct Outcome {
        std::string failure;  ///< the error's text; empty: the handshake is done
        bool isOutOfDescriptors = false;
    };

    bool isBusyWith(const PeerAddress& address) const;
    bool canReach(const PeerAddress& address) const;
    void skip(const DialRequest& request);
    bool isResting(const DialRequest& request);
    bool isShutOut(const DialRequest& request) const { return isPrivate_ && !request.mayServePrivate(); }
    bool mayDialNow(const DialRequest& request) const;
    void startOrQueue(const DialRequest& request);
    void enqueuePendingPublicPeerDial(const DialRequest& request);
    asio::awaitable<void> dial(DialRequest request);
    asio::awaitable<Outcome> attempt(const DialRequest& request, PeerConnection& connection, DialAttempt how);
    void waitForDescriptors(const DialRequest& request);
    asio::awaitable<void> drainOnceThereIsRoom();
    void learn(const PeerConnection& connection, const DialAttempt& how);
    DialExperience& experienceWith(const PeerAddress& address);
    void rememberFailedDial(const DialRequest& request, const PeerConnection& last, const std::string& error);
    void restAfterFailure(const PeerAddress& address);
    void retryLater(const DialRequest& request);
    asio::awaitable<void> retryNamedPeer(DialRequest request);
    void handleUTPAnswer(const DialRequest& request);

    const Environment environment_;
    const Callbacks callbacks_;
    struct Flight {
        DialRequest request;
        PeerConnection* connection = nullptr;  ///< of the attempt that is made
    };
    std::unordered_map<PeerAddress, Flight> publicPeerDialInFlight_;
    DialQueue pendingPublicPeerDials_;
    AddressCooldowns publicPeerRetryAfter_;  // after a failed dial
    AddressCooldowns unwanted_;              // whoever names them
    std::unordered_set<PeerAddress> namedPeersToRetry_;
    std::unordered_map<PeerAddress, DialExperience> experiences_;  // of peers that differ from what is usual
    std::size_t addressesOffered_ = 0;
    bool isOpen_ = true;
    bool isPrivate_ = false;
    bool awaitsDescriptors_ = false;
    UTPProber prober_;
    TaskGroup tasks_;
};

}  // namespace skein
