#ifndef ZYT_NODEKIT_LOGFLUSH_H
#define ZYT_NODEKIT_LOGFLUSH_H

/// @file
/// Flushes the offline log, for example before a planned exit or a bug report.
///
/// @code
/// ZYT_LOG(E, "MyNode", "The sensor is gone");
/// if (!zyt::FlushOfflineLog(std::chrono::seconds(2))) return 1;  // the line may still be queued
/// CollectFiles("/data/vendor/camera/offlinelog");                // the line is in the file
/// @endcode

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <new>

#include "logging/zytlogsite.h"
#include "nodekit/parallel.h"
#include "nodekit/poolstate.h"

namespace zyt {

namespace detail {

/// Returns the pool's number of workers, or 0 while the pool is being stopped, which holds the lock until they ended.
inline uint32_t CountRunning(ZYTThreadPool& pool) ZYT_NO_THREAD_SAFETY_ANALYSIS {
    const PatientLock lock(pool.m_threadListLock);
    return lock ? static_cast<uint32_t>(pool.m_threadIdList.size()) : 0;
}

/// A barrier for all workers: once all have reached it, none is still writing a line that was queued earlier.
class WorkerBarrier final : public SharedWork {
public:
    WorkerBarrier(ZYTThreadPool& pool, uint32_t workers) : SharedWork(pool), m_missing(workers) {}

    void RunWhatIsLeft() noexcept override {
        std::unique_lock<std::mutex> lock(m_lock);
        if (m_missing > 0 && --m_missing == 0) m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_missing == 0 || m_isGivenUp; });
    }

    bool Wait(ZYTThreadPool& pool, std::chrono::milliseconds timeout) {
        using Clock = std::chrono::steady_clock;
        constexpr std::chrono::hours kForever(1000000);  // milliseconds::max() cannot be added to a time
        const auto end = Clock::now() + std::min<std::chrono::milliseconds>(timeout, kForever);
        std::unique_lock<std::mutex> lock(m_lock);
        // A pool that is being stopped drops notices, then waits for the workers that wait here.
        while (m_missing > 0 && Clock::now() < end && CountRunning(pool) > 0) {
            m_changed.wait_until(lock, std::min(end, Clock::now() + std::chrono::milliseconds(100)));
        }
        m_isGivenUp = m_missing > 0;
        m_changed.notify_all();
        return !m_isGivenUp;
    }

private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    uint32_t m_missing;
    bool m_isGivenUp = false;
};

}  // namespace detail

/// Waits until all lines queued before the call are in their files, as far as these can be written, and returns true.
/// Returns false and logs an error after the timeout, when the process exits meanwhile, and when memory runs out. Also
/// an idle log needs some time for the answer, so a timeout below 100 ms counts as 100 ms. Thread-safe. REQUIRES: the
/// caller is not a worker of the offline log, and exit() has not begun.
inline bool FlushOfflineLog(std::chrono::milliseconds timeout) {
    timeout = std::max(timeout, std::chrono::milliseconds(100));
    ZYTThreadPool& writers = ZYTOfflineLog::GetInstance().m_threadPool;
    const uint32_t count = detail::CountRunning(writers);
    const detail::Owned<detail::WorkerBarrier> barrier(
        count > 0 ? new (std::nothrow) detail::WorkerBarrier(writers, count) : nullptr);
    // All notices are queued under one lock. If those of two callers mixed, each would hold half of the workers.
    const bool isFlushed = barrier != nullptr && barrier->Notify(count) && barrier->Wait(writers, timeout);
    if (!isFlushed)
        ZYT_LOG(E, "nodekit", "The offline log was not written out within %lld ms",
                static_cast<long long>(timeout.count()));
    return isFlushed;
}

}  // namespace zyt

#endif  // ZYT_NODEKIT_LOGFLUSH_H
