#include "downloads/SavedTaskCodec.h"

#include "public/common/PlainJSON.h"

#include <boost/json/array.hpp>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <utility>

namespace skein::SavedTaskCodec {

namespace {

namespace json = boost::json;
using std::chrono::microseconds;

/// 2001-01-01 00:00 UTC, from where dates count.
constexpr Clock::WallTime reference{std::chrono::seconds(978'307'200)};
/// 220 years to either side: what a file says must not overflow a date.
constexpr double furthestSeconds = 7e9;

// How each type is written, and read: false for a value of another type.

json::value write(const std::string& text) { return json::string(text); }
json::value write(std::int64_t number) { return number; }
json::value write(double number) { return number; }
json::value write(bool flag) { return flag; }
json::value write(Clock::WallTime date) {
    return static_cast<double>(std::chrono::round<microseconds>(date - reference).count()) / 1e6;
}
json::value write(const FileList& files) {
    json::array list;
    list.reserve(files.size());
    for (const TorrentFileInfo& file : files)
        list.push_back(json::object{{"path", file.path}, {"size", file.size}, {"offset", file.offset}});
    return list;
}

bool read(const json::value& value, std::string& into) {
    if (!value.is_string()) return false;
    into = std::string_view(value.get_string());
    return true;
}
bool read(const json::value& value, std::int64_t& into) {
    boost::system::error_code error;
    if (value.is_number()) into = value.to_number<std::int64_t>(error);
    return value.is_number() && !error;
}
bool read(const json::value& value, double& into) {
    if (value.is_number()) into = value.to_number<double>();
    return value.is_number();
}
bool read(const json::value& value, bool& into) {
    if (value.is_bool()) into = value.get_bool();
    return value.is_bool();
}
bool read(const json::value& value, Clock::WallTime& into) {
    double seconds = 0;
    if (!read(value, seconds)) return false;
    into = reference + microseconds(std::llround(std::clamp(seconds, -furthestSeconds, furthestSeconds) * 1e6));
    return true;
}

bool read(const json::value& value, FileList& into);

/// Reads the value at `key`, which must be there.
template <class T>
bool readKey(const json::object& fields, std::string_view key, T& into) {
    const json::value* const value = fields.if_contains(key);
    return value != nullptr && read(*value, into);
}

template <class T>
bool readKey(const json::object& fields, std::string_view key, std::optional<T>& into) {
    const json::value* const value = fields.if_contains(key);
    return value == nullptr || value->is_null() || read(*value, into.emplace());
}

bool read(const json::value& value, FileList& into) {
    if (!value.is_array()) return false;
    FileList::Files files;
    files.reserve(value.get_array().size());
    for (const json::value& item : value.get_array()) {
        if (!item.is_object()) return false;
        const json::object& fields = item.get_object();
        TorrentFileInfo& file = files.emplace_back();
        if (!readKey(fields, "path", file.path) || !readKey(fields, "size", file.size) ||
            !readKey(fields, "offset", file.offset))
            return false;
    }
    into = FileList(std::move(files));
    return true;
}

/// Calls `visit(key, field)` for each field of `task`, in the order of the keys, while it returns true.
template <class Task, class Visit>
bool forEachField(Task& task, Visit visit) {
    return visit("infoHash", task.infoHash) && visit("name", task.name) && visit("magnetURI", task.magnetURI) &&
           visit("addedDate", task.addedDate) && visit("status", task.status) && visit("totalSize", task.totalSize) &&
           visit("progress", task.progress) && visit("files", task.files) && visit("category", task.category) &&
           visit("notes", task.notes) && visit("downloadURL", task.downloadURL) &&
           visit("downloadType", task.downloadType) && visit("ownerUserID", task.ownerUserID) &&
           visit("accelerateEnabled", task.accelerateEnabled) && visit("uploadedBytes", task.uploadedBytes) &&
           visit("number", task.number);
}

template <class T>
void writeKey(json::object& fields, std::string_view key, const T& field) {
    fields.emplace(key, write(field));
}
template <class T>
void writeKey(json::object& fields, std::string_view key, const std::optional<T>& field) {
    if (field) writeKey(fields, key, *field);
}

}  // namespace

std::string encode(std::span<const SavedTask> tasks) {
    // A string that grows on its own is held twice each time it does.
    std::size_t guess = 2;
    for (const SavedTask& task : tasks) {
        guess += 500;
        if (task.files)
            for (const TorrentFileInfo& file : *task.files) guess += file.path.size() + 60;
    }
    std::string text = "[";
    text.reserve(guess);
    for (const SavedTask& task : tasks) {
        json::object fields;
        forEachField(task, [&](std::string_view key, const auto& field) {
            writeKey(fields, key, field);
            return true;
        });
        if (text.size() > 1) text += ',';
        text += plainJSONOfBytes(fields);
    }
    return text += ']';
}

std::optional<std::vector<SavedTask>> decode(std::string_view text) {
    // A path is written as its torrent gave it; should it be no text, it must not cost the list.
    json::parse_options options;
    options.allow_invalid_utf8 = true;
    json::monotonic_resource memory;  // one by one, a list of thousands would be a million pieces of memory
    boost::system::error_code error;
    const json::value list = json::parse(text, error, &memory, options);
    if (error || !list.is_array()) return std::nullopt;
    std::vector<SavedTask> tasks;
    tasks.reserve(list.get_array().size());
    for (const json::value& item : list.get_array()) {
        if (!item.is_object()) return std::nullopt;
        const json::object& fields = item.get_object();
        const auto readField = [&](std::string_view key, auto& field) { return readKey(fields, key, field); };
        if (!forEachField(tasks.emplace_back(), readField)) return std::nullopt;
    }
    return tasks;
}

}  // namespace skein::SavedTaskCodec
