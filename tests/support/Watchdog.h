#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace velmora::testing {

// Fails the test process if it is still alive after `limit`: a test that would hang reports what hung.
class Watchdog {
  public:
    Watchdog(std::chrono::seconds limit, std::string what);
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

  private:
    std::mutex mutex_;
    std::condition_variable disarmed_;
    bool done_ = false;
    std::thread thread_;
};

}  // namespace velmora::testing
