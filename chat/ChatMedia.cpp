#include "chat/ChatMedia.h"

#include "chat/ChatFrame.h"

#include <boost/algorithm/string/predicate.hpp>
#include <boost/json/parse.hpp>

#include <initializer_list>

namespace skein {

namespace {

namespace json = boost::json;

std::string firstText(const json::object& media, std::initializer_list<const char*> keys) {
    for (const char* const key : keys)
        if (std::string text = chatFrame::textOf(media, key); !text.empty()) return text;
    return {};
}

std::string fetchable(std::string url) {
    const bool isWeb =
        boost::algorithm::istarts_with(url, "http://") || boost::algorithm::istarts_with(url, "https://");
    return isWeb ? std::move(url) : std::string();
}

}  // namespace

std::optional<ChatMedia> ChatMedia::read(std::string_view mediaJson) {
    boost::system::error_code error;
    const json::value value = json::parse(json::string_view(mediaJson.data(), mediaJson.size()), error);
    if (error) return std::nullopt;
    ChatMedia media;
    if (value.is_string()) {
        media.url = fetchable(std::string(std::string_view(value.get_string())));
        return media;
    }
    const json::object* const fields = value.if_object();
    if (fields == nullptr) return std::nullopt;
    if (std::string kind = firstText(*fields, {"type", "kind"}); !kind.empty()) media.kind = std::move(kind);
    media.name = firstText(*fields, {"name", "fileName"});
    for (const char* const key : {"size", "fileSize"})
        if (const auto size = chatFrame::numberOf(*fields, key); size && *size >= 0 && !media.size) media.size = size;
    media.url = fetchable(firstText(*fields, {"url", "fileUrl"}));
    return media;
}

}  // namespace skein
