#include "Core/formats/BEncoder.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace skein::BEncoder {

namespace {

bool isDigit(std::uint8_t byte) noexcept { return byte >= '0' && byte <= '9'; }

std::optional<std::int64_t> parseInteger(std::string_view text) noexcept {
    if (text.starts_with('+')) {
        text.remove_prefix(1);
        if (text.starts_with('-')) return std::nullopt;
    }
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

/// Walks over bencoded data. What it searches for it either finds and passes, or the decoding ends with an error:
/// no byte is searched twice.
class Reader {
public:
    explicit Reader(ByteView data) : data_(data) {}

    std::size_t index() const noexcept { return index_; }

    BEncodeValue value(int depth = 0) {
        switch (next()) {
            case 'i': return integer();
            case 'l': return list(depth);
            case 'd': return dictionary(depth);
            default: return asText(string());
        }
    }

    TorrentOutline torrent() {
        TorrentOutline outline;
        if (next() == 'd') {
            BEncodeValue::Dictionary entries;
            for (enter(0); !atEndOfContainer();) {
                std::string name(asText(string()));
                // Of a key that stands twice the first counts, as in `BEncodeValue::operator[]`.
                const bool isInfo = name == "info" && !outline.info;
                const std::size_t begin = index_;
                add(entries, std::move(name), isInfo ? info(1, outline) : value(1));
                if (isInfo) outline.info = ByteRange{begin, index_};
            }
            outline.value = std::move(entries);
        } else {
            outline.value = value();
        }
        outline.consumed = index_;
        return outline;
    }

    TorrentOutline bareInfo() {
        TorrentOutline outline;
        outline.value = info(0, outline);
        outline.info = ByteRange{0, index_};
        outline.consumed = index_;
        return outline;
    }

    template <class Visit>
    void elements(Visit visit) {
        const std::size_t allowed = leftBytes_;
        for (enter(0); !atEndOfContainer(); leftBytes_ = allowed) visit(value(1));  // one is held at a time
    }

private:
    /// The byte that a value starts with: i, l, d or a digit.
    std::uint8_t next() const {
        const std::uint8_t byte = current();
        if (byte != 'i' && byte != 'l' && byte != 'd' && !isDigit(byte))
            throw BEncodeException(BEncodeError::invalidFormat,
                                   "Unexpected byte: " + std::to_string(byte) + " at index " + std::to_string(index_));
        return byte;
    }

    std::uint8_t current() const {
        if (index_ >= data_.size()) throw BEncodeException(BEncodeError::unexpectedEnd);
        return data_[index_];
    }

    /// The text from the index to the next `delimiter`; the index moves behind that.
    std::string_view textBefore(char delimiter) {
        const std::string_view rest = asText(data_.subspan(index_));
        const std::size_t length = rest.find(delimiter);
        if (length == std::string_view::npos) throw BEncodeException(BEncodeError::unexpectedEnd);
        index_ += length + 1;
        return rest.substr(0, length);
    }

    std::int64_t integer() {
        ++index_;
        const auto value = parseInteger(textBefore('e'));
        if (!value) throw BEncodeException(BEncodeError::invalidInteger);
        return *value;
    }

    ByteView string() {
        const auto length = parseInteger(textBefore(':'));
        if (!length || *length < 0) throw BEncodeException(BEncodeError::invalidStringLength);
        if (static_cast<std::uint64_t>(*length) > data_.size() - index_)
            throw BEncodeException(BEncodeError::unexpectedEnd);
        const ByteView bytes = data_.subspan(index_, static_cast<std::size_t>(*length));
        index_ += bytes.size();
        return bytes;
    }

    void enter(int depth) {
        if (depth >= maxNesting) throw BEncodeException(BEncodeError::invalidFormat, "Nesting too deep");
        ++index_;
    }

    bool atEndOfContainer() {
        if (current() != 'e') return false;
        ++index_;
        return true;
    }

    BEncodeValue list(int depth) {
        BEncodeValue::List elements;
        for (enter(depth); !atEndOfContainer();) {
            // Twice, as a list that grows is held twice.
            take(2 * sizeof(BEncodeValue));
            elements.push_back(value(depth + 1));
        }
        return elements;
    }

    BEncodeValue dictionary(int depth) {
        BEncodeValue::Dictionary entries;
        for (enter(depth); !atEndOfContainer();) {
            std::string name(asText(string()));
            add(entries, std::move(name), value(depth + 1));
        }
        return entries;
    }

    void add(BEncodeValue::Dictionary& entries, std::string name, BEncodeValue value) {
        take(2 * sizeof(BEncodeValue::Dictionary::value_type));
        entries.emplace_back(std::move(name), std::move(value));
    }

    /// The value at the key `info`, and in `outline` where its files are.
    BEncodeValue info(int depth, TorrentOutline& outline) {
        if (next() != 'd') return value(depth);
        BEncodeValue::Dictionary entries;
        bool hasFiles = false;
        for (enter(depth); !atEndOfContainer();) {
            std::string name(asText(string()));
            const bool isFiles = name == "files" && !std::exchange(hasFiles, hasFiles || name == "files");
            if (isFiles && next() == 'l') {
                const std::size_t begin = index_;
                const std::size_t count = skipList(depth + 1);
                outline.files = {{begin, index_}, count};
            } else if (name == "file tree") {
                skip(depth + 1);
                add(entries, std::move(name), {});
            } else {
                add(entries, std::move(name), value(depth + 1));
            }
        }
        return entries;
    }

    /// As `value`, of which nothing is kept.
    void skip(int depth) {
        switch (next()) {
            case 'i': integer(); break;
            case 'l': skipList(depth); break;
            case 'd':
                for (enter(depth); !atEndOfContainer();) {
                    string();
                    skip(depth + 1);
                }
                break;
            default: string();
        }
    }

    /// How many elements it had.
    std::size_t skipList(int depth) {
        std::size_t count = 0;
        for (enter(depth); !atEndOfContainer(); ++count) skip(depth + 1);
        return count;
    }

    /// Before so much memory is used.
    void take(std::size_t bytes) {
        if (bytes > leftBytes_)
            throw BEncodeException(BEncodeError::invalidFormat, "Too many values for so little data");
        leftBytes_ -= bytes;
    }

    const ByteView data_;
    std::size_t index_ = 0;
    std::size_t leftBytes_ = std::max(freeBytes, maxGrowth* data_.size());  // that may still be used
};

template <class Number>
void appendNumber(Bytes& to, Number number, char end) {
    std::array<char, 24> text{};
    const auto digits = std::to_chars(text.data(), text.data() + text.size(), number);
    to.insert(to.end(), text.data(), digits.ptr);
    to.push_back(static_cast<std::uint8_t>(end));
}

void appendString(Bytes& to, ByteView bytes) {
    appendNumber(to, bytes.size(), ':');
    append(to, bytes);
}

void appendValue(Bytes& to, const BEncodeValue& value);

void appendDictionary(Bytes& to, const BEncodeValue::Dictionary& entries) {
    std::vector<const BEncodeValue::Dictionary::value_type*> sorted;
    sorted.reserve(entries.size());
    for (const auto& entry : entries) sorted.push_back(&entry);
    std::stable_sort(sorted.begin(), sorted.end(), [](auto* left, auto* right) { return left->first < right->first; });
    to.push_back('d');
    for (const auto* entry : sorted) {
        appendString(to, asBytes(entry->first));
        appendValue(to, entry->second);
    }
    to.push_back('e');
}

void appendValue(Bytes& to, const BEncodeValue& value) {
    switch (value.kind()) {
        case BEncodeValue::Kind::integer:
            to.push_back('i');
            appendNumber(to, *value.intValue(), 'e');
            return;
        case BEncodeValue::Kind::string: appendString(to, *value.dataValue()); return;
        case BEncodeValue::Kind::list:
            to.push_back('l');
            for (const BEncodeValue& element : *value.listValue()) appendValue(to, element);
            to.push_back('e');
            return;
        case BEncodeValue::Kind::dictionary: appendDictionary(to, *value.dictionaryValue()); return;
    }
}

}  // namespace

BEncodeValue decode(ByteView data) { return decodeWithConsumedLength(data).value; }

DecodedPrefix decodeWithConsumedLength(ByteView data) {
    Reader reader(data);
    BEncodeValue value = reader.value();
    return {std::move(value), reader.index()};
}

TorrentOutline outlineOfTorrent(ByteView data) { return Reader(data).torrent(); }
TorrentOutline outlineOfInfo(ByteView data) { return Reader(data).bareInfo(); }

void forEachElement(ByteView list, const std::function<void(const BEncodeValue& element)>& visit) {
    Reader(list).elements(visit);
}

Bytes encode(const BEncodeValue& value) {
    Bytes bytes;
    appendValue(bytes, value);
    return bytes;
}

}  // namespace skein::BEncoder
