#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace velmora::platform {

// A count of pieces of work under way, which a thread can wait to see drained (back at zero).
class PendingCount {
  public:
    // Counts one piece of work from its making until finish() or its destruction, whichever comes first.
    class Ticket {
      public:
        explicit Ticket(PendingCount& owner) : count_(owner) { count_.add(); }
        ~Ticket() { finish(); }
        Ticket(const Ticket&) = delete;
        Ticket& operator=(const Ticket&) = delete;

        void finish() {
            if (!finished_.exchange(true)) {
                count_.remove();
            }
        }

      private:
        PendingCount& count_;
        std::atomic<bool> finished_{false};
    };

    std::size_t count() {
        std::lock_guard lock(mutex_);
        return pending_;
    }

    // False when the time ran out first.
    bool waitUntilDrained(std::chrono::steady_clock::time_point deadline) {
        std::unique_lock lock(mutex_);
        return drained_.wait_until(lock, deadline, [this] { return pending_ == 0; });
    }
    bool waitUntilDrained(std::chrono::milliseconds timeout) {
        std::unique_lock lock(mutex_);
        return drained_.wait_for(lock, timeout, [this] { return pending_ == 0; });
    }

  private:
    void add() {
        std::lock_guard lock(mutex_);
        ++pending_;
    }
    void remove() {
        std::lock_guard lock(mutex_);
        if (--pending_ == 0) {
            drained_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable drained_;
    std::size_t pending_ = 0;
};

}  // namespace velmora::platform
