#ifndef ZYT_NODEKIT_CONNECTION_H
#define ZYT_NODEKIT_CONNECTION_H

/// @file
/// A callable on the signal task's thread, raised as often as one likes.
///
/// @code
/// class MyNode {
///     std::atomic<int> m_newest{0};
///     zyt::Connection m_onFrame{[this] { Process(m_newest); }};  // declared last: gone before what it uses
///
/// public:
///     void OnFrame(int frame) {
///         m_newest = frame;
///         m_onFrame.Raise();                                     // from any thread, a task included
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

/// Keeps a callable connected to the signal task under a number of its own, which no other connection of the process
/// has, and connects it anew after each run.
///
/// Raises while one is pending are one; a raise during a run leads to one more run. The tasks of all nodes run one
/// after the other, so the callable is to be short, or to hand on to workers. An exception that leaves it ends the
/// process.
///
/// Raise() is safe on any thread. REQUIRES: it is made and destroyed neither inside a task of the signal task nor under
/// a lock that such a task wants: both wait for the task that is running. Nobody disconnects all signals of the process
/// (ZYTSignalTask::disconnect() without a number); that ends all connections for good.
class Connection {
public:
    /// Connects a callable without arguments. `name` tags log lines and is used as long as the connection.
    explicit Connection(std::function<void()> function, const char* name = "nodekit")
        : m_state(std::make_shared<State>()), m_name(name) {
        m_state->function = std::move(function);
        State::Connect(m_state);
    }

    /// Drops a pending raise, waits for the run that is going on, and destroys the callable.
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

    /// Has the callable run once more. False, with a line at E, when somebody has disconnected it.
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

        // The signal task drops its copy of a task, and with it the last ticket, after the run and outside its locks:
        // there a connection may be made anew. A ticket that has not run goes because somebody disconnected, and under
        // a lock that connecting wants.
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

        std::function<void()> function;  // called by the loop alone, and gone only when that no longer can
        std::atomic<bool> isConnected{true};
        std::mutex mutex;  // guards isClosed, and connecting against closing; taken before the signal task's own
        bool isClosed = false;
    };

    const std::shared_ptr<State> m_state;
    const char* const m_name;
};

}  // namespace zyt

#endif  // ZYT_NODEKIT_CONNECTION_H
