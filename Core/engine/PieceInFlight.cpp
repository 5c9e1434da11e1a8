#include "Core/engine/PieceInFlight.h"

#include <algorithm>
#include <cassert>
#include <cstring>

namespace skein {

namespace {

constexpr std::int64_t blockSize = 16384;

}  // namespace

PieceInFlight::PieceInFlight(ChunkPool& pool, std::int64_t size)
    : pool_(pool),
      size_(size),
      outstanding_((size + blockSize - 1) / blockSize),
      received_(static_cast<std::size_t>(outstanding_)),
      chunks_((static_cast<std::size_t>(size) + pool.chunkSize() - 1) / pool.chunkSize()) {}

PieceInFlight::~PieceInFlight() {
    for (std::uint8_t* chunk : chunks_)
        if (chunk != nullptr) pool_.giveBack(chunk);
}

bool PieceInFlight::expects(std::int64_t begin) const noexcept {
    return begin >= 0 && begin < size_ && begin % blockSize == 0 &&
           !received_[static_cast<std::size_t>(begin / blockSize)];
}

void PieceInFlight::store(std::int64_t begin, ByteView data) {
    assert(expects(begin));
    // Memory first: without it the block has not come. A block of the wrong length must not leave a hole either.
    const std::size_t chunkSize = pool_.chunkSize();
    std::uint8_t* chunk = chunkAt(static_cast<std::size_t>(begin) / chunkSize);
    if (static_cast<std::int64_t>(data.size()) <= size_ - begin) {
        auto position = static_cast<std::size_t>(begin);
        for (;;) {
            const std::size_t inChunk = position % chunkSize;
            const std::size_t length = std::min(data.size(), chunkSize - inChunk);
            if (length > 0) std::memcpy(chunk + inChunk, data.data(), length);
            data = data.subspan(length);
            position += length;
            if (data.empty()) break;
            chunk = chunkAt(position / chunkSize);
        }
    }
    received_[static_cast<std::size_t>(begin / blockSize)] = true;
    --outstanding_;
}

std::vector<iovec> PieceInFlight::buffers() const {
    std::vector<iovec> list;
    list.reserve(chunks_.size());
    auto left = static_cast<std::size_t>(size_);
    for (std::uint8_t* chunk : chunks_) {
        const std::size_t length = std::min(left, pool_.chunkSize());
        list.push_back({chunk, length});
        left -= length;
    }
    return list;
}

std::uint8_t* PieceInFlight::chunkAt(std::size_t index) {
    if (chunks_[index] == nullptr) chunks_[index] = pool_.take();
    return chunks_[index];
}

}  // namespace skein
