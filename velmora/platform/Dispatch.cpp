#include "velmora/platform/Dispatch.h"

#include <cxxabi.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "velmora/platform/Environment.h"
#include "velmora/platform/ExitGuard.h"
#include "velmora/platform/Format.h"
#include "velmora/platform/SystemLog.h"

namespace velmora::platform {
namespace {

void runBlock(const std::function<void()>& block, const std::string& label) {
    // A host block that throws must not take a library thread, and with it every later block, down.
    try {
        block();
    } catch (abi::__forced_unwind&) {
        throw;  // a cancelled thread must unwind, or the runtime aborts
    } catch (const std::exception& e) {
        systemLogLine(LogLevel::error,
                      format("Uncaught exception in a block on queue %@: %@", label, e.what()));
    } catch (...) {
        systemLogLine(LogLevel::error, format("Uncaught exception in a block on queue %@", label));
    }
}

thread_local bool onPoolWorker = false;

// Concurrent workers with a floor of always-ready threads. When a worker blocks in a group wait or a sync
// and work is waiting, another worker is started in its place, so chains of blocked tasks that wait for
// later tasks always make progress. Idle workers are woken last-in first-out: the most recently active one
// is likely still on a free core with warm caches, and the ones at the bottom of the stack stay idle long
// enough to retire when they are extra.
class GlobalPool {
  public:
    static GlobalPool& shared() {
        static auto* pool = [] {
            auto* created = new GlobalPool();  // leaked: its detached workers must never see it destroyed
            started().store(created);
            return created;
        }();
        return *pool;
    }

    // The pool if it was ever started: stopping must not start it.
    static std::atomic<GlobalPool*>& started() {
        static std::atomic<GlobalPool*> instance{nullptr};
        return instance;
    }

    void submit(std::function<void()> task) {
        std::shared_ptr<IdleSlot> wakee;
        {
            std::lock_guard lock(mutex_);
            tasks_.push_back(std::move(task));
            if (stopping_) {
                return;  // kept, never run: the process is exiting
            }
            if (idle_.empty()) {
                spawnIfAllowed();
                return;
            }
            wakee = std::move(idle_.back());
            idle_.pop_back();
            wakee->woken = true;
        }
        // Notified outside the lock: a worker woken while the lock is still held would only block on it
        // again, and the hand-off would cost two wake-ups instead of one.
        wakee->wake.notify_one();
    }

    bool willBlock() {
        if (!onPoolWorker) {
            return false;
        }
        std::lock_guard lock(mutex_);
        ++blocked_;
        if (stopping_) {
            idleChanged_.notify_all();  // one fewer block running for stop() to wait for
        }
        if (tasks_.size() > idle_.size()) {
            spawnIfAllowed();
        }
        return true;
    }

    void didUnblock() {
        std::unique_lock lock(mutex_);
        if (stopping_) {
            // The process is exiting: the wait ended, but the block that waited must not go on while the
            // process's statics are torn down. The thread stays here, still counted as blocked, until the
            // process is gone.
            parked_.wait(lock, [] { return false; });
        }
        --blocked_;
    }

    // No worker takes another task; waits until the running ones are done or the deadline passes.
    void stop(std::chrono::steady_clock::time_point deadline) {
        std::vector<std::shared_ptr<IdleSlot>> sleepers;
        std::unique_lock lock(mutex_);
        stopping_ = true;
        sleepers.swap(idle_);
        for (const auto& slot : sleepers) {
            slot->woken = true;
            slot->wake.notify_one();
        }
        // Workers blocked in a wait are parked when it ends; only those still running a block are waited for.
        idleChanged_.wait_until(lock, deadline, [this] { return running_ <= blocked_; });
    }

    GlobalPoolStatistics statistics() {
        std::lock_guard lock(mutex_);
        return {threads_, idle_.size(), blocked_, peak_, base_, cap_};
    }

  private:
    static constexpr std::size_t cap_ = 512;
    static constexpr auto idleRetirement = std::chrono::seconds(2);

    // One per worker, shared with a submitter that may notify it after the worker has moved on.
    // `woken` is guarded by the pool's mutex.
    struct IdleSlot {
        std::condition_variable wake;
        bool woken = false;
    };

    GlobalPool() : base_(std::max<std::size_t>(4, std::thread::hardware_concurrency())) {
        registerExitGuard();
    }

    // Called with the lock held.
    void spawnIfAllowed() {
        if (threads_ - blocked_ >= base_) {
            return;
        }
        if (threads_ >= cap_) {
            if (!capReported_) {
                capReported_ = true;
                systemLogLine(LogLevel::warn,
                              format("DispatchQueue: the global pool reached its cap of %@ threads; "
                                     "blocks wait for a free worker",
                                     cap_));
            }
            return;
        }
        ++threads_;
        peak_ = std::max(peak_, threads_);
        std::thread([this] { work(); }).detach();
    }

    void work() {
        onPoolWorker = true;
        const auto slot = std::make_shared<IdleSlot>();
        std::unique_lock lock(mutex_);
        for (;;) {
            if (stopping_) {
                // The process is exiting. A thread that ended now would run its thread-local destructors
                // (OpenSSL's among them, once a worker has set libcurl up) while the process's exit handlers
                // tear those libraries down: it stays here until the process is gone.
                parked_.wait(lock, [] { return false; });
            }
            if (!tasks_.empty()) {
                auto task = std::move(tasks_.front());
                tasks_.pop_front();
                ++running_;
                lock.unlock();
                runBlock(task, "com.velmora.global");
                task = nullptr;  // destroy captures outside the lock
                lock.lock();
                --running_;
                if (stopping_) {
                    idleChanged_.notify_all();
                }
                continue;
            }
            slot->woken = false;
            idle_.push_back(slot);
            // Workers of the floor sleep until there is work: an idle library wakes no thread. Only an extra
            // worker keeps a deadline, to retire at.
            if (threads_ - blocked_ <= base_) {
                slot->wake.wait(lock, [&slot] { return slot->woken; });
                continue;
            }
            if (!slot->wake.wait_for(lock, idleRetirement, [&slot] { return slot->woken; })) {
                std::erase(idle_, slot);
                if (threads_ - blocked_ > base_) {
                    --threads_;
                    return;
                }
            }
        }
    }

    std::mutex mutex_;
    std::deque<std::function<void()>> tasks_;
    std::vector<std::shared_ptr<IdleSlot>> idle_;  // most recently idle last
    const std::size_t base_;
    std::size_t threads_ = 0;
    std::size_t blocked_ = 0;
    std::size_t peak_ = 0;
    std::size_t running_ = 0;  // workers inside a task
    bool stopping_ = false;
    std::condition_variable idleChanged_;
    std::condition_variable parked_;  // never notified
    bool capReported_ = false;
};

// Marks a stretch in which the calling thread waits for other blocks; see GlobalPool::willBlock.
class BlockingRegion {
  public:
    BlockingRegion() : counted_(GlobalPool::shared().willBlock()) {}
    ~BlockingRegion() {
        if (counted_) {
            GlobalPool::shared().didUnblock();
        }
    }
    BlockingRegion(const BlockingRegion&) = delete;
    BlockingRegion& operator=(const BlockingRegion&) = delete;

  private:
    bool counted_;
};

// The main queue's thread when the host installs no executor of its own.
class LibraryMainThread {
  public:
    static LibraryMainThread& shared() {
        static auto* thread = [] {
            auto* created = new LibraryMainThread();  // leaked, like the pool
            started().store(created);
            return created;
        }();
        return *thread;
    }

    // The thread if it was ever started: stopping must not start it.
    static std::atomic<LibraryMainThread*>& started() {
        static std::atomic<LibraryMainThread*> instance{nullptr};
        return instance;
    }

    // Runs no further block; waits until the one running (if any) is done or the deadline passes.
    void stop(std::chrono::steady_clock::time_point deadline) {
        std::unique_lock lock(mutex_);
        stopping_ = true;
        wake_.notify_one();
        idle_.wait_until(lock, deadline, [this] { return !running_; });
    }

    void submit(std::function<void()> block) {
        {
            std::lock_guard lock(mutex_);
            blocks_.push_back(std::move(block));
        }
        wake_.notify_one();
    }

  private:
    LibraryMainThread() {
        std::thread([this] { run(); }).detach();
    }

    void run() {
        std::unique_lock lock(mutex_);
        for (;;) {
            wake_.wait(lock, [this] { return !blocks_.empty() || stopping_; });
            if (stopping_) {
                parked_.wait(lock, [] { return false; });  // as the pool's workers: never ends during exit
            }
            auto block = std::move(blocks_.front());
            blocks_.pop_front();
            running_ = true;
            lock.unlock();
            runBlock(block, "com.velmora.main");
            block = nullptr;
            lock.lock();
            running_ = false;
            idle_.notify_all();
        }
    }

    bool stopping_ = false;
    bool running_ = false;
    std::condition_variable idle_;
    std::mutex mutex_;
    std::condition_variable parked_;  // never notified
    std::condition_variable wake_;
    std::deque<std::function<void()>> blocks_;
};

struct SyncWaiter {
    std::mutex mutex;
    std::condition_variable turn;
    bool ready = false;

    void signal() {
        std::lock_guard lock(mutex);
        ready = true;
        turn.notify_one();
    }
    void wait() {
        std::unique_lock lock(mutex);
        turn.wait(lock, [this] { return ready; });
    }
};

thread_local std::vector<const DispatchQueue::State*> currentQueues;

class CurrentQueueScope {
  public:
    explicit CurrentQueueScope(const DispatchQueue::State* queue) { currentQueues.push_back(queue); }
    ~CurrentQueueScope() { currentQueues.pop_back(); }
    CurrentQueueScope(const CurrentQueueScope&) = delete;
    CurrentQueueScope& operator=(const CurrentQueueScope&) = delete;
};

bool isRunningOn(const DispatchQueue::State* queue) {
    return std::find(currentQueues.begin(), currentQueues.end(), queue) != currentQueues.end();
}

}  // namespace

struct DispatchQueue::State : std::enable_shared_from_this<DispatchQueue::State> {
    enum class Kind { serial, concurrent, main };

    // One entry of a serial queue: a block, or a sync caller waiting for its turn.
    struct Item {
        std::function<void()> block;
        SyncWaiter* waiter = nullptr;
    };

    // Blocks run in a row before a drain yields its worker, so that one busy queue cannot starve others
    // of the host's main executor.
    static constexpr int drainBatch = 64;

    State(std::string queueLabel, Kind queueKind) : label(std::move(queueLabel)), kind(queueKind) {}

    const std::string label;
    const Kind kind;
    std::mutex mutex;
    std::deque<Item> items;
    // Set while a drain is scheduled or running, or a sync caller holds the queue.
    bool owned = false;

    void scheduleDrain() {
        auto job = [self = shared_from_this()] { self->drain(); };
        if (kind == Kind::serial) {
            GlobalPool::shared().submit(std::move(job));
            return;
        }
        const auto env = Environment::current();
        if (env->mainExecutor) {
            // The host's code: a throw would leave the queue owned with no drain coming, for good. The job
            // runs once at most, so that a copy the executor kept before it threw cannot drain alongside.
            auto once = [ran = std::make_shared<std::atomic<bool>>(false), job = std::move(job)] {
                if (!ran->exchange(true)) {
                    job();
                }
            };
            try {
                env->mainExecutor(once);
                return;
            } catch (abi::__forced_unwind&) {
                throw;
            } catch (...) {
                systemLogLine(LogLevel::error,
                              format("DispatchQueue: the host's main executor failed (%@); %@ runs "
                                     "on the library's thread",
                                     thrownDescription(), label));
            }
            LibraryMainThread::shared().submit(std::move(once));
            return;
        }
        LibraryMainThread::shared().submit(std::move(job));
    }

    void drain() {
        CurrentQueueScope scope(this);
        for (int ran = 0;; ++ran) {
            Item item;
            {
                std::unique_lock lock(mutex);
                if (items.empty()) {
                    owned = false;
                    return;
                }
                if (ran == drainBatch) {
                    lock.unlock();
                    scheduleDrain();
                    return;
                }
                item = std::move(items.front());
                items.pop_front();
            }
            if (item.waiter != nullptr) {
                item.waiter->signal();  // the queue now belongs to that sync caller
                return;
            }
            runBlock(item.block, label);
        }
    }

    // Ends a sync caller's hold on the queue.
    void release() {
        std::unique_lock lock(mutex);
        if (items.empty()) {
            owned = false;
            return;
        }
        lock.unlock();
        scheduleDrain();
    }
};

DispatchQueue::DispatchQueue(std::string label)
    : state_(std::make_shared<State>(std::move(label), State::Kind::serial)) {}

DispatchQueue DispatchQueue::main() {
    static auto* state =
        new std::shared_ptr<State>(std::make_shared<State>("com.velmora.main", State::Kind::main));
    return DispatchQueue(*state);
}

DispatchQueue DispatchQueue::global() {
    static auto* state =
        new std::shared_ptr<State>(std::make_shared<State>("com.velmora.global", State::Kind::concurrent));
    return DispatchQueue(*state);
}

const std::string& DispatchQueue::label() const {
    return state_->label;
}

bool DispatchQueue::isCurrent() const {
    return isRunningOn(state_.get());
}

void DispatchQueue::async(std::function<void()> block) const {
    if (state_->kind == State::Kind::concurrent) {
        GlobalPool::shared().submit(std::move(block));
        return;
    }
    {
        std::lock_guard lock(state_->mutex);
        state_->items.push_back({std::move(block), nullptr});
        if (state_->owned) {
            return;
        }
        state_->owned = true;
    }
    state_->scheduleDrain();
}

void DispatchQueue::sync(const std::function<void()>& block) const {
    if (state_->kind == State::Kind::concurrent) {
        block();
        return;
    }
    if (isCurrent()) {
        systemLogLine(LogLevel::warn,
                      format("DispatchQueue: sync onto %@ from a block already running on it would deadlock; "
                             "running the block in place",
                             state_->label));
        block();
        return;
    }
    SyncWaiter waiter;
    bool mustWait = false;
    {
        std::lock_guard lock(state_->mutex);
        if (state_->owned) {
            state_->items.push_back({nullptr, &waiter});
            mustWait = true;
        } else {
            state_->owned = true;
        }
    }
    if (mustWait) {
        BlockingRegion blocking;
        waiter.wait();
    }
    struct Release {
        State& state;
        ~Release() { state.release(); }
    } release{*state_};
    CurrentQueueScope scope(state_.get());
    block();
}

struct DispatchGroup::State {
    std::mutex mutex;
    std::condition_variable done;
    std::size_t count = 0;
    std::vector<std::pair<DispatchQueue, std::function<void()>>> notifications;
};

DispatchGroup::DispatchGroup() : state_(std::make_shared<State>()) {}

void DispatchGroup::enter() const {
    std::lock_guard lock(state_->mutex);
    ++state_->count;
}

void DispatchGroup::leave() const {
    std::vector<std::pair<DispatchQueue, std::function<void()>>> due;
    {
        std::lock_guard lock(state_->mutex);
        if (state_->count == 0) {
            systemLogLine(LogLevel::error, "DispatchGroup: leave() without a matching enter() ignored");
            return;
        }
        if (--state_->count > 0) {
            return;
        }
        due.swap(state_->notifications);
        state_->done.notify_all();
    }
    for (auto& [queue, block] : due) {
        queue.async(std::move(block));
    }
}

void DispatchGroup::wait() const {
    BlockingRegion blocking;
    std::unique_lock lock(state_->mutex);
    state_->done.wait(lock, [this] { return state_->count == 0; });
}

bool DispatchGroup::wait(std::chrono::milliseconds timeout) const {
    BlockingRegion blocking;
    std::unique_lock lock(state_->mutex);
    return state_->done.wait_for(lock, timeout, [this] { return state_->count == 0; });
}

void DispatchGroup::notify(const DispatchQueue& queue, std::function<void()> block) const {
    {
        std::lock_guard lock(state_->mutex);
        if (state_->count > 0) {
            state_->notifications.emplace_back(queue, std::move(block));
            return;
        }
    }
    queue.async(std::move(block));
}

GlobalPoolStatistics globalPoolStatistics() {
    return GlobalPool::shared().statistics();
}

void stopDispatchThreads(std::chrono::steady_clock::time_point deadline) {
    if (auto* pool = GlobalPool::started().load()) {
        pool->stop(deadline);
    }
    if (auto* mainThread = LibraryMainThread::started().load()) {
        mainThread->stop(deadline);
    }
}

}  // namespace velmora::platform
