#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace skein {

/// What a key of the live table asks for.
enum class Key : std::uint8_t {
    up,
    down,
    pageUp,
    pageDown,
    first,
    last,
    pause,
    resume,
    remove,
    removeWithFiles,
    yes,
    quit,
    other,
};

/// Makes keys of the bytes that a terminal sends. Source: ECMA-48, the control sequences of cursor keys. Plain logic.
class KeyReader {
public:
    std::vector<Key> read(std::string_view bytes);

private:
    std::string sequence_;  // a control sequence whose end has not come yet
};

}  // namespace skein
