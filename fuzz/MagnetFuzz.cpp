#include "Core/formats/MagnetParser.h"
#include "fuzz/Check.h"
#include "public/common/Bytes.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        const skein::MagnetLink link = skein::MagnetParser::parse(skein::asText({data, size}));
        skein::check(link.infoHashHex == skein::toHex(link.infoHash));
        if (link.displayName) skein::check(skein::isValidUTF8(skein::asBytes(*link.displayName)));
        for (const auto* list : {&link.trackers, &link.webSeeds})
            for (const std::string& url : *list) skein::check(skein::isValidUTF8(skein::asBytes(url)));
    } catch (const skein::MagnetParseException& failure) {
        skein::check(failure.what()[0] != '\0');
    }
    return 0;
}
