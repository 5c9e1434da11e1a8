#pragma once

#include "app/Interrupt.h"
#include "app/client/DaemonClient.h"
#include "app/client/WatchOutput.h"
#include "public/common/Clock.h"
#include "public/common/NameResolver.h"
#include "public/common/Notifier.h"
#include "public/common/TaskGroup.h"
#include "public/common/WebSocketClient.h"

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>

namespace skein {

/// Carries the daemon's event stream to an output until the user, a signal or a failure ends it.
///
/// Owner and thread: a command, on the main thread; the daemon's client outlives it.
class WatchRun {
public:
    /// Makes the output, once the stream is open. Called on the strand.
    using MakeOutput = std::function<std::unique_ptr<WatchOutput>(const Strand&, Clock&, WatchOutput::End)>;

    WatchRun(DaemonClient& daemon, const Interrupt& interrupt, MakeOutput makeOutput);
    ~WatchRun();

    /// Returns when it is over and nothing of it runs any more. Throws NoDaemon and CommandFailure.
    void run();

private:
    asio::awaitable<void> runAll();
    asio::awaitable<void> follow();
    asio::awaitable<void> receive();
    void end(std::exception_ptr failure);

    const Interrupt& interrupt_;
    const MakeOutput makeOutput_;
    RealClock clock_;
    SystemNameResolver resolver_;
    bool isOver_ = false;
    std::exception_ptr failure_;
    Strand strand_;
    Notifier over_;
    WebSocketClient socket_;
    std::unique_ptr<WatchOutput> output_;
    TaskGroup tasks_;
};

}  // namespace skein
