#include "tests/support/Watchdog.h"

#include <cstdio>
#include <cstdlib>

namespace velmora::testing {

Watchdog::Watchdog(std::chrono::seconds limit, std::string what)
    : thread_([this, limit, what = std::move(what)] {
          std::unique_lock lock(mutex_);
          if (!disarmed_.wait_for(lock, limit, [this] { return done_; })) {
              std::fprintf(stderr, "Watchdog: %s did not finish within %lld s\n", what.c_str(),
                           static_cast<long long>(limit.count()));
              std::fflush(stderr);
              std::_Exit(3);
          }
      }) {}

Watchdog::~Watchdog() {
    {
        std::lock_guard lock(mutex_);
        done_ = true;
    }
    disarmed_.notify_all();
    thread_.join();
}

}  // namespace velmora::testing
