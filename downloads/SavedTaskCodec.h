#pragma once

#include "downloads/SavedTask.h"

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// `tasks.json`: one array of records, dates as seconds since 2001-01-01 00:00 UTC. Stateless; any thread.
namespace skein::SavedTaskCodec {

/// Keys in their fixed order; what is absent has none.
std::string encode(std::span<const SavedTask> tasks);

/// Nothing when `text` is no such array, or a record in it lacks "infoHash", "name" or "addedDate" or has a key with a
/// value of another type. Unknown keys are passed over, and null is as good as absent.
std::optional<std::vector<SavedTask>> decode(std::string_view text);

}  // namespace skein::SavedTaskCodec
