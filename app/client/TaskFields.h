#pragma once

#include <boost/json/object.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace skein::task_fields {

// What the rows of the API say, and how people read it: names in their language, sizes with a unit.
// Stateless; any thread.

/// Empty for what is no text. Throws std::out_of_range when the key is missing, as the next one does.
std::string text(const boost::json::object& row, std::string_view key);
std::int64_t number(const boost::json::object& row, std::string_view key);

/// The row's `progress`, "99.9%".
std::string percent(const boost::json::object& row);
bool isSizeKnown(const boost::json::object& task);
/// The share of the files that has been checked, while they are; "45%".
std::optional<std::string> verifying(const boost::json::object& task);
std::string statusName(const boost::json::object& task);
std::string categoryName(const boost::json::object& task);
/// What is said while a command runs; empty while none does.
std::string controlMessage(const boost::json::object& task);
std::string trackerStatusName(const boost::json::object& tracker);
/// "Outgoing, TCP" of a row of the peers.
std::string peerLinkName(const boost::json::object& peer);

}  // namespace skein::task_fields
