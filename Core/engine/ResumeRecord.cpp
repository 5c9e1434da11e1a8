#include "Core/engine/ResumeRecord.h"

#include "Core/formats/BEncoder.h"

namespace skein {

namespace {

constexpr std::int64_t version = 1;
constexpr std::size_t bytesPerStamp = 24;

}  // namespace

/// The stamps are one string of three numbers a file: a list would cost a hundred bytes a file to read.
Bytes ResumeRecord::encode() const {
    Bytes stamps;
    stamps.reserve(files.size() * bytesPerStamp);
    for (const FileStamp& file : files) {
        appendBigEndian(stamps, static_cast<std::uint64_t>(file.size));
        appendBigEndian(stamps, static_cast<std::uint64_t>(file.modified));
        appendBigEndian(stamps, file.inode);
    }
    return BEncoder::encode(BEncodeValue::Dictionary{
        {"files", std::move(stamps)}, {"pieces", verified.toBitfield()}, {"version", version}});
}

std::optional<ResumeRecord> ResumeRecord::decode(ByteView data, int pieceCount, std::size_t fileCount) {
    BEncodeValue value;
    try {
        value = BEncoder::decode(data);
    } catch (const BEncodeException&) {
        return std::nullopt;
    }
    const auto pieces = value.dataAt("pieces");
    const auto stamps = value.dataAt("files");
    if (value.intAt("version") != version || !pieces || !stamps) return std::nullopt;
    const auto expected = (static_cast<std::size_t>(pieceCount) + 7) / 8;
    if (pieces->size() != expected || stamps->size() != fileCount * bytesPerStamp) return std::nullopt;
    ResumeRecord record;
    record.verified = PieceSet::fromBitfield(*pieces, pieceCount);
    record.files.reserve(fileCount);
    for (ByteView left = *stamps; !left.empty(); left = left.subspan(bytesPerStamp))
        record.files.push_back({static_cast<std::int64_t>(readBigEndian<std::uint64_t>(left)),
                                static_cast<std::int64_t>(readBigEndian<std::uint64_t>(left.subspan(8))),
                                readBigEndian<std::uint64_t>(left.subspan(16))});
    return record;
}

}  // namespace skein
