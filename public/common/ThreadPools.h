#pragma once

#include <boost/asio/any_io_executor.hpp>

#include <memory>

namespace skein {

namespace asio = boost::asio;

/// The program's two pools: `io` for sockets, timers and actors, `disk` for file calls and hashing.
///
/// Each has a thread a core, at least two; where the system gives fewer, one does. Owner: `main`. The pools outlive
/// every actor; the destructor lets what is queued on `disk` finish, drops what is queued on `io`, and joins the
/// threads.
class ThreadPools {
public:
    /// Throws ThreadShortage when there is not even one thread for each.
    ThreadPools();
    ThreadPools(const ThreadPools&) = delete;
    ThreadPools& operator=(const ThreadPools&) = delete;
    ~ThreadPools();

    asio::any_io_executor io() const;
    asio::any_io_executor disk() const;
    /// As many as each has where none are short.
    static unsigned threadsEach() noexcept;

private:
    struct Pools;
    std::unique_ptr<Pools> pools_;
};

}  // namespace skein
