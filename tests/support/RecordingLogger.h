#pragma once

#include "public/common/FileLogger.h"

#include <algorithm>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace skein {

/// A log that keeps its lines for the test to read. Thread: any.
class RecordingLogger final : public FileLogger {
public:
    explicit RecordingLogger(LogLevel least = LogLevel::trace) : FileLogger(least) {}

    std::vector<std::string> lines() const {
        const std::lock_guard lock(mutex_);
        return lines_;
    }
    /// How many lines have `text` in them.
    std::ptrdiff_t count(std::string_view text) const {
        const std::lock_guard lock(mutex_);
        return std::count_if(lines_.begin(), lines_.end(),
                             [&](const std::string& line) { return line.find(text) != std::string::npos; });
    }

protected:
    void write(LogLevel, std::string_view line) override {
        const std::lock_guard lock(mutex_);
        lines_.emplace_back(line);
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace skein
