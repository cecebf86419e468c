#ifndef ZYT_NODEKIT_PARALLEL_H
#define ZYT_NODEKIT_PARALLEL_H

/// @file
/// Runs work on the workers of a ZYTThreadPool: rows and groups of callables, which the caller waits for, and a queue
/// of frames, which it does not.
///
/// @code
/// zyt::ParallelRows(m_workers, image->height, [&](uint32_t from, uint32_t to) {
///     for (uint32_t y = from; y < to; ++y) Sharpen(*image, y);
/// });                                              // all rows are done here
///
/// zyt::TaskGroup group(m_workers);
/// group.Run([&] { FindFaces(*preview); });
/// group.Wait();                                    // the destructor waits too
///
/// zyt::FrameQueue<Frame> m_frames{m_workers, [this](Frame& frame) { Process(frame); }, 8};
/// if (!m_frames.Push(std::move(frame))) Drop(frame);            // full: the caller still has it
/// for (Frame& frame : m_frames.Close()) GiveBack(frame);        // stopped: those that never ran
/// @endcode
///
/// Who waits for rows or a group does the work that no worker has begun. So all is done and no wait hangs, even when
/// the pool has no workers, is flushed, stopped or restarted meanwhile, when the caller is a task of the same pool, and
/// when memory runs out. (A flush leaks a small block.) An exception that leaves the work ends the process.
///
/// REQUIRES: the pool outlives the group or queue. No callable waits for its own group or closes its own queue.

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <type_traits>
#include <utility>

#include "base/zytthreadsafety.h"
#include "nodekit/detail.h"
#include "nodekit/trace.h"
#include "threadpool/zytthreadpool.h"

namespace zyt {

namespace detail {

/// Work shared by its creator and the notices queued for it; the last owner deletes it.
class SharedWork {
public:
    explicit SharedWork(ZYTThreadPool& pool) : m_pool(pool) {}

    virtual void RunWhatIsLeft() = 0;

    /// Queues that many notices under one lock. Returns false, with none queued, when memory runs out.
    bool Notify(uint32_t count) {
        std::list<ZYTThreadPoolTask> notices;
        const ZYTThreadPoolTask empty = {ZYT_THREAD_POOL_TASK_NORMAL, RunNotice, nullptr, sizeof(void*)};
        bool hasMemory = WithMemory([&] { notices.assign(count, empty); });
        for (ZYTThreadPoolTask& notice : notices) {
            notice.data = std::malloc(sizeof(void*));
            hasMemory = hasMemory && notice.data != nullptr;
            if (notice.data != nullptr) *static_cast<SharedWork**>(notice.data) = this;
        }
        if (!hasMemory) {
            for (const ZYTThreadPoolTask& notice : notices) std::free(notice.data);
            return false;
        }
        m_owners.fetch_add(count, std::memory_order_relaxed);
        {
            Lock lock(m_pool.m_taskListLock);
            m_pool.m_taskList.splice(m_pool.m_taskList.end(), notices);
        }
        for (uint32_t i = 0; i < count; ++i) m_pool.m_taskCond.notify_one();
        return true;
    }

    /// Ends the creator's ownership and removes the notices that are still queued.
    struct Withdraw {
        void operator()(SharedWork* work) const {
            uint32_t owners = 1;
            if (work->m_owners.load(std::memory_order_relaxed) > 1) {
                Lock lock(work->m_pool.m_taskListLock);
                work->m_pool.m_taskList.remove_if([&](const ZYTThreadPoolTask& task) {
                    if (task.func != RunNotice || *static_cast<SharedWork**>(task.data) != work) return false;
                    std::free(task.data);
                    ++owners;
                    return true;
                });
            }
            work->Release(owners);
        }
    };

    static void RunNotice(void* data, unsigned int) {
        SharedWork* work = *static_cast<SharedWork**>(data);
        work->RunWhatIsLeft();
        work->Release(1);
    }
    void Release(uint32_t owners) {
        if (m_owners.fetch_sub(owners, std::memory_order_acq_rel) == owners) delete this;
    }

protected:
    virtual ~SharedWork() = default;

private:
    ZYTThreadPool& m_pool;
    std::atomic<uint32_t> m_owners{1};
};

/// Work as its creator holds it.
template <typename Work>
using Owned = std::unique_ptr<Work, SharedWork::Withdraw>;

/// Bands of rows, which threads claim one after the other.
template <typename Function>
class Bands final : public SharedWork {
public:
    Bands(ZYTThreadPool& pool, uint32_t rows, uint32_t bands, Function& function)
        : SharedWork(pool), m_rows(rows), m_bands(bands), m_function(function) {}

    void RunWhatIsLeft() noexcept override {
        uint32_t done = 0;
        for (uint64_t i = 0; (i = m_next.fetch_add(1, std::memory_order_relaxed)) < m_bands; ++done) {
            const ScopedTrace section("zyt::ParallelRows");
            m_function(First(i), First(i + 1));
        }
        if (done == 0 || m_done.fetch_add(done, std::memory_order_acq_rel) + done != m_bands) return;
        const std::lock_guard<std::mutex> lock(m_lock);
        m_isDone.notify_one();
    }

    void Wait() {
        RunWhatIsLeft();
        // The other threads are at their last band; polling is faster than being woken.
        for (int i = 0; i < 200 && m_done.load(std::memory_order_acquire) != m_bands; ++i) std::this_thread::yield();
        std::unique_lock<std::mutex> lock(m_lock);
        m_isDone.wait(lock, [this] { return m_done.load(std::memory_order_acquire) == m_bands; });
    }

private:
    uint32_t First(uint64_t band) const { return static_cast<uint32_t>(m_rows * band / m_bands); }

    const uint32_t m_rows;
    const uint32_t m_bands;
    Function& m_function;             // used only by threads that have a band, for which Wait() waits
    std::atomic<uint64_t> m_next{0};  // threads that find no band left count on
    std::atomic<uint32_t> m_done{0};
    std::mutex m_lock;
    std::condition_variable m_isDone;
};

/// Items that wait for a thread, and the number of those in work, at most mostAtATime.
template <typename Item>
class Items final : public SharedWork {
public:
    using Process = std::unique_ptr<Callable<Item&>>;
    Items(ZYTThreadPool& pool, size_t capacity, uint32_t mostAtATime, Process process)
        : SharedWork(pool), m_capacity(capacity), m_mostAtATime(mostAtATime), m_process(std::move(process)) {}

    bool Push(Item& item) {
        const std::lock_guard<std::mutex> lock(m_lock);
        if (m_isClosed || m_waiting.size() >= m_capacity || !Notify(1)) return false;
        // When this fails, the notice finds one item less.
        if (!WithMemory([&] { m_waiting.push_back(std::move(item)); })) return false;
        m_changed.notify_all();
        return true;
    }

    void RunWhatIsLeft() noexcept override {
        std::unique_lock<std::mutex> lock(m_lock);
        while (m_running < m_mostAtATime && !m_waiting.empty()) {
            ProcessFirst(lock);
            if (m_mostAtATime > 1 || m_waiting.empty()) continue;
            // An ordered queue takes turns with the pool's other tasks, so that it cannot keep them waiting.
            if (Notify(1)) return;
        }
    }

    void Wait() noexcept {
        std::unique_lock<std::mutex> lock(m_lock);
        while (!m_waiting.empty() || m_running > 0) {
            if (m_waiting.empty()) {
                m_changed.wait(lock);
            } else {
                ProcessFirst(lock);
            }
        }
    }

    std::list<Item> Close() {
        std::unique_lock<std::mutex> lock(m_lock);
        m_isClosed = true;
        std::list<Item> left;
        left.swap(m_waiting);
        m_changed.wait(lock, [this] { return m_running == 0; });
        return left;
    }

private:
    // Processes the first item without the lock. The item is destroyed before it counts as done.
    void ProcessFirst(std::unique_lock<std::mutex>& lock) noexcept {
        std::list<Item> first;
        first.splice(first.end(), m_waiting, m_waiting.begin());
        ++m_running;
        lock.unlock();
        {
            const ScopedTrace section(m_mostAtATime > 1 ? "zyt::TaskGroup" : "zyt::FrameQueue");
            (*m_process)(first.front());
            first.clear();
        }
        lock.lock();
        if (--m_running == 0) m_changed.notify_all();
    }

    const size_t m_capacity;
    const uint32_t m_mostAtATime;
    const Process m_process;
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::list<Item> m_waiting;
    uint32_t m_running = 0;
    bool m_isClosed = false;
};

/// Returns the number of workers of the pool, or `otherwise` while it is being started or stopped.
inline uint32_t CountWorkers(ZYTThreadPool& pool, uint32_t otherwise) ZYT_NO_THREAD_SAFETY_ANALYSIS {
    const std::unique_lock<std::mutex> lock(pool.m_threadListLock, std::try_to_lock);
    return lock.owns_lock() ? static_cast<uint32_t>(pool.m_threadIdList.size()) : otherwise;
}

}  // namespace detail

/// Splits rows 0 to rows - 1 into bands, calls function(from, to) for each on the pool's workers and on this thread,
/// and returns when all calls have returned. There are min(bands, rows) bands; their sizes differ by one row at most
/// and they begin in ascending order. Allocates one block, and one for each worker.
template <typename Function>
void ParallelRows(ZYTThreadPool& pool, uint32_t rows, Function&& function, uint32_t bands = 8) {
    bands = std::min(rows, std::max(bands, 1u));
    if (bands == 0) return;
    using Work = detail::Bands<std::remove_reference_t<Function>>;
    const detail::Owned<Work> work(bands > 1 ? new (std::nothrow) Work(pool, rows, bands, function) : nullptr);
    if (work == nullptr) return [&]() noexcept { function(0u, rows); }();
    // More threads than processors, this one included, would only compete with each other.
    const uint32_t others = std::max(std::thread::hardware_concurrency(), 2u) - 1;
    work->Notify(std::min({bands - 1, others, detail::CountWorkers(pool, bands)}));
    work->Wait();
}

/// Callables that run on a pool's workers and can be waited for together. Thread-safe. A callable may add to its group.
class TaskGroup {
public:
    /// Creates an empty group. Throws std::bad_alloc when there is no memory.
    explicit TaskGroup(ZYTThreadPool& pool)
        : m_jobs(new detail::Items<Job>(pool, SIZE_MAX, UINT32_MAX, detail::MakeCallable<Job&>(RunJob))) {}
    /// Calls Wait().
    ~TaskGroup() { Wait(); }

    /// Queues a callable without arguments, which may be move-only. It is called once; here and now when there is no
    /// memory to queue it.
    template <typename Function>
    void Run(Function&& function) {
        Job job;
        if (!detail::WithMemory([&] { job = detail::MakeCallable<>(std::forward<Function>(function)); })) {
            return [&]() noexcept { function(); }();
        }
        if (!m_jobs->Push(job)) RunJob(job);
    }

    /// Runs the callables that no worker has begun, and returns when all have run and their captures are destroyed.
    void Wait() { m_jobs->Wait(); }

private:
    using Job = std::unique_ptr<detail::Callable<>>;
    static void RunJob(Job& job) noexcept { (*job)(); }

    const detail::Owned<detail::Items<Job>> m_jobs;
};

/// A queue whose items are processed in the order of their arrival, one at a time, on any worker of a pool.
/// Thread-safe. After a flush of the pool they wait for the next Push(), or for Close().
template <typename Item>
class FrameQueue {
public:
    /// Creates a queue for at most `capacity` items that wait. `process`, which may be move-only, is called with an
    /// Item& that it may move from. Throws std::bad_alloc when there is no memory.
    template <typename Function>
    FrameQueue(ZYTThreadPool& pool, Function process, size_t capacity)
        : m_items(new detail::Items<Item>(pool, capacity, 1, detail::MakeCallable<Item&>(std::move(process)))) {}
    /// Calls Close() and destroys what never ran.
    ~FrameQueue() { Close(); }

    /// Queues the item. Returns false, without a log line and with the item unchanged, when the queue is full or closed
    /// or when memory runs out.
    bool Push(Item&& item) { return m_items->Push(item); }

    /// Refuses items from now on, waits for the one in work and returns those that never ran, oldest first.
    std::list<Item> Close() { return m_items->Close(); }

private:
    const detail::Owned<detail::Items<Item>> m_items;
};

}  // namespace zyt

#endif  // ZYT_NODEKIT_PARALLEL_H
