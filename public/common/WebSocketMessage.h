#pragma once

#include "public/common/Bytes.h"

#include <string_view>

namespace skein {

struct WebSocketMessage {
    bool isText = true;
    Bytes data;

    static WebSocketMessage text(std::string_view text) { return {true, Bytes(text.begin(), text.end())}; }
    static WebSocketMessage binary(ByteView bytes) { return {false, Bytes(bytes.begin(), bytes.end())}; }
    std::string_view view() const noexcept { return {reinterpret_cast<const char*>(data.data()), data.size()}; }
};

}  // namespace skein
