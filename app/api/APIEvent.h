#pragma once

#include <memory>
#include <string>

namespace skein {

/// Published to MsgCenter by whatever part of the daemon has something to tell, it goes to all who listen to
/// `GET /api/v1/events` at that moment. Any thread.
struct APIEvent {
    std::shared_ptr<const std::string> json;  ///< an object with a `type` that docs/api.md names; valid UTF-8
};

}  // namespace skein
