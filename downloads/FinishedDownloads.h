#pragma once

#include "downloads/ResumeData.h"

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string_view>

namespace skein {

/// What commands have downloaded from the web, so that the same command, repeated because nobody knows whether it was
/// killed before its end or after it, finds the file instead of fetching it a second time.
///
/// Each is the resume data that the download ended with, beside that of unfinished ones; the oldest are forgotten.
/// All calls block: disk pool only.
class FinishedDownloads {
public:
    /// Some hundred bytes each.
    static constexpr std::size_t most = 1000;

    /// `record`: where the resume data of the download is kept.
    explicit FinishedDownloads(std::filesystem::path record);

    /// Takes the saved resume data over. What fails is only less comfortable afterwards.
    void keep() const noexcept;
    /// Nothing when it was not finished, or is not in `folder` any more as it was left.
    std::optional<ResumeData> find(std::string_view url, const std::filesystem::path& folder) const;

private:
    void forgetOldest() const;

    const std::filesystem::path record_;
    const std::filesystem::path kept_;
};

}  // namespace skein
