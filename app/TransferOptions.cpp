#include "app/TransferOptions.h"

#include "app/Quantities.h"

#include <CLI/CLI.hpp>

#include <net/if.h>

namespace skein {

namespace {

std::string checkPeer(const std::string& text) {
    return PeerAddress::parse(text) ? std::string() : "Not HOST:PORT: " + text;
}

std::string checkCacheSite(const std::string& text) {
    return text.find("{HASH}") != std::string::npos ? std::string() : "Contains no {HASH}: " + text;
}

std::string checkRate(const std::string& text) {
    const auto bytes = parseByteCount(text);
    return bytes && *bytes >= 0 ? std::string() : "Not a rate like 500K or 2M: " + text;
}

std::string checkName(const std::string& text) {
    const bool isName = !text.empty() && text != "." && text != ".." && text.find('/') == text.npos;
    return isName ? std::string() : "Not the name of a file or folder: " + text;
}

/// An interface need not be there yet. What can be the name of none is most likely a mistyped address.
std::string checkLocalAddress(const std::string& text) {
    const bool isName = !text.empty() && text.size() < IFNAMSIZ && text.find_first_of(":/ \t") == std::string::npos &&
                        text.find_first_not_of("0123456789.") != std::string::npos;
    return IPAddress::parse(text) || isName ? std::string() : "Neither an IP address nor an interface: " + text;
}

}  // namespace

void TransferOptions::declare(CLI::App& options) {
    options.add_option("--dir", folder, "Where the files are")->type_name("DIR");
    options.add_option("--port", port, "The port that peers reach us on; 0 lets the system choose")
        ->capture_default_str();
    options
        .add_option("--bind", bind,
                    "Use this local address, or the addresses of this network interface, for all traffic")
        ->type_name("ADDR|INTERFACE")
        ->check(CLI::Validator(checkLocalAddress, ""));
    options.add_option("--peer", peers, "A peer to dial, repeatable")
        ->type_name("HOST:PORT")
        ->check(CLI::Validator(checkPeer, ""))
        ->expected(1)
        ->take_all();
    options.add_option("--tracker", trackers, "A tracker beside the source's own, repeatable")
        ->type_name("URL")
        ->expected(1)
        ->take_all();
    options.add_flag("--no-trackers", noTrackers, "Leave the source's own trackers alone");
    options.add_flag("--no-dht", noDHT, "Leave the DHT alone");
    options.add_flag("--no-lsd", noLSD, "Do not look for peers in the local network");
    options.add_flag("--no-pex", noPex, "Take no peers from other peers");
    options.add_flag("--no-cache-sites", noCacheSites, "Ask no sites that keep .torrent files");
    options.add_flag("--no-history", noHistory, "Neither use nor remember peers of before");
    options.add_option("--dht-bootstrap", dhtBootstrap, "Instead of the built-in DHT routers, repeatable")
        ->type_name("HOST:PORT")
        ->check(CLI::Validator(checkPeer, ""))
        ->expected(1)
        ->take_all();
    options.add_option("--cache-site", cacheSites, "Instead of the built-in cache sites, repeatable")
        ->type_name("URL with {HASH}")
        ->check(CLI::Validator(checkCacheSite, ""))
        ->expected(1)
        ->take_all();
    options
        .add_option("--encryption", encryption,
                    "How to speak to peers: only in plaintext, only encrypted, or encrypted if they know how")
        ->check(CLI::IsMember({"plaintext", "mse", "prefer-mse"}))
        ->capture_default_str();
    options.add_option("--transport", transport, "What to reach peers over; any: uTP where TCP fails")
        ->check(CLI::IsMember({"tcp", "utp", "any"}))
        ->capture_default_str();
    options.add_option("--download-limit", downloadLimit, "At most so many bytes a second (500K, 2M); 0: no limit")
        ->type_name("RATE")
        ->check(CLI::Validator(checkRate, ""));
    options.add_option("--upload-limit", uploadLimit, "At most so many bytes a second (500K, 2M); 0: no limit")
        ->type_name("RATE")
        ->check(CLI::Validator(checkRate, ""));
    options.add_option("--max-connections", maxConnections, "Peers at once")
        ->check(CLI::Range(1, 10'000))
        ->capture_default_str();
    options.add_flag("--allow-local-peers", allowsLocalPeers, "Dial loopback and private addresses from any source");
    options.add_flag("--json", isJSON, "One JSON object a line");
}

void TransferOptions::declarePlace(CLI::App& options) {
    options.add_option("--output,-o", output, "What the file or folder is to be called, instead of its own name")
        ->type_name("NAME")
        ->check(CLI::Validator(checkName, ""));
    options.add_flag("--overwrite", overwrites, "Rename a file that is in the way to NAME.before");
}

namespace {

std::vector<PeerAddress> parsed(const std::vector<std::string>& texts) {
    std::vector<PeerAddress> addresses;
    for (const std::string& text : texts)
        if (auto address = PeerAddress::parse(text)) addresses.push_back(std::move(*address));
    return addresses;
}

EncryptionChoice encryptionChoiceOf(const std::string& text) {
    if (text == "mse") return EncryptionChoice::mse;
    return text == "prefer-mse" ? EncryptionChoice::preferMSE : EncryptionChoice::plaintext;
}

TransportChoice transportChoiceOf(const std::string& text) {
    if (text == "tcp") return TransportChoice::tcp;
    return text == "utp" ? TransportChoice::utp : TransportChoice::any;
}

}  // namespace

TorrentSession::Options TransferOptions::sessionOptions(const std::filesystem::path& savePath,
                                                        TorrentSession::Options defaults) const {
    TorrentSession::Options options = std::move(defaults);
    options.savePath = savePath;
    options.maxConnections = maxConnections;
    options.downloadLimit = downloadBytesPerSecond();
    options.uploadLimit = parseByteCount(uploadLimit).value_or(0);
    options.dial = {encryptionChoiceOf(encryption), transportChoiceOf(transport)};
    if (!cacheSites.empty()) options.cacheSites = cacheSites;
    if (noCacheSites) options.cacheSites.clear();
    options.topName = output;
    options.movesAside = overwrites;
    DiscoveryOptions& discovery = options.discovery;
    discovery.usesTrackers = !noTrackers;
    discovery.usesDHT = !noDHT;
    discovery.usesLSD = !noLSD;
    discovery.usesPex = !noPex;
    discovery.usesHistory = !noHistory;
    discovery.allowsLocalPeers = allowsLocalPeers;
    discovery.extraTrackers.insert(discovery.extraTrackers.end(), trackers.begin(), trackers.end());
    discovery.namedPeers = parsed(peers);
    return options;
}

std::int64_t TransferOptions::downloadBytesPerSecond() const { return parseByteCount(downloadLimit).value_or(0); }

EngineHost::DHTOptions TransferOptions::dhtOptions() const { return {!noDHT, parsed(dhtBootstrap)}; }

}  // namespace skein
