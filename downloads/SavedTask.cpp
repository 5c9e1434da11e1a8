#include "downloads/SavedTask.h"

#include "downloads/TorrentTask.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace skein {

namespace {

/// Neither JSON nor a progress bar knows a number that is none.
double fraction(double value) { return std::isfinite(value) ? std::clamp(value, 0.0, 1.0) : 0.0; }

}  // namespace

SavedTask SavedTask::of(const TorrentTask& task) {
    return {.infoHash = task.infoHash,
            .name = task.name(),
            .magnetURI = task.magnetURI,
            .addedDate = task.addedDate(),
            .status = std::string(textOf(task.isFinished() ? TaskStatus::completed : task.status())),
            .totalSize = task.totalSize(),
            .progress = fraction(task.progress()),
            .files = task.files().size() <= mostFiles ? std::optional(task.files()) : std::nullopt,
            .category = std::string(textOf(task.category())),
            .notes = task.notes(),
            .downloadURL = task.downloadURL,
            .downloadType = std::string(textOf(task.downloadType)),
            .ownerUserID = task.ownerUserID(),
            .accelerateEnabled = task.accelerateEnabled(),
            .uploadedBytes = task.uploadedBytes(),
            .number = task.number()};
}

std::shared_ptr<TorrentTask> SavedTask::restore(MsgCenter& center, Random& random) && {
    TaskIdentity identity{.id = UUID::random(random),
                          .infoHash = std::move(infoHash),
                          .magnetURI = std::move(magnetURI),
                          .downloadURL = std::move(downloadURL),
                          .downloadType = downloadTypeFrom(downloadType.value_or(std::string()))};
    auto task = std::make_shared<TorrentTask>(center, std::move(identity));
    const auto batch = task->batch();
    task->name.set(std::move(name));
    task->addedDate.set(addedDate);
    const bool isCompleted = taskStatusFrom(status.value_or(std::string())) == TaskStatus::completed;
    task->status.set(isCompleted ? TaskStatus::completed : TaskStatus::paused);
    task->totalSize.set(std::max<std::int64_t>(totalSize.value_or(0), 0));
    task->progress.set(fraction(progress.value_or(0.0)));
    // The bytes are not saved; until the next check this is what is known of them.
    const bool hasAll = task->isFinished() || task->progress() >= 1.0;
    const auto part = [&] {
        return static_cast<std::int64_t>(task->progress() * static_cast<double>(task->totalSize()));
    };
    task->downloadedBytes.set(hasAll ? task->totalSize() : part());
    if (files) task->files.set(*std::move(files));
    task->category.set(
        researchCategoryFrom(category.value_or(std::string())).value_or(ResearchCategory::uncategorized));
    task->notes.set(std::move(notes).value_or(std::string()));
    task->ownerUserID.set(std::move(ownerUserID));
    task->accelerateEnabled.set(accelerateEnabled.value_or(false));
    task->uploadedBytes.set(std::max<std::int64_t>(uploadedBytes.value_or(0), 0));
    // What may be wrong in a file that people edit counts as none.
    constexpr std::int64_t highest = 1'000'000'000;
    if (number && *number > 0 && *number <= highest) task->number.set(*number);
    return task;
}

}  // namespace skein
