#pragma once

#include <algorithm>
#include <chrono>

namespace skein {

/// How long to wait before the next attempt: 2 s, 3 s, 4.5 s, ... never above 30 s. Plain; any thread.
class ReconnectDelay {
public:
    using Seconds = std::chrono::duration<double>;
    static constexpr Seconds initialReconnectDelay{2.0};
    static constexpr Seconds maxReconnectDelay{30.0};

    Seconds next() noexcept {
        const Seconds delay = reconnectDelay_;
        reconnectDelay_ = std::min(reconnectDelay_ * 1.5, maxReconnectDelay);
        return delay;
    }
    void reset() noexcept { reconnectDelay_ = initialReconnectDelay; }

private:
    Seconds reconnectDelay_ = initialReconnectDelay;
};

}  // namespace skein
