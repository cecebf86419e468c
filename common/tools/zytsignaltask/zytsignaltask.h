#ifndef ZYT_SIGNAL_TASK_H
#define ZYT_SIGNAL_TASK_H

/// @file
/// Tasks that run when their identifiers are signalled.

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "base/zytexport.h"
#include "base/zytthreadsafety.h"

/// A callable with flags that its copies share, so that whoever connected it can tell what became of it.
///
/// Keep a copy of m_isDone to learn that the task has run, and of m_isAlive to learn that it never will: it turns false
/// when the last copy goes before the task ran. Keeping a copy of the whole WrapperTask keeps it alive. Only assignment
/// onto a connected task by a later connection leaves the flags of the replaced one as they were. The library writes
/// the flags atomically; read them with an atomic load where the loop may be writing. None of the flags may be reset to
/// null.
class ZYT_EXPORT WrapperTask {
public:
    /// A task of its own that is alive, not done, and has no callable yet.
    WrapperTask();
    /// Shares the flags and copies the callable, from a temporary too.
    WrapperTask(const WrapperTask& other) = default;
    /// Shares the other's flags from now on and copies its callable, from a temporary too.
    WrapperTask& operator=(const WrapperTask& other);
    /// Clears the value of m_isAlive when this is the last copy and the task has not run.
    ~WrapperTask();

    std::shared_ptr<bool> m_isAlive;  ///< False once the task will never run.
    std::shared_ptr<bool> m_isDone;   ///< True once the task has run.
    std::shared_ptr<bool> m_token;    ///< Its use count is the number of copies; its value means nothing.
    std::function<void()> m_task;     ///< What runs on the loop thread.
};

/// Runs connected tasks on one thread of the process, "ZYTSignalTask", when their identifiers are signalled.
///
/// Signals run in the order in which they were first raised, one at a time; one that is still pending is not queued
/// twice. Running a task uses up its connection. A signal that nothing is connected to when its turn comes is lost.
///
/// The object is created by the first instance() and destroyed at process exit, which drops what is pending, waits for
/// the task that is running and never hangs. All operations may be called from any thread; after the end they do
/// nothing. A task may raise signals, but must not connect or disconnect: it runs under the lock that these need. An
/// empty callable, or an exception that leaves a task, ends the process.
///
/// Lock order: the signal list's lock and the task map's lock are never held together.
class ZYT_EXPORT ZYTSignalTask {
public:
    /// The one object. Throws std::system_error when its thread cannot be started; a later call tries again.
    static ZYTSignalTask* instance();

    /// Does insert(id), then wakes the loop.
    void signal(uint64_t id);
    /// Wakes the loop.
    void notify();
    /// Does remove(id), then wakes the loop.
    void disconnect(uint64_t id);
    /// Does remove(), then wakes the loop.
    void disconnect();

    /// Queues a signal without waking the loop. Returns the number of pending signals.
    size_t insert(uint64_t id) ZYT_EXCLUDES(m_signalListLock);
    /// Connects a copy of task under id, replacing what was there. Returns the number of connected tasks.
    size_t insert(uint64_t id, WrapperTask&& task) ZYT_EXCLUDES(m_taskMapLock);
    /// Drops the id's pending signal and its connection.
    void remove(uint64_t id) ZYT_EXCLUDES(m_signalListLock, m_taskMapLock);
    /// Drops all pending signals and connections.
    void remove() ZYT_EXCLUDES(m_signalListLock, m_taskMapLock);

    /// Body of the loop thread; returns when the object is being destroyed.
    void loop() ZYT_EXCLUDES(m_signalListLock, m_taskMapLock);

    ZYTSignalTask(const ZYTSignalTask&) = delete;
    ZYTSignalTask& operator=(const ZYTSignalTask&) = delete;

private:
    ZYTSignalTask();
    ~ZYTSignalTask();

    bool WaitForSignal(uint64_t& id) ZYT_EXCLUDES(m_signalListLock);
    void ReleaseLockOfExitingTask() ZYT_NO_THREAD_SAFETY_ANALYSIS;

    std::unordered_map<uint64_t, WrapperTask> m_taskMap ZYT_GUARDED_BY(m_taskMapLock);
    std::list<uint64_t> m_signalList ZYT_GUARDED_BY(m_signalListLock);  // oldest first, no id twice
    std::atomic<bool> m_isStop{false};
    std::list<std::thread> m_threadList;  // exactly one; touched only while the object is made and destroyed
    std::condition_variable m_cond;
    [[maybe_unused]] std::mutex
        m_threadLock;  // no operation takes it; kept for the layout that clients were built with
    std::mutex m_taskMapLock;
    std::mutex m_signalListLock;
    bool m_isTaskRunning = false;  // touched on the loop thread only
};

#endif  // ZYT_SIGNAL_TASK_H
