#pragma once

#include "public/common/AddressOrigin.h"
#include "public/common/Bytes.h"
#include "public/common/IPAddress.h"
#include "public/common/LocalBinding.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>

#include <cstdint>
#include <memory>
#include <utility>

namespace skein {

namespace asio = boost::asio;

/// A UDP socket that talks with one remote endpoint and hears nobody else. Its destructor closes it.
///
/// Thread: the executor it was made for. Failures are boost::system::system_error.
class DatagramConnection {
public:
    DatagramConnection() = default;
    DatagramConnection(const DatagramConnection&) = delete;
    DatagramConnection& operator=(const DatagramConnection&) = delete;
    virtual ~DatagramConnection() = default;

    virtual asio::awaitable<void> send(Bytes datagram) = 0;
    /// The next datagram, whole. Cancelling the caller ends the wait (operation_aborted).
    virtual asio::awaitable<Bytes> receive() = 0;
    virtual IPAddress remoteAddress() const = 0;
};

/// Whatever makes such sockets: SystemDatagrams in the program, a test's own. Thread: any.
class DatagramConnector {
public:
    DatagramConnector() = default;
    DatagramConnector(const DatagramConnector&) = delete;
    DatagramConnector& operator=(const DatagramConnector&) = delete;
    virtual ~DatagramConnector() = default;

    /// A socket for `executor`. `origin` named what led to `remote`. Waits for nothing. Throws
    /// boost::system::system_error (NetworkRefusal, no route).
    virtual std::unique_ptr<DatagramConnection> connect(const asio::any_io_executor& executor, const IPAddress& remote,
                                                        std::uint16_t port, AddressOrigin origin) = 0;
};

/// Sends from where `binding` lets it.
class SystemDatagrams final : public DatagramConnector {
public:
    explicit SystemDatagrams(LocalBinding binding = {}) : binding_(std::move(binding)) {}

    std::unique_ptr<DatagramConnection> connect(const asio::any_io_executor& executor, const IPAddress& remote,
                                                std::uint16_t port, AddressOrigin origin) override;

private:
    const LocalBinding binding_;
};

}  // namespace skein
