#include "public/common/Language.h"

#include <cstdlib>
#include <string_view>

namespace skein {

Language interfaceLanguage() noexcept {
    for (const char* const name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* const value = std::getenv(name);
        if (value == nullptr || *value == '\0') continue;
        return std::string_view(value).starts_with("zh") ? Language::chinese : Language::english;
    }
    return Language::english;
}

}  // namespace skein
