// The bare job of a download, without an engine: what one socket, the same messages, SHA-1 on a second thread and
// pwrite cost on this machine. The engine's rate is measured against it.
//
//   wire_reference seed FILE PORT PIECE_LENGTH          serves FILE to one peer on 127.0.0.1
//   wire_reference get OUT PORT SIZE PIECE_LENGTH       fetches SIZE bytes, hashes and writes every piece
//
// `get` prints its wall time and rate; both print their processor time.

#include "public/common/Bytes.h"
#include "public/common/SHA1.h"

#include <arpa/inet.h>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <netinet/tcp.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::size_t blockSize = 16384;
constexpr std::size_t headerSize = 13;
constexpr std::size_t requestSize = 17;
constexpr std::size_t outstandingLimit = 250;

[[noreturn]] void die(const char* what) {
    std::perror(what);
    std::exit(1);
}

double processorSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void sendAll(int socket, const std::uint8_t* data, std::size_t size) {
    while (size > 0) {
        const ssize_t sent = send(socket, data, size, MSG_NOSIGNAL);
        if (sent <= 0) die("send");
        data += sent;
        size -= static_cast<std::size_t>(sent);
    }
}

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

void seed(const char* file, int port, std::size_t pieceLength) {
    const int input = open(file, O_RDONLY);
    if (input < 0) die(file);
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    const int yes = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    const sockaddr_in address = loopback(port);
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || listen(listener, 1) != 0)
        die("listen");
    const int peer = accept(listener, nullptr, nullptr);
    setsockopt(peer, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);

    std::vector<std::uint8_t> requests(requestSize * outstandingLimit);
    std::size_t held = 0;
    const std::size_t batch = 16;
    std::vector<std::uint8_t> answers(batch * (headerSize + blockSize));
    for (;;) {
        const ssize_t got = recv(peer, requests.data() + held, requests.size() - held, 0);
        if (got <= 0) break;
        held += static_cast<std::size_t>(got);
        std::size_t used = 0;
        while (held - used >= requestSize) {
            std::size_t filled = 0;
            for (std::size_t i = 0; i < batch && held - used >= requestSize; ++i, used += requestSize) {
                const skein::ByteView request(requests.data() + used, requestSize);
                const auto piece = skein::readBigEndian<std::uint32_t>(request.subspan(5));
                const auto begin = skein::readBigEndian<std::uint32_t>(request.subspan(9));
                const auto length = skein::readBigEndian<std::uint32_t>(request.subspan(13));
                std::uint8_t* const at = answers.data() + filled;
                skein::writeBigEndian(at, static_cast<std::uint32_t>(9 + length));
                at[4] = 7;
                skein::writeBigEndian(at + 5, piece);
                skein::writeBigEndian(at + 9, begin);
                if (pread(input, at + headerSize, length, static_cast<off_t>(piece * pieceLength + begin)) < 0)
                    die("pread");
                filled += headerSize + length;
            }
            sendAll(peer, answers.data(), filled);
        }
        std::memmove(requests.data(), requests.data() + used, held - used);
        held -= used;
    }
    std::printf("seed: %.2f s of processor time\n", processorSeconds());
}

/// Hashes and writes whole pieces on a thread of its own.
class PieceWriter {
public:
    PieceWriter(int output, std::size_t pieceLength)
        : output_(output), pieceLength_(pieceLength), thread_([this] { run(); }) {}
    ~PieceWriter() {
        {
            const std::lock_guard lock(mutex_);
            isDone_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }
    PieceWriter(const PieceWriter&) = delete;
    PieceWriter& operator=(const PieceWriter&) = delete;

    void push(std::size_t piece, std::unique_ptr<std::uint8_t[]> data, std::size_t size) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return queue_.size() < 16; });
        queue_.push_back({piece, std::move(data), size});
        changed_.notify_all();
    }
    std::unique_ptr<std::uint8_t[]> buffer() {
        const std::lock_guard lock(mutex_);
        if (free_.empty()) return std::make_unique_for_overwrite<std::uint8_t[]>(pieceLength_);
        auto buffer = std::move(free_.back());
        free_.pop_back();
        return buffer;
    }

private:
    struct Piece {
        std::size_t index;
        std::unique_ptr<std::uint8_t[]> data;
        std::size_t size;
    };

    void run() {
        for (;;) {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return !queue_.empty() || isDone_; });
            if (queue_.empty()) return;
            Piece piece = std::move(queue_.front());
            queue_.pop_front();
            changed_.notify_all();
            lock.unlock();
            digests_ += skein::sha1({piece.data.get(), piece.size})[0];
            if (pwrite(output_, piece.data.get(), piece.size, static_cast<off_t>(piece.index * pieceLength_)) < 0)
                die("pwrite");
            lock.lock();
            free_.push_back(std::move(piece.data));
        }
    }

    const int output_;
    const std::size_t pieceLength_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Piece> queue_;
    std::vector<std::unique_ptr<std::uint8_t[]>> free_;
    bool isDone_ = false;
    unsigned digests_ = 0;
    std::thread thread_;
};

void get(const char* file, int port, std::size_t size, std::size_t pieceLength) {
    const int output = open(file, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (output < 0 || ftruncate(output, static_cast<off_t>(size)) != 0) die(file);
    const int peer = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = loopback(port);
    if (connect(peer, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) die("connect");
    const int yes = 1;
    setsockopt(peer, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);

    const auto start = std::chrono::steady_clock::now();
    {
        PieceWriter writer(output, pieceLength);
        const std::size_t blocks = (size + blockSize - 1) / blockSize;
        std::size_t requested = 0;
        std::size_t received = 0;
        std::vector<std::uint8_t> buffer(256 * 1024 + headerSize + blockSize);
        std::size_t held = 0;
        std::unique_ptr<std::uint8_t[]> piece;
        std::size_t pieceFilled = 0;
        std::vector<std::uint8_t> requests;
        while (received < blocks) {
            requests.clear();
            while (requested < blocks && requested - received < outstandingLimit) {
                const std::size_t offset = requested++ * blockSize;
                std::array<std::uint8_t, requestSize> request{0, 0, 0, 13, 6};
                skein::writeBigEndian(request.data() + 5, static_cast<std::uint32_t>(offset / pieceLength));
                skein::writeBigEndian(request.data() + 9, static_cast<std::uint32_t>(offset % pieceLength));
                skein::writeBigEndian(request.data() + 13,
                                      static_cast<std::uint32_t>(std::min(blockSize, size - offset)));
                requests.insert(requests.end(), request.begin(), request.end());
            }
            if (!requests.empty()) sendAll(peer, requests.data(), requests.size());
            const ssize_t got = recv(peer, buffer.data() + held, buffer.size() - held, 0);
            if (got <= 0) die("recv");
            held += static_cast<std::size_t>(got);
            std::size_t used = 0;
            while (held - used >= headerSize) {
                const skein::ByteView message(buffer.data() + used, held - used);
                const std::size_t length = skein::readBigEndian<std::uint32_t>(message);
                if (message.size() < 4 + length) break;
                if (!piece) piece = writer.buffer();
                const std::size_t begin = skein::readBigEndian<std::uint32_t>(message.subspan(9));
                std::memcpy(piece.get() + begin, message.data() + headerSize, length - 9);
                pieceFilled += length - 9;
                const std::size_t index = skein::readBigEndian<std::uint32_t>(message.subspan(5));
                const std::size_t pieceSize = std::min(pieceLength, size - index * pieceLength);
                if (pieceFilled == pieceSize) {
                    writer.push(index, std::move(piece), pieceSize);
                    pieceFilled = 0;
                }
                used += 4 + length;
                ++received;
            }
            std::memmove(buffer.data(), buffer.data() + used, held - used);
            held -= used;
        }
    }
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
    std::printf("get: %.3f s, %.0f MB/s, %.2f s of processor time\n", wall.count(),
                static_cast<double>(size) / 1e6 / wall.count(), processorSeconds());
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.size() == 4 && arguments[0] == "seed") {
        seed(argv[2], std::atoi(argv[3]), std::strtoull(argv[4], nullptr, 10));
    } else if (arguments.size() == 5 && arguments[0] == "get") {
        get(argv[2], std::atoi(argv[3]), std::strtoull(argv[4], nullptr, 10), std::strtoull(argv[5], nullptr, 10));
    } else {
        std::fprintf(stderr, "usage: wire_reference seed FILE PORT PIECE_LENGTH | get OUT PORT SIZE PIECE_LENGTH\n");
        return 2;
    }
    return 0;
}
