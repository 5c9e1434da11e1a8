#include "Core/discovery/LSDPort.h"

#include <boost/system/system_error.hpp>

#include <algorithm>
#include <chrono>
#include <set>

namespace skein {

namespace {

/// How long to leave a socket alone that cannot be read (no memory, the network is down).
constexpr std::chrono::seconds receivePause{1};

}  // namespace

LSDPort::LSDPort(const asio::any_io_executor& pool, Clock& clock, FileLogger& log, const LocalBinding& binding)
    : clock_(clock), log_(log), tasks_(pool), socket_(tasks_.strand(), binding, log) {}

bool LSDPort::add(const std::string& infoHashHex, Listener& listener, bool loopsBack) {
    if (listeners_.empty()) {
        if (!socket_.open()) return false;
        tasks_.spawn(receive(++run_));
    }
    if (loopsBack) socket_.loopBack();
    listeners_.emplace(infoHashHex, &listener);
    return true;
}

void LSDPort::remove(const std::string& infoHashHex, const Listener& listener) {
    const auto [first, end] = listeners_.equal_range(infoHashHex);
    const auto found = std::find_if(first, end, [&](const auto& entry) { return entry.second == &listener; });
    if (found == end) return;
    listeners_.erase(found);
    if (!listeners_.empty()) return;
    ++run_;
    socket_.close();
}

asio::awaitable<void> LSDPort::receive(unsigned run) {
    const LSDSocket::Receiver receiver = [this](std::string_view datagram, const std::string& fromHost) {
        hand(datagram, fromHost);
    };
    while (run == run_) {
        bool isWell = true;
        try {
            co_await socket_.waitUntilReadable();
            isWell = run != run_ || socket_.receiveAvailableDatagrams(receiver);
        } catch (const boost::system::system_error&) {
            isWell = false;  // closed, or in trouble
        }
        if (!isWell && run == run_) co_await clock_.sleep(receivePause);
    }
}

void LSDPort::hand(std::string_view datagram, const std::string& fromHost) {
    const auto message = LSDMessage::parse(datagram);
    if (!message) return;
    log_.trace("[LSD] received announce from ", fromHost);
    std::set<Listener*> concerned;  // each once, whatever the message repeats
    for (const std::string& infoHash : message->infoHashes) {
        const auto [first, end] = listeners_.equal_range(infoHash);
        for (auto entry = first; entry != end; ++entry) concerned.insert(entry->second);
    }
    for (Listener* const listener : concerned) listener->onAnnounce(*message, fromHost);
}

}  // namespace skein
