#pragma once

#include "Core/engine/FileStamp.h"
#include "public/common/Bytes.h"
#include "public/common/FileIdentity.h"
#include "public/common/HTTPMessage.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace skein {

/// What is kept of an unfinished HTTP download, so that it goes on where it was: which file, of which URL, and what the
/// server said by which it is known again (RFC 9110, 8.8).
///
/// The unfinished file is only ever added to. What it held when this was written (`syncedBytes`) was on the disk by
/// then. What it holds beyond that is as good while the machine runs, whatever became of the program; after a restart
/// of the machine it may be a hole that was never written, and is fetched again. So is all of a file that is shorter
/// than that, or as long and changed since: somebody else did that.
struct ResumeData {
    std::string url;
    std::string fileName;           ///< of the finished file, one path component
    FileIdentity part;              ///< of the unfinished file, and of the finished one; no file: about to be made
    std::int64_t partModified = 0;  ///< when our last write changed it, in nanoseconds since 1970
    std::string entityTag;
    std::string lastModified;      ///< empty where it does not tell one version from the next
    std::int64_t totalBytes = -1;  ///< -1: not known
    std::int64_t syncedBytes = 0;
    /// The name that the file has got, or is just getting, as a whole one of `syncedBytes`; empty before.
    std::string finishedName;
    std::string bootID;  ///< of the machine's run in which this was written

    /// With what `head` says.
    static ResumeData of(std::string url, std::string fileName, const HTTPResponse& head, std::int64_t totalBytes);
    /// For If-Range: a strong entity tag or else a date; empty when there is neither.
    std::string validator() const;
    /// Whether a part of the same file can be told from a part of another. By the size alone where the server gives
    /// nothing better.
    bool isResumable() const { return totalBytes >= 0 || !validator().empty(); }
    /// Whether `head` does not contradict that it is the same file.
    bool agreesWith(const HTTPResponse& head) const;
    /// Whether `head`, of a response with the whole file of `size` bytes (-1: not known), tells by a validator and the
    /// size that it is the same file.
    bool isCertainlyOf(const HTTPResponse& head, std::int64_t size) const;
    /// Whether `head`, of a response with the whole file of `size` bytes, does not contradict that the finished file is
    /// what the server has.
    bool isConfirmedBy(const HTTPResponse& head, std::int64_t size) const;
    /// Whether the file is whole, in `folder` under its name, and as it was left. Blocks: disk pool only.
    bool isFinishedIn(const std::filesystem::path& folder) const;
    /// Whether an unfinished file that looks like that is whole, and has but to get its name.
    bool isWhole(const FileStamp& stamp) const;
    /// How much of an unfinished file that looks like that is taken for good.
    std::int64_t trustedBytes(const FileStamp& stamp) const;

    /// "resume_HASH.dat", named for the source and the folder it goes to.
    static std::filesystem::path fileFor(const std::filesystem::path& folder, std::string_view url,
                                         const std::filesystem::path& savePath);
    /// Nothing when there is none, or it is damaged or of another URL. Blocks: disk pool only.
    static std::optional<ResumeData> load(const std::filesystem::path& file, std::string_view url);
    /// What is kept in `folder` of downloads to `savePath` from `url` with another query, such as a token that has
    /// expired. Whether it is of the same file, a response must tell. Blocks, as above.
    static std::vector<ResumeData> withOtherQuery(const std::filesystem::path& folder, std::string_view url,
                                                  const std::filesystem::path& savePath);
    /// Replaces the file as a whole, readable by its owner alone (a URL may hold a password). Throws
    /// std::system_error. Blocks, as above.
    void save(const std::filesystem::path& file) const;

    friend bool operator==(const ResumeData&, const ResumeData&) = default;
};

}  // namespace skein
