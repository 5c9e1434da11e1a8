#include "downloads/ResearchCategory.h"

namespace skein {

namespace {

constexpr ResearchCategory last = ResearchCategory::uncategorized;

std::string_view englishNameOf(ResearchCategory category) noexcept {
    switch (category) {
        case ResearchCategory::paper: return "Papers";
        case ResearchCategory::dataset: return "Datasets";
        case ResearchCategory::book: return "Books";
        case ResearchCategory::course: return "Courses";
        case ResearchCategory::notes: return "Notes";
        case ResearchCategory::other: return "Other";
        case ResearchCategory::uncategorized: return "Uncategorized";
    }
    return {};
}

std::string_view chineseNameOf(ResearchCategory category) noexcept {
    switch (category) {
        case ResearchCategory::paper: return "论文";
        case ResearchCategory::dataset: return "数据集";
        case ResearchCategory::book: return "书籍";
        case ResearchCategory::course: return "课程";
        case ResearchCategory::notes: return "笔记";
        case ResearchCategory::other: return "其他";
        case ResearchCategory::uncategorized: return "未分类";
    }
    return {};
}

}  // namespace

std::string_view textOf(ResearchCategory category) noexcept {
    switch (category) {
        case ResearchCategory::paper: return "paper";
        case ResearchCategory::dataset: return "dataset";
        case ResearchCategory::book: return "book";
        case ResearchCategory::course: return "course";
        case ResearchCategory::notes: return "notes";
        case ResearchCategory::other: return "other";
        case ResearchCategory::uncategorized: return "uncategorized";
    }
    return {};
}

std::string_view localizedName(ResearchCategory category, Language language) noexcept {
    return language == Language::chinese ? chineseNameOf(category) : englishNameOf(category);
}

std::optional<ResearchCategory> researchCategoryFrom(std::string_view text) noexcept {
    for (int number = 0; number <= static_cast<int>(last); ++number) {
        const auto category = static_cast<ResearchCategory>(number);
        if (text == textOf(category) || text == chineseNameOf(category)) return category;
    }
    return std::nullopt;
}

}  // namespace skein
