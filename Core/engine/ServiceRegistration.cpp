#include "Core/engine/ServiceRegistration.h"

#include "Core/engine/ResourceTexts.h"
#include "public/common/Within.h"

#include <utility>

namespace skein {

ServiceRegistration::ServiceRegistration(const Environment& environment)
    : environment_(environment), queued_(environment.strand), tasks_(environment.strand) {}

void ServiceRegistration::svcQueueRegister(ResourceRegistration payload, std::string_view reason) {
    environment_.log.info("[SvcPhase1] queueRegister ", payload.infoHash, " reason=", reason, " port=", payload.port);
    svcPendingRegister_ = std::move(payload);
    ++revision_;
    svcRegistered_ = false;
    queued_.notify();
    if (isRunning_) return;
    isRunning_ = true;
    tasks_.spawn(registerUntilConfirmed());
}

void ServiceRegistration::withdraw() {
    svcPendingRegister_.reset();
    ++revision_;
    svcRegistered_ = false;
    queued_.notify();
}

asio::awaitable<void> ServiceRegistration::registerUntilConfirmed() {
    while (svcPendingRegister_) {
        const bool isConfirmed = co_await svcAttemptRegister();
        if (!isConfirmed && svcPendingRegister_) co_await pauseBeforeRetry();
    }
    isRunning_ = false;
}

/// True when there is nothing left to tell, or something newer at once.
asio::awaitable<bool> ServiceRegistration::svcAttemptRegister() {
    const unsigned attempted = revision_;
    ResourceRegistration payload = *svcPendingRegister_;
    const std::string infoHash = payload.infoHash;
    const ResourceStatus status = payload.status;
    const bool isConfirmed = co_await environment_.gateway.registerResource(std::move(payload));
    if (attempted != revision_) co_return true;
    if (isConfirmed) {
        svcRegistered_ = true;
        svcPendingRegister_.reset();
        environment_.log.info("[SvcPhase1] register confirmed ", infoHash);
    } else {
        environment_.log.warning("[SvcPhase1] register failed; retry in 10s ", infoHash, " status=", textOf(status));
    }
    co_return isConfirmed;
}

asio::awaitable<void> ServiceRegistration::pauseBeforeRetry() {
    try {
        co_await within(environment_.clock, svcRegisterRetryDelay, queued_.wait());
    } catch (const TimeLimitExceeded&) {
        // As it was, once more.
    }
}

}  // namespace skein
