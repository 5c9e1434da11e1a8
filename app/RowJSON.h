#pragma once

#include "Core/discovery/TrackerRuntimeInfo.h"
#include "Core/wire/PeerRuntimeInfo.h"
#include "public/common/Clock.h"

#include <boost/json/object.hpp>

namespace skein {

/// The rows of peer and tracker lists as programs read them. Stateless; any thread.
boost::json::object toJSON(const PeerRuntimeInfo& peer);
boost::json::object toJSON(const TrackerRuntimeInfo& tracker);

double secondsSince1970(Clock::WallTime date);

}  // namespace skein
