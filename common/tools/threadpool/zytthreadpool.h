#ifndef ZYT_THREAD_POOL_H
#define ZYT_THREAD_POOL_H

/// @file
/// Worker threads that serve one queue of tasks.

#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>
#include <vector>

#include "base/zytexport.h"
#include "base/zytthreadsafety.h"

/// What a worker does with a task. Any other value is reported, and the task's data is not freed.
enum ZYTThreadPoolTaskType : int32_t {
    ZYT_THREAD_POOL_TASK_NORMAL = 0,  ///< Runs func and frees data.
    ZYT_THREAD_POOL_TASK_STOP = 1,    ///< Ends the worker that takes it; data is not freed.
};

/// One unit of work. It runs only when func is set and data and size are both set or both empty.
struct ZYTThreadPoolTask {
    ZYTThreadPoolTaskType type;                   ///< What the worker does.
    void (*func)(void* data, unsigned int size);  ///< Called on a worker with the two fields below; must not free data.
    void* data;                                   ///< A malloc block, owned by the pool once queued, or null.
    unsigned int size;                            ///< Bytes at data.
};

/// A fixed set of POSIX threads, named "ZYTThreadPool", that serve one first-in, first-out queue.
///
/// Any thread may queue tasks. They start in the order in which they were queued; with several workers they run in
/// parallel and end in any order. The pool frees the data of each task after the task has run or was discarded. Reports
/// go to the platform log only, because the offline log runs on a pool of this class.
///
/// Thread-safe. Several threads may call DeInit at once; each returns when the workers have ended. A task must not call
/// DeInit of its own pool, which would wait for the task's own thread.
class ZYT_EXPORT ZYTThreadPool {
public:
    /// Starts no thread.
    ZYTThreadPool();
    /// Calls DeInit(true).
    ~ZYTThreadPool() ZYT_EXCLUDES(m_threadListLock, m_taskListLock);
    ZYTThreadPool(const ZYTThreadPool&) = delete;
    ZYTThreadPool& operator=(const ZYTThreadPool&) = delete;

    /// Starts threadNum workers. Returns false at the first one that cannot be started; the ones before it keep
    /// running, and DeInit stops them. Empties the queue first, without freeing the data of its tasks, which stays with
    /// whoever queued them. A second call without DeInit forgets the earlier workers: they keep serving the queue, and
    /// DeInit does not stop them. They can take the stop tasks of the new workers, and DeInit then waits for ever.
    bool Init(unsigned int threadNum) ZYT_EXCLUDES(m_threadListLock, m_taskListLock);

    /// Stops and joins all workers. With isFlush the tasks that are still queued are discarded, otherwise they run
    /// first. Waits for ever when a stop task gets lost, because another thread calls FlushTask, Init or
    /// GetTaskFromList meanwhile. Waits for ever, too, when a task or a log sink on a worker calls exit() meanwhile,
    /// and the pool is in static storage or the caller is itself in exit(): exit() then waits for this call, and this
    /// call for that worker.
    void DeInit(bool isFlush) ZYT_EXCLUDES(m_threadListLock, m_taskListLock);

    /// Appends a task to the queue and wakes one worker.
    void QueueTask(const ZYTThreadPoolTask& task) ZYT_EXCLUDES(m_taskListLock) {
        {
            zyt::Lock lock(m_taskListLock);
            m_taskList.push_back(task);
        }
        m_taskCond.notify_one();
    }

    /// Waits for a task and takes it off the queue. Always returns true. The caller owns the task's data from then on.
    /// Workers take their tasks with this function; another caller competes with them and can take a stop task that is
    /// meant for a worker.
    bool GetTaskFromList(ZYTThreadPoolTask& task) ZYT_EXCLUDES(m_taskListLock);

    /// Discards all queued tasks, stop tasks included, and frees their data.
    void FlushTask() ZYT_EXCLUDES(m_taskListLock);

    /// Body of a worker: serves the queue until it takes a stop task.
    static void WorkerCore(ZYTThreadPool* pool);

    /// Guards m_threadIdList. Held while workers are started and joined.
    std::mutex m_threadListLock;
    /// The workers that DeInit() stops: pthread_t values, in start order.
    std::vector<int64_t> m_threadIdList ZYT_GUARDED_BY(m_threadListLock);

    /// Queued tasks, oldest first.
    std::list<ZYTThreadPoolTask> m_taskList ZYT_GUARDED_BY(m_taskListLock);
    /// Guards m_taskList.
    std::mutex m_taskListLock;
    /// Idle workers wait on it; a producer notifies it once for each task.
    std::condition_variable m_taskCond;
};

#endif  // ZYT_THREAD_POOL_H
