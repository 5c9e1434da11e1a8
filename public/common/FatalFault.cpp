#include "public/common/FatalFault.h"

#include "public/common/StartThread.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>
#include <string_view>
#include <sys/uio.h>
#include <unistd.h>
#include <utility>

namespace skein {

namespace {

FatalFaultHandler& installedHandler() {
    static FatalFaultHandler handler = [](const std::string& message) { stopProgram(message); };
    return handler;
}

std::terminate_handler otherEnd = nullptr;

[[noreturn]] void endOfShortage() noexcept {
    try {
        if (const std::exception_ptr failure = std::current_exception()) std::rethrow_exception(failure);
    } catch (const std::bad_alloc&) {
        endProgram("not enough memory");
    } catch (const ThreadShortage& shortage) {
        endProgram(shortage.what());
    } catch (...) {
        // A fault of our own code, which the handler of before tells.
    }
    otherEnd();
    std::abort();
}

iovec pieceOf(std::string_view text) noexcept { return {const_cast<char*>(text.data()), text.size()}; }

}  // namespace

void endProgram(const char* why) noexcept {
    static std::atomic_flag isEnding;
    while (isEnding.test_and_set()) ::pause();
    const std::array<iovec, 3> line{pieceOf("skein: stopped: "), pieceOf(why), pieceOf("\n")};
    // Where stderr is closed, the exit status says it.
    if (::writev(STDERR_FILENO, line.data(), static_cast<int>(line.size())) < 0) std::_Exit(EXIT_FAILURE);
    std::_Exit(EXIT_FAILURE);
}

void endProgramOnShortage() noexcept { otherEnd = std::set_terminate(endOfShortage); }

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
