#pragma once

#include <cstdint>
#include <optional>
#include <utility>

namespace skein {

/// A bound on what many hold together. Not locked; its claims go before it.
class ByteBudget {
public:
    explicit ByteBudget(std::uint64_t limitBytes) : leftBytes_(limitBytes) {}

    /// A part of the budget, which it has again when this goes.
    class Claim {
    public:
        Claim(ByteBudget& budget, std::uint64_t bytes) : budget_(&budget), bytes_(bytes) {}
        Claim(Claim&& other) noexcept : budget_(other.budget_), bytes_(std::exchange(other.bytes_, 0)) {}
        Claim& operator=(Claim&& other) noexcept {
            std::swap(budget_, other.budget_);
            std::swap(bytes_, other.bytes_);
            return *this;
        }
        ~Claim() { budget_->leftBytes_ += bytes_; }

    private:
        ByteBudget* budget_;
        std::uint64_t bytes_;
    };

    /// Nothing when not so much is left.
    std::optional<Claim> claim(std::uint64_t bytes) {
        if (bytes > leftBytes_) return std::nullopt;
        leftBytes_ -= bytes;
        return std::optional<Claim>(std::in_place, *this, bytes);
    }

private:
    std::uint64_t leftBytes_;
};

}  // namespace skein
