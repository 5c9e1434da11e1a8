#pragma once

#include "public/common/Bytes.h"

#include <string>
#include <string_view>

namespace skein {

/// Makes UTF-8 of the texts of a document that names the encoding of its texts, for what is not UTF-8 already.
///
/// Nothing is dropped and nothing fails: bytes that are no text in the named encoding are taken one by one, each for
/// the character of its number (ISO 8859-1). Only encodings that extend ASCII are known, so no byte of a name becomes a
/// separator. Stateless; any thread. Uses iconv(3).
class TextDecoder {
public:
    /// `encoding` as documents name it ("GBK", "shift_jis"); one that is not known counts as none.
    explicit TextDecoder(std::string_view encoding = {});
    /// Valid UTF-8, whatever `bytes` are.
    std::string decode(ByteView bytes) const;

private:
    const char* encoding_;  // as iconv names it; null: none
};

}  // namespace skein
