#pragma once

#include "public/common/IPAddress.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace skein {

/// Finds the addresses of hosts by asking the system, on at most `maxThreads` threads for the whole program.
///
/// Whoever asks for a host that is being asked for joins that look-up, and answers are kept for a while: a thousand
/// torrents have the same ten trackers. A look-up cannot be interrupted and may take half a minute; so one that is
/// cancelled is answered at once, and `close` waits for nothing: a thread that still asks ends by itself, and holds
/// nothing but its own state.
/// Owner: shared by all that ask. Thread: any.
class NameLookups : public std::enable_shared_from_this<NameLookups> {
public:
    static constexpr int maxThreads = 8;
    /// How long an answer, and a failure, are good for.
    static constexpr std::chrono::seconds keptFor{60};
    static constexpr std::chrono::seconds failureKeptFor{10};
    static constexpr std::size_t mostKept = 4096;

    using Addresses = std::vector<IPAddress>;
    /// None: there is no such host. Null: the look-up was cancelled. Called once, on any thread, and not for long.
    using Answer = std::function<void(const Addresses* found)>;
    using Id = std::uint64_t;
    /// How the system is asked; blocks.
    using Ask = std::function<Addresses(const std::string& host)>;

    /// How a thread that nobody joins begins. Throws ThreadShortage.
    using Start = std::function<void(std::function<void()> work)>;

    explicit NameLookups(Ask ask = askSystem, Start start = startDetached)
        : ask_(std::move(ask)), start_(std::move(start)) {}
    NameLookups(const NameLookups&) = delete;
    NameLookups& operator=(const NameLookups&) = delete;

    /// The one of the program.
    static const std::shared_ptr<NameLookups>& shared();
    static Addresses askSystem(const std::string& host);
    static void startDetached(std::function<void()> work);

    Id newId() noexcept { return ++lastId_; }
    /// Whether the system may be asked, when the look-up's turn comes: what it is to leave by may have gone meanwhile.
    using MayAsk = std::function<bool()>;

    /// `answer` may come before this returns. Nothing is found while not even one thread can be started.
    void begin(Id id, const std::string& host, MayAsk mayAsk, Answer answer);
    void cancel(Id id);

private:
    using Clock = std::chrono::steady_clock;
    struct Kept {
        Addresses addresses;
        Clock::time_point until;
    };
    struct Waiting {
        MayAsk mayAsk;
        Answer answer;
    };
    /// Those who wait for one host.
    struct Query {
        std::string host;
        std::map<Id, Waiting> waiting;
    };

    bool addThread();
    void work();
    const Addresses* kept(const std::string& host);
    void keep(const std::string& host, Addresses addresses);

    const Ask ask_;
    const Start start_;
    std::atomic<Id> lastId_{0};
    std::mutex mutex_;  // not held while anybody is answered
    std::deque<std::shared_ptr<Query>> queue_;
    std::map<std::string, std::shared_ptr<Query>> byHost_;  // waiting, or being asked
    std::map<Id, std::shared_ptr<Query>> byId_;
    std::map<std::string, Kept> kept_;
    int threads_ = 0;
};

}  // namespace skein
