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
/// Keep a copy of m_isDone to learn that the task has run, and of m_isAlive to learn that it will never run: the value
/// becomes false when the last copy is destroyed before the task ran. A copy of the whole WrapperTask keeps the task
/// alive. A task that is replaced by a later connection under its identifier keeps its flags as they are. The library
/// writes the flags atomically; read them with an atomic load while the loop may write them. REQUIRES: m_isAlive and
/// m_isDone are not null.
class ZYT_EXPORT WrapperTask {
public:
    /// Creates a task that is alive, not done, and has no callable yet.
    WrapperTask();
    /// Shares the flags and copies the callable, from a temporary too.
    WrapperTask(const WrapperTask& other) = default;
    /// Shares the other task's flags from now on and copies its callable, from a temporary too.
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
/// Signals run in the order in which they were first raised, one at a time; a signal that is still pending is not
/// queued twice. A connection is used up when its task runs. A signal that has no connection when its turn comes is
/// lost. Identifiers are shared by the whole process: two clients that use the same one replace each other's
/// connections.
///
/// The object is created by the first instance() and destroyed at process exit. Destruction drops pending signals and
/// connections, waits for the task that is running, and from then on all operations do nothing. It waits for ever only
/// when that task never returns, or waits for something that exiting keeps from happening. A task, or a log sink below
/// one, may call exit() itself. Then no other thread may exit where the C library lets one thread exit at a time: each
/// would wait for the other.
///
/// In a forked child all operations do nothing when the object existed at the fork, since its thread is not there. Such
/// a child ends by exec or _exit(): exit() waits for the thread. A child that is the first to use the object has one of
/// its own. REQUIRES: no fork while another thread creates the object.
///
/// dlclose() of the last library that links to this one destroys the object under the loader's lock: a running task
/// that loads a library waits for ever. A service that unloads nodes keeps this library loaded:
/// `dlopen("libzyttools.so", RTLD_NOW | RTLD_NODELETE)`. A node that is unloaded has disconnected its tasks before, and
/// no capture of theirs is left.
///
/// Thread-safe. A task may raise signals. Neither a task nor the destructor of one of its captures may connect or
/// disconnect: both can run under the lock that these operations take, and would wait for ever. An empty callable, or
/// an exception that leaves a task, ends the process. Lock order: the locks of the signal list and of the task map are
/// never held together.
class ZYT_EXPORT ZYTSignalTask {
public:
    /// Returns the one object. Throws std::system_error when its thread cannot be started; a later call tries again.
    static ZYTSignalTask* instance();

    /// Calls insert(id), then wakes the loop.
    void signal(uint64_t id);
    /// Wakes the loop.
    void notify();
    /// Calls remove(id), then wakes the loop.
    void disconnect(uint64_t id);
    /// Calls remove(), then wakes the loop.
    void disconnect();

    /// Queues a signal without waking the loop. Returns the number of pending signals.
    size_t insert(uint64_t id) ZYT_EXCLUDES(m_signalListLock);
    /// Connects a copy of `task` under `id`, in place of an earlier connection. Returns the number of connections.
    size_t insert(uint64_t id, WrapperTask&& task) ZYT_EXCLUDES(m_taskMapLock);
    /// Drops the pending signal and the connection of `id`.
    void remove(uint64_t id) ZYT_EXCLUDES(m_signalListLock, m_taskMapLock);
    /// Drops all pending signals and connections.
    void remove() ZYT_EXCLUDES(m_signalListLock, m_taskMapLock);

    /// Body of the loop thread; returns when the object is being destroyed. Not for callers.
    void loop() ZYT_EXCLUDES(m_signalListLock, m_taskMapLock);

    ZYTSignalTask(const ZYTSignalTask&) = delete;
    ZYTSignalTask& operator=(const ZYTSignalTask&) = delete;

private:
    ZYT_LOCAL ZYTSignalTask();
    ZYT_LOCAL ~ZYTSignalTask();

    ZYT_LOCAL bool WaitForSignal(uint64_t& id) ZYT_EXCLUDES(m_signalListLock);
    ZYT_LOCAL void ReleaseLockOfExitingTask() ZYT_NO_THREAD_SAFETY_ANALYSIS;

    std::unordered_map<uint64_t, WrapperTask> m_taskMap ZYT_GUARDED_BY(m_taskMapLock);
    std::list<uint64_t> m_signalList ZYT_GUARDED_BY(m_signalListLock);  // oldest first, no id twice
    std::atomic<bool> m_isStop{false};
    std::list<std::thread> m_threadList;  // exactly one; used only while the object is created and destroyed
    std::condition_variable m_cond;
    // No operation takes it. It keeps the layout that clients were built with.
    [[maybe_unused]] std::mutex m_threadLock;
    std::mutex m_taskMapLock;
    std::mutex m_signalListLock;
    bool m_isMapLockedByLoop = false;  // used on the loop thread only
};

#endif  // ZYT_SIGNAL_TASK_H
