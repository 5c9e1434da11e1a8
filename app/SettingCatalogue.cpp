#include "app/SettingCatalogue.h"

#include "Core/discovery/LANPeerSettingsStore.h"
#include "Core/discovery/TrackerURL.h"
#include "Core/wire/PeerAddress.h"
#include "app/ChatHost.h"
#include "app/Quantities.h"
#include "service/ServiceAccount.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <filesystem>

namespace skein {

namespace {

using Kind = SettingKind;
using Effect = SettingEffect;

constexpr std::array<SettingDescription, 16> catalogue{{
    {"customDownloadDirectory", Kind::folder, "", "~/Downloads", Effect::atOnce, "Where the files of new downloads go"},
    {"uploadMode", Kind::choice, "paid, free, disabled", "paid", Effect::atOnce,
     "How others are served: for credit, for nothing, or not at all"},
    {"skein.downloadLimit", Kind::rate, "", "0", Effect::atOnce,
     "The most that all tasks of the daemon receive together in a second; 0: no limit"},
    {"skein.uploadLimit", Kind::rate, "", "0", Effect::atOnce,
     "The most that all tasks of the daemon send together in a second; 0: no limit"},
    {"memoryLimitMB", Kind::number, "", "0", Effect::atOnce,
     "Above so many MB of memory the daemon lets peers go; 0: no limit"},
    {"torrentCacheSites", Kind::cacheSites, "", "three public sites", Effect::forNewTasks,
     "Sites that are asked for the torrent of a magnet link; empty: none"},
    {"fallbackTrackers", Kind::trackers, "", "16 public trackers", Effect::atOnce,
     "Trackers of torrents that name none; empty: none"},
    {"dhtBootstrapNodes", Kind::addresses, "", "the public routers", Effect::afterRestart,
     "Where the DHT node asks for its first neighbours"},
    {LANPeerSettingsStore::manualPeersKey, Kind::addresses, "", "none", Effect::atOnce,
     "Peers in the local network that every torrent is looked for at"},
    {LANPeerSettingsStore::portScanKey, Kind::flag, "", "false", Effect::atOnce,
     "Whether the local network is searched for peers"},
    {ServiceAccount::serverURLKey, Kind::url, "", "none", Effect::atOnce, "The address of the resource service"},
    {ChatHost::serverKey, Kind::address, "", "none", Effect::atOnce, "The chat server"},
    {"skein.logLevel", Kind::choice, "error, warning, info, debug, trace", "info", Effect::atOnce,
     "How much is written to logs/skein.log"},
    {"skein.serveMetadata", Kind::flag, "", "true", Effect::forNewTasks,
     "Whether peers that have only a magnet link get the torrent from us"},
    {"skein.magnetRounds", Kind::number, "", "120", Effect::forNewTasks,
     "How often all sources are asked for the torrent of a magnet link"},
    {"skein.stopOnFatalFault", Kind::flag, "", "false", Effect::afterRestart,
     "Whether what a peer sends may stop the program, for those who look for faults"},
}};

bool isNumber(std::string_view text) {
    std::int64_t number = -1;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    return result.ec == std::errc() && result.ptr == end && number >= 0;
}

bool isRate(std::string_view text) {
    const auto bytes = parseByteCount(text);
    return bytes && *bytes >= 0;
}

bool isWebURL(std::string_view text) {
    const auto url = TrackerURL::parse(text);
    return url && (url->scheme == "http" || url->scheme == "https");
}

bool isTracker(std::string_view text) {
    const auto url = TrackerURL::parse(text);
    return isWebURL(text) || (url && url->scheme == "udp" && url->port);
}

bool isCacheSite(std::string_view text) { return isWebURL(text) && text.find("{HASH}") != std::string_view::npos; }

bool isAddress(std::string_view text) { return PeerAddress::parse(std::string(text)).has_value(); }

bool isFolder(std::string_view text) {
    const std::filesystem::path folder(text);
    std::error_code error;
    return folder.is_absolute() && std::filesystem::is_directory(folder, error);
}

/// Whether `isElement` holds of every element between the separators. An empty text has none.
template <class IsElement>
bool allOf(std::string_view list, std::string_view separator, IsElement isElement) {
    while (!list.empty()) {
        const std::size_t end = std::min(list.find(separator), list.size());
        if (!isElement(list.substr(0, end))) return false;
        list.remove_prefix(std::min(end + separator.size(), list.size()));
    }
    return true;
}

}  // namespace

std::string SettingDescription::allowed() const {
    switch (kind) {
        case Kind::choice: break;
        case Kind::flag: return "true or false";
        case Kind::number: return "a number, 0 or more";
        case Kind::rate: return "bytes a second like 500K or 2M, 0 or more";
        case Kind::folder: return "the whole path of a folder that is there";
        case Kind::url: return "an address that begins with http:// or https://";
        case Kind::address: return "HOST:PORT";
        case Kind::addresses: return "HOST:PORT, several with commas between them";
        case Kind::trackers: return "URLs of trackers (udp://HOST:PORT, http://…, https://…) with commas between them";
        case Kind::cacheSites: return "URLs that contain {HASH}, with commas between them";
    }
    std::string text(choices);
    const std::size_t last = text.rfind(", ");
    return last == std::string::npos ? text : text.replace(last, 2, " or ");
}

bool SettingDescription::allows(std::string_view value) const {
    switch (kind) {
        case Kind::choice:
            return !value.empty() && !allOf(choices, ", ", [&](std::string_view choice) { return choice != value; });
        case Kind::flag:
            return !allOf("true,yes,on,1,false,no,off,0", ",", [&](std::string_view word) { return word != value; });
        case Kind::number: return isNumber(value);
        case Kind::rate: return isRate(value);
        case Kind::folder: return isFolder(value);
        case Kind::url: return isWebURL(value);
        case Kind::address: return isAddress(value);
        case Kind::addresses: return allOf(value, ",", isAddress);
        case Kind::trackers: return allOf(value, ",", isTracker);
        case Kind::cacheSites: return allOf(value, ",", isCacheSite);
    }
    return false;
}

std::span<const SettingDescription> settingCatalogue() noexcept { return catalogue; }

const SettingDescription* findSetting(std::string_view key) noexcept {
    for (const SettingDescription& setting : catalogue)
        if (setting.key == key) return &setting;
    return nullptr;
}

}  // namespace skein
