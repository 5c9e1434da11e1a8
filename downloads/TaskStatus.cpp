#include "downloads/TaskStatus.h"

namespace skein {

namespace {

constexpr TaskStatus last = TaskStatus::error;

std::string_view englishNameOf(TaskStatus status) noexcept {
    switch (status) {
        case TaskStatus::fetchingMetadata: return "Fetching metadata...";
        case TaskStatus::downloading: return "Downloading";
        case TaskStatus::paused: return "Paused";
        case TaskStatus::seeding: return "Seeding";
        case TaskStatus::completed: return "Completed";
        case TaskStatus::error: return "Error";
    }
    return {};
}

std::string_view chineseNameOf(TaskStatus status) noexcept {
    switch (status) {
        case TaskStatus::fetchingMetadata: return "获取元数据...";
        case TaskStatus::downloading: return "下载中";
        case TaskStatus::paused: return "已暂停";
        case TaskStatus::seeding: return "做种中";
        case TaskStatus::completed: return "已完成";
        case TaskStatus::error: return "出错";
    }
    return {};
}

}  // namespace

std::string_view textOf(TaskStatus status) noexcept {
    switch (status) {
        case TaskStatus::fetchingMetadata: return "fetchingMetadata";
        case TaskStatus::downloading: return "downloading";
        case TaskStatus::paused: return "paused";
        case TaskStatus::seeding: return "seeding";
        case TaskStatus::completed: return "completed";
        case TaskStatus::error: return "error";
    }
    return {};
}

std::string_view localizedName(TaskStatus status, Language language) noexcept {
    return language == Language::chinese ? chineseNameOf(status) : englishNameOf(status);
}

std::optional<TaskStatus> taskStatusFrom(std::string_view text) noexcept {
    for (int number = 0; number <= static_cast<int>(last); ++number) {
        const auto status = static_cast<TaskStatus>(number);
        if (text == textOf(status) || text == chineseNameOf(status)) return status;
    }
    return std::nullopt;
}

}  // namespace skein
