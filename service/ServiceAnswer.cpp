#include "service/ServiceAnswer.h"

#include "public/common/Printable.h"

#include <algorithm>

namespace skein {

namespace {

bool continuesACharacter(char byte) noexcept { return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80; }

/// At most so many characters of UTF-8, and a mark where there were more.
std::string shortened(std::string text, std::size_t mostCharacters) {
    std::size_t characters = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (continuesACharacter(text[i]) || ++characters <= mostCharacters) continue;
        text.resize(i);
        return text + "…";
    }
    return text;
}

}  // namespace

std::string ServiceAnswer::quoted(std::string_view text) const {
    // No more than this is looked at, however long an answer is: twice what the characters can take up, four bytes
    // each, so that a secret which begins among them is there as a whole.
    constexpr std::size_t mostBytes = 8 * longestQuotation;
    std::string beginning(text.substr(0, mostBytes));
    if (!secret.empty())
        for (auto at = beginning.find(secret); at != std::string::npos; at = beginning.find(secret, at))
            std::fill_n(beginning.begin() + static_cast<std::ptrdiff_t>(at), secret.size(), '*');
    return shortened(printable(beginning), longestQuotation);
}

std::string ServiceAnswer::reason() const {
    return status == 0 ? failure : "HTTP " + std::to_string(status) + " — " + quoted(body);
}

std::string ServiceAnswer::whyNot() const { return (status == 0 ? "error: " : "") + reason(); }

void ServiceAnswer::becomeUnreadable() {
    status = 0;
    failure = "the answer is not understood — " + quoted(body);
}

}  // namespace skein
