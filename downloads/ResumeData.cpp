#include "downloads/ResumeData.h"

#include "downloads/BootIdentity.h"
#include "public/common/PlainJSON.h"
#include "public/common/PrivateFolder.h"
#include "public/common/SHA1.h"
#include "public/common/WholeFile.h"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>

#include <algorithm>
#include <exception>
#include <limits>
#include <sys/stat.h>
#include <system_error>
#include <utility>

namespace skein {

namespace {

namespace json = boost::json;

/// Headers and URLs are a few kilobytes.
constexpr std::size_t mostRecordBytes = std::size_t{1} << 20U;

constexpr std::string_view namePrefix = "resume_";

std::string textIn(const json::object& fields, std::string_view key) {
    const json::value* const value = fields.if_contains(key);
    return value != nullptr && value->is_string() ? std::string(value->get_string()) : std::string();
}

/// -1 for what is not there or not a size.
std::int64_t sizeIn(const json::object& fields, std::string_view key) {
    const json::value* const value = fields.if_contains(key);
    return value != nullptr && value->is_int64() ? std::max<std::int64_t>(value->get_int64(), -1) : -1;
}

/// JSON's integers are signed; the bits of an unsigned number come back as they were.
json::array listOf(const FileIdentity& file) {
    return {static_cast<std::int64_t>(file.device), static_cast<std::int64_t>(file.inode), file.born};
}

FileIdentity identityIn(const json::object& fields, std::string_view key) {
    const json::value* const value = fields.if_contains(key);
    if (value == nullptr) return {};
    const json::array& numbers = value->as_array();
    return {static_cast<std::uint64_t>(numbers.at(0).as_int64()), static_cast<std::uint64_t>(numbers.at(1).as_int64()),
            numbers.at(2).as_int64()};
}

bool isOneComponent(const std::filesystem::path& name) {
    return !name.empty() && name == name.filename() && name != "." && name != "..";
}

std::string_view withoutQuery(std::string_view url) { return url.substr(0, url.find_first_of("?#")); }

std::string_view withoutWeakness(std::string_view tag) { return tag.starts_with("W/") ? tag.substr(2) : tag; }

/// Nothing for one that is damaged, or is none.
std::optional<ResumeData> readRecord(const std::filesystem::path& file) try {
    const json::value parsed = json::parse(asText(readWholeFile(file, mostRecordBytes)));
    const json::object& fields = parsed.as_object();
    ResumeData data;
    data.url = textIn(fields, "url");
    data.fileName = textIn(fields, "fileName");
    data.part = identityIn(fields, "part");
    data.partModified = sizeIn(fields, "partModified");
    data.entityTag = textIn(fields, "entityTag");
    data.lastModified = textIn(fields, "lastModified");
    data.totalBytes = sizeIn(fields, "totalBytes");
    data.syncedBytes = std::max<std::int64_t>(sizeIn(fields, "syncedBytes"), 0);
    data.bootID = textIn(fields, "bootID");
    data.finishedName = textIn(fields, "finishedName");
    if (!isOneComponent(data.fileName)) return std::nullopt;
    if (!isOneComponent(data.finishedName)) data.finishedName.clear();
    return data;
} catch (const std::exception&) {
    return std::nullopt;
}

}  // namespace

ResumeData ResumeData::of(std::string url, std::string fileName, const HTTPResponse& head, std::int64_t totalBytes) {
    ResumeData data{.url = std::move(url), .fileName = std::move(fileName), .totalBytes = totalBytes};
    data.entityTag = head.header("etag").value_or(std::string_view());
    // RFC 9110, 8.8.2.2: a file that was changed in the second in which it was sent may change again in it.
    const auto modified = head.header("last-modified");
    if (modified && modified != head.header("date")) data.lastModified = *modified;
    return data;
}

std::string ResumeData::validator() const {
    return entityTag.empty() || entityTag.starts_with("W/") ? lastModified : entityTag;
}

bool ResumeData::agreesWith(const HTTPResponse& head) const {
    if (const auto tag = head.header("etag"); tag && !entityTag.empty())
        return withoutWeakness(*tag) == withoutWeakness(entityTag);
    const auto modified = head.header("last-modified");
    return !modified || lastModified.empty() || *modified == lastModified;
}

bool ResumeData::isCertainlyOf(const HTTPResponse& head, std::int64_t size) const {
    const std::string mine = validator();
    return !mine.empty() && size >= 0 && size == totalBytes && mine == of({}, {}, head, size).validator();
}

bool ResumeData::isConfirmedBy(const HTTPResponse& head, std::int64_t size) const {
    if (size >= 0) return size == syncedBytes && agreesWith(head);
    const std::string mine = validator();
    return !mine.empty() && mine == of({}, {}, head, size).validator();
}

bool ResumeData::isFinishedIn(const std::filesystem::path& folder) const {
    const std::filesystem::path file = folder / finishedName;
    if (finishedName.empty() || !part.isFile() || FileIdentity::at(file) != part) return false;
    struct stat status {};
    return ::lstat(file.c_str(), &status) == 0 && S_ISREG(status.st_mode) && isWhole(FileStamp::of(status));
}

bool ResumeData::isWhole(const FileStamp& stamp) const {
    return !finishedName.empty() && stamp.size == syncedBytes && stamp.modified == partModified;
}

std::int64_t ResumeData::trustedBytes(const FileStamp& stamp) const {
    if (isWhole(stamp)) return stamp.size;
    if (!isResumable() || (totalBytes >= 0 && stamp.size > totalBytes)) return 0;
    const bool isChanged = stamp.size == syncedBytes && stamp.modified != partModified;
    if (stamp.size < syncedBytes || isChanged) return 0;
    const bool isSameBoot = !bootID.empty() && bootID == bootIdentity();
    return isSameBoot ? stamp.size : syncedBytes;
}

std::filesystem::path ResumeData::fileFor(const std::filesystem::path& folder, std::string_view url,
                                          const std::filesystem::path& savePath) {
    // Neither of the two holds a NUL.
    const std::string source =
        std::string(url) + '\0' + std::filesystem::absolute(savePath).lexically_normal().string();
    return folder / (std::string(namePrefix) + toHex(sha1(asBytes(source))) + ".dat");
}

std::optional<ResumeData> ResumeData::load(const std::filesystem::path& file, std::string_view url) {
    auto data = readRecord(file);
    return data && data->url == url ? std::move(data) : std::nullopt;
}

std::vector<ResumeData> ResumeData::withOtherQuery(const std::filesystem::path& folder, std::string_view url,
                                                   const std::filesystem::path& savePath) {
    std::vector<ResumeData> found;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        if (!entry.path().filename().string().starts_with(namePrefix)) continue;
        auto data = readRecord(entry.path());
        if (!data || data->url == url || withoutQuery(data->url) != withoutQuery(url)) continue;
        // The record's name alone says which folder it is about.
        if (fileFor(folder, data->url, savePath).filename() == entry.path().filename())
            found.push_back(std::move(*data));
    }
    return found;
}

void ResumeData::save(const std::filesystem::path& file) const {
    const json::object fields{{"url", url},
                              {"fileName", fileName},
                              {"part", listOf(part)},
                              {"partModified", partModified},
                              {"entityTag", entityTag},
                              {"lastModified", lastModified},
                              {"totalBytes", totalBytes},
                              {"syncedBytes", syncedBytes},
                              {"finishedName", finishedName},
                              {"bootID", bootID}};
    createPrivateFolder(file.parent_path());
    replaceWholeFile(file, asBytes(plainJSON(fields)));
}

}  // namespace skein
