#include "app/client/KeyReader.h"

namespace skein {

namespace {

constexpr char escape = '\x1B';
constexpr std::size_t longestSequence = 16;

Key keyOf(char character) noexcept {
    switch (character) {
        case 'k': return Key::up;
        case 'j': return Key::down;
        case 'g': return Key::first;
        case 'G': return Key::last;
        case 'p': return Key::pause;
        case 'r': return Key::resume;
        case 'd': return Key::remove;
        case 'D': return Key::removeWithFiles;
        case 'y': return Key::yes;
        case 'q': return Key::quit;
        default: return Key::other;
    }
}

/// Of what follows "ESC [" or "ESC O".
Key keyOf(std::string_view sequence) noexcept {
    if (sequence == "A") return Key::up;
    if (sequence == "B") return Key::down;
    if (sequence == "5~") return Key::pageUp;
    if (sequence == "6~") return Key::pageDown;
    if (sequence == "H" || sequence == "1~") return Key::first;
    if (sequence == "F" || sequence == "4~") return Key::last;
    return Key::other;
}

}  // namespace

std::vector<Key> KeyReader::read(std::string_view bytes) {
    std::vector<Key> keys;
    for (const char byte : bytes) {
        if (sequence_.empty() && byte != escape) {
            keys.push_back(keyOf(byte));
            continue;
        }
        sequence_ += byte;
        if (sequence_.size() == 1 || (sequence_.size() == 2 && (byte == '[' || byte == 'O'))) continue;
        const bool isEnd = sequence_.size() == 2 || (byte >= '@' && byte <= '~');
        if (!isEnd && sequence_.size() < longestSequence) continue;
        keys.push_back(sequence_.size() == 2 ? Key::other : keyOf(std::string_view(sequence_).substr(2)));
        sequence_.clear();
    }
    return keys;
}

}  // namespace skein
