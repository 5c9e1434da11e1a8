#include "Core/discovery/LSDMessage.h"
#include "fuzz/Check.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace skein {
namespace {

/// What was understood is within its limits, and its own text says the same again.
void announce(ByteView data) {
    const auto message = LSDMessage::parse(asText(data));
    check(message.has_value() == asText(data).starts_with("BT-SEARCH"));
    if (!message) return;
    check(message->cookie.size() + message->peerID.size() <= LSDMessage::maxBytes);
    std::size_t bytes = 0;
    for (const std::string& infoHash : message->infoHashes) {
        check(!infoHash.empty() && infoHash.find('\n') == std::string::npos);
        check(std::none_of(infoHash.begin(), infoHash.end(), [](char c) { return c >= 'a' && c <= 'z'; }));
        bytes += infoHash.size();
    }
    check(bytes <= LSDMessage::maxBytes);
    const std::string text = message->text();
    if (text.size() <= LSDMessage::maxBytes) check(LSDMessage::parse(text) == message);
}

/// Whatever the bytes of a peer id are, they come through in one header.
void peerID(ByteView data) {
    LSDMessage message;
    message.peerID = LSDMessage::peerIDText(data.first(std::min<std::size_t>(data.size(), 20)));
    check(LSDMessage::parse(message.text()) == message);
}

}  // namespace
}  // namespace skein

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    skein::announce({data, size});
    skein::peerID({data, size});
    return 0;
}
