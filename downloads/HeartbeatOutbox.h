#pragma once

#include "Core/engine/ResourceRecords.h"
#include "public/common/ActorSettings.h"
#include "public/common/FileLogger.h"
#include "public/common/Notifier.h"
#include "public/common/TaskGroup.h"

#include <cstddef>
#include <string>
#include <vector>

namespace skein {

/// Reports of sessions that have ended before the service confirmed them. They outlive the process, and go out under
/// their own event ids, and in their own user's name, until they are confirmed.
///
/// Owner: the heartbeat. Thread: the main executor. What cannot be read or written is logged.
class HeartbeatOutbox {
public:
    static constexpr const char* settingsKey = "svc.unconfirmedReports";
    /// Of one user in one heartbeat; the rest waits for the next.
    static constexpr std::size_t maxReportsAtOnce = 200;
    /// A service that never answers is not to fill the disk: the oldest go first.
    static constexpr std::size_t maxReports = 10'000;

    HeartbeatOutbox(const Strand& strand, ActorSettings settings, FileLogger& log)
        : settings_(std::move(settings)), log_(log), saved_(strand) {}

    asio::awaitable<void> load();
    asio::awaitable<void> add(std::vector<HeartbeatPayload> reports);
    /// The oldest of that user.
    std::vector<HeartbeatPayload> reportsOf(const std::string& userID) const;
    /// Forgets those that were confirmed.
    asio::awaitable<void> remove(std::vector<HeartbeatPayload> confirmed);

private:
    asio::awaitable<void> save();
    asio::awaitable<void> write();

    const ActorSettings settings_;
    FileLogger& log_;
    std::vector<HeartbeatPayload> reports_;  // oldest first
    bool hasChanged_ = false;
    bool isSaving_ = false;
    Notifier saved_;
};

}  // namespace skein
