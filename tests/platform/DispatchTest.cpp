#include "velmora/platform/Dispatch.h"

#include <gtest/gtest.h>

#include <atomic>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/Awaited.h"
#include "tests/support/LibraryTest.h"
#include "tests/support/Watchdog.h"

namespace velmora::testing {
namespace {

using namespace platform;
using namespace std::chrono_literals;

class DispatchTest : public LibraryTest {
  protected:
    Watchdog watchdog{90s, "dispatch test"};  // a hang fails the test instead of stalling the run
};

// Every hundredth block is a sync: it waits behind the asyncs queued after a slow first block, on its caller.
TEST_F(DispatchTest, SerialQueueKeepsEachSubmittersOrderAndRunsOneBlockAtATime) {
    DispatchQueue queue("com.velmora.tests.fifo");
    std::vector<std::vector<int>> seen(4);  // touched only on the queue
    std::atomic<int> running{0}, overlaps{0}, syncsElsewhere{0};
    queue.async([] { std::this_thread::sleep_for(50ms); });
    std::vector<std::jthread> threads;
    for (std::size_t s = 0; s < seen.size(); ++s) {
        threads.emplace_back([&, s] {
            for (int i = 0; i < 2000; ++i) {
                const bool viaSync = i % 100 == 99;
                const auto block = [&, s, i, viaSync, caller = std::this_thread::get_id()] {
                    overlaps += running.fetch_add(1) != 0;
                    seen[s].push_back(i);
                    syncsElsewhere += viaSync && std::this_thread::get_id() != caller;
                    running.fetch_sub(1);
                };
                viaSync ? queue.sync(block) : queue.async(block);
            }
        });
    }
    threads.clear();    // joins them
    queue.sync([] {});  // returns once every block submitted before it has run
    // Blocks of a serial queue never run at the same time, and a sync runs on the caller's thread.
    EXPECT_EQ(std::pair(overlaps.load(), syncsElsewhere.load()), std::pair(0, 0));
    std::vector<int> inOrder(2000);
    std::iota(inOrder.begin(), inOrder.end(), 0);
    EXPECT_EQ(seen, std::vector(4, inOrder));
}

TEST_F(DispatchTest, SyncOntoTheQueueAlreadyHeldByThisThreadIsReportedNotADeadlock) {
    DispatchQueue outer("com.velmora.tests.outer"), inner("com.velmora.tests.inner");
    std::atomic<int> ran{0};
    // Directly from one of the queue's own blocks, and through another queue's sync on the same thread.
    outer.async([&] { outer.sync([&] { ran++; }); });
    outer.sync([] {});
    outer.sync([&] { inner.sync([&] { outer.sync([&] { ran++; }); }); });
    EXPECT_EQ(std::pair(ran.load(),
                        logs->count("DispatchQueue: sync onto com.velmora.tests.outer from a block "
                                    "already running on it would deadlock; running the block in place")),
              std::pair(2, std::size_t{2}));
}

// 300 pool tasks blocked on a gate that only a task queued behind them opens: all of them finish. Pool tasks
// that wait inside a serial queue's sync for another queue's block are AccessTest's burst of logins.
TEST_F(DispatchTest, BlockedPoolTasksAreReplacedSoWorkSubmittedAfterThemStillRuns) {
    const auto global = DispatchQueue::global();
    DispatchGroup all, gate;
    gate.enter();
    for (int i = 0; i < 300; ++i) {
        all.enter();
        global.async([&] {
            gate.wait();
            all.leave();
        });
    }
    global.async([&] { gate.leave(); });
    all.wait();
    EXPECT_LE(globalPoolStatistics().peakThreads, globalPoolStatistics().threadCap);
    const auto retired = [] { return globalPoolStatistics().threads <= globalPoolStatistics().baseThreads; };
    EXPECT_TRUE(eventually(retired, 10s)) << "the extra workers retire once idle";
}

TEST_F(DispatchTest, GroupNotifiesOnceEmptyAndTimesOutWhileWorkIsOutstanding) {
    DispatchGroup group;
    DispatchQueue queue("com.velmora.tests.group");
    std::atomic<int> notified{0};
    group.enter();
    group.enter();
    group.notify(queue, [&] { notified++; });
    group.leave();
    queue.sync([] {});
    EXPECT_EQ(std::pair(group.wait(20ms), notified.load()), std::pair(false, 0));  // one is outstanding
    group.leave();
    EXPECT_TRUE(group.wait(5s));

    group.notify(queue, [&] { notified++; });  // on an empty group: at once
    queue.sync([] {});
    EXPECT_EQ(notified.load(), 2);

    group.leave();  // unbalanced: ignored, the count does not go negative
    group.enter();
    EXPECT_FALSE(group.wait(10ms));
}

TEST_F(DispatchTest, MainQueueRunsOnOneLibraryThreadOrOnTheHostsExecutorOnceInstalled) {
    const auto main = DispatchQueue::main();
    std::vector<std::pair<std::thread::id, bool>> ran;  // on which thread, and whether main() was current
    const auto record = [&] {
        ran.emplace_back(std::this_thread::get_id(), DispatchQueue::main().isCurrent());
    };
    for (int i = 0; i < 200; ++i) {  // more than one drain's worth
        main.async(record);
    }
    main.sync([] {});
    EXPECT_EQ(ran, std::vector(200, std::pair(ran.at(0).first, true)));  // at(0) throws when none ran
    EXPECT_NE(ran[0].first, std::this_thread::get_id());

    // The host's loop is this thread: nothing runs until it runs what the executor was handed.
    std::vector<std::function<void()>> hostLoop;
    environment.mainExecutor = [&](std::function<void()> job) { hostLoop.push_back(std::move(job)); };
    reinstallEnvironment();
    ran.clear();
    for (int i = 0; i < 5; ++i) {
        main.async(record);
    }
    EXPECT_TRUE(ran.empty());
    for (std::size_t i = 0; i < hostLoop.size(); ++i) {
        std::exchange(hostLoop[i], nullptr)();  // a job may hand the loop another
    }
    EXPECT_EQ(ran, std::vector(5, std::pair(std::this_thread::get_id(), true)));

    // An executor that throws (the host's loop has ended) leaves the queue to the library's thread; the job
    // it kept must not drain the queue a second time, alongside.
    hostLoop.clear();
    environment.mainExecutor = [&hostLoop](std::function<void()> job) {
        hostLoop.push_back(std::move(job));
        throw std::runtime_error("loop ended");
    };
    reinstallEnvironment();
    std::atomic<int> running{0}, overlapped{0}, done{0};
    const auto slow = [&] {
        overlapped += running++ > 0;
        std::this_thread::sleep_for(50ms);
        --running, ++done;
    };
    main.async(slow);
    main.async(slow);
    ASSERT_TRUE(eventually([&] { return running == 1; }));
    for (const auto& job : hostLoop) {
        job();
    }
    ASSERT_TRUE(eventually([&] { return done == 2; }));
    EXPECT_EQ(overlapped.load(), 0);
    EXPECT_TRUE(
        logs->contains("DispatchQueue: the host's main executor failed (loop ended); "
                       "com.velmora.main runs on the library's thread"));
}

// A block that throws is logged and the queue goes on, and outlives its last handle until its blocks ran.
TEST_F(DispatchTest, AThrowingBlockIsLoggedAndTheQueueGoesOnAndOutlivesItsLastHandleUntilItsBlocksHaveRun) {
    DispatchGroup group;
    auto temporary = std::make_optional<DispatchQueue>("com.velmora.tests.throwing");
    temporary->async([] { throw std::runtime_error("host bug"); });
    for (int i = 0; i < 100; ++i) {
        group.enter();
        temporary->async([group] { group.leave(); });
    }
    temporary.reset();  // its last handle
    EXPECT_TRUE(group.wait(10s)) << "blocks were dropped with the queue's last handle";
    EXPECT_TRUE(
        logs->contains("Uncaught exception in a block on queue com.velmora.tests.throwing: host bug"));
}

}  // namespace
}  // namespace velmora::testing
