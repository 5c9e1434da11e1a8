#pragma once

#include "downloads/ResumeData.h"
#include "public/common/HTTPMessage.h"

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace skein {

/// The bytes of a 206 response: "bytes 0-499/1234". Source: RFC 9110, 14.4.
struct ContentRange {
    std::int64_t first = 0;
    std::int64_t last = 0;
    std::int64_t totalBytes = -1;  ///< -1: not known ("*")

    /// Nothing for what is no such range, or one that ends before it begins or after its whole.
    static std::optional<ContentRange> parse(std::string_view header);
};

/// What to do with a response, given what is there already.
struct ResponsePlan {
    enum class Action : std::uint8_t {
        append,    ///< it goes on where the part ends
        restart,   ///< it is the whole file, from the start
        complete,  ///< there is nothing after the part: it is whole
        askAgain,  ///< it is of no use, and the part neither: ask for the whole
        askLater,  ///< the server is busy, and may not be another time (429, 503)
        refuse,    ///< it brings no file
    };
    Action action = Action::refuse;
    std::int64_t totalBytes = -1;  ///< of the whole file; -1: not known
    std::int64_t endBytes = -1;    ///< where in the file the body ends; -1: where the server ends it

    /// `partBytes` above 0 were there when the request was made, of which `data` speaks.
    static ResponsePlan of(const HTTPResponse& head, const ResumeData& data, std::int64_t partBytes);
};

/// The headers of a request for what is missing after `partBytes` (14.2), on the condition that the file is still the
/// one that `data` speaks of (13.1.5).
std::vector<HTTPHeader> rangeHeaders(const ResumeData& data, std::int64_t partBytes);
/// The headers of a request for the file unless it still is the one that `data` speaks of (13.1.2, 13.1.3).
std::vector<HTTPHeader> revalidationHeaders(const ResumeData& data);

}  // namespace skein
