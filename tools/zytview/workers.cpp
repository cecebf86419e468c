#include "workers.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <new>
#include <thread>

#include "logging/zytlogutil.h"
#include "nodekit/parallel.h"

Workers::Workers() : m_isTerminal(isatty(STDERR_FILENO) == 1) {
    ZYTLogUtil::m_level = 0;  // a thread that cannot be started only makes the work slower
    m_pool.Init(std::max(std::thread::hardware_concurrency(), 1u));
}

void Workers::Begin(const std::string& name) {
    m_name = name;
    m_start = std::chrono::steady_clock::now();
}

void Workers::ForBands(uint32_t first, uint32_t end, const Work& work, uint32_t bands) {
    std::atomic<bool> isOutOfMemory{false};
    std::mutex lock;
    std::condition_variable turn;
    uint32_t next = 0;
    const auto process = [&](uint32_t from, uint32_t to) {
        std::function<void()> finish;
        try {
            if (!isOutOfMemory) finish = work(first + from, first + to);
        } catch (const std::bad_alloc&) {
            isOutOfMemory = true;
        }
        // Bands begin in ascending order, so another thread has each band above.
        std::unique_lock<std::mutex> guard(lock);
        turn.wait(guard, [&] { return next == from; });
        if (!isOutOfMemory) finish();
        Show(next = to, end - first);
        turn.notify_all();
    };
    zyt::ParallelRows(m_pool, end - first, process, bands > 0 ? bands : std::clamp((end - first) / 64, 1u, 32u));
    if (m_shown > 0) std::fputs("\r\033[K", stderr);
    m_shown = 0;
    if (isOutOfMemory) throw std::bad_alloc();
}

void Workers::Show(uint32_t done, uint32_t total) {
    if (!m_isTerminal || std::chrono::steady_clock::now() - m_start < std::chrono::seconds(1)) return;
    const auto percent = static_cast<uint32_t>(uint64_t{done} * 100 / total);
    if (percent + 1 == m_shown) return;
    m_shown = percent + 1;
    std::fprintf(stderr, "\r%s %u %%\033[K", m_name.c_str(), percent);
}
