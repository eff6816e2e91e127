#include "velmora/platform/Dispatch.h"

#include <gtest/gtest.h>

#include <atomic>
#include <numeric>
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

// Every hundredth block is a sync: it waits behind the asyncs queued after a slow first block, on its caller.
TEST_F(DispatchTest, SerialQueueKeepsEachSubmittersOrderAndRunsOneBlockAtATime) {
    DispatchQueue queue("com.velmora.tests.fifo");
    std::vector<std::vector<int>> seen(4);  // touched only on the queue
    std::atomic<int> running{0}, overlaps{0}, syncsElsewhere{0};
    queue.async([] { std::this_thread::sleep_for(50ms); });
    std::vector<std::thread> threads;
    for (std::size_t s = 0; s < seen.size(); ++s) {
        threads.emplace_back([&, s] {
            for (int i = 0; i < 2000; ++i) {
                auto block = [&, s, i] {
                    overlaps += running.fetch_add(1) != 0 ? 1 : 0;
                    seen[s].push_back(i);
                    running.fetch_sub(1);
                };
                if (i % 100 != 99) {
                    queue.async(block);
                } else {
                    const auto here = std::this_thread::get_id();
                    syncsElsewhere += queue.sync([&] { return block(), std::this_thread::get_id(); }) != here;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    drain(queue);
    EXPECT_EQ(overlaps.load(), 0) << "blocks of a serial queue ran at the same time";
    EXPECT_EQ(syncsElsewhere.load(), 0) << "a sync runs on the caller's thread";
    std::vector<int> inOrder(2000);
    std::iota(inOrder.begin(), inOrder.end(), 0);
    EXPECT_EQ(seen, std::vector<std::vector<int>>(4, inOrder));
}

TEST_F(DispatchTest, SyncOntoTheQueueAlreadyHeldByThisThreadIsReportedNotADeadlock) {
    DispatchQueue outer("com.velmora.tests.outer");
    DispatchQueue inner("com.velmora.tests.inner");
    std::atomic<int> ran{0};
    // Directly from one of the queue's own blocks, and through another queue's sync on the same thread.
    outer.async([&] { outer.sync([&] { ran++; }); });
    drain(outer);
    outer.sync([&] { inner.sync([&] { outer.sync([&] { ran++; }); }); });
    EXPECT_EQ(ran.load(), 2);
    EXPECT_EQ(
        logs->count("DispatchQueue: sync onto com.velmora.tests.outer from a block already running on it "
                    "would deadlock; running the block in place"),
        2u);
}

// 300 pool tasks blocked on a gate that only a task queued behind them opens, then 200 serial queues each
// waiting on another queue's block (as the login interceptor waits on its access call): all of them finish.
TEST_F(DispatchTest, BlockedPoolTasksAreReplacedSoWorkSubmittedAfterThemStillRuns) {
    const auto global = DispatchQueue::global();
    std::atomic<int> finished{0};
    DispatchGroup all;
    DispatchGroup gate;
    gate.enter();
    for (int i = 0; i < 300; ++i) {
        all.enter();
        global.async([&] {
            gate.wait();
            finished++;
            all.leave();
        });
    }
    global.async([&] { gate.leave(); });
    all.wait();
    EXPECT_LE(platform::globalPoolStatistics().peakThreads, platform::globalPoolStatistics().threadCap);

    for (int i = 0; i < 200; ++i) {
        all.enter();
        global.async([&, i] {
            DispatchQueue("com.velmora.tests.request." + std::to_string(i)).sync([] {
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
    EXPECT_EQ(finished.load(), 500);

    auto stats = platform::globalPoolStatistics();
    for (int i = 0; i < 200 && stats.threads > stats.baseThreads; ++i) {
        std::this_thread::sleep_for(50ms);
        stats = platform::globalPoolStatistics();
    }
    EXPECT_LE(stats.threads, stats.baseThreads) << "the extra workers retire once idle";
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

    group.notify(queue, [&] { notified++; });  // on an empty group: at once
    for (int i = 0; i < 100 && notified.load() < 2; ++i) {
        drain(queue);
    }
    EXPECT_EQ(notified.load(), 2);

    group.leave();  // unbalanced: ignored, the count does not go negative
    group.enter();
    EXPECT_FALSE(group.wait(10ms));
    group.leave();
}

TEST_F(DispatchTest, MainQueueRunsOnOneLibraryThreadOrOnTheHostsExecutorOnceInstalled) {
    const auto main = DispatchQueue::main();
    std::vector<std::thread::id> ranOn;
    std::vector<bool> sawCurrent;
    const auto record = [&] {
        ranOn.push_back(std::this_thread::get_id());
        sawCurrent.push_back(DispatchQueue::main().isCurrent());
    };
    for (int i = 0; i < 200; ++i) {  // more than one drain's worth
        main.async(record);
    }
    drain(main);
    ASSERT_EQ(ranOn.size(), 200u);
    EXPECT_EQ(ranOn, std::vector<std::thread::id>(200, ranOn[0]));
    EXPECT_NE(ranOn[0], std::this_thread::get_id());

    // The host's loop is this thread: nothing runs until it runs what the executor was handed.
    std::vector<std::function<void()>> hostLoop;
    environment.mainExecutor = [&](std::function<void()> job) { hostLoop.push_back(std::move(job)); };
    reinstallEnvironment();
    ranOn.clear();
    for (int i = 0; i < 5; ++i) {
        main.async(record);
    }
    EXPECT_TRUE(ranOn.empty());
    for (std::size_t i = 0; i < hostLoop.size(); ++i) {
        auto job = std::move(hostLoop[i]);
        job();
    }
    EXPECT_EQ(ranOn, std::vector<std::thread::id>(5, std::this_thread::get_id()));
    EXPECT_EQ(sawCurrent, std::vector<bool>(205, true));
}

// A block that throws is logged and the queue goes on, and outlives its last handle until its blocks ran.
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
