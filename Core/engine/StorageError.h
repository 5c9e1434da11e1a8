#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace skein {

/// Why a torrent cannot be stored, or its files not be read or written. The texts are shown to users.
enum class StorageError {
    unsafePath,
    duplicatePath,
    invalidPieceLength,
    pieceTooLarge,
    invalidFileSize,
    pieceCountMismatch,
    notAFile,
    symbolicLink,
    fileTooShort,
    foreignFile,
    system,
};
std::string_view textOf(StorageError error) noexcept;

/// Thrown by storage. `what()` is the text followed by `detail`.
class StorageException : public std::runtime_error {
public:
    explicit StorageException(StorageError why, std::string_view detail = {}, int systemCode = 0)
        : std::runtime_error(std::string(textOf(why)).append(detail)), error(why), code(systemCode) {}
    /// A failed system call on `path`; `code` is its errno.
    static StorageException failedCall(const std::string& path, int code);
    /// `path` holds a file of somebody else; the text says what the user can do.
    static StorageException foreignFile(const std::string& path);

    const StorageError error;
    const int code;  ///< the errno of a failed system call, else 0
};

}  // namespace skein
