#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>

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

}  // namespace velmora::testing
