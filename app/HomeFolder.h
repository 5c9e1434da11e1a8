#pragma once

#include <cstddef>
#include <filesystem>

namespace skein {

/// The folder under which the program keeps its files, for its owner alone.
///
/// Owner and thread: the command, on the main thread.
class HomeFolder {
public:
    /// Creates the folder where it is missing. What others may read, write or enter there is taken from them: the
    /// folder itself, and the files and folders that the program keeps in it. What killed processes left half written
    /// there is deleted. Throws CommandFailure when that cannot be
    /// done, or when the folder belongs to another user.
    explicit HomeFolder(std::filesystem::path path);

    const std::filesystem::path& path() const noexcept { return path_; }
    /// How many files and folders others had access to.
    std::size_t narrowedCount() const noexcept { return narrowedCount_; }

private:
    void narrowKept();
    void narrowAll(const std::filesystem::path& folder);
    void narrow(const std::filesystem::path& path);

    const std::filesystem::path path_;
    std::size_t narrowedCount_ = 0;
};

}  // namespace skein
