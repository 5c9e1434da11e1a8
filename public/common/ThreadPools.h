#pragma once

#include <boost/asio/any_io_executor.hpp>

#include <memory>

namespace skein {

namespace asio = boost::asio;

/// The program's two pools: `io` for sockets, timers and actors, `disk` for file calls and hashing.
///
/// Each has a thread a core, at least two. Owner: `main`. The pools outlive every actor; the destructor
/// lets what is queued on `disk` finish, drops what is queued on `io`, and joins the threads.
class ThreadPools {
public:
    ThreadPools();
    ThreadPools(const ThreadPools&) = delete;
    ThreadPools& operator=(const ThreadPools&) = delete;
    ~ThreadPools();

    asio::any_io_executor io() const;
    asio::any_io_executor disk() const;
    static unsigned threadsEach() noexcept;

private:
    struct Pools;
    std::unique_ptr<Pools> pools_;
};

}  // namespace skein
