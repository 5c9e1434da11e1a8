#pragma once

#include "public/common/ActorSettings.h"

#include <set>
#include <string>

namespace skein {

/// The torrents of one user that the resource service has yet to forget, kept in the settings so that a removal is not
/// lost with the process. Thread: any; failures are logged and leave the set as it was.
class PendingDeletes {
public:
    PendingDeletes(ActorSettings settings, FileLogger& log) : settings_(std::move(settings)), log_(log) {}

    /// `userID` is empty when nobody is signed in.
    asio::awaitable<void> add(std::string userID, std::string infoHash);
    asio::awaitable<void> remove(std::string userID, std::string infoHash);
    asio::awaitable<std::set<std::string>> all(std::string userID);

    /// The settings key of a user's set.
    static std::string keyOf(std::string userID);

private:
    asio::awaitable<void> change(std::string userID, std::string infoHash, bool isAdded);

    const ActorSettings settings_;
    FileLogger& log_;
};

}  // namespace skein
