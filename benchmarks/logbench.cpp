#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "logging/zytlogsite.h"
#include "nodekit/logflush.h"

namespace {

using Clock = std::chrono::steady_clock;

// The most frequent line of a node's frame loop.
#define BENCH_FORMAT "Get buffer type: %d, size: %u, pBuf: %p. Free buf num this size: %u"
#define BENCH_PEER_FORMAT "[{}] {}:{} {}() Get buffer type: {}, size: {}, pBuf: {}. Free buf num this size: {}"

struct Arguments {
    const char* name = "BufferPool-Node";
    int type = 1;
    uint32_t size = 12000000;
    void* buffer = &size;
    uint32_t left = 3;
};

void LogSite(benchmark::State& state) {
    Arguments a;
    for (auto _ : state) {
        benchmark::DoNotOptimize(a);
        ZYT_LOG(D, a.name, BENCH_FORMAT, a.type, a.size, a.buffer, a.left);
        benchmark::ClobberMemory();
    }
}

void LogSitePeer(benchmark::State& state) {
    Arguments a;
    for (auto _ : state) {
        benchmark::DoNotOptimize(a);
        benchmark::ClobberMemory();
    }
}

// The peer's queue holds a whole burst, so that its caller never waits; our queue is unbounded.
constexpr int kBurst = 2000;
constexpr size_t kQueueSize = 8192;
constexpr int kBursts = 10;  // fixed, because the time is measured manually

bool HasBurst(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    using Bytes = std::istreambuf_iterator<char>;
    return std::count(Bytes(file), Bytes(), '\n') == kBurst;
}

// Writes each burst to a new file. Reports seconds per line, for the caller only or until all lines are in the file.
void WriteOfflineBursts(benchmark::State& state, bool untilWritten) {
    ZYTOfflineLog& log = ZYTOfflineLog::GetInstance();
    const Arguments a;
    log.m_enable = true;
    for (auto _ : state) {
        {
            const zyt::Lock lock(log.m_logFileLock);
            log.m_curLogFileSize = ZYTOfflineLog::kFileSizeLimit;  // the next line starts a new file
        }
        const auto start = Clock::now();
        for (int i = 0; i < kBurst; ++i) {
            ZYTOfflineLog::ZYTOfflineLogI("[%s] %s:%d %s() " BENCH_FORMAT, a.name, "logbench.cpp", i, __func__, a.type,
                                          a.size, a.buffer, a.left);
        }
        const auto queued = Clock::now();
        if (!zyt::FlushOfflineLog(std::chrono::minutes(1))) state.SkipWithError("the log is not written");
        const auto written = Clock::now();
        state.SetIterationTime(std::chrono::duration<double>((untilWritten ? written : queued) - start).count() /
                               kBurst);

        const zyt::Lock lock(log.m_logFileLock);
        if (!HasBurst(log.m_curLogFileName)) state.SkipWithError("lines are missing");
        std::remove(log.m_curLogFileName.c_str());
    }
    log.m_enable = false;
}

void OfflineCaller(benchmark::State& state) { WriteOfflineBursts(state, false); }
void OfflineWriter(benchmark::State& state) { WriteOfflineBursts(state, true); }

void OfflineCallerPeer(benchmark::State& state) {
    const std::string path = ZYT_BENCH_SCRATCH "peer_async.txt";
    const Arguments a;
    for (auto _ : state) {
        auto pool = std::make_shared<spdlog::details::thread_pool>(kQueueSize, 1);
        auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, true);
        auto logger = std::make_shared<spdlog::async_logger>("peer", sink, pool, spdlog::async_overflow_policy::block);
        logger->set_pattern("%m-%d %H:%M:%S:%F  %P  %t %L ZYT: %v");
        const auto start = Clock::now();
        for (int i = 0; i < kBurst; ++i) {
            logger->info(BENCH_PEER_FORMAT, a.name, "logbench.cpp", i, __func__, a.type, a.size, a.buffer, a.left);
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count() / kBurst);
        logger.reset();
        pool.reset();  // joins the worker, which empties the queue first
        sink.reset();
        if (!HasBurst(path)) state.SkipWithError("lines are missing");
    }
    std::remove(path.c_str());
}

void OfflineWriterPeer(benchmark::State& state) {
    const std::string path = ZYT_BENCH_SCRATCH "peer_lines.txt";
    const std::string line =
        "11-21 03:41:07:123456789  12345  12345 I ZYT: [BufferPool-Node] logbench.cpp:1000 WriteOfflineBursts() Get "
        "buffer type: 1, size: 12000000, pBuf: 0x7ffd12345678. Free buf num this size: 3\n";
    for (auto _ : state) {
        const auto start = Clock::now();
        for (int i = 0; i < kBurst; ++i) {
            FILE* file = std::fopen(path.c_str(), "a");
            if (file == nullptr) break;
            std::fwrite(line.data(), 1, line.size(), file);
            std::fclose(file);
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count() / kBurst);
        if (!HasBurst(path)) state.SkipWithError("lines are missing");
        std::remove(path.c_str());
    }
}

BENCHMARK(LogSite)->Name("log_site/ours");
BENCHMARK(LogSitePeer)->Name("log_site/peer");
BENCHMARK(OfflineCaller)->Name("offline_caller/ours")->UseManualTime()->Iterations(kBursts);
BENCHMARK(OfflineCallerPeer)->Name("offline_caller/peer")->UseManualTime()->Iterations(kBursts);
BENCHMARK(OfflineWriter)->Name("offline_writer/ours")->UseManualTime()->Iterations(kBursts);
BENCHMARK(OfflineWriterPeer)->Name("offline_writer/peer")->UseManualTime()->Iterations(kBursts);

}  // namespace
