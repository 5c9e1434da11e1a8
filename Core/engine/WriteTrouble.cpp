#include "Core/engine/WriteTrouble.h"

#include <algorithm>

namespace skein {

bool WriteTrouble::onFailure(int piece, Clock::TimePoint now, const std::string& text) {
    const bool isNews = !text_.has_value();
    // Pieces that were under way when the trouble began fail with it; that is one failure, not many.
    if (isNews || now >= retryAt_) {
        wait_ = isNews ? Clock::Duration(firstWait) : std::min(wait_ * 2, Clock::Duration(longestWait));
        retryAt_ = now + wait_;
    }
    onGivenUp(piece);
    text_ = text;
    return isNews;
}

bool WriteTrouble::onSuccess() noexcept {
    const bool isNews = text_.has_value();
    text_.reset();
    trial_.reset();
    return isNews;
}

void WriteTrouble::onRequested(int piece) noexcept {
    if (text_) trial_ = piece;
}

void WriteTrouble::onGivenUp(int piece) noexcept {
    if (trial_ == piece) trial_.reset();
}

}  // namespace skein
