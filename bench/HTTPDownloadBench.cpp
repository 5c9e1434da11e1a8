// Downloads 1 GiB from a server of its own on loopback, by HTTPDownloadSession and by "curl -o" in turn, each in a
// process of its own: wall-clock rate, processor time and peak memory. Files on tmpfs (/dev/shm, or $BENCH_DIR).

#include "downloads/HTTPDownloadSession.h"
#include "public/common/ThreadPools.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_future.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <future>
#include <netinet/in.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>
#ifdef __linux__
#include <sys/sendfile.h>
#endif

namespace skein {
namespace {

constexpr std::int64_t fileBytes = std::int64_t{1} << 30U;
constexpr std::int64_t serverPortion = std::int64_t{1} << 20U;

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

void writeSource(const std::filesystem::path& path) {
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    std::vector<std::uint32_t> block(1U << 18U);
    std::uint32_t state = 1;
    for (std::int64_t done = 0; done < fileBytes; done += std::ssize(block) * 4) {
        for (auto& word : block) word = state = state * 1664525U + 1013904223U;
        if (::write(file, block.data(), block.size() * 4) != std::ssize(block) * 4) fail("write");
    }
    ::close(file);
}

bool sendPortion(int to, int file, const std::uint8_t* content, std::int64_t& offset) {
    const auto count = static_cast<std::size_t>(std::min(serverPortion, fileBytes - offset));
#ifdef __linux__
    (void)content;
    off_t at = offset;
    const ssize_t sent = ::sendfile(to, file, &at, count);
#else
    (void)file;
    const ssize_t sent = ::write(to, content + offset, count);
#endif
    if (sent > 0) offset += sent;
    return sent > 0;
}

/// Answers every request with the whole file; ends with the process.
[[noreturn]] void serve(int listener, const std::filesystem::path& path) {
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    void* const content = ::mmap(nullptr, static_cast<std::size_t>(fileBytes), PROT_READ, MAP_SHARED, file, 0);
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(fileBytes) +
                             "\r\nETag: \"1\"\r\nConnection: close\r\n\r\n";
    for (;;) {
        const int client = ::accept(listener, nullptr, nullptr);
        if (client < 0) fail("accept");
        std::array<char, 8192> request{};
        if (::read(client, request.data(), request.size()) > 0 && ::write(client, head.data(), head.size()) > 0)
            for (std::int64_t offset = 0; offset < fileBytes;)
                if (!sendPortion(client, file, static_cast<const std::uint8_t*>(content), offset)) break;
        ::close(client);
    }
}

/// What a process of ours does: one download into `folder`.
int download(const std::string& url, const std::filesystem::path& folder) {
    RealClock clock;
    SecureRandom random;
    FileLogger log;
    ThreadPools pools;
    HTTPClient client;
    std::promise<bool> ended;
    HTTPDownloadSession session({pools.io(), pools.disk(), clock, random, log, client, folder / "resume"}, url, folder);
    session.setCallbacks({.onStateChanged = [&](const HTTPDownloadSession::State& state) {
        using Kind = HTTPDownloadSession::State::Kind;
        if (state.kind == Kind::failed) std::fprintf(stderr, "%s\n", state.message.c_str());
        if (state.kind == Kind::failed || state.kind == Kind::completed) ended.set_value(state.kind == Kind::completed);
    }});
    asio::co_spawn(pools.io(), session.start(), asio::use_future).get();
    const bool isComplete = ended.get_future().get();
    asio::co_spawn(pools.io(), session.stop(), asio::use_future).get();
    client.stop();
    return isComplete ? 0 : 1;
}

double seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

/// Runs the program, says what it cost, and returns MB/s.
double measure(const char* name, std::vector<std::string> arguments) {
    std::vector<char*> pointers;
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    const auto begun = std::chrono::steady_clock::now();
    const pid_t child = ::fork();
    if (child == 0) {
        ::execvp(pointers[0], pointers.data());
        std::_Exit(127);
    }
    int status = 0;
    rusage usage{};
    if (::wait4(child, &status, 0, &usage) != child || status != 0) fail(name);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begun;
    const double rate = static_cast<double>(fileBytes) / 1e6 / took.count();
#ifdef __APPLE__
    constexpr double peakUnit = 1;
#else
    constexpr double peakUnit = 1024;
#endif
    std::printf("%-8s %7.0f MB/s  %5.2f s of processor  %5.1f MB peak\n", name, rate,
                seconds(usage.ru_utime) + seconds(usage.ru_stime),
                static_cast<double>(usage.ru_maxrss) * peakUnit / 1e6);
    return rate;
}

double median(std::vector<double> values) {
    std::ranges::sort(values);
    return values[values.size() / 2];
}

int compare(const char* self, int runs) {
    const char* const base = std::getenv("BENCH_DIR");
    const std::filesystem::path work =
        std::filesystem::path(base == nullptr ? "/dev/shm" : base) / ("skein-http-" + std::to_string(::getpid()));
    std::filesystem::create_directories(work);
    writeSource(work / "source");
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    if (::bind(listener, plain, size) != 0 || ::listen(listener, 8) != 0) fail("listen");
    ::getsockname(listener, plain, &size);
    const pid_t server = ::fork();
    if (server == 0) {
        std::signal(SIGPIPE, SIG_IGN);
        serve(listener, work / "source");
    }
    const std::string url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/file.bin";
    std::vector<double> ours;
    std::vector<double> theirs;
    for (int run = 0; run < runs; ++run) {
        theirs.push_back(measure("curl -o", {"curl", "-s", "-o", work / "curl.bin", url}));
        ours.push_back(measure("session", {self, "--download", url, work}));
        if (run == 0 &&
            std::system(("cmp '" + (work / "source").string() + "' '" + (work / "file.bin").string() + "'").c_str()) !=
                0)
            fail("cmp");
        std::filesystem::remove(work / "file.bin");
        std::filesystem::remove(work / "curl.bin");
    }
    std::printf("medians: session %.0f MB/s, curl -o %.0f MB/s, ratio %.2f\n", median(ours), median(theirs),
                median(ours) / median(theirs));
    ::kill(server, SIGTERM);
    ::waitpid(server, nullptr, 0);
    std::filesystem::remove_all(work);
    return 0;
}

}  // namespace
}  // namespace skein

int main(int count, char** arguments) {
    if (count == 4 && std::string_view(arguments[1]) == "--download")
        return skein::download(arguments[2], arguments[3]);
    return skein::compare(arguments[0], count == 2 ? std::max(1, std::atoi(arguments[1])) : 5);
}
