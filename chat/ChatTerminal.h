#pragma once

#include <string>

namespace skein {

/// What a login says of the program and the machine. Plain data; any thread.
struct ChatTerminal {
    std::string bundId = "skein";
    std::string softVer = SKEIN_VERSION;  ///< the program's version
    std::string codeVer = "1";            ///< of what it understands of the protocol
    std::string termType = "desktop";
    std::string osVer = systemVersion();
    // "APNsToken" is sent empty and "sandbox" false: a desktop that stays connected is not woken by pushes.

    /// The system's name and release, "Linux 6.1.0" for example.
    static std::string systemVersion();
};

}  // namespace skein
