// Prints the resident memory of a process before and after its first log call with both logs off, in KiB.

#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include "logging/zytlogsite.h"

namespace {

// Reads smaps_rollup, which walks the page tables. The counter in statm can lag by a batch of pages per processor.
long ResidentKiB() {
    std::ifstream rollup("/proc/self/smaps_rollup");
    std::string word;
    long kib = 0;
    while (rollup >> word) {
        if (word == "Rss:" && rollup >> kib) return kib;
    }
    return 0;
}

}  // namespace

int main() {
    ZYTLogUtil::m_level = 0;
    ResidentKiB();  // makes the memory of a file stream resident
    const long before = ResidentKiB();
    ZYT_LOG(E, "probe", "never written: %d", 1);
    // Include the stacks of the workers: give them time to reach the wait for their first line.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const long after = ResidentKiB();
    std::printf("{\"before\": %ld, \"after\": %ld}\n", before, after);
    return before > 0 && after > 0 ? 0 : 1;
}
