#include "Core/formats/TorrentPaths.h"

#include "Core/formats/BEncoder.h"

#include <algorithm>
#include <utility>

namespace skein {

namespace {

constexpr std::string_view secondForm = "path.utf-8";

std::string joined(const BEncodeValue::List& components) {
    std::string path;
    for (const BEncodeValue& component : components)
        if (const auto bytes = component.dataValue()) path.append("/").append(asText(*bytes));
    return path;
}

bool isUTF8(std::string_view text) { return isValidUTF8(asBytes(text)); }

}  // namespace

std::string TorrentPaths::numbered(std::string_view component, std::size_t number) {
    const std::size_t dot = component.rfind('.');
    const std::size_t end = dot == 0 ? component.size() : std::min(dot, component.size());
    std::string text(component.substr(0, end));
    return text.append(" (" + std::to_string(number) + ")").append(component.substr(end));
}

std::optional<std::string> TorrentPaths::read(const BEncodeValue& file) {
    const BEncodeValue::List* const path = file.listAt("path");
    if (path == nullptr) return std::nullopt;
    std::string given = joined(*path);
    if (isUTF8(given)) return given;
    if (!std::exchange(hasNoted_, true)) noteNamesInUTF8();
    if (const BEncodeValue::List* const second = file.listAt(secondForm)) {
        std::string text = joined(*second);
        if (!text.empty() && isUTF8(text) && takenPaths_.insert(text).second) return text;
    }
    return decoded(*path);
}

void TorrentPaths::noteNamesInUTF8() {
    BEncoder::forEachElement(files_, [this](const BEncodeValue& file) { noteNamesOf(file); });
}

void TorrentPaths::noteNamesOf(const BEncodeValue& file) {
    for (const std::string_view form : {std::string_view("path"), secondForm}) {
        const BEncodeValue::List* const path = file.listAt(form);
        if (path == nullptr) continue;
        for (const BEncodeValue& component : *path)
            if (const auto text = component.stringValue()) takenComponents_.emplace(*text);
        if (form == secondForm) continue;
        if (std::string text = joined(*path); isUTF8(text)) takenPaths_.insert(std::move(text));
    }
}

std::string TorrentPaths::decoded(const BEncodeValue::List& path) {
    std::string text;
    for (const BEncodeValue& component : path) {
        const auto bytes = component.dataValue();
        if (!bytes) continue;
        text += '/';
        text += isValidUTF8(*bytes) ? asText(*bytes) : std::string_view(decodedComponent(asText(*bytes)));
    }
    return text;
}

const std::string& TorrentPaths::decodedComponent(std::string_view bytes) {
    const auto [entry, isNew] = decodedByBytes_.try_emplace(std::string(bytes));
    std::string& component = entry->second;
    if (!isNew) return component;
    const std::string text = decoder_.decode(asBytes(bytes));
    component = text;
    if (takenComponents_.insert(component).second) return component;
    std::size_t& number = nextNumbers_.try_emplace(text, 2).first->second;
    do component = numbered(text, number++);
    while (!takenComponents_.insert(component).second);
    return component;
}

}  // namespace skein
