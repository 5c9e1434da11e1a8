#pragma once

#include "Core/engine/DialPlan.h"
#include "Core/engine/ResourceRecords.h"
#include "Core/wire/PeerAddress.h"
#include "Core/wire/PeerWireTransport.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/TaskGroup.h"
#include "public/common/WayOut.h"

#include <boost/asio/any_io_executor.hpp>

#include <memory>
#include <string>
#include <utility>

namespace skein {

/// Makes the streams on which a session dials its peers.
///
/// Owner: the session. Thread: the session's strand.
class SessionTransports {
public:
    struct Environment {
        Strand strand;  ///< the session's
        asio::any_io_executor io;
        Clock& clock;
        FileLogger& log;
        WayOut way;
        DescriptorBudget descriptors;
    };

    explicit SessionTransports(Environment environment) : environment_(std::move(environment)) {}

    std::unique_ptr<PeerWireTransport> make(const PeerAddress& address, const DialAttempt& how) const;
    /// A link through the service's relay, which is paired when it is started. Throws RelayException (invalidURL).
    std::unique_ptr<PeerWireTransport> makeRelay(const ServiceAccess& access, std::string infoHash, std::string role,
                                                 std::string mode) const;

private:
    std::unique_ptr<PeerWireTransport> unopened(const PeerAddress& address, const DialAttempt& how) const;

    const Environment environment_;
};

}  // namespace skein
