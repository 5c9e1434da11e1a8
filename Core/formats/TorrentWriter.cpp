#include "Core/formats/TorrentWriter.h"

#include "Core/formats/BEncoder.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace skein::TorrentWriter {

namespace {

using Tiers = std::vector<std::vector<std::string>>;

/// The components of `path` below the torrent's name, which it begins with.
BEncodeValue::List componentsBelow(std::string_view name, std::string_view path) {
    path.remove_prefix(std::min(name.size(), path.size()));
    BEncodeValue::List components;
    while (!path.empty()) {
        path.remove_prefix(1);
        const std::string_view component = path.substr(0, path.find('/'));
        components.emplace_back(component);
        path.remove_prefix(component.size());
    }
    return components;
}

BEncodeValue infoOf(const TorrentMetaInfo& torrent) {
    BEncodeValue::Dictionary info{
        {"name", torrent.name}, {"piece length", torrent.pieceLength}, {"pieces", torrent.pieces}};
    if (torrent.files.size() == 1 && torrent.files.front().path == torrent.name) {
        info.emplace_back("length", torrent.files.front().size);
    } else {
        BEncodeValue::List files;
        files.reserve(torrent.files.size());
        for (const TorrentFileInfo& file : torrent.files)
            files.emplace_back(
                BEncodeValue::Dictionary{{"length", file.size}, {"path", componentsBelow(torrent.name, file.path)}});
        info.emplace_back("files", std::move(files));
    }
    if (torrent.isPrivate) info.emplace_back("private", 1);
    return info;
}

BEncodeValue::Dictionary trackersOf(const Tiers& announceList) {
    BEncodeValue::List tiers;
    std::size_t count = 0;
    const std::string* first = nullptr;
    for (const auto& tier : announceList) {
        if (tier.empty()) continue;
        if (first == nullptr) first = &tier.front();
        count += tier.size();
        tiers.emplace_back(BEncodeValue::List(tier.begin(), tier.end()));
    }
    BEncodeValue::Dictionary trackers;
    if (first != nullptr) trackers.emplace_back("announce", *first);
    if (count > 1) trackers.emplace_back("announce-list", std::move(tiers));
    return trackers;
}

/// `header` holds keys that all sort before "info".
Bytes join(const BEncodeValue::Dictionary& header, ByteView info) {
    Bytes file = BEncoder::encode(header);
    file.pop_back();
    append(file, asBytes("4:info"));
    append(file, info);
    file.push_back('e');
    return file;
}

}  // namespace

Bytes write(const TorrentMetaInfo& torrent) {
    BEncodeValue::Dictionary header = trackersOf(torrent.announceList);
    if (torrent.comment) header.emplace_back("comment", *torrent.comment);
    if (torrent.createdBy) header.emplace_back("created by", *torrent.createdBy);
    if (torrent.creationDate) header.emplace_back("creation date", torrent.creationDate->time_since_epoch().count());
    return join(header, BEncoder::encode(infoOf(torrent)));
}

Bytes wrap(ByteView infoData, const Tiers& announceList) { return join(trackersOf(announceList), infoData); }

}  // namespace skein::TorrentWriter
