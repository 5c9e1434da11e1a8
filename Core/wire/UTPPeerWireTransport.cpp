#include "Core/wire/UTPPeerWireTransport.h"

#include "Core/wire/PeerError.h"
#include "Core/wire/UTPException.h"
#include "Core/wire/UTPStream.h"
#include "public/common/AsioAddress.h"
#include "public/common/BoundSocket.h"
#include "public/common/ErrorText.h"
#include "public/common/FatalFault.h"
#include "public/common/Notifier.h"
#include "public/common/Random.h"
#include "public/common/Within.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>

#include <algorithm>
#include <exception>
#include <utility>

namespace skein {

using asio::ip::udp;

namespace {

/// The numbers of both directions lie below 65535.
constexpr std::uint16_t largestConnectionID = 65'533;
/// Read before others on the strand get their turn.
constexpr int maxDatagramsATurn = 64;
/// No datagram is larger.
constexpr std::size_t largestDatagram = 65'535;
/// A sender's whole window may arrive at once; the system gives what it allows.
constexpr int socketBufferSize = 2 * static_cast<int>(UTPStream::maxBuffered);

std::uint16_t drawConnectionID() {
    SecureRandom random;
    return static_cast<std::uint16_t>(1 + random.number() % largestConnectionID);
}

}  // namespace

/// The socket and the stream over it. Reads whenever there is something; whoever waits for a change is told.
class UTPPeerWireTransport::Link : public std::enable_shared_from_this<Link> {
public:
    Link(const asio::any_io_executor& strand, Clock& clock, FileLogger& log, std::string peer)
        : acknowledged(strand), readable(strand), clock_(clock), log_(log), peer_(std::move(peer)), socket_(strand) {}

    UTPStream stream{drawConnectionID()};
    Notifier acknowledged;
    Notifier readable;

    /// Throws boost::system::system_error.
    void connect(const udp::endpoint& remote, const LocalBinding& binding) {
        openBound(socket_, remote, binding);
        boost::system::error_code ignored;
        socket_.set_option(udp::socket::receive_buffer_size(socketBufferSize), ignored);
        socket_.connect(remote);
        socket_.non_blocking(true);
        waitForDatagrams();
    }

    void sendDatagram(const Bytes& datagram) {
        // One that cannot be sent is as good as lost on the way; that nobody listens there is told to the reader.
        boost::system::error_code ignored;
        socket_.send(asio::buffer(datagram), 0, ignored);
    }

    void close(std::exception_ptr failure) noexcept {
        if (failure_) return;
        failure_ = std::move(failure);
        boost::system::error_code ignored;
        socket_.close(ignored);
        acknowledged.notify();
        readable.notify();
    }
    void throwIfClosed() const {
        if (failure_) std::rethrow_exception(failure_);
    }
    bool isClosed() const noexcept { return failure_ != nullptr; }

    template <class... Parts>
    void trace(const Parts&... parts) {
        log_.trace("[uTP][Transport] ", parts...);
    }

private:
    void waitForDatagrams() {
        socket_.async_wait(udp::socket::wait_read, [self = shared_from_this()](const boost::system::error_code&) {
            if (!self->isClosed()) self->receiveDatagrams();
        });
    }

    void receiveDatagrams() {
        const auto buffer = std::make_unique_for_overwrite<std::uint8_t[]>(largestDatagram);
        for (int i = 0; i < maxDatagramsATurn; ++i) {
            boost::system::error_code error;
            const std::size_t count = socket_.receive(asio::buffer(buffer.get(), largestDatagram), 0, error);
            if (error == asio::error::would_block) break;
            if (error) return end(std::make_exception_ptr(boost::system::system_error(error)));
            if (!receiveMessage({buffer.get(), count})) return;
        }
        waitForDatagrams();
    }

    /// False when the connection ended.
    bool receiveMessage(ByteView datagram) try {
        const UTPPacket packet = UTPPacket::decode(datagram);
        const Clock::TimePoint now = clock_.now();
        const bool wasOpen = stream.isOpen();
        const bool wasAwaitingAck = stream.isAwaitingAck();
        if (log_.wants(LogLevel::trace))
            trace(wasOpen ? "packet ← " : "← ", peer_, " ", packet.summary(), " payload=", packet.payload.size());
        const std::optional<Bytes> answer = stream.take(packet, now);
        if (answer) {
            if (wasOpen) {
                trace("STATE → ", peer_, " ack=", stream.acknowledgementNumber());
            } else {
                log_.debug("[uTP][Transport] open ✓ ", peer_, " sendCID=", stream.sendConnectionID(),
                           " recvCID=", stream.receiveConnectionID());
                log_.debug("[uTP][Transport] open ACK → ", peer_);
            }
            sendDatagram(*answer);
        }
        if (wasAwaitingAck && !stream.isAwaitingAck()) {
            if (wasOpen) trace("ACK ← ", peer_, " ack=", packet.header.acknowledgementNumber);
            acknowledged.notify();
        }
        if (stream.isReset()) end(std::make_exception_ptr(PeerException(PeerError::connectionClosed)));
        if (stream.isFinished()) acknowledged.notify();
        if (answer) readable.notify();
        return !isClosed();
    } catch (const UTPException&) {
        if (stream.isOpening()) end(std::current_exception());  // otherwise dropped
        return !isClosed();
    }

    void end(std::exception_ptr reason) {
        std::string text;
        try {
            std::rethrow_exception(reason);
        } catch (const std::exception& error) {
            text = textOf(error);
        }
        log_.debug("[uTP][Transport] receive loop ended ", peer_, " ", text);
        close(std::move(reason));
    }

    Clock& clock_;
    FileLogger& log_;
    const std::string peer_;
    udp::socket socket_;
    std::exception_ptr failure_;
};

UTPPeerWireTransport::UTPPeerWireTransport(Clock& clock, FileLogger& log, WayOut way, PeerAddress address,
                                           std::chrono::seconds timeout, Bytes expectedStart)
    : clock_(clock),
      log_(log),
      way_(std::move(way)),
      address_(std::move(address)),
      timeout_(timeout),
      expectedStart_(std::move(expectedStart)) {}

UTPPeerWireTransport::~UTPPeerWireTransport() { cancel(); }

// --- opening ---------------------------------------------------------------------------------------------------------

asio::awaitable<void> UTPPeerWireTransport::start() {
    log_.debug("[uTP][Transport] wait udp ready ", address_.description());
    const asio::any_io_executor strand = co_await asio::this_coro::executor;
    const std::vector<IPAddress> addresses = co_await way_.resolver.resolve(address_.host);
    if (isCancelled_) throw PeerException(PeerError::connectionClosed);
    link_ = std::make_shared<Link>(strand, clock_, log_, address_.description());
    link_->stream.expectStart(expectedStart_);
    link_->connect({toAsio(addresses.front()), address_.port}, way_.binding);
    log_.debug("[uTP][Transport] udp ready ", address_.description());
    bool isLate = false;
    try {
        co_await within(clock_, timeout_, openUTP());
    } catch (const TimeLimitExceeded&) {
        isLate = true;
    }
    if (isLate) {
        cancel();
        throw PeerException(PeerError::timeout);
    }
}

asio::awaitable<void> UTPPeerWireTransport::openUTP() {
    UTPStream& stream = link_->stream;
    const Bytes syn = stream.open(clock_.now());
    log_.debug("[uTP][Transport] SYN → ", address_.description(), " cid=", stream.receiveConnectionID(),
               " seq=", stream.pendingSequence());
    link_->trace("SYN sent ", address_.description(), " attempt=", stream.attempt());
    link_->sendDatagram(syn);
    co_await waitForAck("SYN sent ");
}

/// Sends the pending packet again whenever its time is over, until it is acknowledged.
asio::awaitable<void> UTPPeerWireTransport::waitForAck(std::string_view retryLine) {
    UTPStream& stream = link_->stream;
    for (;;) {
        link_->throwIfClosed();
        if (!stream.isAwaitingAck()) co_return;
        if (stream.isFinished()) throw PeerException(PeerError::connectionClosed);
        if (clock_.now() >= stream.deadline()) {
            const std::uint16_t sequence = stream.pendingSequence();
            const std::optional<Bytes> again = stream.retry(clock_.now());
            if (!again) throw PeerException(PeerError::timeout);
            link_->trace(retryLine, address_.description(), " seq=", sequence, " attempt=", stream.attempt(),
                         " error=", textOf(PeerError::timeout));
            link_->sendDatagram(*again);
        }
        try {
            co_await within(clock_, stream.deadline() - clock_.now(), link_->acknowledged.wait());
        } catch (const TimeLimitExceeded&) {
            continue;
        }
    }
}

// --- open ------------------------------------------------------------------------------------------------------------

asio::awaitable<void> UTPPeerWireTransport::send(ByteView data) {
    link_->trace("send stream ", data.size(), "B ", address_.description());
    while (!data.empty()) {
        const ByteView chunk = data.first(std::min(data.size(), UTPStream::maxPayloadSize));
        data = data.subspan(chunk.size());
        co_await sendPayload(chunk);
    }
}

asio::awaitable<void> UTPPeerWireTransport::sendPayload(ByteView chunk) {
    UTPStream& stream = link_->stream;
    link_->throwIfClosed();
    if (stream.isFinished()) throw PeerException(PeerError::connectionClosed);
    const Bytes packet = stream.sendPayload(chunk, clock_.now());
    const std::uint16_t sequence = stream.pendingSequence();
    link_->trace("DATA → ", address_.description(), " seq=", sequence, " ack=", stream.acknowledgementNumber(),
                 " bytes=", chunk.size(), " attempt=", stream.attempt());
    link_->sendDatagram(packet);
    co_await waitForAck("DATA retry ");
    link_->trace("DATA acked ", address_.description(), " seq=", sequence);
}

asio::awaitable<std::size_t> UTPPeerWireTransport::receiveSome(std::span<std::uint8_t> into) {
    class Claim {
    public:
        explicit Claim(bool& isTaken) : isTaken_(isTaken) {
            if (std::exchange(isTaken_, true)) stopProgram("UTP transport only supports one pending read");
        }
        Claim(const Claim&) = delete;
        Claim& operator=(const Claim&) = delete;
        ~Claim() { isTaken_ = false; }

    private:
        bool& isTaken_;
    };
    const Claim claim(isReading_);
    UTPStream& stream = link_->stream;
    for (;;) {
        link_->throwIfClosed();
        const std::size_t count = stream.read(into);
        if (count > 0) {
            if (const std::optional<Bytes> update = stream.windowUpdate(clock_.now())) link_->sendDatagram(*update);
            co_return count;
        }
        if (stream.isFinished()) throw PeerException(PeerError::connectionClosed);
        co_await link_->readable.wait();
    }
}

void UTPPeerWireTransport::cancel() noexcept {
    isCancelled_ = true;
    if (!link_ || link_->isClosed()) return;
    if (link_->stream.isOpen()) link_->sendDatagram(link_->stream.finish(clock_.now()));
    link_->close(std::make_exception_ptr(PeerException(PeerError::connectionClosed)));
}

}  // namespace skein
