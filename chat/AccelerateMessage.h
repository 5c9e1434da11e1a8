#pragma once

#include <cstdint>
#include <string>

namespace skein {

/// The request to speed a download up, which goes into the group "grp_magnet". Plain data; any thread.
struct AccelerateMessage {
    static constexpr const char* groupId = "grp_magnet";

    std::string name;  ///< of the task
    std::string user;  ///< who is signed in
    std::string magnet;
    std::int64_t totalSize = 0;  ///< bytes

    /// A JSON object with the keys "type", "name", "user", "magnet", "totalSize" in this order: receivers read it as
    /// text. A text that is not UTF-8 has its bad bytes replaced.
    std::string orderedJSONString() const;
};

}  // namespace skein
