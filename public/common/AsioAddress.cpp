#include "public/common/AsioAddress.h"

#include <algorithm>

namespace skein {

namespace asio = boost::asio;

asio::ip::address toAsio(const IPAddress& address) {
    const ByteView from = address.bytes();
    if (address.isIPv4()) {
        asio::ip::address_v4::bytes_type bytes{};
        std::copy(from.begin(), from.end(), bytes.begin());
        return asio::ip::address_v4(bytes);
    }
    asio::ip::address_v6::bytes_type bytes{};
    std::copy(from.begin(), from.end(), bytes.begin());
    return asio::ip::address_v6(bytes);
}

IPAddress fromAsio(const asio::ip::address& address) {
    return address.is_v4() ? IPAddress(address.to_v4().to_bytes()) : IPAddress(address.to_v6().to_bytes());
}

}  // namespace skein
