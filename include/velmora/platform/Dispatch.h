#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "velmora/Export.h"

namespace velmora::platform {

// A queue of blocks. Serial queues run their blocks one at a time in submission order; they own no thread
// but drain on the global pool. The global queue runs blocks concurrently on that pool. The main queue is
// serial and runs on the host's main executor when one is installed, else on one thread of the library.
//
// DispatchQueue is a handle: copies refer to the same queue, which lives while a handle or a pending block
// refers to it.
class VELMORA_EXPORT DispatchQueue {
  public:
    // A new serial queue.
    explicit DispatchQueue(std::string label);

    static DispatchQueue main();
    static DispatchQueue global();

    const std::string& label() const;

    void async(std::function<void()> block) const;

    // Runs the block on the calling thread once every block submitted before it has run, holding the
    // queue meanwhile (on the global queue: at once). A sync onto a queue whose block is already running on
    // this thread would wait for itself forever; it is reported through the platform log and the block
    // runs in place, under the ownership the thread already holds.
    void sync(const std::function<void()>& block) const;

    template <class F>
    requires(!std::is_void_v<std::invoke_result_t<F&>>) auto sync(F&& block) const
        -> std::invoke_result_t<F&> {
        std::optional<std::invoke_result_t<F&>> result;
        sync(std::function<void()>([&] { result.emplace(block()); }));
        return std::move(*result);
    }

    // Whether the calling thread is running a block of this queue (directly or through nested syncs).
    bool isCurrent() const;

    friend bool operator==(const DispatchQueue& a, const DispatchQueue& b) { return a.state_ == b.state_; }

    struct State;

  private:
    explicit DispatchQueue(std::shared_ptr<State> state) : state_(std::move(state)) {}
    std::shared_ptr<State> state_;
};

// Counts outstanding work: enter() before, leave() after; wait() blocks until the count is back to zero and
// notify() schedules a block for that moment. A handle, like DispatchQueue.
class VELMORA_EXPORT DispatchGroup {
  public:
    DispatchGroup();

    void enter() const;
    // A leave() without its enter() is reported through the platform log and ignored.
    void leave() const;
    void wait() const;
    // False when the time ran out first.
    bool wait(std::chrono::milliseconds timeout) const;
    void notify(const DispatchQueue& queue, std::function<void()> block) const;

  private:
    struct State;
    std::shared_ptr<State> state_;
};

// A snapshot of the global pool, for diagnostics and benchmarks.
struct GlobalPoolStatistics {
    std::size_t threads = 0;  // alive now
    std::size_t idle = 0;
    std::size_t blocked = 0;  // waiting in DispatchGroup::wait or DispatchQueue::sync
    std::size_t peakThreads = 0;
    std::size_t baseThreads = 0;  // kept alive when idle
    std::size_t threadCap = 0;
};
VELMORA_EXPORT GlobalPoolStatistics globalPoolStatistics();

}  // namespace velmora::platform
