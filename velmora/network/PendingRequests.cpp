#include "velmora/network/PendingRequests.h"

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "velmora/platform/Dispatch.h"
#include "velmora/support/CoreLogger.h"

namespace velmora {

namespace {

struct Counter {
    std::mutex mutex;
    std::condition_variable drained;
    std::size_t pending = 0;
};

Counter& counter() {
    static auto* instance = new Counter();  // leaked: completions may still run during static destruction
    return *instance;
}

// Ends the count on the first completion or, for a completion an executor drops unrun, on destruction.
class Ticket {
  public:
    Ticket() {
        auto& c = counter();
        std::lock_guard lock(c.mutex);
        ++c.pending;
    }
    Ticket(const Ticket&) = delete;
    Ticket& operator=(const Ticket&) = delete;
    ~Ticket() { finish(); }

    void finish() {
        if (finished_.exchange(true)) {
            return;
        }
        auto& c = counter();
        std::lock_guard lock(c.mutex);
        if (--c.pending == 0) {
            c.drained.notify_all();
        }
    }

  private:
    std::atomic<bool> finished_{false};
};

}  // namespace

TaskCompletion PendingRequests::track(TaskCompletion completion) {
    return
        [ticket = std::make_shared<Ticket>(), completion = std::move(completion)](
            const std::optional<Data>& data, const std::shared_ptr<const platform::HTTPURLResponse>& response,
            const std::optional<Error>& error) {
            completion(data, response, error);
            ticket->finish();
        };
}

bool PendingRequests::waitUntilDrained(std::chrono::milliseconds timeout) {
    auto& c = counter();
    std::unique_lock lock(c.mutex);
    if (c.pending != 0 && platform::DispatchQueue::main().isCurrent()) {
        lock.unlock();
        CoreLogger::error("Waiting for pending requests on the main queue would block their completions.");
        return false;
    }
    return c.drained.wait_for(lock, timeout, [&] { return c.pending == 0; });
}

std::size_t PendingRequests::count() {
    auto& c = counter();
    std::lock_guard lock(c.mutex);
    return c.pending;
}

}  // namespace velmora
