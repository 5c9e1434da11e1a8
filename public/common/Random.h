#pragma once

#include "public/common/Bytes.h"

#include <span>

namespace skein {

/// Where random bytes come from; tests give their own. Thread: any.
class Random {
public:
    Random() = default;
    Random(const Random&) = delete;
    Random& operator=(const Random&) = delete;
    virtual ~Random() = default;

    virtual void fill(std::span<std::uint8_t> bytes) = 0;
    std::uint32_t number();
};

/// The system's secure source.
class SecureRandom final : public Random {
public:
    void fill(std::span<std::uint8_t> bytes) override;
};

}  // namespace skein
