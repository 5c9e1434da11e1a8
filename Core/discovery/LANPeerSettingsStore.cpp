#include "Core/discovery/LANPeerSettingsStore.h"

#include "Core/formats/Whitespace.h"

#include <algorithm>
#include <utility>

namespace skein {

ManualLANPeers ManualLANPeers::parse(std::string_view text) {
    ManualLANPeers manual;
    while (!text.empty()) {
        const std::size_t comma = std::min(text.find(','), text.size());
        const std::string_view part = trimWhitespace(text.substr(0, comma));
        text.remove_prefix(std::min(comma + 1, text.size()));
        if (part.empty()) continue;
        if (auto peer = PeerAddress::parse(part)) {
            const bool isKnown = std::find(manual.peers.begin(), manual.peers.end(), *peer) != manual.peers.end();
            if (!isKnown) manual.peers.push_back(*std::move(peer));
        } else {
            manual.unusable.emplace_back(part);
        }
    }
    return manual;
}

asio::awaitable<ManualLANPeers> LANPeerSettingsStore::manualPeers() const {
    const auto text = co_await settings_.text(std::string(manualPeersKey));
    co_return ManualLANPeers::parse(text.value_or(std::string()));
}

asio::awaitable<void> LANPeerSettingsStore::setManualPeers(std::vector<PeerAddress> peers) const {
    std::string text;
    for (const PeerAddress& peer : peers) text.append(text.empty() ? "" : ",").append(peer.description());
    return settings_.set(std::string(manualPeersKey), std::move(text));
}

asio::awaitable<bool> LANPeerSettingsStore::isPortScanEnabled() const {
    const auto isEnabled = co_await settings_.flag(std::string(portScanKey));
    co_return isEnabled.value_or(false);
}

asio::awaitable<void> LANPeerSettingsStore::setPortScanEnabled(bool isEnabled) const {
    return settings_.set(std::string(portScanKey), isEnabled);
}

}  // namespace skein
