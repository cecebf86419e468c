#include "threadpool/zytthreadpool.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <utility>

#include "logging/zytlogutil.h"

namespace {

void* StartWorker(void* pool) {
    ZYTThreadPool::WorkerCore(static_cast<ZYTThreadPool*>(pool));
    return nullptr;
}

// Lets one caller at a time stop a pool. A second one would discard the stop tasks that the first one's workers need,
// and join threads that are joined already. Kept outside the pool, whose layout clients were built with.
class StopTurn {
public:
    explicit StopTurn(const ZYTThreadPool* pool) : m_pool(pool) {
        while (!Take()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ~StopTurn() {
        std::lock_guard<std::mutex> guard(g_lock);
        StopTurn** turn = &g_first;
        while (*turn != this) turn = &(*turn)->m_next;
        *turn = m_next;
    }
    StopTurn(const StopTurn&) = delete;
    StopTurn& operator=(const StopTurn&) = delete;

private:
    bool Take() {
        std::lock_guard<std::mutex> guard(g_lock);
        for (const StopTurn* turn = g_first; turn != nullptr; turn = turn->m_next) {
            if (turn->m_pool == m_pool) return false;
        }
        m_next = std::exchange(g_first, this);
        return true;
    }

    static std::mutex g_lock;
    static StopTurn* g_first;  // of all pools that are being stopped

    const ZYTThreadPool* const m_pool;
    StopTurn* m_next = nullptr;
};

ZYT_NO_DESTROY std::mutex StopTurn::g_lock;
StopTurn* StopTurn::g_first = nullptr;

}  // namespace

ZYTThreadPool::ZYTThreadPool() = default;

ZYTThreadPool::~ZYTThreadPool() { DeInit(true); }

bool ZYTThreadPool::Init(unsigned int threadNum) {
    {
        zyt::Lock lock(m_threadListLock);
        m_threadIdList.clear();
    }
    {
        zyt::Lock lock(m_taskListLock);
        m_taskList.clear();
    }
    zyt::Lock lock(m_threadListLock);
    for (unsigned int i = 0; i < threadNum; ++i) {
        pthread_t id = 0;
        const int result = pthread_create(&id, nullptr, StartWorker, this);
        if (result != 0 || id == 0) {
            ZYTLogUtil::LogE("Create New Thread[%d] Failed! Result Code: %d, ThreadID: %u", static_cast<int>(i), result,
                             static_cast<unsigned int>(id));
            return false;
        }
        pthread_setname_np(id, "ZYTThreadPool");
        m_threadIdList.push_back(static_cast<int64_t>(id));
        ZYTLogUtil::LogD("Create New Thread[%d] Success: %u", static_cast<int>(i), static_cast<unsigned int>(id));
    }
    return true;
}

void ZYTThreadPool::DeInit(bool isFlush) {
    const StopTurn turn(this);
    if (isFlush) FlushTask();
    size_t workers = 0;
    {
        zyt::Lock lock(m_threadListLock);
        workers = m_threadIdList.size();
    }
    // Behind everything that is queued. Each worker takes exactly one.
    for (size_t i = 0; i < workers; ++i) QueueTask({ZYT_THREAD_POOL_TASK_STOP, nullptr, nullptr, 0});

    zyt::Lock lock(m_threadListLock);
    workers = std::min(workers, m_threadIdList.size());  // Init() on another thread can have cleared the list
    for (size_t i = 0; i < workers; ++i) {
        const int64_t id = m_threadIdList[i];
        const int result = pthread_join(static_cast<pthread_t>(id), nullptr);
        if (result != 0) {
            ZYTLogUtil::LogE("Join Thread[%d]: %lu Failed, Result Code: %d", static_cast<int>(i),
                             static_cast<unsigned long>(id), result);
        } else {
            ZYTLogUtil::LogD("Join Thread[%d]: %lu", static_cast<int>(i), static_cast<unsigned long>(id));
        }
    }
    m_threadIdList.clear();
}

bool ZYTThreadPool::GetTaskFromList(ZYTThreadPoolTask& task) {
    zyt::Lock lock(m_taskListLock);
    while (m_taskList.empty()) m_taskCond.wait(lock.Native());
    task = m_taskList.front();
    m_taskList.pop_front();
    return true;
}

void ZYTThreadPool::FlushTask() {
    zyt::Lock lock(m_taskListLock);
    for (const ZYTThreadPoolTask& task : m_taskList) std::free(task.data);
    m_taskList.clear();
}

void ZYTThreadPool::WorkerCore(ZYTThreadPool* pool) {
    ZYTThreadPoolTask task{};
    while (pool->GetTaskFromList(task)) {
        switch (task.type) {
            case ZYT_THREAD_POOL_TASK_NORMAL:
                if (task.func != nullptr && (task.data != nullptr) == (task.size != 0)) task.func(task.data, task.size);
                std::free(task.data);
                break;
            case ZYT_THREAD_POOL_TASK_STOP:
                ZYTLogUtil::LogD("Receive Stop Message, Stop Worker!");
                return;
            default:
                // Its data need not be a malloc block, so it is not freed.
                ZYTLogUtil::LogW("Unsupport Task Type!");
                break;
        }
    }
}
