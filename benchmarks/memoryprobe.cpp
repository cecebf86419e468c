// Prints the resident memory of a process before and after its first log call with both logs off, in KiB.

#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include "logging/zytlogsite.h"

namespace {

// From smaps_rollup, which walks the page tables: the counter in statm lags behind by up to a batch of pages a
// processor.
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
    ResidentKiB();  // whatever a file stream needs is resident from here on
    const long before = ResidentKiB();
    ZYT_LOG(E, "probe", "never written: %d", 1);
    // The workers' stacks count too, once they have all got as far as waiting for their first line.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const long after = ResidentKiB();
    std::printf("{\"before\": %ld, \"after\": %ld}\n", before, after);
    return before > 0 && after > 0 ? 0 : 1;
}
