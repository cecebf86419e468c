#include "threadpool/zytthreadpool.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <utility>

#include "support.h"

using testing::ElementsAre;
using testing::StartsWith;

namespace {

constexpr const char* kStopped = "D Receive Stop Message, Stop Worker!";

std::atomic<int> g_runs{0};
std::atomic<bool> g_isHeld{false};

void CountRun(void*, unsigned int) { ++g_runs; }

ZYTThreadPoolTask CountingTask() { return {ZYT_THREAD_POOL_TASK_NORMAL, CountRun, std::malloc(8), 8}; }

class ThreadPool : public testing::Test {
protected:
    void SetUp() override { g_runs = 0; }

    zyttest::LogCapture m_log;
    ZYTThreadPool m_pool;
};

}  // namespace

TEST_F(ThreadPool, StartsAndJoinsItsWorkers) {
    EXPECT_TRUE(m_pool.Init(0));
    m_pool.DeInit(true);
    EXPECT_THAT(m_log.Take(), ElementsAre());

    ASSERT_TRUE(m_pool.Init(2));
    const std::vector<int64_t> ids = m_pool.m_threadIdList;
    EXPECT_THAT(m_log.Take(),
                ElementsAre(zyttest::Text("D Create New Thread[0] Success: %u", static_cast<unsigned>(ids.at(0))),
                            zyttest::Text("D Create New Thread[1] Success: %u", static_cast<unsigned>(ids.at(1)))));
    char name[16] = {};
    pthread_getname_np(static_cast<pthread_t>(ids[1]), name, sizeof(name));
    EXPECT_STREQ(name, "ZYTThreadPool");
    m_pool.DeInit(false);
    // The first worker can be joined before the second stops.
    EXPECT_THAT(m_log.Take(),
                testing::UnorderedElementsAre(zyttest::Text("D Join Thread[0]: %ld", ids[0]),
                                              zyttest::Text("D Join Thread[1]: %ld", ids[1]), kStopped, kStopped));

    // A second Init forgets the earlier workers, which still serve the queue.
    ASSERT_TRUE(m_pool.Init(1));
    const auto forgotten = static_cast<pthread_t>(m_pool.m_threadIdList.at(0));
    ASSERT_TRUE(m_pool.Init(1));
    EXPECT_EQ(m_pool.m_threadIdList.size(), 1u);
    m_pool.QueueTask({ZYT_THREAD_POOL_TASK_STOP, nullptr, nullptr, 0});
    m_pool.DeInit(false);
    pthread_join(forgotten, nullptr);
}

TEST_F(ThreadPool, StopsOnceHoweverManyStopIt) {
    for (int round = 0; round < 50; ++round) {
        ASSERT_TRUE(m_pool.Init(3));
        m_log.Take();
        std::vector<std::thread> threads;
        for (int i = 0; i < 3; ++i) threads.emplace_back([this, i] { m_pool.DeInit(i % 2 == 0); });
        for (std::thread& thread : threads) thread.join();
        EXPECT_EQ(m_log.Take().size(), 6u) << "three workers stop and are joined";
        EXPECT_EQ(m_pool.m_threadIdList.size() + m_pool.m_taskList.size(), 0u);
    }
}

TEST_F(ThreadPool, JoinsOnlyWhatIsStillListed) {
    ASSERT_TRUE(m_pool.Init(1));
    std::unique_lock<std::mutex> holding(m_pool.m_taskListLock);
    std::thread stopping([this] { m_pool.DeInit(false); });
    // Enough to count the workers and to wait for the queue; on a slower machine the test only finds less.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    m_pool.m_threadListLock.lock();  // as Init() on another thread does
    const std::vector<int64_t> forgotten = std::exchange(m_pool.m_threadIdList, {});
    m_pool.m_threadListLock.unlock();
    holding.unlock();
    stopping.join();
    pthread_join(static_cast<pthread_t>(forgotten.at(0)), nullptr);
    EXPECT_THAT(m_log.Take(), testing::Not(testing::Contains(StartsWith("D Join"))));
}

TEST_F(ThreadPool, StopsWhileAnotherPoolIsBeingStopped) {
    ASSERT_TRUE(m_pool.Init(1));
    g_isHeld = true;
    const auto wait = [](void*, unsigned int) { zyttest::WaitUntil([] { return !g_isHeld; }); };
    m_pool.QueueTask({ZYT_THREAD_POOL_TASK_NORMAL, wait, nullptr, 0});
    std::thread stopper([this] { m_pool.DeInit(false); });
    ASSERT_TRUE(zyttest::WaitUntil([this] {
        std::lock_guard<std::mutex> lock(m_pool.m_taskListLock);
        return !m_pool.m_taskList.empty() && m_pool.m_taskList.back().type == ZYT_THREAD_POOL_TASK_STOP;
    }));
    ZYTThreadPool other;
    ASSERT_TRUE(other.Init(1));
    other.DeInit(false);
    EXPECT_EQ(m_pool.m_threadIdList.size(), 1u) << "its worker still runs";
    g_isHeld = false;
    stopper.join();
}

TEST_F(ThreadPool, DropsWhatIsQueuedWhenFlushedAndFreesItUnlessInitDoes) {
    for (const bool isByDeInit : {false, true}) {
        for (int i = 0; i < 5; ++i) m_pool.QueueTask(CountingTask());
        isByDeInit ? m_pool.DeInit(true) : m_pool.FlushTask();
        EXPECT_TRUE(m_pool.m_taskList.empty());
    }
    const ZYTThreadPoolTask task = CountingTask();
    m_pool.QueueTask(task);
    ASSERT_TRUE(m_pool.Init(1));
    m_pool.DeInit(false);
    EXPECT_EQ(g_runs, 0);
    std::free(task.data);  // a double free, which aborts, if the pool has freed it
}

TEST_F(ThreadPool, RunsOnlyAKnownTaskWithDataAndSizeBothOrNeither) {
    char data[8] = {};  // not a malloc block: freeing it would end the process
    ASSERT_TRUE(m_pool.Init(1));
    m_log.Take();
    m_pool.QueueTask({static_cast<ZYTThreadPoolTaskType>(7), CountRun, data, sizeof(data)});
    m_pool.QueueTask({ZYT_THREAD_POOL_TASK_NORMAL, [](void*, unsigned int) { g_runs += 10; }, nullptr, 0});
    m_pool.QueueTask({ZYT_THREAD_POOL_TASK_NORMAL, CountRun, std::malloc(8), 0});
    m_pool.QueueTask({ZYT_THREAD_POOL_TASK_NORMAL, CountRun, nullptr, 8});
    m_pool.QueueTask({ZYT_THREAD_POOL_TASK_NORMAL, nullptr, std::malloc(8), 8});
    m_pool.QueueTask(CountingTask());
    m_pool.DeInit(false);
    EXPECT_EQ(g_runs, 11);
    EXPECT_THAT(m_log.Take(), ElementsAre("W Unsupport Task Type!", kStopped, StartsWith("D Join Thread[0]: ")));
}
