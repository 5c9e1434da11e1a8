#include "public/common/ThreadPools.h"

#include "public/common/StartThread.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>

#include <algorithm>
#include <thread>
#include <vector>

namespace skein {

namespace {

/// One pool. Its end drops what is queued, unless `finish` came before.
class Pool {
public:
    explicit Pool(unsigned most) : context_(static_cast<int>(most)), work_(context_.get_executor()) {
        threads_.reserve(most);
    }
    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;
    ~Pool() {
        context_.stop();
        join();
    }

    asio::any_io_executor executor() { return context_.get_executor(); }
    /// Throws ThreadShortage.
    void addThread() {
        threads_.push_back(startThread([this] { context_.run(); }));
    }
    /// Returns when all that is queued has run.
    void finish() {
        work_.reset();
        join();
    }

private:
    void join() {
        for (std::thread& thread : threads_) thread.join();
        threads_.clear();
    }

    asio::io_context context_;
    asio::executor_work_guard<asio::io_context::executor_type> work_;
    std::vector<std::thread> threads_;
};

}  // namespace

struct ThreadPools::Pools {
    explicit Pools(unsigned most) : io(most), disk(most) {
        // Each needs one before the other may have a second.
        io.addThread();
        disk.addThread();
        try {
            for (unsigned count = 1; count < most; ++count) {
                io.addThread();
                disk.addThread();
            }
        } catch (const ThreadShortage&) {
            // Those that run do the work of all.
        }
    }
    Pools(const Pools&) = delete;
    Pools& operator=(const Pools&) = delete;
    ~Pools() { disk.finish(); }

    Pool io;
    Pool disk;
};

unsigned ThreadPools::threadsEach() noexcept { return std::max(2U, std::thread::hardware_concurrency()); }

ThreadPools::ThreadPools() : pools_(std::make_unique<Pools>(threadsEach())) {}
ThreadPools::~ThreadPools() = default;

asio::any_io_executor ThreadPools::io() const { return pools_->io.executor(); }
asio::any_io_executor ThreadPools::disk() const { return pools_->disk.executor(); }

}  // namespace skein
