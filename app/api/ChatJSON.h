#pragma once

#include "chat/TalkConversation.h"

#include <boost/json/object.hpp>

namespace skein {

/// As the API, the event stream and `--json` tell them (docs/api.md).
boost::json::object asJSON(const TalkRecord& message);
boost::json::object asJSON(const TalkConversation& conversation);

/// Seconds since 1970 of a time in milliseconds, and back.
double secondsOf(std::int64_t milliseconds);
std::int64_t millisecondsOf(double seconds);

}  // namespace skein
