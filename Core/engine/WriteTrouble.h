#pragma once

#include "public/common/Clock.h"

#include <optional>
#include <string>

namespace skein {

/// What follows from failing writes: for a while nothing is asked of the peers, then one piece, as a trial.
///
/// The wait grows from 1 s, doubling, to 30 s, and a write that works ends it. Plain logic, no clock of its own.
class WriteTrouble {
public:
    static constexpr std::chrono::seconds firstWait{1};
    static constexpr std::chrono::seconds longestWait{30};

    /// `piece` could not be written. Returns whether this is news: the write before worked.
    bool onFailure(int piece, Clock::TimePoint now, const std::string& text);
    /// Returns whether this is news: the write before failed.
    bool onSuccess() noexcept;
    /// `piece` was asked for; in trouble it is then the trial.
    void onRequested(int piece) noexcept;
    /// `piece` came to nothing without a write (given back, wrong hash): another may be the trial.
    void onGivenUp(int piece) noexcept;

    bool mayRequest(Clock::TimePoint now) const noexcept { return !text_ || (now >= retryAt_ && !trial_); }
    /// The error, while there is trouble.
    const std::optional<std::string>& text() const noexcept { return text_; }

private:
    std::optional<std::string> text_;
    std::optional<int> trial_;
    Clock::TimePoint retryAt_{};
    Clock::Duration wait_{};
};

}  // namespace skein
