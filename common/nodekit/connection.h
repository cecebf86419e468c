#ifndef ZYT_NODEKIT_CONNECTION_H
#define ZYT_NODEKIT_CONNECTION_H

/// @file
/// A callable that runs on the signal task's thread each time it is raised.
///
/// @code
/// class MyNode {
///     std::atomic<int> m_newest{0};
///     zyt::Connection m_onFrame{[this] { Process(m_newest); }};  // declared last, so destroyed first
///
/// public:
///     void OnFrame(int frame) {
///         m_newest = frame;
///         m_onFrame.Raise();                                     // on any thread, also inside a task
///     }
/// };
/// @endcode

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

#include "logging/zytlogsite.h"
#include "zytsignaltask/zytsignaltask.h"

namespace zyt {

/// Keeps a callable connected to the signal task under a number that is unique in the process, and reconnects it after
/// each run.
///
/// Raises while one is pending are merged; a raise during a run leads to one more run. The tasks of all nodes run one
/// after the other, so the callable should be short or hand its work to a thread pool. An exception that leaves it ends
/// the process.
///
/// Raise() is thread-safe. REQUIRES: the constructor and the destructor are called neither inside a task of the signal
/// task nor with a lock held that such a task takes; both wait for the running task. So no task calls exit() while a
/// static Connection exists. Nobody disconnects all signals of the process (ZYTSignalTask::disconnect() without a
/// number); that ends all connections for good.
class Connection {
public:
    /// Connects a callable without arguments. `name` tags log lines and must outlive the connection.
    explicit Connection(std::function<void()> function, const char* name = "nodekit")
        : m_state(std::make_shared<State>()), m_name(name) {
        m_state->function = std::move(function);
        State::Connect(m_state);
    }

    /// Drops a pending raise, waits for a run in progress and destroys the callable.
    ~Connection() {
        {
            const std::lock_guard<std::mutex> lock(m_state->mutex);
            m_state->isClosed = true;
        }
        ZYTSignalTask::instance()->remove(m_state->Number());
        m_state->function = nullptr;
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Requests one more run. Returns false, and logs an error, when the signal has been disconnected.
    bool Raise() {
        if (!m_state->isConnected) {
            ZYT_LOG(E, m_name, "Somebody has disconnected signal %llu",
                    static_cast<unsigned long long>(m_state->Number()));
            return false;
        }
        ZYTSignalTask::instance()->signal(m_state->Number());
        return true;
    }

private:
    struct State {
        uint64_t Number() const { return reinterpret_cast<uintptr_t>(this); }

        // The signal task destroys its copy of a task, and with it the last ticket, after the run and without a lock
        // held, so the destructor may reconnect. A ticket that has not run is destroyed by a disconnect, under a lock
        // that connecting takes.
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
                const std::shared_ptr<State> state;
                bool hasRun = false;
            };
            WrapperTask task;
            task.m_task = [ticket = std::make_shared<Ticket>(state)] {
                ticket->hasRun = true;
                ticket->state->function();
            };
            ZYTSignalTask::instance()->insert(state->Number(), std::move(task));
        }

        std::function<void()> function;  // called by the signal task only; cleared after it can no longer be called
        std::atomic<bool> isConnected{true};
        std::mutex mutex;  // guards isClosed and serializes connecting and closing; taken before the signal task's lock
        bool isClosed = false;
    };

    const std::shared_ptr<State> m_state;
    const char* const m_name;
};

}  // namespace zyt

#endif  // ZYT_NODEKIT_CONNECTION_H
