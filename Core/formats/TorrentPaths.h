#pragma once

#include "Core/formats/BEncodeValue.h"
#include "Core/formats/TextDecoder.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace skein {

/// Reads the paths of one torrent's files as UTF-8, so that paths of different bytes stay different.
///
/// A path in UTF-8 is taken as it is. For another one the torrent may give a second form, `path.utf-8`; else its
/// components are decoded, and one that then looks like another name of the torrent gets a number: "a (2).txt".
/// Not locked. `decoder` and the bytes of `files` outlive it.
class TorrentPaths {
public:
    /// `files` is the bencoded list of all files.
    TorrentPaths(const TextDecoder& decoder, ByteView files) : decoder_(decoder), files_(files) {}

    /// The components of a file's path, a "/" before each; those that are no strings are left out. `file` is one of
    /// `files`. Nothing when it has no path.
    std::optional<std::string> read(const BEncodeValue& file);
    /// "a.txt" with 2: "a (2).txt".
    static std::string numbered(std::string_view component, std::size_t number);

private:
    std::string decoded(const BEncodeValue::List& path);
    const std::string& decodedComponent(std::string_view bytes);
    void noteNamesInUTF8();
    void noteNamesOf(const BEncodeValue& file);

    const TextDecoder& decoder_;
    const ByteView files_;
    // All empty while every path is in UTF-8.
    bool hasNoted_ = false;
    std::unordered_set<std::string> takenPaths_;
    std::unordered_set<std::string> takenComponents_;
    std::unordered_map<std::string, std::size_t> nextNumbers_;     ///< by the component that needed one
    std::unordered_map<std::string, std::string> decodedByBytes_;  ///< components
};

}  // namespace skein
