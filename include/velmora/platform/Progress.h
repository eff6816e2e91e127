#pragma once

#include <atomic>
#include <cstdint>

namespace velmora::platform {

// Progress of one piece of work in units (bytes, for uploads); readable from any thread.
class Progress {
  public:
    std::int64_t totalUnitCount() const { return total_.load(); }
    std::int64_t completedUnitCount() const { return completed_.load(); }
    void setTotalUnitCount(std::int64_t units) { total_.store(units); }
    void setCompletedUnitCount(std::int64_t units) { completed_.store(units); }

  private:
    std::atomic<std::int64_t> total_{0};
    std::atomic<std::int64_t> completed_{0};
};

}  // namespace velmora::platform
