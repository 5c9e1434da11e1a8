#include "Core/engine/StorageError.h"

#include <cerrno>
#include <system_error>

namespace skein {

std::string_view textOf(StorageError error) noexcept {
    switch (error) {
        case StorageError::unsafePath: return "Unsafe file path in torrent: ";
        case StorageError::duplicatePath: return "Two files of the torrent share a path: ";
        case StorageError::invalidPieceLength: return "Invalid piece length: ";
        case StorageError::pieceTooLarge: return "Pieces are too large: ";
        case StorageError::invalidFileSize: return "Invalid file size in torrent: ";
        case StorageError::pieceCountMismatch: return "Piece count does not match the torrent's size: ";
        case StorageError::notAFile: return "Not a regular file: ";
        case StorageError::symbolicLink: return "Symbolic link inside the download folder: ";
        case StorageError::fileTooShort: return "File is too short: ";
        case StorageError::foreignFile:
        case StorageError::system: return "";
    }
    return "";
}

StorageException StorageException::failedCall(const std::string& path, int code) {
    return StorageException(StorageError::system, path + ": " + std::generic_category().message(code), code);
}

StorageException StorageException::foreignFile(const std::string& path) {
    return StorageException(StorageError::foreignFile,
                            path +
                                " exists and is not part of this download - choose another name (--output NAME) or "
                                "another folder, or have it moved aside (--overwrite)");
}

}  // namespace skein
