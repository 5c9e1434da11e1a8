#include "app/client/TaskFields.h"

#include "Core/discovery/TrackerRuntimeInfo.h"
#include "Core/wire/PeerTraits.h"
#include "downloads/ControlMessage.h"
#include "downloads/ResearchCategory.h"
#include "downloads/TaskStatus.h"

#include <boost/json/value.hpp>

#include <cmath>
#include <cstdio>
#include <initializer_list>

namespace skein::task_fields {

namespace json = boost::json;

namespace {

/// The name that users read of the one of `all` that is written as `raw`; `raw` itself when it is of a newer program.
template <class Enumeration>
std::string nameOf(const std::string& raw, std::initializer_list<Enumeration> all) {
    for (const Enumeration value : all)
        if (raw == textOf(value)) return std::string(displayNameOf(value));
    return raw;
}

}  // namespace

std::string text(const json::object& row, std::string_view key) {
    const json::value& value = row.at(key);
    return value.is_string() ? std::string(value.as_string()) : std::string();
}

std::int64_t number(const json::object& row, std::string_view key) { return row.at(key).to_number<std::int64_t>(); }

std::string percent(const json::object& row) {
    char shown[16];
    std::snprintf(shown, sizeof shown, "%.1f%%", std::floor(row.at("progress").to_number<double>() * 1000) / 10);
    return shown;
}

bool isSizeKnown(const json::object& task) {
    const auto status = taskStatusFrom(text(task, "status"));
    const bool hasAll = status == TaskStatus::completed || status == TaskStatus::seeding;
    return hasAll || number(task, "totalSize") > 0;
}

std::optional<std::string> verifying(const json::object& task) {
    const json::value* const share = task.if_contains("verifyProgress");
    if (share == nullptr || !share->is_number()) return std::nullopt;
    return std::to_string(static_cast<int>(share->to_number<double>() * 100)) + "%";
}

std::string statusName(const json::object& task) {
    if (const auto share = verifying(task)) return "Verifying " + *share;
    std::string raw = text(task, "status");
    const auto status = taskStatusFrom(raw);
    return status ? std::string(localizedName(*status)) : raw;
}

std::string categoryName(const json::object& task) {
    std::string raw = text(task, "category");
    const auto category = researchCategoryFrom(raw);
    return category ? std::string(localizedName(*category)) : raw;
}

std::string controlMessage(const json::object& task) {
    return nameOf(text(task, "controlOperationMessage"), {ControlMessage::pausing, ControlMessage::resuming});
}

std::string trackerStatusName(const json::object& tracker) {
    using Status = TrackerRuntimeStatus;
    return nameOf(text(tracker, "status"), {Status::idle, Status::announcing, Status::working, Status::failed});
}

std::string peerLinkName(const json::object& peer) {
    return nameOf(text(peer, "direction"), {PeerDirection::incoming, PeerDirection::outgoing}) + ", " +
           nameOf(text(peer, "transport"), {PeerTransport::tcp, PeerTransport::utp, PeerTransport::relay});
}

}  // namespace skein::task_fields
