#include "public/common/FatalFault.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace skein {

namespace {

FatalFaultHandler& installedHandler() {
    static FatalFaultHandler handler = [](const std::string& message) { stopProgram(message); };
    return handler;
}

}  // namespace

void stopProgram(const std::string& message) noexcept {
    std::fprintf(stderr, "skein: fatal: %s\n", message.c_str());
    std::abort();
}

void fatalFault(const std::string& message) {
    installedHandler()(message);
    stopProgram(message);
}

FatalFaultHandler setFatalFaultHandler(FatalFaultHandler handler) {
    return std::exchange(installedHandler(), std::move(handler));
}

void throwOnFatalFault(const std::string& message) { throw FatalFault(message); }

}  // namespace skein
