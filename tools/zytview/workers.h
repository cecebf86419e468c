#ifndef ZYTVIEW_WORKERS_H
#define ZYTVIEW_WORKERS_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "threadpool/zytthreadpool.h"

/// The processors' threads, at work on rows. On a terminal, whatever takes longer than a second shows how far it is.
class Workers {
public:
    Workers();

    /// What is at work on from now on.
    void Begin(const std::string& name);

    /// Does all rows from first to end in pieces, in any order, and returns when they are done.
    void ForRows(uint32_t first, uint32_t end, const std::function<void(uint32_t from, uint32_t to)>& work);

    /// Shows that done of total rows are done.
    void Show(uint32_t done, uint32_t total);

    /// Removes what Show left on the terminal.
    void Clear();

private:
    ZYTThreadPool m_pool;
    std::string m_name;
    const bool m_isTerminal;
    std::chrono::steady_clock::time_point m_start;
    uint32_t m_shown = 0;  // percent, plus one
};

#endif  // ZYTVIEW_WORKERS_H
