#pragma once

#include "Core/engine/ResourceGateway.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/Notifier.h"
#include "public/common/TaskGroup.h"

#include <chrono>
#include <optional>
#include <string_view>

namespace skein {

/// Keeps the service told of what one torrent is here, and tells it again until it has understood.
///
/// Owner: the session's service side, which awaits `stop()`. Thread: the session's strand.
class ServiceRegistration {
public:
    static constexpr std::chrono::seconds svcRegisterRetryDelay{10};

    struct Environment {
        Strand strand;
        Clock& clock;
        FileLogger& log;
        ResourceGateway& gateway;
    };

    explicit ServiceRegistration(const Environment& environment);

    /// Replaces what is still to be told, and tries at once.
    void svcQueueRegister(ResourceRegistration payload, std::string_view reason);
    /// There is nothing to be told any more.
    void withdraw();
    /// The service has confirmed what it was told last.
    bool isRegistered() const noexcept { return svcRegistered_; }
    asio::awaitable<void> stop() { return tasks_.stop(); }

private:
    asio::awaitable<void> registerUntilConfirmed();
    asio::awaitable<bool> svcAttemptRegister();
    asio::awaitable<void> pauseBeforeRetry();

    const Environment environment_;
    std::optional<ResourceRegistration> svcPendingRegister_;
    unsigned revision_ = 0;  // of what is to be told
    bool svcRegistered_ = false;
    bool isRunning_ = false;
    Notifier queued_;
    TaskGroup tasks_;
};

}  // namespace skein
