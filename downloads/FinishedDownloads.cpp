#include "downloads/FinishedDownloads.h"

#include <algorithm>
#include <system_error>
#include <utility>
#include <vector>

namespace skein {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view prefix = "finished_";

}  // namespace

FinishedDownloads::FinishedDownloads(fs::path record)
    : record_(std::move(record)), kept_(record_.parent_path() / (std::string(prefix) + record_.filename().string())) {}

void FinishedDownloads::keep() const noexcept try {
    fs::rename(record_, kept_);
    forgetOldest();
} catch (const std::exception&) {
    std::error_code ignored;  // what is left of it finds the file finished, or is passed over
    fs::remove(record_, ignored);
}

std::optional<ResumeData> FinishedDownloads::find(std::string_view url, const fs::path& folder) const {
    auto data = ResumeData::load(kept_, url);
    if (!data || data->isFinishedIn(folder)) return data;
    std::error_code ignored;
    fs::remove(kept_, ignored);
    return std::nullopt;
}

void FinishedDownloads::forgetOldest() const {
    std::vector<std::pair<fs::file_time_type, fs::path>> all;
    for (const fs::directory_entry& entry : fs::directory_iterator(kept_.parent_path()))
        if (entry.path().filename().string().starts_with(prefix))
            all.emplace_back(entry.last_write_time(), entry.path());
    if (all.size() <= most) return;
    const auto newest = all.end() - static_cast<std::ptrdiff_t>(most);
    std::nth_element(all.begin(), newest, all.end());
    std::for_each(all.begin(), newest, [](const auto& old) { fs::remove(old.second); });
}

}  // namespace skein
