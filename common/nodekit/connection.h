#ifndef ZYT_NODEKIT_CONNECTION_H
#define ZYT_NODEKIT_CONNECTION_H

/// @file
/// A callable that runs on the signal task's thread each time it is raised.
///
/// @code
/// std::atomic<int> m_newest{0};
/// zyt::Connection m_onFrame{[this] { Process(m_newest); }};  // the last member, so destroyed first
///
/// m_newest = frame;
/// m_onFrame.Raise();                                         // on any thread, also inside a task
/// @endcode

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <utility>

#include "logging/zytlogsite.h"
#include "nodekit/detail.h"
#include "nodekit/trace.h"
#include "zytsignaltask/zytsignaltask.h"

namespace zyt {

/// Keeps a callable connected to the signal task under a number of its own, and reconnects it after each run. Raises
/// while one is pending are merged; a raise during a run leads to one more run. The tasks of all nodes run one after
/// the other, so the callable should be short or hand its work to a thread pool. An exception that leaves it ends the
/// process.
///
/// Inside a task of the signal task no connection can be made: it is refused with an error in both logs, and Raise()
/// returns false. A connection that is destroyed there does not wait: a run in progress ends, no other begins, and the
/// callable lives until then. The signal task's thread is known by its name, which threads started by a task inherit:
/// give them another.
///
/// Raise() is thread-safe. REQUIRES: outside tasks, the constructor and the destructor are called without a lock that
/// such a task takes; both wait for the running task. So no task calls exit() while a static Connection exists. Nobody
/// disconnects all signals of the process (ZYTSignalTask::disconnect() without a number); that ends all connections for
/// good.
class Connection {
public:
    /// Connects a callable without arguments, which may be move-only. `name` tags log lines and must outlive the
    /// connection. Throws std::bad_alloc, with nothing left, when there is no memory for the callable.
    template <typename Function>
    explicit Connection(Function function, const char* name = "nodekit")
        : m_state(std::make_shared<State>(name, detail::MakeCallable<>(std::move(function)))) {
        if (IsInTask()) {
            ZYT_LOG(E, name, "A connection cannot be made inside a task");
        } else {
            State::Connect(m_state);
        }
    }

    /// Drops a pending raise, waits for a run in progress and destroys the callable.
    ~Connection() {
        {
            const std::lock_guard<std::mutex> lock(m_state->mutex);
            m_state->isClosed = true;
        }
        if (!IsInTask()) {
            ZYTSignalTask::instance()->remove(m_state->Number());
            m_state->job.reset();
        } else if (m_state->isConnected && !m_state->isRunning) {
            m_state->Signal();  // the loop drops the ticket, which owns the state
        }
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Requests one more run. Returns false, and logs an error, when the signal is not connected or memory runs out.
    bool Raise() {
        if (m_state->isConnected && m_state->Signal()) return true;
        ZYT_LOG(E, m_state->name, "Signal %llu is not connected, or there is no memory",
                static_cast<unsigned long long>(m_state->Number()));
        return false;
    }

private:
    struct State {
        State(const char* tag, std::unique_ptr<detail::Callable<>> function) : name(tag), job(std::move(function)) {}

        uint64_t Number() const { return reinterpret_cast<uintptr_t>(this); }
        bool Signal() const {
            return detail::WithMemory([this] { ZYTSignalTask::instance()->signal(Number()); });
        }

        // The ticket is owned by the connected task, and its destructor knows where it is:
        //
        //   Connect() -> in the signal task's map -> signal -> the loop's own copy runs -> destroyed without a lock:
        //                          |                                                       the place to connect again
        //                          +-> disconnect -> destroyed under the map's lock, which connecting takes: the end
        static void Connect(const std::shared_ptr<State>& state) {
            struct Ticket {
                explicit Ticket(std::shared_ptr<State> owner) : state(std::move(owner)) {}
                ~Ticket() {
                    if (!hasRun) {
                        state->isConnected = false;
                        return;
                    }
                    const std::lock_guard<std::mutex> lock(state->mutex);
                    if (!state->isClosed) Connect(state);
                }
                void Run() {
                    hasRun = true;
                    if (state->isClosed) return;
                    const ScopedTrace section(state->name);
                    state->isRunning = true;
                    (*state->job)();
                    state->isRunning = false;
                }
                const std::shared_ptr<State> state;
                bool hasRun = false;
            };
            state->isConnected = true;
            const bool hasMemory = detail::WithMemory([&] {
                WrapperTask task;
                task.m_task = [ticket = std::make_shared<Ticket>(state)] { ticket->Run(); };
                ZYTSignalTask::instance()->insert(state->Number(), std::move(task));
            });
            if (hasMemory) return;
            state->isConnected = false;
            ZYT_LOG(E, state->name, "No connection: there is no memory");
        }

        const char* const name;
        std::unique_ptr<detail::Callable<>> job;  // run by the signal task only
        std::atomic<bool> isConnected{false};
        bool isRunning = false;  // used on the signal task's thread only
        std::mutex mutex;  // serializes connecting and closing; taken before the signal task's lock, never under it
        std::atomic<bool> isClosed{false};
    };

    static bool IsInTask() {
        char name[16] = {};
        return pthread_getname_np(pthread_self(), name, sizeof(name)) == 0 && std::strcmp(name, "ZYTSignalTask") == 0;
    }

    const std::shared_ptr<State> m_state;
};

}  // namespace zyt

#endif  // ZYT_NODEKIT_CONNECTION_H
