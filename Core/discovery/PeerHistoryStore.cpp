#include "Core/discovery/PeerHistoryStore.h"

#include "Core/discovery/PeerHistoryCodec.h"
#include "public/common/ErrorText.h"

#include <boost/asio/post.hpp>
#include <boost/system/system_error.hpp>

#include <algorithm>
#include <exception>
#include <utility>

namespace skein {

namespace {

PeerHistory decode(const std::optional<SettingValue>& stored) {
    const auto* const text = stored ? std::get_if<std::string>(&*stored) : nullptr;
    return text == nullptr ? PeerHistory() : decodePeerHistory(*text);
}

/// Adds `changes` to what `store` holds and returns the outcome. Waits for the disk.
PeerHistory saveIn(SettingsStore& store, const PeerHistory& changes, Clock::WallTime now) {
    PeerHistory merged;
    store.update(PeerHistoryStore::key, [&](const std::optional<SettingValue>& before) {
        merged = decode(before);
        merged.add(changes);
        merged.prune(now);
        return std::optional<SettingValue>(encodePeerHistory(merged, PeerHistoryStore::maxBytes));
    });
    return merged;
}

}  // namespace

PeerHistoryStore::PeerHistoryStore(const asio::any_io_executor& pool, ActorSettings settings, Clock& clock,
                                   FileLogger& log)
    : settings_(std::move(settings)), clock_(clock), log_(log), tasks_(pool), saved_(tasks_.strand()) {}

asio::awaitable<std::vector<PeerHistoryEntry>> PeerHistoryStore::peers(std::string infoHash, std::size_t limit) {
    return tasks_.call(findPeers(std::move(infoHash), limit));
}

asio::awaitable<std::vector<PeerHistoryEntry>> PeerHistoryStore::lanPeers(std::size_t limit) {
    return tasks_.call(findLANPeers(limit));
}

void PeerHistoryStore::recordSuccess(std::string infoHash, const PeerAddress& address, PeerSource source,
                                     bool allowsLocalPeers) {
    record(std::move(infoHash), address, source, allowsLocalPeers, Outcome::success);
}

void PeerHistoryStore::recordFailure(std::string infoHash, const PeerAddress& address, PeerSource source,
                                     bool allowsLocalPeers) {
    record(std::move(infoHash), address, source, allowsLocalPeers, Outcome::failure);
}

asio::awaitable<void> PeerHistoryStore::stop() {
    try {
        co_await tasks_.call(saveTheRest());
    } catch (const boost::system::system_error&) {
        // It has been stopped before.
    }
    co_await tasks_.stop();
}

void PeerHistoryStore::record(std::string infoHash, const PeerAddress& address, PeerSource source,
                              bool allowsLocalPeers, Outcome outcome) {
    if (!address.isUsableHistory() && !(allowsLocalPeers && address.isLocal())) return;
    const auto now = std::chrono::time_point_cast<std::chrono::milliseconds>(clock_.wallNow());
    Entry change{address.host, address.port, source};
    if (outcome == Outcome::success) {
        change.successCount = 1;
        change.lastSuccessAt = now;
    } else {
        change.failureCount = 1;
        change.lastFailureAt = now;
    }
    asio::post(tasks_.strand(),
               [this, infoHash = std::move(infoHash), change = std::move(change)] { update(infoHash, change); });
}

void PeerHistoryStore::update(const std::string& infoHash, const Entry& change) {
    if (tasks_.isStopping() || unwritten_.size() >= maxUnwritten) return;
    unwritten_.add(infoHash, change);
    memory_.add(infoHash, change);
    if (std::exchange(isSavePlanned_, true)) return;
    tasks_.spawn(saveLater());
}

asio::awaitable<std::vector<PeerHistoryEntry>> PeerHistoryStore::findPeers(std::string infoHash, std::size_t limit) {
    co_await load();
    co_return memory_.peers(infoHash, limit);
}

asio::awaitable<std::vector<PeerHistoryEntry>> PeerHistoryStore::findLANPeers(std::size_t limit) {
    co_await load();
    co_return memory_.lanPeers(limit);
}

asio::awaitable<void> PeerHistoryStore::load() {
    if (isLoaded_) co_return;
    try {
        auto reading = settings_.with([](SettingsStore& store) { return decode(store.get(key)); });
        PeerHistory stored = co_await std::move(reading);
        if (isLoaded_) co_return;  // another caller, or a write, was quicker
        stored.add(unwritten_);
        memory_ = std::move(stored);
        isLoaded_ = true;
    } catch (const DatabaseException& error) {
        log_.warning("[PeerHistory] load failed: ", error.what());
    }
}

asio::awaitable<void> PeerHistoryStore::saveLater() {
    while (!unwritten_.empty()) {
        Clock::TimePoint due = clock_.now() + writeDelay;
        if (lastSave_) due = std::max(due, *lastSave_ + writeSpacing);
        co_await clock_.sleep(due - clock_.now());
        co_await save();
    }
    isSavePlanned_ = false;
}

asio::awaitable<void> PeerHistoryStore::saveTheRest() {
    while (isSaving_) co_await saved_.wait();
    if (!unwritten_.empty()) co_await save();
}

/// What is recorded meanwhile waits for the next write, as does what could not be written.
asio::awaitable<void> PeerHistoryStore::save() {
    isSaving_ = true;
    const PeerHistory changes = std::exchange(unwritten_, PeerHistory());
    try {
        auto work = [changes, now = clock_.wallNow()](SettingsStore& store) { return saveIn(store, changes, now); };
        auto writing = settings_.with(std::move(work));
        PeerHistory stored = co_await std::move(writing);
        stored.add(unwritten_);
        memory_ = std::move(stored);
        isLoaded_ = true;
    } catch (const std::exception& error) {
        log_.warning("[PeerHistory] save failed: ", textOf(error));
        PeerHistory both = changes;
        both.add(unwritten_);
        unwritten_ = std::move(both);
    }
    lastSave_ = clock_.now();
    isSaving_ = false;
    saved_.notify();
}

}  // namespace skein
