#include "Core/engine/ChunkPool.h"

#include <algorithm>
#include <cassert>
#include <new>
#include <sys/mman.h>

namespace skein {

ChunkPool::ChunkPool(std::size_t chunkSize) : chunkSize_(std::max<std::size_t>(chunkSize, 1)) {}

ChunkPool::~ChunkPool() {
    assert(inUse_ == 0);
    trim();
}

std::uint8_t* ChunkPool::take() {
    if (free_.empty()) {
        // Room to put it back later without allocating then.
        free_.reserve(inUse_ + 1);
        void* chunk = ::mmap(nullptr, chunkSize_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (chunk == MAP_FAILED) throw std::bad_alloc();
        ++inUse_;
        return static_cast<std::uint8_t*>(chunk);
    }
    std::uint8_t* chunk = free_.back();
    free_.pop_back();
    ++inUse_;
    return chunk;
}

void ChunkPool::giveBack(std::uint8_t* chunk) noexcept {
    --inUse_;
    free_.push_back(chunk);
    shrinkTo((inUse_ == 0 ? keptWhenIdle : keptInUse) / chunkSize_);
}

void ChunkPool::trim() noexcept { shrinkTo(0); }

void ChunkPool::shrinkTo(std::size_t chunks) noexcept {
    while (free_.size() > chunks) {
        ::munmap(free_.back(), chunkSize_);
        free_.pop_back();
    }
}

}  // namespace skein
