#include "app/EngineHost.h"

#include "Core/engine/FallbackTrackers.h"
#include "app/Command.h"
#include "public/common/ErrorText.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_future.hpp>

#include <cstdlib>
#include <sstream>

namespace skein {

namespace {

namespace fs = std::filesystem;

const fs::path& created(const fs::path& home) {
    std::error_code error;
    fs::create_directories(home, error);
    if (error) throw CommandFailure(home.string(), error.message());
    return home;
}

}  // namespace

EngineHost::EngineHost(const fs::path& home, std::string bindAddress)
    : log_(created(home) / "logs" / "skein.log", LogLevel::info),
      settings_(home / "settings.db", log_),
      listener_(pools_.io(), clock_, log_, std::move(bindAddress)) {}

EngineHost::~EngineHost() {
    asio::co_spawn(pools_.io(), listener_.stop(), asio::use_future).get();
    http_.stop();
}

void EngineHost::listen(std::uint16_t port) {
    try {
        asio::co_spawn(pools_.io(), listener_.start(port), asio::use_future).get();
    } catch (const std::exception& error) {
        throw CommandFailure("listening on port " + std::to_string(port), textOf(error));
    }
}

TorrentSession::Services EngineHost::services() {
    return {
        pools_.io(), pools_.disk(), clock_, log_, TrackerServices{http_, resolver_, datagrams_, clock_, random_, log_},
        listener_};
}

std::optional<std::string> EngineHost::setting(std::string_view key) {
    try {
        return settings_.text(key);
    } catch (const DatabaseException& error) {
        log_.warning("[Manager] reading the setting ", key, " failed: ", error.what());
        return std::nullopt;
    }
}

fs::path EngineHost::downloadFolder() {
    if (const auto custom = setting("customDownloadDirectory"); custom && !custom->empty()) return *custom;
    const char* const user = std::getenv("HOME");
    const fs::path downloads = user == nullptr ? fs::path() : fs::path(user) / "Downloads";
    std::error_code error;
    return fs::is_directory(downloads, error) ? downloads : fs::current_path();
}

std::vector<std::string> EngineHost::fallbackTrackers() {
    const auto listed = setting("fallbackTrackers");
    if (!listed) return builtInFallbackTrackers();
    std::vector<std::string> trackers;
    std::istringstream text(*listed);
    for (std::string tracker; std::getline(text, tracker, ',');)
        if (!tracker.empty()) trackers.push_back(tracker);
    return trackers;
}

}  // namespace skein
