#pragma once

#include <string>

namespace skein {

/// Published to MsgCenter when the server answers a request: lists, histories, results.
struct ChatReplyReceived {
    std::string cmd;
    std::string json;  ///< the whole frame
};

}  // namespace skein
