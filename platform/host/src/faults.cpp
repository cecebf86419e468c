#include <atomic>
#include <cstddef>

#include "internal.h"

namespace hostdevice {
namespace {

struct Armed {
    std::atomic<uint64_t> callsBefore{0};  // that succeed
    std::atomic<uint64_t> failures{0};     // still to come; 0 when the fault is not armed
};

Armed g_faults[static_cast<size_t>(Fault::kSync) + 1];

Armed& Find(Fault fault) { return g_faults[static_cast<size_t>(fault)]; }

// Returns false when none is left.
bool TakeOne(std::atomic<uint64_t>& left) {
    uint64_t seen = left.load();
    while (seen != 0 && !left.compare_exchange_weak(seen, seen - 1)) {
    }
    return seen != 0;
}

}  // namespace

bool TakeFault(Fault fault) {
    Armed& armed = Find(fault);
    return armed.failures != 0 && !TakeOne(armed.callsBefore) && TakeOne(armed.failures);
}

void FailNth(Fault fault, uint64_t n, uint64_t times) {
    Armed& armed = Find(fault);
    armed.failures = 0;
    if (n == 0) return;
    armed.callsBefore = n - 1;
    armed.failures = times;
}

bool FaultPending(Fault fault) { return Find(fault).failures != 0; }

void ClearFaults() {
    for (Armed& armed : g_faults) armed.failures = 0;
}

}  // namespace hostdevice
