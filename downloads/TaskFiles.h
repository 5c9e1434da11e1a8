#pragma once

#include "Core/engine/FileClaims.h"
#include "Core/formats/FileList.h"

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace skein {

/// The files of one task under the download folder.
///
/// Immutable; any thread. All but `fileURL` make file calls and belong on the disk pool.
class TaskFiles {
public:
    TaskFiles(std::filesystem::path folder, FileList files);

    /// Where `file` lies; nothing for a path that leads out of the folder.
    std::optional<std::filesystem::path> fileURL(const TorrentFileInfo& file) const;
    /// The first file that exists.
    std::optional<std::filesystem::path> firstExistingFileURL() const;
    /// What a file manager should show: the existing file of a task with one, the top folder of one with several, else
    /// the download folder.
    std::filesystem::path bestRevealURL() const;
    /// Whether `file` exists and is complete; `progress` is what `TorrentTask::fileProgress` says of it.
    bool isFileAvailable(const TorrentFileInfo& file, double progress) const;

    struct Place {
        std::optional<std::filesystem::path> url;  ///< as `fileURL` says
        bool isAvailable = false;
    };
    /// Of the files from `first` on, in their order, of which `progress` says what `TorrentTask::fileProgress` does.
    std::vector<Place> places(std::size_t first, const std::vector<double>& progress) const;

    struct Removal {
        std::size_t files = 0;    ///< that were deleted
        std::size_t folders = 0;  ///< that were deleted
        std::size_t failures = 0;
        std::string firstFailure;  ///< "path: reason"; empty without one
    };
    /// Deletes the files of the list that the task claims, then the folders below the download folder that this left
    /// empty. A file that the task does not claim stays, and so does one that took the place of a claimed one.
    /// Symbolic links are neither followed below the download folder nor deleted. What is missing already is no
    /// failure; a failure does not keep the rest from being deleted. At a second try the folders of what is missing
    /// count as left empty by the first one.
    Removal remove(const std::vector<FileClaims::Claim>& claims, bool isSecondTry = false) const;

private:
    std::filesystem::path folder_;
    FileList files_;
};

}  // namespace skein
