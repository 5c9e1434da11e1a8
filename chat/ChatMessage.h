#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace skein {

/// What one user told another, or a group. Plain data; any thread.
struct ChatMessage {
    std::string from;
    std::string to;  ///< a user, or the group
    bool isGroup = false;
    std::string text;
    std::string timestamp;  ///< as it was sent: decimal digits, by the server's convention
    std::string bundId;
    std::string appType;
    std::string mediaJson;  ///< of a media message; empty for others

    /// The record of the chat store: "cmd:chat|vipName:…|destVip:…|timestamp:…|bundId:…|appType:…", and "|mediaJson:…"
    /// when there is media. The text is no part of it and is stored beside it. One line, whatever the fields hold:
    /// "|", "%" and control characters in them are written as "%7C" and the like. The media comes last and is left as
    /// it is: it is JSON without line breaks.
    std::string recordLine() const;
    /// The media in such a line; empty when there is none.
    static std::string mediaJsonIn(std::string_view recordLine);
    /// When it was sent, in milliseconds since 1970. A timestamp before 1973 in milliseconds is one in seconds.
    /// Nothing that could be a time counts as 0.
    std::int64_t sentAt() const noexcept;
    /// With whom `owner` speaks here: the group, or the user who is not `owner`.
    const std::string& partnerOf(const std::string& owner) const noexcept;
};

}  // namespace skein
