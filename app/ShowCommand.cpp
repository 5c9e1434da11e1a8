#include "Core/formats/MagnetParser.h"
#include "Core/formats/TorrentParser.h"
#include "app/Command.h"
#include "app/Quantities.h"
#include "app/SourceKind.h"
#include "public/common/PlainJSON.h"
#include "public/common/Printable.h"
#include "public/common/ShownURL.h"
#include "public/common/WholeFile.h"

#include <CLI/CLI.hpp>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include <algorithm>
#include <iostream>
#include <system_error>

namespace skein {

namespace {

namespace json = boost::json;

/// Far beyond any torrent; what is larger was named by mistake.
constexpr std::size_t maxTorrentBytes = std::size_t{256} << 20U;

using Tiers = std::vector<std::vector<std::string>>;

json::value orNull(const auto& optional) { return optional ? json::value(*optional) : json::value(nullptr); }

json::array tiersToJson(const Tiers& tiers) {
    json::array result;
    for (const auto& tier : tiers) result.emplace_back(json::array(tier.begin(), tier.end()));
    return result;
}

json::object toJson(const TorrentMetaInfo& torrent) {
    json::array files;
    for (const TorrentFileInfo& file : torrent.files)
        files.push_back(json::object{{"path", file.path}, {"size", file.size}, {"offset", file.offset}});
    json::value date = nullptr;
    if (torrent.creationDate) date = torrent.creationDate->time_since_epoch().count();
    return {{"infoHash", torrent.infoHashHex},    {"name", torrent.name},
            {"totalSize", torrent.totalSize},     {"pieceLength", torrent.pieceLength},
            {"pieceCount", torrent.pieceCount()}, {"isPrivate", torrent.isPrivate},
            {"files", std::move(files)},          {"trackers", tiersToJson(torrent.announceList)},
            {"comment", orNull(torrent.comment)}, {"createdBy", orNull(torrent.createdBy)},
            {"creationDate", std::move(date)}};
}

/// A magnet link's trackers, each a tier of its own.
Tiers tiersOf(const MagnetLink& link) {
    Tiers tiers;
    for (const std::string& tracker : link.trackers) tiers.push_back({tracker});
    return tiers;
}

/// The same keys; what only the torrent itself tells is null.
json::object toJson(const MagnetLink& link) {
    return {{"infoHash", link.infoHashHex},
            {"name", orNull(link.displayName)},
            {"totalSize", nullptr},
            {"pieceLength", nullptr},
            {"pieceCount", nullptr},
            {"isPrivate", nullptr},
            {"files", nullptr},
            {"trackers", tiersToJson(tiersOf(link))},
            {"comment", nullptr},
            {"createdBy", nullptr},
            {"creationDate", nullptr}};
}

void printRow(std::string_view label, std::string_view value) {
    constexpr std::size_t labelWidth = 13;
    std::cout << label << std::string(labelWidth - label.size(), ' ') << printable(value) << '\n';
}

void printTrackers(const Tiers& tiers) {
    std::string_view label = "trackers:";
    for (const auto& tier : tiers) {
        std::string line;
        for (const std::string& tracker : tier) line.append(line.empty() ? "" : ", ").append(shownURL(tracker));
        printRow(std::exchange(label, ""), line);
    }
}

void print(const TorrentMetaInfo& torrent) {
    printRow("name:", torrent.name);
    printRow("info hash:", torrent.infoHashHex);
    printRow("size:", formatByteCount(torrent.totalSize) + " (" + std::to_string(torrent.totalSize) + " bytes)");
    printRow("pieces:", std::to_string(torrent.pieceCount()) + " of " + formatByteCount(torrent.pieceLength));
    if (torrent.isPrivate) printRow("private:", "yes");
    if (torrent.creationDate) printRow("created:", formatDate(*torrent.creationDate));
    if (torrent.createdBy) printRow("created by:", *torrent.createdBy);
    if (torrent.comment) printRow("comment:", *torrent.comment);
    printTrackers(torrent.announceList);
    printRow("files:", std::to_string(torrent.files.size()));
    for (const TorrentFileInfo& file : torrent.files) {
        constexpr std::size_t sizeWidth = 12;
        const std::string size = formatByteCount(file.size);
        std::cout << std::string(sizeWidth - std::min(sizeWidth, size.size()), ' ') << size << "  "
                  << printable(file.path) << '\n';
    }
}

void print(const MagnetLink& link) {
    if (link.displayName) printRow("name:", *link.displayName);
    printRow("info hash:", link.infoHashHex);
    printTrackers(tiersOf(link));
    std::string_view label = "web seeds:";
    for (const std::string& seed : link.webSeeds) printRow(std::exchange(label, ""), seed);
}

TorrentMetaInfo readTorrent(const std::string& path) {
    try {
        return TorrentParser::parse(readWholeFile(path, maxTorrentBytes));
    } catch (const std::system_error& failure) {
        const bool isAddress = path.find("://") != std::string::npos;
        throw CommandFailure("show: " + path,
                             isAddress ? "Not a .torrent file or magnet link" : failure.code().message());
    } catch (const std::exception& failure) {
        throw CommandFailure("show: " + path, failure.what());
    }
}

MagnetLink readMagnet(const std::string& uri) {
    try {
        return MagnetParser::parse(uri);
    } catch (const MagnetParseException& failure) {
        throw CommandFailure("show: " + uri, failure.what());
    }
}

class ShowCommand final : public Command {
public:
    ShowCommand()
        : Command({"show", "Print what a .torrent file or magnet link says", "skein show --json music.torrent"}) {}

    void declare(CLI::App& options) override {
        options.add_option("SOURCE", sources_, "A .torrent file or a magnet link")->required();
        options.add_flag("--json", asJson_, "One JSON object a line");
    }

    int run(const GlobalOptions& /*global*/) override {
        int status = exitStatus::done;
        for (const std::string& source : sources_) {
            try {
                show(source);
            } catch (const CommandFailure& failure) {
                std::cout.flush();
                reportFailure(failure.what());
                status = exitStatus::failed;
            }
        }
        return status;
    }

private:
    void show(const std::string& source) {
        if (sourceKindOf(source) == SourceKind::magnetLink) {
            output(readMagnet(source));
        } else {
            output(readTorrent(source));
        }
    }

    template <class Description>
    void output(const Description& description) {
        if (asJson_) {
            std::cout << plainJSON(toJson(description)) << '\n';
            return;
        }
        if (!std::exchange(isFirst_, false)) std::cout << '\n';
        print(description);
    }

    std::vector<std::string> sources_;
    bool asJson_ = false;
    bool isFirst_ = true;
};

}  // namespace

std::unique_ptr<Command> makeShowCommand() { return std::make_unique<ShowCommand>(); }

}  // namespace skein
