#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "velmora/platform/Dispatch.h"

namespace velmora::testing {

// One callback's value, waited for from the test thread; remembers whether it came on the main queue.
template <class T>
class Awaited {
  public:
    std::function<void(T)> callback() {
        return [this](T value) {
            std::lock_guard lock(mutex_);
            value_.emplace(std::move(value));
            onMain_ = platform::DispatchQueue::main().isCurrent();
            changed_.notify_all();
        };
    }
    const T& wait() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return value_.has_value(); });
        return *value_;
    }
    bool arrived() {
        std::lock_guard lock(mutex_);
        return value_.has_value();
    }
    bool onMain() {
        std::lock_guard lock(mutex_);
        return onMain_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::optional<T> value_;
    bool onMain_ = false;
};

// Whether `condition` holds within `limit`, asked every 10 ms.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    for (auto waited = std::chrono::milliseconds(0); waited < limit && !condition();
         waited += std::chrono::milliseconds(10)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return condition();
}

// Whether `work`, run on a thread of its own, returns within `limit`. Work that hangs is left behind on its
// thread, so it must hold by value whatever it uses.
inline bool returnsWithin(std::function<void()> work,
                          std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    const auto done = std::make_shared<std::atomic<bool>>(false);
    std::thread([work = std::move(work), done] {
        work();
        *done = true;
    }).detach();
    return eventually([&] { return done->load(); }, limit);
}

}  // namespace velmora::testing
