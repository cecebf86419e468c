#include <atomic>
#include <cstddef>

#include "internal.h"

namespace hostdevice {
namespace {

// Calls left until the fault fires, indexed by Fault; 0 when it is not armed.
std::atomic<uint64_t> g_callsLeft[static_cast<size_t>(Fault::kSync) + 1];

std::atomic<uint64_t>& CallsLeft(Fault fault) { return g_callsLeft[static_cast<size_t>(fault)]; }

}  // namespace

bool TakeFault(Fault fault) {
    std::atomic<uint64_t>& callsLeft = CallsLeft(fault);
    uint64_t left = callsLeft.load();
    while (left != 0 && !callsLeft.compare_exchange_weak(left, left - 1)) {
    }
    return left == 1;
}

void FailNth(Fault fault, uint64_t n) { CallsLeft(fault) = n; }

bool FaultPending(Fault fault) { return CallsLeft(fault) != 0; }

void ClearFaults() {
    for (std::atomic<uint64_t>& callsLeft : g_callsLeft) callsLeft = 0;
}

}  // namespace hostdevice
