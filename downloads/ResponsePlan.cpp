#include "downloads/ResponsePlan.h"

#include <charconv>
#include <string>

namespace skein {

namespace {

constexpr int ok = 200;
constexpr int nonAuthoritative = 203;
constexpr int partialContent = 206;
constexpr int rangeNotSatisfiable = 416;
constexpr int tooManyRequests = 429;
constexpr int serviceUnavailable = 503;

/// A decimal number, and nothing else.
std::optional<std::int64_t> numberIn(std::string_view text) {
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < 0) return std::nullopt;
    return number;
}

std::int64_t lengthIn(const HTTPResponse& head) {
    if (head.header("transfer-encoding")) return -1;
    return numberIn(head.header("content-length").value_or(std::string_view())).value_or(-1);
}

ResponsePlan planOfRange(const HTTPResponse& head, const ResumeData& data, std::int64_t partBytes) {
    using Action = ResponsePlan::Action;
    const Action otherwise = partBytes > 0 ? Action::askAgain : Action::refuse;
    const auto range = ContentRange::parse(head.header("content-range").value_or(std::string_view()));
    if (!range || range->first != partBytes) return {otherwise};
    if (partBytes == 0) return {Action::append, range->totalBytes, range->last + 1};
    // Some servers send a range without having looked at the condition.
    const bool isOfOtherSize = data.totalBytes >= 0 && range->totalBytes >= 0 && range->totalBytes != data.totalBytes;
    if (isOfOtherSize || !data.agreesWith(head)) return {otherwise};
    return {Action::append, range->totalBytes >= 0 ? range->totalBytes : data.totalBytes, range->last + 1};
}

/// RFC 9110, 15.5.17: such a response says how long the file is ("bytes */1234").
ResponsePlan planOfNoRange(const HTTPResponse& head, const ResumeData& data, std::int64_t partBytes) {
    using Action = ResponsePlan::Action;
    if (partBytes == 0) return {Action::refuse};
    constexpr std::string_view unit = "bytes */";
    const std::string_view range = head.header("content-range").value_or(std::string_view());
    const auto total = range.starts_with(unit) ? numberIn(range.substr(unit.size())) : std::nullopt;
    const bool isEnd = total == partBytes && data.totalBytes < 0 && data.agreesWith(head);
    return isEnd ? ResponsePlan{Action::complete, partBytes, partBytes} : ResponsePlan{Action::askAgain};
}

}  // namespace

std::optional<ContentRange> ContentRange::parse(std::string_view header) {
    constexpr std::string_view unit = "bytes ";
    if (!header.starts_with(unit)) return std::nullopt;
    header.remove_prefix(unit.size());
    const std::size_t dash = header.find('-');
    const std::size_t slash = header.find('/');
    if (dash == std::string_view::npos || slash == std::string_view::npos || slash < dash) return std::nullopt;
    const auto first = numberIn(header.substr(0, dash));
    const auto last = numberIn(header.substr(dash + 1, slash - dash - 1));
    const std::string_view whole = header.substr(slash + 1);
    const auto total = whole == "*" ? std::optional<std::int64_t>(-1) : numberIn(whole);
    if (!first || !last || !total || *last < *first || (*total >= 0 && *last >= *total)) return std::nullopt;
    return ContentRange{*first, *last, *total};
}

ResponsePlan ResponsePlan::of(const HTTPResponse& head, const ResumeData& data, std::int64_t partBytes) {
    switch (head.status) {
        case ok:
        case nonAuthoritative: return {Action::restart, lengthIn(head), lengthIn(head)};
        case partialContent: return planOfRange(head, data, partBytes);
        case rangeNotSatisfiable: return planOfNoRange(head, data, partBytes);
        case tooManyRequests:
        case serviceUnavailable: return {Action::askLater};
        default: return {};
    }
}

std::vector<HTTPHeader> rangeHeaders(const ResumeData& data, std::int64_t partBytes) {
    if (partBytes <= 0 || !data.isResumable()) return {};
    std::vector<HTTPHeader> headers{{"Range", "bytes=" + std::to_string(partBytes) + "-"}};
    if (std::string validator = data.validator(); !validator.empty())
        headers.push_back({"If-Range", std::move(validator)});
    return headers;
}

std::vector<HTTPHeader> revalidationHeaders(const ResumeData& data) {
    if (!data.entityTag.empty()) return {{"If-None-Match", data.entityTag}};
    if (!data.lastModified.empty()) return {{"If-Modified-Since", data.lastModified}};
    return {};
}

}  // namespace skein
