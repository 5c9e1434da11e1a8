#pragma once

#include <boost/system/error_code.hpp>

#include <type_traits>

namespace skein {

/// Why this program itself lets nothing leave to an address, before the system is asked. The texts are for users.
enum class NetworkRefusal {
    familyNotBound = 1,  ///< IPv4 or IPv6 alone is bound, and the address is of the other
    interfaceGone,       ///< the network interface to use does not exist, or has no address
    notPublic,           ///< a stranger named what leads into the user's own network
};

boost::system::error_code make_error_code(NetworkRefusal refusal) noexcept;

}  // namespace skein

template <>
struct boost::system::is_error_code_enum<skein::NetworkRefusal> : std::true_type {};
