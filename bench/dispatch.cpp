// How long a block waits between DispatchQueue::async on an idle serial queue and its start, against the
// cheapest hand-off there is (a mutex, a condition variable and one waiting thread), in the same run.
// Also the global pool's and a serial queue's throughput of trivial blocks.
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>

#include "bench/BenchSupport.h"
#include "velmora/platform/Dispatch.h"

using namespace velmora;
using namespace velmora::bench;
using platform::DispatchGroup;
using platform::DispatchQueue;

namespace {

constexpr int rounds = 30;
constexpr int perRound = 100;
// Long enough for the woken thread to go back to sleep, so every hop starts from an idle receiver.
constexpr auto settle = std::chrono::microseconds(200);

class BareHandOff {
  public:
    BareHandOff()
        : thread_([this] {
              std::unique_lock lock(mutex_);
              for (;;) {
                  wake_.wait(lock, [this] { return pending_ || stop_; });
                  if (stop_) {
                      return;
                  }
                  pending_ = false;
                  startedAt_ = Clock::now();
                  done_.store(true, std::memory_order_release);
              }
          }) {}
    ~BareHandOff() {
        {
            std::lock_guard lock(mutex_);
            stop_ = true;
        }
        wake_.notify_one();
        thread_.join();
    }

    double hop() {
        done_.store(false, std::memory_order_relaxed);
        const auto sent = Clock::now();
        {
            std::lock_guard lock(mutex_);
            pending_ = true;
        }
        wake_.notify_one();
        while (!done_.load(std::memory_order_acquire)) {
        }
        std::lock_guard lock(mutex_);
        return nanosecondsBetween(sent, startedAt_);
    }

  private:
    std::mutex mutex_;
    std::condition_variable wake_;
    bool pending_ = false;
    bool stop_ = false;
    Clock::time_point startedAt_;
    std::atomic<bool> done_{false};
    std::thread thread_;
};

double queueHop(const DispatchQueue& queue) {
    std::atomic<bool> done{false};
    Clock::time_point startedAt;
    const auto sent = Clock::now();
    queue.async([&] {
        startedAt = Clock::now();
        done.store(true, std::memory_order_release);
    });
    while (!done.load(std::memory_order_acquire)) {
    }
    return nanosecondsBetween(sent, startedAt);
}

double blocksPerSecond(const DispatchQueue& queue, int blocks) {
    std::atomic<int> ran{0};
    DispatchGroup group;
    const auto start = Clock::now();
    for (int i = 0; i < blocks; ++i) {
        group.enter();
        queue.async([&] {
            ran.fetch_add(1, std::memory_order_relaxed);
            group.leave();
        });
    }
    group.wait();
    return blocks / (nanosecondsBetween(start, Clock::now()) / 1e9);
}

}  // namespace

int main() {
    BareHandOff bare;
    DispatchQueue queue("com.velmora.bench.hop");
    std::vector<double> bareSamples;
    std::vector<double> queueSamples;

    // Warm both paths (thread creation, first allocations) before measuring.
    for (int i = 0; i < 200; ++i) {
        bare.hop();
        queueHop(queue);
        std::this_thread::sleep_for(settle);
    }
    // Interleaved rounds, so that drift in machine load falls on both sides alike.
    for (int r = 0; r < rounds; ++r) {
        for (int i = 0; i < perRound; ++i) {
            bareSamples.push_back(bare.hop());
            std::this_thread::sleep_for(settle);
        }
        for (int i = 0; i < perRound; ++i) {
            queueSamples.push_back(queueHop(queue));
            std::this_thread::sleep_for(settle);
        }
    }

    std::printf("dispatch: hop from async to block start (%d samples each)\n", rounds * perRound);
    printRow("mutex + condition variable hand-off", percentile(bareSamples, 50) / 1000,
             percentile(bareSamples, 99) / 1000, "us");
    printRow("DispatchQueue.async on an idle serial queue", percentile(queueSamples, 50) / 1000,
             percentile(queueSamples, 99) / 1000, "us");

    const double globalRate = blocksPerSecond(DispatchQueue::global(), 200'000);
    const double serialRate = blocksPerSecond(queue, 200'000);
    std::printf("dispatch: throughput of trivial blocks\n");
    std::printf("  %-44s %12.0f blocks/s\n", "global pool", globalRate);
    std::printf("  %-44s %12.0f blocks/s\n", "one serial queue", serialRate);

    printRatio("dispatch_hop", percentile(queueSamples, 50) / percentile(bareSamples, 50));
    return 0;
}
