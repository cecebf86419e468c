#include "workers.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <thread>

#include "logging/zytlogutil.h"

Workers::Workers() : m_isTerminal(isatty(STDERR_FILENO) == 1) {
    ZYTLogUtil::m_level = 0;  // without its threads the work takes longer, and is done all the same
    m_pool.Init(std::max(std::thread::hardware_concurrency(), 1u));
}

void Workers::Begin(const std::string& name) {
    m_name = name;
    m_start = std::chrono::steady_clock::now();
}

void Workers::ForRows(uint32_t first, uint32_t end, const std::function<void(uint32_t, uint32_t)>& work) {
    work(first, end);
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
