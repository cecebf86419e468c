#ifndef ZYTVIEW_WORKERS_H
#define ZYTVIEW_WORKERS_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "threadpool/zytthreadpool.h"

/// Processes rows on all processors. On a terminal, shows the progress of work that takes longer than a second.
class Workers {
public:
    /// Processes the rows from `from` to `to` - 1, on any thread. Returns what remains to be done in order. Throws
    /// nothing but std::bad_alloc.
    using Work = std::function<std::function<void()>(uint32_t from, uint32_t to)>;

    Workers();

    /// Starts to process a dump; `name` is shown with the progress.
    void Begin(const std::string& name);

    /// Calls work for bands of the rows from first to end - 1, and what it returned for one band after the other from
    /// top to bottom. Returns when all are done. Throws std::bad_alloc. By default a band has at least 64 rows and at
    /// most a 32nd of them.
    void ForBands(uint32_t first, uint32_t end, const Work& work, uint32_t bands = 0);

    /// Returns the sum of what addRows(from, to, sums) adds to copies of `zero`, for bands of the rows.
    template <typename Sum, typename AddRows>
    std::vector<Sum> AddUp(uint32_t first, uint32_t end, const std::vector<Sum>& zero, const AddRows& addRows) {
        std::vector<Sum> all = zero;
        ForBands(first, end, [&](uint32_t from, uint32_t to) -> std::function<void()> {
            std::vector<Sum> own = zero;
            addRows(from, to, own);
            return [&all, own = std::move(own)] {
                for (size_t i = 0; i < own.size(); ++i) all[i] += own[i];
            };
        });
        return all;
    }

private:
    void Show(uint32_t done, uint32_t total);

    ZYTThreadPool m_pool;
    std::string m_name;
    const bool m_isTerminal;
    std::chrono::steady_clock::time_point m_start;
    uint32_t m_shown = 0;  // percent + 1; 0 when nothing is shown
};

#endif  // ZYTVIEW_WORKERS_H
