#include "Core/engine/SessionTransports.h"

#include "Core/engine/PeerDialer.h"
#include "Core/wire/NWPeerWireTransport.h"
#include "Core/wire/PeerHandshake.h"
#include "Core/wire/RelayPeerWireTransport.h"
#include "Core/wire/UTPPeerWireTransport.h"

namespace skein {

std::unique_ptr<PeerWireTransport> SessionTransports::make(const PeerAddress& address, const DialAttempt& how) const {
    std::unique_ptr<PeerWireTransport> transport = unopened(address, how);
    transport->hold(environment_.descriptors.take());
    return transport;
}

std::unique_ptr<PeerWireTransport> SessionTransports::unopened(const PeerAddress& address,
                                                               const DialAttempt& how) const {
    if (how.transport == PeerTransport::utp) {
        Bytes expectedStart;
        if (!how.isEncrypted()) expectedStart = PeerHandshake::opening();
        return std::make_unique<UTPPeerWireTransport>(environment_.clock, environment_.log, environment_.way, address,
                                                      PeerDialer::publicBTConnectTimeout, std::move(expectedStart));
    }
    return std::make_unique<NWPeerWireTransport>(environment_.io, environment_.clock, environment_.way, address,
                                                 PeerDialer::publicBTConnectTimeout);
}

std::unique_ptr<PeerWireTransport> SessionTransports::makeRelay(const ServiceAccess& access, std::string infoHash,
                                                                std::string role, std::string mode) const {
    const RelayTransport::Environment environment{environment_.strand, environment_.clock, environment_.way};
    const RelayTransport::Request request{access.serverURL, std::move(infoHash), std::move(role), access.userID,
                                          access.token,     access.deviceId,     std::move(mode)};
    auto relay = std::make_unique<RelayPeerWireTransport>(std::make_unique<RelayTransport>(environment, request), true);
    relay->hold(environment_.descriptors.take());
    return relay;
}

}  // namespace skein
