#include <benchmark/benchmark.h>

#include "logging/zytlogutil.h"
#include "logging/zytofflinelog.h"

int main(int argc, char** argv) {
    // Both logs off, unless a benchmark of a log says otherwise. The offline log starts its workers here, because a
    // process without other threads takes cheaper paths in malloc and in shared pointers: whatever happened to run
    // before the first log call would be measured in another world than its peer.
    ZYTLogUtil::m_level = 0;
    ZYTOfflineLog::GetInstance().m_enable = false;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
