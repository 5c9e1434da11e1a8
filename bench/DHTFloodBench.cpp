// dht_flood [COUNT]: what 1,000,000 (or COUNT) hostile datagrams on loopback cost a live DHT node that looks for peers
// meanwhile. Prints the rate, and the resident memory before and after.

#include "Core/discovery/DHTNode.h"
#include "Core/formats/BEncoder.h"
#include "public/common/ThreadPools.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/asio/use_future.hpp>

#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <exception>
#include <fstream>
#include <future>
#include <random>
#include <sstream>
#include <string_view>
#include <thread>
#include <unistd.h>
#include <vector>

namespace skein {
namespace {

using asio::ip::udp;
using Dictionary = BEncodeValue::Dictionary;

double residentMegabytes() {
    std::ifstream file("/proc/self/statm");
    std::size_t all = 0;
    std::size_t resident = 0;
    file >> all >> resident;
    return static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE)) / 1e6;
}

/// What waits in the kernel for the socket at `port`, and what it has dropped; zeros where there is no /proc.
struct Backlog {
    std::size_t waitingBytes = 0;
    std::size_t dropped = 0;
};
Backlog backlogOf(std::uint16_t port) {
    std::ifstream file("/proc/net/udp");
    Backlog backlog;
    std::string line;
    std::getline(file, line);  // the headings
    while (std::getline(file, line)) {
        std::istringstream fields(line);
        std::string slot, local, remote, state, queues, field;
        fields >> slot >> local >> remote >> state >> queues;
        if (local.size() != 13 || std::stoul(local.substr(9), nullptr, 16) != port) continue;
        while (fields >> field) {}
        backlog.waitingBytes = std::stoul(queues.substr(9), nullptr, 16);
        backlog.dropped = std::stoul(field);
    }
    return backlog;
}

/// Sends whatever a node should survive, and answers its queries as a hostile neighbour would.
class Attacker {
public:
    explicit Attacker(std::uint16_t target) : target_(asio::ip::address_v4::loopback(), target) {
        for (std::size_t i = 0; i < 8; ++i) {
            sockets_.emplace_back(context_, udp::endpoint(asio::ip::address_v4::loopback(), 0)).non_blocking(true);
            Bytes entry = random(20);
            append(entry, asio::ip::address_v4::loopback().to_bytes());
            appendBigEndian(entry, sockets_.back().local_endpoint().port());
            append(nodes_, entry);
        }
    }

    std::uint16_t port() const { return sockets_.front().local_endpoint().port(); }
    std::size_t answered() const { return answered_; }

    void send(std::size_t number) { sendFrom(number, made(number)); }

    /// Answers what the node asked of us, at times with a fault in it.
    void answerQueries() {
        for (std::size_t i = 0; i < sockets_.size(); ++i) {
            boost::system::error_code error;
            for (;;) {
                udp::endpoint from;
                const std::size_t count = sockets_[i].receive_from(asio::buffer(buffer_), from, 0, error);
                if (error) break;
                const BEncodeValue query = BEncoder::decode({buffer_.data(), count});
                if (query.dataAt("y") && asText(*query.dataAt("y")) != "q") continue;
                Bytes answer = response(*query.dataAt("t"));
                if (++answered_ % 8 == 0) flip(answer);
                sendFrom(i, answer);
            }
        }
    }

private:
    Bytes random(std::size_t count) {
        Bytes bytes(count);
        for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(engine_());
        return bytes;
    }
    void flip(Bytes& bytes) { bytes[engine_() % bytes.size()] ^= static_cast<std::uint8_t>(1 + engine_() % 255); }

    Bytes query(const char* method) {
        return BEncoder::encode(Dictionary{{"t", random(2)},
                                           {"y", "q"},
                                           {"q", method},
                                           {"a", Dictionary{{"id", random(20)}, {"target", random(20)}}}});
    }
    Bytes response(ByteView transaction) {
        Dictionary values{{"id", random(20)}, {"token", random(8)}, {"nodes", nodes_}};
        BEncodeValue::List peers;
        for (int i = 0; i < 50; ++i) {
            Bytes peer{127, 0, 0, 1};
            append(peer, random(2));
            peers.emplace_back(peer);
        }
        values.emplace_back("values", std::move(peers));
        return BEncoder::encode(Dictionary{{"t", transaction}, {"y", "r"}, {"r", std::move(values)}});
    }

    Bytes made(std::size_t number) {
        Bytes bytes;
        switch (number % 8) {
            case 0: return random(1 + engine_() % 1400);
            case 1: return query("ping");
            case 2: return query("find_node");
            case 3:
                bytes = query("find_node");
                flip(bytes);
                return bytes;
            case 4:
                bytes = response(random(2));
                bytes.resize(engine_() % bytes.size());
                return bytes;
            case 5: return response(random(2));  // nobody asked for it
            case 6:
                bytes = toBytes("d1:t2:aa1:y1:r1:r");
                bytes.insert(bytes.end(), 1 + engine_() % 1400, engine_() % 2 == 0 ? 'l' : 'd');
                return bytes;
            default:
                bytes = toBytes("d1:t2:aa1:y1:r1:rd6:valuesl");
                for (int i = 0; i < 690; ++i) append(bytes, toBytes("0:"));
                append(bytes, toBytes("eee"));
                return bytes;
        }
    }

    void sendFrom(std::size_t socket, const Bytes& bytes) {
        boost::system::error_code ignored;
        sockets_[socket % sockets_.size()].send_to(asio::buffer(bytes), target_, 0, ignored);
    }

    asio::io_context context_;
    udp::endpoint target_;
    std::vector<udp::socket> sockets_;
    Bytes nodes_;
    Bytes buffer_ = Bytes(65'536);
    std::size_t answered_ = 0;
    std::mt19937 engine_{20};
};

/// Looks for peers of one info-hash after the other.
asio::awaitable<void> keepLooking(DHTNode& node, Random& random, std::atomic<std::size_t>& found,
                                  const std::atomic<bool>& isOver) {
    while (!isOver) {
        SHA1Digest infoHash{};
        random.fill(infoHash);
        const auto stream = node.findPeers(infoHash);
        while (co_await stream->next()) ++found;
    }
}

void flood(std::size_t count) {
    SystemNameResolver resolver;
    ThreadPools pools;
    RealClock clock;
    FileLogger log;
    SecureRandom random;
    DHTNode::Options options{LocalBinding("127.0.0.1"), 0, {}};
    // The node's port is needed by the attacker, and the attacker's by the node.
    udp::socket reserved(pools.io(), udp::endpoint(asio::ip::address_v4::loopback(), 0));
    options.port = reserved.local_endpoint().port();
    Attacker attacker(options.port);
    options.bootstrapNodes = {{"127.0.0.1", attacker.port()}};
    reserved.close();
    DHTNode node({pools.io(), clock, log, random, resolver}, options);
    auto started = asio::co_spawn(pools.io(), node.start(), asio::use_future);
    while (started.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) attacker.answerQueries();
    started.get();
    std::atomic<std::size_t> found = 0;
    std::atomic<bool> isOver = false;
    std::vector<std::future<void>> looking;
    for (int i = 0; i < 50; ++i)
        looking.push_back(asio::co_spawn(pools.io(), keepLooking(node, random, found, isOver), asio::use_future));

    const double before = residentMegabytes();
    const auto begin = clock.now();
    for (std::size_t i = 0; i < count; ++i) {
        attacker.send(i);
        if (i % 64 != 0) continue;
        attacker.answerQueries();
        // So that the node meets all of them and the kernel drops none.
        while (backlogOf(options.port).waitingBytes > 65'536) std::this_thread::yield();
    }
    while (backlogOf(options.port).waitingBytes > 0) std::this_thread::yield();
    const double seconds = std::chrono::duration<double>(clock.now() - begin).count();
    const double after = residentMegabytes();
    const std::size_t dropped = backlogOf(options.port).dropped;
    isOver = true;
    for (const auto& last : looking)
        while (last.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) attacker.answerQueries();
    asio::co_spawn(pools.io(), node.stop(), asio::use_future).get();
    std::printf("%zu datagrams in %.1f s: %.0f a second, %zu dropped by the kernel\n", count, seconds,
                static_cast<double>(count) / seconds, dropped);
    std::printf("queries of the node answered with lies: %zu, peers handed out: %zu\n", attacker.answered(),
                found.load());
    std::printf("resident memory: %.1f MB before, %.1f MB after\n", before, after);
}

}  // namespace
}  // namespace skein

int main(int count, char** arguments) try {
    std::size_t datagrams = 1'000'000;
    if (count == 2) {
        const std::string_view text = arguments[1];
        std::from_chars(text.data(), text.data() + text.size(), datagrams);
    }
    skein::flood(datagrams);
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "dht_flood: %s\n", error.what());
    return 1;
}
