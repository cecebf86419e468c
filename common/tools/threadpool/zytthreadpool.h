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

/// What a worker does with a task. Any other value is reported, and the task's data left alone.
enum ZYTThreadPoolTaskType : int32_t {
    ZYT_THREAD_POOL_TASK_NORMAL = 0,  ///< Runs func and frees data.
    ZYT_THREAD_POOL_TASK_STOP = 1,    ///< Ends the worker that takes it; data is left alone.
};

/// One unit of work. It runs only when func is set, and data and size are both set or both empty.
struct ZYTThreadPoolTask {
    ZYTThreadPoolTaskType type;                   ///< What the worker does.
    void (*func)(void* data, unsigned int size);  ///< Called on a worker with the two below, which stay the pool's.
    void* data;                                   ///< A malloc block, the pool's once the task is queued, or null.
    unsigned int size;                            ///< Bytes at data.
};

/// A fixed set of POSIX threads that serve one first-in, first-out queue.
///
/// Any thread may queue tasks. They start in the order in which they were queued; with several workers they run in
/// parallel and finish in any order. The pool frees each task's data after the task has run or was discarded. Reports
/// go to the platform log only, because the offline log itself runs on a pool. A task must not stop its own pool: it
/// would wait for its own thread.
class ZYT_EXPORT ZYTThreadPool {
public:
    /// Starts no thread.
    ZYTThreadPool();
    /// Does DeInit(true).
    ~ZYTThreadPool();
    ZYTThreadPool(const ZYTThreadPool&) = delete;
    ZYTThreadPool& operator=(const ZYTThreadPool&) = delete;

    /// Starts threadNum workers. False at the first one that cannot be started; those before it keep running and DeInit
    /// stops them. The queue is emptied without freeing its tasks' data, which stays with whoever queued it too early.
    /// Called again without DeInit, the earlier workers go on serving the queue but can no longer be stopped.
    bool Init(unsigned int threadNum) ZYT_EXCLUDES(m_threadListLock, m_taskListLock);

    /// Stops and joins all workers. With isFlush the tasks still queued are discarded, otherwise they run first.
    void DeInit(bool isFlush) ZYT_EXCLUDES(m_threadListLock, m_taskListLock);

    /// Appends a task to the queue and wakes one worker.
    void QueueTask(const ZYTThreadPoolTask& task) ZYT_EXCLUDES(m_taskListLock) {
        {
            zyt::Lock lock(m_taskListLock);
            m_taskList.push_back(task);
        }
        m_taskCond.notify_one();
    }

    /// Waits for a task and takes it off the queue; always true. Its data is the caller's from then on.
    bool GetTaskFromList(ZYTThreadPoolTask& task) ZYT_EXCLUDES(m_taskListLock);

    /// Discards all queued tasks and frees their data.
    void FlushTask() ZYT_EXCLUDES(m_taskListLock);

    /// Body of a worker: serves the queue until it takes a stop task.
    static void WorkerCore(ZYTThreadPool* pool);

    /// Guards m_threadIdList; held while workers are started and joined.
    std::mutex m_threadListLock;
    /// The workers that DeInit() stops: pthread_t values, in start order.
    std::vector<int64_t> m_threadIdList ZYT_GUARDED_BY(m_threadListLock);

    /// Queued tasks, oldest first.
    std::list<ZYTThreadPoolTask> m_taskList ZYT_GUARDED_BY(m_taskListLock);
    /// Guards m_taskList.
    std::mutex m_taskListLock;
    /// What idle workers wait on; a producer notifies it once for each task.
    std::condition_variable m_taskCond;
};

#endif  // ZYT_THREAD_POOL_H
