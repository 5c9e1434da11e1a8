#pragma once

#include <cstdint>
#include <string_view>

namespace skein {

/// How far the chat client has come.
enum class ClientStatus : std::uint8_t {
    disconnected,
    connecting,
    connected,  ///< the login is not answered yet
    refused,    ///< connected, but the login failed
    loggedIn,
};
std::string_view textOf(ClientStatus status) noexcept;

}  // namespace skein
