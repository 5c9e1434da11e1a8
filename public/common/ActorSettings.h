#pragma once

#include "public/common/RunOn.h"
#include "public/common/SettingsStore.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>

#include <optional>
#include <string>
#include <utility>

namespace skein {

/// The settings as actors use them: each operation waits on the disk pool, never on an `io` thread.
///
/// Owner: whoever wants to; it is two references, and cheap to copy. The store and the pool outlive every call.
/// Thread: any. Throws DatabaseException.
class ActorSettings {
public:
    ActorSettings(SettingsStore& store, asio::any_io_executor disk) : store_(&store), disk_(std::move(disk)) {}

    /// Runs `work(SettingsStore&)` on the disk pool and returns its result, for several operations at one go.
    template <class Work>
    auto with(Work work) const {
        return runOn(disk_, [store = store_, work = std::move(work)]() mutable { return work(*store); });
    }

    asio::awaitable<std::optional<SettingValue>> get(std::string key) const {
        return with([key = std::move(key)](SettingsStore& store) { return store.get(key); });
    }
    asio::awaitable<std::optional<std::string>> text(std::string key) const {
        return with([key = std::move(key)](SettingsStore& store) { return store.text(key); });
    }
    asio::awaitable<std::optional<std::int64_t>> number(std::string key) const {
        return with([key = std::move(key)](SettingsStore& store) { return store.number(key); });
    }
    asio::awaitable<std::optional<bool>> flag(std::string key) const {
        return with([key = std::move(key)](SettingsStore& store) { return store.flag(key); });
    }
    asio::awaitable<void> set(std::string key, SettingValue value) const {
        return with([key = std::move(key), value = std::move(value)](SettingsStore& store) { store.set(key, value); });
    }
    asio::awaitable<bool> unset(std::string key) const {
        return with([key = std::move(key)](SettingsStore& store) { return store.unset(key); });
    }
    asio::awaitable<void> update(std::string key, SettingsStore::Change change) const {
        return with(
            [key = std::move(key), change = std::move(change)](SettingsStore& store) { store.update(key, change); });
    }

private:
    SettingsStore* store_;
    asio::any_io_executor disk_;
};

}  // namespace skein
