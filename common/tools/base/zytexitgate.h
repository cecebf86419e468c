#ifndef ZYT_EXIT_GATE_H
#define ZYT_EXIT_GATE_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

namespace zyt {

/// Keeps callers out of a singleton that they cannot use: threads that still run when static destruction has reached
/// it, and a forked child, which has the object but not its threads.
///
/// A gate belongs in static storage. It is initialised before any code runs and never destroyed, so it can be asked
/// after the object behind it is gone. Thread-safe.
class ExitGate {
public:
    /// Holds the gate open for a scope. False when the gate is closed; the object behind it must then not be touched.
    class Pass {
    public:
        explicit Pass(ExitGate& gate) : m_gate(gate), m_isOpen(gate.Enter()), m_outer(t_innermost) {
            t_innermost = this;
        }
        ~Pass() {
            t_innermost = m_outer;
            if (m_isOpen) m_gate.m_state.fetch_sub(1);
        }
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;
        explicit operator bool() const { return m_isOpen; }

    private:
        friend class ExitGate;

        inline static thread_local const Pass* t_innermost = nullptr;  // this thread's passes, of all gates

        ExitGate& m_gate;
        const bool m_isOpen;
        const Pass* const m_outer;
    };

    /// Admits nobody from now on and returns when every other thread has left. The caller's own passes are not waited
    /// for: a log sink may call exit() below a frame that holds one, and that frame never continues.
    void Close() {
        m_state.fetch_or(kClosed);
        while (m_state.load() != kClosed + OwnPasses()) std::this_thread::sleep_for(std::chrono::microseconds(50));
    }

    /// Admits nobody in a forked child, which has no other threads that could leave. Waits for nothing.
    void CloseInChild() { m_state.store(kClosed + OwnPasses()); }

private:
    static constexpr uint32_t kClosed = 0x80000000u;

    uint32_t OwnPasses() const {
        uint32_t own = 0;
        for (const Pass* pass = Pass::t_innermost; pass != nullptr; pass = pass->m_outer) {
            if (&pass->m_gate == this && pass->m_isOpen) ++own;
        }
        return own;
    }

    // Whoever is refused is not counted: threads that go on asking could otherwise keep Close() waiting for ever.
    bool Enter() {
        uint32_t state = m_state.load();
        while (state < kClosed && !m_state.compare_exchange_weak(state, state + 1)) {
        }
        return state < kClosed;
    }

    std::atomic<uint32_t> m_state{0};  // threads inside, and the closed bit
};

}  // namespace zyt

#endif  // ZYT_EXIT_GATE_H
