#pragma once

#include "public/common/Bytes.h"
#include "public/common/Clock.h"
#include "public/common/TaskGroup.h"
#include "public/common/WayOut.h"

#include <boost/asio/awaitable.hpp>

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace skein {

namespace asio = boost::asio;

/// A stream of bytes to another user of the resource service, whom the service has paired us with: what goes into the
/// websocket at one end comes out of the one at the other.
///
/// Opened once; closed for good when it breaks or is cancelled. Then every call, those that wait included, ends with
/// RelayException (closed), and bytes that nobody has read are abandoned.
/// Owner: whoever reads from it. Thread: the strand of `environment`, on which all calls are made. It may go at any
/// time: the websocket's own tasks end by themselves in moments, on the strand, whose executor `clock` outlives.
class RelayTransport {
public:
    /// From the name of the service to the word that somebody was found. It does not change.
    static constexpr std::chrono::seconds pairingTimeout{38};
    /// A relay may join what was sent, but has no reason to join more.
    static constexpr std::size_t maxMessageBytes = std::size_t{4} << 20U;

    struct Environment {
        Strand strand;  ///< the owner's
        Clock& clock;
        WayOut way;
    };

    struct Request {
        std::string serverURL;  ///< of the service
        std::string infoHash;   ///< as the service knows the torrent
        std::string role;       ///< "seeder" or "leecher"
        std::string userID;
        std::string token;  ///< the stored credential
        std::string deviceId;
        std::optional<std::string> mode;
    };

    /// Throws RelayException (invalidURL).
    RelayTransport(const Environment& environment, const Request& request);
    RelayTransport(const RelayTransport&) = delete;
    RelayTransport& operator=(const RelayTransport&) = delete;
    /// As `cancel`.
    ~RelayTransport();

    /// Returns once the service has paired us. Throws RelayException: `rejected` by the service's word or by its
    /// answer to the upgrade, `pairingTimeout`, or `closed` when there is no way to it. Called once.
    asio::awaitable<void> connect();
    /// Returns when `data`, which is copied, is with the system. One message; several calls go out in their order.
    asio::awaitable<void> send(ByteView data);
    /// Exactly `count` bytes. Several calls are served in their order, a small one never before an earlier large one.
    asio::awaitable<Bytes> receive(std::size_t count);
    /// Takes its turn as `receive` does, and returns how many bytes, at least one, were put into `into`.
    asio::awaitable<std::size_t> receiveSome(std::span<std::uint8_t> into);
    /// Says goodbye to the service without waiting for it. May be called again.
    void cancel() noexcept;

private:
    class Link;
    std::shared_ptr<Link> link_;  // also held by whoever waits, and by what ends the websocket
};

}  // namespace skein
