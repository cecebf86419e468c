#ifndef ZYT_EXIT_GATE_H
#define ZYT_EXIT_GATE_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

namespace zyt {

/// Keeps threads that still run at process exit out of a singleton that static destruction has reached.
///
/// A gate belongs in static storage: it is initialised before any code runs and never destroyed, so it can be asked
/// long after the object behind it is gone. Safe from any thread.
class ExitGate {
public:
    /// Holds the gate for a scope. False once the gate is closed; the object behind it must then not be touched.
    class Pass {
    public:
        explicit Pass(ExitGate& gate) : m_gate(gate), m_isOpen(gate.m_state.fetch_add(1) < kClosed) {}
        ~Pass() { m_gate.m_state.fetch_sub(1); }
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;
        explicit operator bool() const { return m_isOpen; }

    private:
        ExitGate& m_gate;
        const bool m_isOpen;
    };

    /// Lets nobody in any more and returns when the last one has left.
    void Close() {
        m_state.fetch_or(kClosed);
        while (m_state.load() != kClosed) std::this_thread::sleep_for(std::chrono::microseconds(50));
    }

private:
    static constexpr uint32_t kClosed = 0x80000000u;

    std::atomic<uint32_t> m_state{0};  // threads inside, and the closed bit
};

}  // namespace zyt

#endif  // ZYT_EXIT_GATE_H
