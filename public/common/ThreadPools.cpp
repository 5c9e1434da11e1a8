#include "public/common/ThreadPools.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/thread_pool.hpp>

#include <algorithm>
#include <thread>
#include <vector>

namespace skein {

struct ThreadPools::Pools {
    explicit Pools(unsigned count) : io(static_cast<int>(count)), work(io.get_executor()), disk(count) {
        threads.reserve(count);
        for (unsigned i = 0; i < count; ++i) threads.emplace_back([this] { io.run(); });
    }
    Pools(const Pools&) = delete;
    Pools& operator=(const Pools&) = delete;
    ~Pools() {
        disk.join();
        io.stop();
        for (std::thread& thread : threads) thread.join();
    }

    asio::io_context io;
    asio::executor_work_guard<asio::io_context::executor_type> work;
    asio::thread_pool disk;
    std::vector<std::thread> threads;
};

unsigned ThreadPools::threadsEach() noexcept { return std::max(2U, std::thread::hardware_concurrency()); }

ThreadPools::ThreadPools() : pools_(std::make_unique<Pools>(threadsEach())) {}
ThreadPools::~ThreadPools() = default;

asio::any_io_executor ThreadPools::io() const { return pools_->io.get_executor(); }
asio::any_io_executor ThreadPools::disk() const { return pools_->disk.get_executor(); }

}  // namespace skein
