#include "Core/formats/TorrentParser.h"

#include "Core/formats/BEncoder.h"
#include "Core/formats/TextDecoder.h"
#include "Core/formats/TorrentPaths.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace skein::TorrentParser {

namespace {

template <class Value>
Value required(std::optional<Value> value, std::string_view field) {
    if (!value) throw TorrentParseException(TorrentParseError::missingField, field);
    return *std::move(value);
}

/// A sum that stops at the ends of its type. Storage, which adds up again, refuses such a torrent.
std::int64_t saturatingSum(std::int64_t left, std::int64_t right) noexcept {
    using Limits = std::numeric_limits<std::int64_t>;
    std::int64_t sum = 0;
    if (__builtin_add_overflow(left, right, &sum)) return right < 0 ? Limits::min() : Limits::max();
    return sum;
}

/// What all paths together may take. Each repeats the torrent's name, so a long name and many short ones would grow
/// beyond all proportion to the list that they come from.
std::size_t maxPathBytes(ByteView list) noexcept {
    constexpr std::size_t ofAnyList = std::size_t{32} << 20U;
    return std::max(ofAnyList, 3 * list.size());
}

/// Bytes of a file's entry, at least: "d6:lengthi0e4:pathlee".
constexpr std::size_t shortestFile = 22;

/// Nothing when there is none.
std::optional<std::string> readText(const TextDecoder& decoder, std::optional<ByteView> bytes) {
    if (!bytes) return std::nullopt;
    return decoder.decode(*bytes);
}

std::string readName(const TextDecoder& decoder, const BEncodeValue& info) {
    const ByteView name = required(info.dataAt("name"), "name");
    if (const auto text = info.stringAt("name.utf-8"); text && !text->empty() && !isValidUTF8(name))
        return std::string(*text);
    return decoder.decode(name);
}

/// Where a torrent's description is in its bytes.
struct Source {
    const BEncodeValue& root;
    const BEncodeValue& info;
    std::optional<BEncoder::TorrentOutline::List> files;
    ByteView data;  ///< in which `files` is
};

void readFiles(TorrentMetaInfo& torrent, const TextDecoder& decoder, const Source& source) {
    FileList::Files files;
    const auto addFile = [&](std::string path, std::int64_t size) {
        files.push_back({std::move(path), size, torrent.totalSize});
        torrent.totalSize = saturatingSum(torrent.totalSize, size);
    };
    if (!source.files) {
        addFile(torrent.name, required(source.info.intAt("length"), "length or files"));
        torrent.files = std::move(files);
        return;
    }
    const auto [range, count] = *source.files;
    const ByteView list = source.data.subspan(range.begin, range.end - range.begin);
    files.reserve(std::min(count, list.size() / shortestFile));
    TorrentPaths paths(decoder, list);
    std::size_t pathBytes = 0;
    BEncoder::forEachElement(list, [&](const BEncodeValue& file) {
        const std::int64_t size = required(file.intAt("length"), "file length");
        addFile(torrent.name + required(paths.read(file), "file path"), size);
        pathBytes += files.back().path.size();
        if (pathBytes > maxPathBytes(list)) throw TorrentParseException(TorrentParseError::invalidData);
    });
    torrent.files = std::move(files);
}

std::vector<std::vector<std::string>> readTrackers(const BEncodeValue& root) {
    std::vector<std::vector<std::string>> tiers;
    if (const BEncodeValue::List* list = root.listAt("announce-list")) {
        for (const BEncodeValue& element : *list) {
            if (element.listValue() == nullptr) continue;
            std::vector<std::string> tier;
            for (const BEncodeValue& tracker : *element.listValue())
                if (const auto url = tracker.stringValue()) tier.emplace_back(*url);
            if (!tier.empty()) tiers.push_back(std::move(tier));
        }
    }
    if (tiers.empty())
        if (const auto url = root.stringAt("announce")) tiers.push_back({std::string(*url)});
    return tiers;
}

/// A torrent of both versions has the keys of both: it is read as one of version 1.
void refuseOtherVersions(const BEncodeValue& info) {
    const bool isVersion2 = info.intAt("meta version").value_or(1) > 1 || info["file tree"] != nullptr;
    if (isVersion2 && info["pieces"] == nullptr) throw TorrentParseException(TorrentParseError::unsupportedVersion);
}

TorrentMetaInfo parseInfo(const SHA1Digest& infoHash, const Source& source) {
    const BEncodeValue& root = source.root;
    const BEncodeValue& info = source.info;
    refuseOtherVersions(info);
    const TextDecoder decoder(root.stringAt("encoding").value_or(std::string_view()));
    TorrentMetaInfo torrent;
    torrent.infoHash = infoHash;
    torrent.infoHashHex = toHex(infoHash);
    torrent.name = readName(decoder, info);
    torrent.pieceLength = required(info.intAt("piece length"), "piece length");
    const ByteView pieces = required(info.dataAt("pieces"), "pieces");
    torrent.pieces.assign(pieces.begin(), pieces.end());
    readFiles(torrent, decoder, source);
    torrent.announceList = readTrackers(root);
    torrent.isPrivate = info.intAt("private") == 1;
    if (const auto date = root.intAt("creation date")) torrent.creationDate.emplace(std::chrono::seconds(*date));
    torrent.comment = readText(decoder, root.dataAt("comment"));
    torrent.createdBy = readText(decoder, root.dataAt("created by"));
    return torrent;
}

}  // namespace

TorrentMetaInfo parse(ByteView data) {
    const BEncoder::TorrentOutline outline = BEncoder::outlineOfTorrent(data);
    if (!outline.info) throw TorrentParseException(TorrentParseError::invalidData);
    const auto [begin, end] = *outline.info;
    return parseInfo(sha1(data.subspan(begin, end - begin)),
                     {outline.value, *outline.value["info"], outline.files, data});
}

TorrentMetaInfo parse(ByteView infoData, const SHA1Digest& expectedInfoHash) {
    const BEncoder::TorrentOutline outline = BEncoder::outlineOfInfo(infoData);
    if (sha1(infoData) != expectedInfoHash) throw TorrentParseException(TorrentParseError::invalidInfoHash);
    // Inside of a file the bytes that follow would not belong to the dictionary: its hash would be another one there.
    if (outline.consumed != infoData.size()) throw TorrentParseException(TorrentParseError::invalidData);
    return parseInfo(expectedInfoHash, {outline.value, outline.value, outline.files, infoData});
}

}  // namespace skein::TorrentParser
