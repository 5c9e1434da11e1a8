#include "public/common/Printable.h"

#include "public/common/OddCharacters.h"
#include "public/common/ValidUTF8.h"

namespace skein {

std::string printable(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const std::size_t odd = oddLength(text);
        const std::size_t whole = odd > 0 ? 0 : firstCharacterLength(text);
        if (whole > 0) {
            result += text.substr(0, whole);
        } else {
            result += '?';
        }
        text.remove_prefix(odd + whole > 0 ? odd + whole : 1);
    }
    return result;
}

}  // namespace skein
