#include "Core/formats/TextDecoder.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iconv.h>
#include <optional>
#include <utility>

namespace skein {

namespace {

struct Encoding {
    std::string_view given;  // lower case, letters and digits only, without the prefixes below
    const char* name;        // for iconv
};

/// The standards stand for the code pages that extend them, as text that claims to be of the former mostly is of the
/// latter.
constexpr std::array encodings{
    Encoding{"gbk", "GB18030"},         Encoding{"gb2312", "GB18030"},
    Encoding{"gb18030", "GB18030"},     Encoding{"936", "GB18030"},
    Encoding{"big5", "CP950"},          Encoding{"950", "CP950"},
    Encoding{"shiftjis", "CP932"},      Encoding{"sjis", "CP932"},
    Encoding{"932", "CP932"},           Encoding{"31j", "CP932"},
    Encoding{"eucjp", "EUC-JP"},        Encoding{"euckr", "CP949"},
    Encoding{"949", "CP949"},           Encoding{"koi8r", "KOI8-R"},
    Encoding{"koi8u", "KOI8-U"},        Encoding{"866", "CP866"},
    Encoding{"874", "CP874"},           Encoding{"tis620", "CP874"},
    Encoding{"1250", "CP1250"},         Encoding{"1251", "CP1251"},
    Encoding{"1252", "CP1252"},         Encoding{"1253", "CP1253"},
    Encoding{"1254", "CP1254"},         Encoding{"1255", "CP1255"},
    Encoding{"1256", "CP1256"},         Encoding{"1257", "CP1257"},
    Encoding{"1258", "CP1258"},         Encoding{"iso88591", "CP1252"},
    Encoding{"latin1", "CP1252"},       Encoding{"iso88592", "ISO-8859-2"},
    Encoding{"iso88595", "ISO-8859-5"}, Encoding{"iso88597", "ISO-8859-7"},
    Encoding{"iso88599", "CP1254"},     Encoding{"iso885915", "ISO-8859-15"},
};

/// The name comes from a stranger: only those of the table reach iconv, which loads a module for what it is told.
const char* iconvNameOf(std::string_view encoding) {
    constexpr std::size_t longestName = 32;
    std::string plain;
    for (const char character : encoding.substr(0, longestName)) {
        if (character >= 'A' && character <= 'Z') plain += static_cast<char>(character - 'A' + 'a');
        if ((character >= 'a' && character <= 'z') || (character >= '0' && character <= '9')) plain += character;
    }
    for (const std::string_view prefix : {"windows", "cp", "ms"})
        if (plain.starts_with(prefix)) plain.erase(0, prefix.size());
    const auto* const found =
        std::find_if(encodings.begin(), encodings.end(), [&](const Encoding& known) { return known.given == plain; });
    return found != encodings.end() ? found->name : nullptr;
}

/// iconv's descriptor. Throws nothing: where an encoding is not installed, nothing decodes.
class Conversion {
public:
    explicit Conversion(const char* from) : descriptor_(iconv_open("UTF-8", from)) {}
    Conversion(const Conversion&) = delete;
    Conversion& operator=(const Conversion&) = delete;
    ~Conversion() {
        if (isOpen()) iconv_close(descriptor_);
    }

    /// Nothing when a byte of it has no meaning.
    std::optional<std::string> convert(std::string_view bytes) {
        if (!isOpen()) return std::nullopt;
        std::string from(bytes);  // iconv takes what it only reads by a pointer to what may change
        char* next = from.data();
        std::size_t left = from.size();
        std::string text;
        std::array<char, 512> part{};
        for (bool isFlushing = false;;) {
            char* to = part.data();
            std::size_t room = part.size();
            const std::size_t result = isFlushing ? iconv(descriptor_, nullptr, nullptr, &to, &room)
                                                  : iconv(descriptor_, &next, &left, &to, &room);
            const bool isFull = result == failed && errno == E2BIG;
            text.append(part.data(), to);
            if (result == failed && !isFull) return std::nullopt;
            if (!isFull && std::exchange(isFlushing, true)) return text;
        }
    }

private:
    static constexpr auto failed = static_cast<std::size_t>(-1);

    bool isOpen() const noexcept { return descriptor_ != reinterpret_cast<iconv_t>(-1); }

    const iconv_t descriptor_;
};

/// The bytes of the UTF-8 sequence at the start of `bytes`; 0 when there is none.
std::size_t sequenceLength(ByteView bytes) {
    for (std::size_t length = 1; length <= std::min<std::size_t>(bytes.size(), 4); ++length)
        if (isValidUTF8(bytes.first(length))) return length;
    return 0;
}

/// A name in UTF-8 that was cut inside of a character keeps its others.
std::string byteByByte(ByteView bytes) {
    std::string text;
    text.reserve(bytes.size() * 2);
    while (!bytes.empty()) {
        const std::size_t length = sequenceLength(bytes);
        if (length > 0) {
            text += asText(bytes.first(length));
        } else {
            text += static_cast<char>(0xC0U | bytes[0] >> 6U);
            text += static_cast<char>(0x80U | (bytes[0] & 0x3FU));
        }
        bytes = bytes.subspan(std::max<std::size_t>(length, 1));
    }
    return text;
}

}  // namespace

TextDecoder::TextDecoder(std::string_view encoding) : encoding_(iconvNameOf(encoding)) {}

std::string TextDecoder::decode(ByteView bytes) const {
    if (isValidUTF8(bytes)) return std::string(asText(bytes));
    if (encoding_ != nullptr)
        if (auto text = Conversion(encoding_).convert(asText(bytes))) return *std::move(text);
    return byteByByte(bytes);
}

}  // namespace skein
