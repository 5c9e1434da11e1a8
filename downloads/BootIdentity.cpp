#include "downloads/BootIdentity.h"

#ifdef __APPLE__
#include <array>
#include <sys/sysctl.h>
#else
#include "public/common/WholeFile.h"

#include <system_error>
#endif

namespace skein {

#ifdef __APPLE__
std::string bootIdentity() {
    std::array<char, 64> text{};
    std::size_t size = text.size() - 1;
    return ::sysctlbyname("kern.bootsessionuuid", text.data(), &size, nullptr, 0) == 0 ? text.data() : "";
}
#else
std::string bootIdentity() try {
    constexpr std::size_t mostBytes = 64;
    std::string text(asText(readWholeFile("/proc/sys/kernel/random/boot_id", mostBytes)));
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
} catch (const std::system_error&) {
    return {};
}
#endif

}  // namespace skein
