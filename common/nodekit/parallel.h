#ifndef ZYT_NODEKIT_PARALLEL_H
#define ZYT_NODEKIT_PARALLEL_H

/// @file
/// Runs work on the workers of a ZYTThreadPool and waits for it.
///
/// @code
/// zyt::ParallelRows(m_workers, image->height, [&](uint32_t from, uint32_t to) {
///     for (uint32_t y = from; y < to; ++y) Sharpen(*image, y);
/// });                                              // all rows are done here
///
/// zyt::TaskGroup group(m_workers);
/// group.Run([&] { FindFaces(*preview); });
/// group.Run([&] { Measure(*frame); });
/// group.Wait();                                    // the destructor waits too
/// @endcode
///
/// The waiting thread itself does the work that no worker has begun. So all work is done and no wait hangs, even when
/// the pool has no workers, is flushed, stopped or restarted meanwhile, when the caller is a task of the same pool, and
/// when memory for notifying the workers runs out. (A flush meanwhile leaks a small block.) An exception that leaves
/// the work ends the process.
///
/// REQUIRES: the pool outlives the group. No callable waits for its own group.

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <type_traits>
#include <utility>

#include "base/zytthreadsafety.h"
#include "threadpool/zytthreadpool.h"

namespace zyt {

namespace detail {

/// Work shared by its creator and the notices queued for it; the last owner deletes it.
struct SharedWork {
    virtual void RunWhatIsLeft() = 0;
    void Release() {
        if (m_owners.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

    /// Data of the queued task.
    struct Notice {
        SharedWork* work;
    };
    static void RunNotice(void* data, unsigned int) {
        SharedWork* work = static_cast<Notice*>(data)->work;
        work->RunWhatIsLeft();
        work->Release();
    }

    std::atomic<uint32_t> m_owners{1};

protected:
    virtual ~SharedWork() = default;
};

/// Queues up to `count` notices for the work, all under one lock. Returns the number queued, which is smaller only when
/// memory runs out.
inline uint32_t Notify(ZYTThreadPool& pool, SharedWork& work, uint32_t count) {
    std::list<ZYTThreadPoolTask> notices;
    for (uint32_t i = 0; i < count; ++i) {
        auto* notice = static_cast<SharedWork::Notice*>(std::malloc(sizeof(SharedWork::Notice)));
        if (notice == nullptr) break;
        notice->work = &work;
        notices.push_back({ZYT_THREAD_POOL_TASK_NORMAL, SharedWork::RunNotice, notice, sizeof(*notice)});
    }
    const auto queued = static_cast<uint32_t>(notices.size());
    work.m_owners.fetch_add(queued, std::memory_order_relaxed);
    {
        Lock lock(pool.m_taskListLock);
        pool.m_taskList.splice(pool.m_taskList.end(), notices);
    }
    for (uint32_t i = 0; i < queued; ++i) pool.m_taskCond.notify_one();
    return queued;
}

/// Removes the notices that are still queued and releases the creator's share of the work.
inline void Withdraw(ZYTThreadPool& pool, SharedWork& work) {
    if (work.m_owners.load(std::memory_order_relaxed) > 1) {
        Lock lock(pool.m_taskListLock);
        for (auto task = pool.m_taskList.begin(); task != pool.m_taskList.end();) {
            if (task->func != SharedWork::RunNotice || static_cast<SharedWork::Notice*>(task->data)->work != &work) {
                ++task;
                continue;
            }
            std::free(task->data);
            task = pool.m_taskList.erase(task);
            work.Release();
        }
    }
    work.Release();
}

/// Bands of rows, which threads claim one after the other.
template <typename Function>
class Bands final : public SharedWork {
public:
    Bands(uint32_t rows, uint32_t bands, Function& function) : m_rows(rows), m_bands(bands), m_function(function) {}

    void RunWhatIsLeft() noexcept override {
        uint32_t done = 0;
        for (uint32_t i = 0; (i = m_next.fetch_add(1, std::memory_order_relaxed)) < m_bands; ++done) {
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
    uint32_t First(uint32_t band) const { return static_cast<uint32_t>(uint64_t{m_rows} * band / m_bands); }

    const uint32_t m_rows;
    const uint32_t m_bands;
    Function& m_function;  // used only by threads that have a band, for which Wait() waits
    std::atomic<uint32_t> m_next{0};
    std::atomic<uint32_t> m_done{0};
    std::mutex m_lock;
    std::condition_variable m_isDone;
};

/// A queue of callables and the number of running ones.
class Jobs final : public SharedWork {
public:
    void Add(std::function<void()> job) {
        const std::lock_guard<std::mutex> lock(m_lock);
        m_waiting.push_back(std::move(job));
        m_changed.notify_all();
    }

    void RunWhatIsLeft() noexcept override {
        std::unique_lock<std::mutex> lock(m_lock);
        while (!m_waiting.empty()) RunOne(lock);
    }

    void Wait() noexcept {
        std::unique_lock<std::mutex> lock(m_lock);
        while (!m_waiting.empty() || m_running > 0) {
            if (m_waiting.empty()) {
                m_changed.wait(lock);
            } else {
                RunOne(lock);
            }
        }
    }

private:
    void RunOne(std::unique_lock<std::mutex>& lock) {
        std::function<void()> job = std::move(m_waiting.front());
        m_waiting.pop_front();
        ++m_running;
        lock.unlock();
        job();
        job = nullptr;  // Wait() guarantees that the captures are destroyed
        lock.lock();
        if (--m_running == 0) m_changed.notify_all();
    }

    std::mutex m_lock;
    std::condition_variable m_changed;
    std::list<std::function<void()>> m_waiting;
    uint32_t m_running = 0;
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
    Work* work = bands > 1 ? new (std::nothrow) Work(rows, bands, function) : nullptr;
    if (work == nullptr) return [&]() noexcept { function(0u, rows); }();
    // More threads than processors, this one included, would only compete with each other.
    const uint32_t others = std::max(std::thread::hardware_concurrency(), 2u) - 1;
    detail::Notify(pool, *work, std::min({bands - 1, others, detail::CountWorkers(pool, bands)}));
    work->Wait();
    detail::Withdraw(pool, *work);
}

/// Callables that run on a pool's workers and can be waited for together. Thread-safe. A callable may add to its own
/// group, but must not wait for it.
class TaskGroup {
public:
    /// Creates an empty group.
    explicit TaskGroup(ZYTThreadPool& pool) : m_pool(pool), m_jobs(new detail::Jobs) {}
    /// Calls Wait().
    ~TaskGroup() {
        Wait();
        detail::Withdraw(m_pool, *m_jobs);
    }
    TaskGroup(const TaskGroup&) = delete;
    TaskGroup& operator=(const TaskGroup&) = delete;

    /// Queues a callable without arguments, which may be move-only. It is called once.
    template <typename Function>
    void Run(Function&& function) {
        auto shared = std::make_shared<std::decay_t<Function>>(std::forward<Function>(function));
        m_jobs->Add([shared = std::move(shared)] { (*shared)(); });
        detail::Notify(m_pool, *m_jobs, 1);
    }

    /// Runs the callables that no worker has begun, and returns when all have run and their captures are destroyed.
    void Wait() { m_jobs->Wait(); }

private:
    ZYTThreadPool& m_pool;
    detail::Jobs* const m_jobs;
};

}  // namespace zyt

#endif  // ZYT_NODEKIT_PARALLEL_H
