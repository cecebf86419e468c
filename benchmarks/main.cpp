#include <benchmark/benchmark.h>

#include "logging/zytlogutil.h"
#include "logging/zytofflinelog.h"

int main(int argc, char** argv) {
    // Both logs are off, except in the benchmarks of a log. The offline log starts its workers here, because malloc and
    // shared pointers are faster in a single-threaded process: otherwise a subject measured before the first log call
    // would have an advantage over a peer measured after it.
    ZYTLogUtil::m_level = 0;
    ZYTOfflineLog::GetInstance().m_enable = false;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
