#include "downloads/TaskTargets.h"

#include "downloads/TorrentTask.h"
#include "public/common/PrivateFolder.h"
#include "public/common/RunOn.h"
#include "public/common/WholeFile.h"

#include <algorithm>
#include <string>
#include <system_error>
#include <utility>

namespace skein {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t maxPathBytes = 16'384;

}  // namespace

TaskTargets::Hold::Hold(TaskTargets& targets, const SHA1Digest& key) : targets_(targets), key_(key) {
    targets_.held_.insert(key_);
}

TaskTargets::Hold::~Hold() {
    lock_.reset();  // before another one tries to take it
    targets_.held_.erase(key_);
    targets_.released_.notify();
}

TaskTargets::TaskTargets(const Strand& main, asio::any_io_executor disk, const fs::path& home,
                         const fs::path& downloadsDirectory, FileClaims& claims)
    : disk_(std::move(disk)),
      records_(home / "resume"),
      downloadsDirectory_(fs::absolute(downloadsDirectory)),
      claims_(claims),
      released_(main) {}

SHA1Digest TaskTargets::keyOf(const TorrentTask& task) {
    if (task.downloadURL) return sha1(asBytes(*task.downloadURL));
    SHA1Digest key{};
    const auto bytes = fromHex(task.infoHash);
    if (!bytes || bytes->size() != key.size()) return sha1(asBytes(task.infoHash));
    std::copy(bytes->begin(), bytes->end(), key.begin());
    return key;
}

void TaskTargets::setDownloadsDirectory(const fs::path& folder) { downloadsDirectory_ = fs::absolute(folder); }

asio::awaitable<std::unique_ptr<TaskTargets::Hold>> TaskTargets::take(SHA1Digest key, Purpose purpose,
                                                                      TaskPlace wanted) {
    co_await whenFree(key);
    auto hold = std::make_unique<Hold>(*this, key);
    auto work = [this, purpose, &wanted, hold = hold.get(), standard = downloadsDirectory_] {
        const auto known = recorded(hold->key_);
        hold->place = known.value_or(wanted);
        hold->place.movesAside = wanted.movesAside;
        if (hold->place.folder.empty()) hold->place.folder = standard;
        // Where there is no folder, there is nothing to remove, and nobody else writes.
        if (purpose == Purpose::write || fs::exists(hold->place.folder))
            hold->lock_.emplace(hold->place.folder, hold->key_);
        if (purpose != Purpose::write || known) return;
        createPrivateFolder(records_);
        replaceWholeFile(recordOf(hold->key_), asBytes(hold->place.folder.string() + '\n' + hold->place.topName));
    };
    co_await runOn(disk_, std::move(work));
    co_return hold;
}

asio::awaitable<void> TaskTargets::whenFree(SHA1Digest key) {
    while (held_.contains(key)) co_await released_.wait();
}

asio::awaitable<TaskPlace> TaskTargets::placeOf(SHA1Digest key) {
    auto read = [this, key, standard = downloadsDirectory_] { return recorded(key).value_or(TaskPlace{standard, {}}); };
    co_return co_await runOn(disk_, std::move(read));
}

std::vector<fs::path> TaskTargets::foldersOf(const std::vector<SHA1Digest>& keys) const {
    std::vector<fs::path> folders;
    folders.reserve(keys.size());
    for (const SHA1Digest& key : keys) {
        const auto place = recorded(key);
        folders.push_back(place ? place->folder : downloadsDirectory_);
    }
    return folders;
}

asio::awaitable<void> TaskTargets::claimWebFile(const Hold& hold, std::string name) {
    auto claim = [this, &hold, &name] {
        const std::vector<FileClaims::Claim> claims{{0, FileIdentity::at(hold.place.folder / name)}};
        claims_.begin({hold.key_, hold.place.folder, true}, claims);
        claims_.settle(hold.key_, claims);
    };
    co_await runOn(disk_, std::move(claim));
}

void TaskTargets::forget(const SHA1Digest& key) const {
    std::error_code ignored;
    fs::remove(recordOf(key), ignored);
}

fs::path TaskTargets::recordOf(const SHA1Digest& key) const { return records_ / (toHex(key) + ".folder"); }

std::optional<TaskPlace> TaskTargets::recorded(const SHA1Digest& key) const {
    try {
        const Bytes bytes = readWholeFile(recordOf(key), maxPathBytes);
        const std::string_view text = asText(bytes);
        const std::size_t line = std::min(text.find('\n'), text.size());
        TaskPlace place{fs::path(text.substr(0, line)), std::string(text.substr(std::min(line + 1, text.size())))};
        if (place.folder.is_absolute()) return place;
    } catch (const std::system_error&) {
        // There is none.
    }
    return std::nullopt;
}

}  // namespace skein
