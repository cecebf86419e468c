#include "workers.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <mutex>
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

void Workers::ForRows(uint32_t first, uint32_t end, const std::function<void(uint32_t, uint32_t)>& work) {
    std::exception_ptr failure;
    std::mutex lock;
    zyt::ParallelRows(m_pool, end - first, [&](uint32_t from, uint32_t to) {
        try {
            work(first + from, first + to);
        } catch (...) {
            const std::lock_guard<std::mutex> guard(lock);
            failure = std::current_exception();
        }
    });
    if (failure) std::rethrow_exception(failure);
}

void Workers::Show(uint32_t done, uint32_t total) {
    if (!m_isTerminal || std::chrono::steady_clock::now() - m_start < std::chrono::seconds(1)) return;
    const auto percent = static_cast<uint32_t>(uint64_t{done} * 100 / total);
    if (percent + 1 == m_shown) return;
    m_shown = percent + 1;
    std::fprintf(stderr, "\r%s %u %%\033[K", m_name.c_str(), percent);
}

void Workers::Clear() {
    if (m_shown > 0) std::fputs("\r\033[K", stderr);
    m_shown = 0;
}
