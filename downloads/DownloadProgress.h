#pragma once

#include "public/common/Clock.h"

#include <cstdint>

namespace skein {

/// How far a download is, and how fast it goes: a rate over the last second or more. Not thread-safe.
class DownloadProgress {
public:
    static constexpr std::chrono::seconds sampleLength{1};

    /// Begins anew at `downloadedBytes` of `expectedContentLength` (-1: not known).
    void restart(std::int64_t downloadedBytes, std::int64_t expectedContentLength, Clock::TimePoint now) noexcept {
        *this = {};
        downloadedBytes_ = lastSpeedBytes_ = downloadedBytes;
        expectedContentLength_ = expectedContentLength;
        lastSpeedTime_ = now;
    }
    void moveTo(std::int64_t downloadedBytes) noexcept { downloadedBytes_ = downloadedBytes; }
    /// All `downloadedBytes` are there, and now the length is known.
    void complete(std::int64_t downloadedBytes) noexcept {
        downloadedBytes_ = expectedContentLength_ = downloadedBytes;
    }
    /// Takes a new sample when the last one is old enough.
    void sample(Clock::TimePoint now) noexcept {
        if (now - lastSpeedTime_ < sampleLength) return;
        const auto bytes = static_cast<double>(downloadedBytes_ - lastSpeedBytes_);
        bytesPerSecond_ = bytes / std::chrono::duration<double>(now - lastSpeedTime_).count();
        lastSpeedTime_ = now;
        lastSpeedBytes_ = downloadedBytes_;
    }

    std::int64_t downloadedBytes() const noexcept { return downloadedBytes_; }
    std::int64_t expectedContentLength() const noexcept { return expectedContentLength_; }
    double bytesPerSecond() const noexcept { return bytesPerSecond_; }
    /// 0 while the length is not known.
    double fraction() const noexcept {
        return expectedContentLength_ > 0
                   ? static_cast<double>(downloadedBytes_) / static_cast<double>(expectedContentLength_)
                   : 0;
    }

private:
    std::int64_t downloadedBytes_ = 0;
    std::int64_t expectedContentLength_ = -1;
    Clock::TimePoint lastSpeedTime_{};
    std::int64_t lastSpeedBytes_ = 0;
    double bytesPerSecond_ = 0;
};

}  // namespace skein
