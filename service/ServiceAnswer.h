#pragma once

#include <string>
#include <string_view>

namespace skein {

/// What the service answered, or why there is no answer.
struct ServiceAnswer {
    int status = 0;  ///< HTTP; 0: nothing came that could be understood
    std::string body;
    std::string failure;  ///< with status 0, printable
    std::string secret;   ///< what no quotation shows

    bool isSuccess() const noexcept { return status >= 200 && status <= 299; }

    /// `text`, which came from the service, as one printable line of at most `longestQuotation` characters.
    std::string quoted(std::string_view text) const;
    static constexpr std::size_t longestQuotation = 512;
    /// "HTTP 500 — " and the body's beginning, or "error: " and the failure.
    std::string whyNot() const;
    /// The same without "error: ".
    std::string reason() const;
    /// For an answer that was taken as one and is none.
    void becomeUnreadable();
};

}  // namespace skein
