#include "downloads/HTTPFileName.h"
#include "fuzz/Check.h"
#include "public/common/Bytes.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace skein {
namespace {

/// Whatever a server says, the name is one component of a path, of a length that file systems take.
void checkName(const std::optional<std::string>& name) {
    if (!name) return;
    check(!name->empty() && name->size() <= HTTPFileName::maxBytes);
    check(isValidUTF8(asBytes(*name)));
    check(name->front() != '.');
    check(name->find('/') == std::string::npos && name->find('\\') == std::string::npos);
    for (const char character : *name) check(static_cast<unsigned char>(character) >= 0x20);
    check(HTTPFileName::safe(*name).has_value());
    for (const int number : {1, 9999}) check(HTTPFileName::numbered(*name, number).size() <= 255 - 5);
}

}  // namespace
}  // namespace skein

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = skein::asText({data, size});
    skein::checkName(skein::HTTPFileName::safe(text));
    skein::checkName(skein::HTTPFileName::fromContentDisposition(text));
    skein::checkName(skein::HTTPFileName::fromURL(text));
    if (skein::HTTPFileName::isDownloadableURL(text)) skein::check(skein::HTTPFileName::fromURL(text).has_value());
    return 0;
}
