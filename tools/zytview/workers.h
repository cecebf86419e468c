#ifndef ZYTVIEW_WORKERS_H
#define ZYTVIEW_WORKERS_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "threadpool/zytthreadpool.h"

/// Processes rows on all processors. On a terminal, shows the progress of work that takes longer than a second.
class Workers {
public:
    Workers();

    /// Starts a new piece of work; `name` is shown with its progress.
    void Begin(const std::string& name);

    /// Calls work for bands of the rows from first to end - 1, in any order, and returns when all are done. Rethrows an
    /// exception of work.
    void ForRows(uint32_t first, uint32_t end, const std::function<void(uint32_t from, uint32_t to)>& work);

    /// Shows the progress.
    void Show(uint32_t done, uint32_t total);

    /// Removes the progress from the terminal.
    void Clear();

private:
    ZYTThreadPool m_pool;
    std::string m_name;
    const bool m_isTerminal;
    std::chrono::steady_clock::time_point m_start;
    uint32_t m_shown = 0;  // percent + 1; 0 when nothing is shown
};

#endif  // ZYTVIEW_WORKERS_H
