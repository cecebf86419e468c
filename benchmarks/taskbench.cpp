#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <thread>
#include <vector>

#include "threadpool/zytthreadpool.h"
#include "zytsignaltask/zytsignaltask.h"

namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

constexpr int kProducers = 4;
constexpr int kTasks = 100000;

// Counts tasks down; the last one wakes the benchmark.
struct Countdown {
    std::atomic<int> left{kTasks};
    std::promise<void> done;

    void RunOne() {
        if (left.fetch_sub(1) == 1) done.set_value();
    }
};

// Returns the seconds from the start of the producers until the last task has run.
double RunProducers(Countdown& countdown, const std::function<void()>& queueOne) {
    std::promise<void> go;
    const std::shared_future<void> mayGo(go.get_future());
    std::atomic<int> ready{0};
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&ready, mayGo, &queueOne] {
            ++ready;
            mayGo.wait();
            for (int i = 0; i < kTasks / kProducers; ++i) queueOne();
        });
    }
    while (ready != kProducers) std::this_thread::yield();
    const auto start = Clock::now();
    go.set_value();
    countdown.done.get_future().wait();
    const double seconds = SecondsSince(start);
    for (std::thread& producer : producers) producer.join();
    return seconds;
}

void RunTask(void* data, unsigned int) {
    Countdown* countdown = nullptr;
    std::memcpy(&countdown, data, sizeof(countdown));
    countdown->RunOne();
}

void Tasks(benchmark::State& state) {
    for (auto _ : state) {
        Countdown countdown;
        ZYTThreadPool pool;
        pool.Init(static_cast<unsigned int>(state.range(0)));
        const double seconds = RunProducers(countdown, [&pool, target = &countdown] {
            void* data = std::malloc(sizeof(target));
            std::memcpy(data, &target, sizeof(target));
            pool.QueueTask({ZYT_THREAD_POOL_TASK_NORMAL, RunTask, data, sizeof(target)});
        });
        pool.DeInit(false);
        state.SetIterationTime(seconds / kTasks);
    }
}

void TasksPeer(benchmark::State& state) {
    for (auto _ : state) {
        Countdown countdown;
        boost::asio::thread_pool pool(static_cast<size_t>(state.range(0)));
        const double seconds = RunProducers(
            countdown, [&pool, target = &countdown] { boost::asio::post(pool, [target] { target->RunOne(); }); });
        pool.join();
        state.SetIterationTime(seconds / kTasks);
    }
}

constexpr int kSignals = 1000;

// Returns the median time in seconds from raise() until another thread stores the time in ranAt. Between two signals
// that thread has time to go back to sleep, as in a camera at 30 frames per second. The median is used because a signal
// that arrives while the machine is busy takes a thousand times as long and would dominate a mean.
template <typename Raise>
double MedianLatency(std::atomic<int64_t>& ranAt, Raise raise) {
    std::vector<int64_t> latencies;
    for (int i = 0; i < kSignals; ++i) {
        ranAt = 0;
        const auto rest = Clock::now() + std::chrono::microseconds(50);
        while (Clock::now() < rest) continue;
        const int64_t start = raise();
        int64_t end = 0;
        while ((end = ranAt.load()) == 0) continue;
        latencies.push_back(end - start);
    }
    std::nth_element(latencies.begin(), latencies.begin() + kSignals / 2, latencies.end());
    return static_cast<double>(latencies[kSignals / 2]) * 1e-9;
}

int64_t NowNanos() { return Clock::now().time_since_epoch().count(); }

void Signal(benchmark::State& state) {
    ZYTSignalTask* signals = ZYTSignalTask::instance();
    std::atomic<int64_t> ranAt{0};
    for (auto _ : state) {
        state.SetIterationTime(MedianLatency(ranAt, [signals, &ranAt] {
            WrapperTask task;
            task.m_task = [&ranAt] { ranAt = NowNanos(); };
            signals->insert(1, std::move(task));
            const int64_t start = NowNanos();
            signals->signal(1);
            return start;
        }));
    }
}

void SignalPeer(benchmark::State& state) {
    boost::asio::io_context context(1);
    auto work = boost::asio::make_work_guard(context);
    std::thread thread([&context] { context.run(); });
    std::atomic<int64_t> ranAt{0};
    for (auto _ : state) {
        state.SetIterationTime(MedianLatency(ranAt, [&context, &ranAt] {
            const int64_t start = NowNanos();
            boost::asio::post(context, [&ranAt] { ranAt = NowNanos(); });
            return start;
        }));
    }
    work.reset();
    thread.join();
}

BENCHMARK(Tasks)->Name("tasks/ours")->Arg(4)->UseManualTime()->Iterations(1);
BENCHMARK(TasksPeer)->Name("tasks/peer")->Arg(4)->UseManualTime()->Iterations(1);
BENCHMARK(Signal)->Name("signal/ours")->UseManualTime()->Iterations(1);
BENCHMARK(SignalPeer)->Name("signal/peer")->UseManualTime()->Iterations(1);

}  // namespace
