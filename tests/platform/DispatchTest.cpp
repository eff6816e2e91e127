#include "velmora/platform/Dispatch.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "tests/support/LibraryTest.h"
#include "tests/support/Watchdog.h"

namespace velmora::testing {
namespace {

using platform::DispatchGroup;
using platform::DispatchQueue;
using namespace std::chrono_literals;

class DispatchTest : public LibraryTest {
  protected:
    Watchdog watchdog{90s, "dispatch test"};  // a hang fails the test instead of stalling the run
};

// Blocks until every block submitted to `queue` before this call has run.
void drain(const DispatchQueue& queue) {
    queue.sync([] {});
}

TEST_F(DispatchTest, SerialQueueKeepsEachSubmittersOrderAndRunsOneBlockAtATime) {
    DispatchQueue queue("com.velmora.tests.fifo");
    constexpr int submitters = 4;
    constexpr int perSubmitter = 2000;
    std::vector<std::vector<int>> seen(submitters);  // touched only on the queue
    std::atomic<int> running{0};
    std::atomic<int> overlaps{0};

    std::vector<std::thread> threads;
    for (int s = 0; s < submitters; ++s) {
        threads.emplace_back([&, s] {
            for (int i = 0; i < perSubmitter; ++i) {
                auto block = [&, s, i] {
                    overlaps += running.fetch_add(1) != 0 ? 1 : 0;
                    seen[s].push_back(i);
                    running.fetch_sub(1);
                };
                // Mixing in syncs checks that a sync takes its place in line, not a shortcut.
                i % 100 == 0 ? queue.sync(block) : queue.async(block);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    drain(queue);

    EXPECT_EQ(overlaps.load(), 0) << "blocks of a serial queue ran at the same time";
    for (int s = 0; s < submitters; ++s) {
        ASSERT_EQ(seen[s].size(), static_cast<std::size_t>(perSubmitter));
        for (int i = 0; i < perSubmitter; ++i) {
            ASSERT_EQ(seen[s][i], i) << "submitter " << s;
        }
    }
}

TEST_F(DispatchTest, SyncOntoABusyQueueWaitsForEarlierBlocksAndRunsOnTheCallersThread) {
    DispatchQueue queue("com.velmora.tests.busy");
    std::vector<int> order;
    queue.async([&] {
        std::this_thread::sleep_for(50ms);
        order.push_back(1);
    });
    queue.async([&] { order.push_back(2); });
    std::thread::id ranOn;
    const int answer = queue.sync([&] {
        order.push_back(3);
        ranOn = std::this_thread::get_id();
        return 42;
    });
    queue.async([&] { order.push_back(4); });
    drain(queue);

    EXPECT_EQ(answer, 42);
    EXPECT_EQ(ranOn, std::this_thread::get_id());
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
}

TEST_F(DispatchTest, SyncOntoTheQueueAlreadyHeldByThisThreadIsReportedNotADeadlock) {
    DispatchQueue outer("com.velmora.tests.outer");
    DispatchQueue inner("com.velmora.tests.inner");
    std::atomic<int> ran{0};

    // Directly from one of the queue's own blocks...
    outer.async([&] { outer.sync([&] { ran++; }); });
    drain(outer);
    // ...and through another queue's sync, which runs on the same thread.
    outer.sync([&] { inner.sync([&] { outer.sync([&] { ran++; }); }); });

    EXPECT_EQ(ran.load(), 2);
    const std::string report =
        "DispatchQueue: sync onto com.velmora.tests.outer from a block already running on it would deadlock; "
        "running the block in place";
    EXPECT_EQ(logs->count(report), 2u);
}

TEST_F(DispatchTest, BlockedPoolTasksAreReplacedSoWorkSubmittedAfterThemStillRuns) {
    const auto global = DispatchQueue::global();
    constexpr int blockedTasks = 300;
    DispatchGroup gate;
    gate.enter();
    std::atomic<int> finished{0};
    DispatchGroup all;
    for (int i = 0; i < blockedTasks; ++i) {
        all.enter();
        global.async([&] {
            gate.wait();
            finished++;
            all.leave();
        });
    }
    // The only way out: a task queued behind all 300 blocked ones.
    global.async([&] { gate.leave(); });
    all.wait();
    EXPECT_EQ(finished.load(), blockedTasks);

    auto stats = platform::globalPoolStatistics();
    EXPECT_GT(stats.peakThreads, stats.baseThreads);
    EXPECT_LE(stats.peakThreads, stats.threadCap);

    // The extra workers retire once idle.
    for (int i = 0; i < 200 && stats.threads > stats.baseThreads; ++i) {
        std::this_thread::sleep_for(50ms);
        stats = platform::globalPoolStatistics();
    }
    EXPECT_LE(stats.threads, stats.baseThreads);
}

TEST_F(DispatchTest, SerialQueuesWaitingOnEachOtherThroughTheLoginPatternComplete) {
    // Each request's own serial queue blocks on a group that a second serial queue's block leaves, as the
    // login interceptor does with its access call: hundreds of them in flight must all finish.
    constexpr int requests = 200;
    DispatchGroup all;
    std::atomic<int> finished{0};
    for (int i = 0; i < requests; ++i) {
        all.enter();
        DispatchQueue::global().async([&, i] {
            DispatchQueue own("com.velmora.tests.request." + std::to_string(i));
            own.sync([&] {
                DispatchGroup access;
                access.enter();
                DispatchQueue("com.velmora.tests.access").async([access] { access.leave(); });
                access.wait();
            });
            finished++;
            all.leave();
        });
    }
    all.wait();
    EXPECT_EQ(finished.load(), requests);
}

TEST_F(DispatchTest, GroupNotifiesOnceEmptyAndTimesOutWhileWorkIsOutstanding) {
    DispatchGroup group;
    DispatchQueue queue("com.velmora.tests.group");
    std::atomic<int> notified{0};

    group.enter();
    group.enter();
    group.notify(queue, [&] { notified++; });
    EXPECT_FALSE(group.wait(20ms));
    group.leave();
    drain(queue);
    EXPECT_EQ(notified.load(), 0);
    group.leave();
    EXPECT_TRUE(group.wait(5s));

    // A notify on an empty group fires straight away.
    group.notify(queue, [&] { notified++; });
    for (int i = 0; i < 100 && notified.load() < 2; ++i) {
        drain(queue);
    }
    EXPECT_EQ(notified.load(), 2);

    group.leave();
    EXPECT_TRUE(logs->contains("DispatchGroup: leave() without a matching enter() ignored"));
    group.enter();
    EXPECT_FALSE(group.wait(10ms)) << "the unbalanced leave must not have made the count negative";
    group.leave();
}

TEST_F(DispatchTest, MainQueueRunsOnTheHostExecutorWhenOneIsInstalled) {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::function<void()>> hostLoop;
    environment.mainExecutor = [&](std::function<void()> block) {
        std::lock_guard lock(mutex);
        hostLoop.push_back(std::move(block));
        wake.notify_one();
    };
    reinstallEnvironment();

    std::vector<std::thread::id> ranOn;
    std::atomic<bool> stop{false};
    std::thread host([&] {
        std::unique_lock lock(mutex);
        while (!stop) {
            if (hostLoop.empty()) {
                wake.wait_for(lock, 10ms);
                continue;
            }
            auto block = std::move(hostLoop.front());
            hostLoop.pop_front();
            lock.unlock();
            block();
            lock.lock();
        }
    });
    const auto main = DispatchQueue::main();
    for (int i = 0; i < 5; ++i) {
        main.async([&] { ranOn.push_back(std::this_thread::get_id()); });
    }
    drain(main);
    stop = true;  // the host loop looks at it at least every 10 ms
    const auto hostId = host.get_id();
    host.join();
    EXPECT_EQ(ranOn, std::vector<std::thread::id>(5, hostId));
}

TEST_F(DispatchTest, MainQueueWithoutHostExecutorUsesOneLibraryThread) {
    const auto main = DispatchQueue::main();
    std::vector<std::thread::id> ranOn;
    std::vector<bool> sawCurrent;
    for (int i = 0; i < 200; ++i) {
        main.async([&] {
            ranOn.push_back(std::this_thread::get_id());
            sawCurrent.push_back(DispatchQueue::main().isCurrent());
        });
    }
    drain(main);
    ASSERT_EQ(ranOn.size(), 200u);
    EXPECT_EQ(ranOn, std::vector<std::thread::id>(200, ranOn[0]));
    EXPECT_EQ(sawCurrent, std::vector<bool>(200, true));
    EXPECT_NE(ranOn[0], std::this_thread::get_id());
}

// A block that throws is logged and the queue goes on; dropping the last handle keeps the queue until the
// blocks already submitted have run.
TEST_F(DispatchTest, AThrowingBlockIsLoggedAndTheQueueGoesOnAndOutlivesItsLastHandleUntilItsBlocksHaveRun) {
    std::atomic<int> ran{0};
    DispatchGroup group;
    {
        DispatchQueue temporary("com.velmora.tests.throwing");
        temporary.async([] { throw std::runtime_error("host bug"); });
        for (int i = 0; i < 100; ++i) {
            group.enter();
            temporary.async([&] {
                ran++;
                group.leave();
            });
        }
    }
    group.wait();
    EXPECT_EQ(ran.load(), 100);
    EXPECT_TRUE(
        logs->contains("Uncaught exception in a block on queue com.velmora.tests.throwing: host bug"));
}

}  // namespace
}  // namespace velmora::testing
