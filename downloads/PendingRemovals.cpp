#include "downloads/PendingRemovals.h"

#include "downloads/SavedTaskCodec.h"
#include "downloads/TaskStore.h"
#include "public/common/PrivateFolder.h"
#include "public/common/WholeFile.h"

#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

namespace skein {

namespace {

namespace fs = std::filesystem;

// What goes: the first line, before the task.
constexpr std::string_view withFiles = "files\n";
constexpr std::string_view alone = "task\n";

std::optional<PendingRemovals::Removal> removalIn(const fs::path& record) try {
    const Bytes bytes = readWholeFile(record, TaskStore::maxBytes);
    const std::string_view text = asText(bytes);
    const bool deletesFiles = text.starts_with(withFiles);
    if (!deletesFiles && !text.starts_with(alone)) return std::nullopt;
    auto tasks = SavedTaskCodec::decode(text.substr(text.find('\n') + 1));
    if (!tasks || tasks->size() != 1) return std::nullopt;
    return PendingRemovals::Removal{std::move(tasks->front()), deletesFiles};
} catch (const std::system_error&) {
    return std::nullopt;
}

}  // namespace

PendingRemovals::PendingRemovals(const fs::path& home) : folder_(home / "removals") {}

void PendingRemovals::begin(const SHA1Digest& key, const Removal& removal) const {
    std::string text(removal.deletesFiles ? withFiles : alone);
    text += SavedTaskCodec::encode(std::span(&removal.task, 1));
    createPrivateFolder(folder_);
    replaceWholeFile(recordOf(key), asBytes(text));
}

void PendingRemovals::end(const SHA1Digest& key) const noexcept {
    std::error_code ignored;  // done again, it finds nothing to do
    fs::remove(recordOf(key), ignored);
}

std::vector<PendingRemovals::Removal> PendingRemovals::all() const {
    std::vector<Removal> removals;
    std::error_code none;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder_, none))
        if (auto removal = removalIn(entry.path())) removals.push_back(*std::move(removal));
    return removals;
}

fs::path PendingRemovals::recordOf(const SHA1Digest& key) const { return folder_ / (toHex(key) + ".removal"); }

}  // namespace skein
