#include "Core/formats/BEncodeError.h"

namespace skein {

std::string_view textOf(BEncodeError error) noexcept {
    switch (error) {
        case BEncodeError::invalidFormat: return "Invalid BEncode format: ";
        case BEncodeError::unexpectedEnd: return "Unexpected end of data";
        case BEncodeError::invalidInteger: return "Invalid integer encoding";
        case BEncodeError::invalidStringLength: return "Invalid string length";
    }
    return {};
}

}  // namespace skein
