#include "chat/ChatTerminal.h"

#include <sys/utsname.h>

namespace skein {

std::string ChatTerminal::systemVersion() {
    utsname system{};
    if (::uname(&system) != 0) return {};
    return std::string(static_cast<const char*>(system.sysname)) + " " + static_cast<const char*>(system.release);
}

}  // namespace skein
