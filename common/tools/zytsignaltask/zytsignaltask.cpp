#include "zytsignaltask/zytsignaltask.h"

#include <pthread.h>

#include <algorithm>
#include <optional>

#include "base/zytexitgate.h"
#include "base/zytsharedflag.h"
#include "logging/zytlogsite.h"

namespace {

zyt::ExitGate g_gate;

}  // namespace

WrapperTask::WrapperTask()
    : m_isAlive(std::make_shared<bool>(true)),
      m_isDone(std::make_shared<bool>(false)),
      m_token(std::make_shared<bool>(false)) {}

WrapperTask& WrapperTask::operator=(const WrapperTask& other) {
    m_isAlive = other.m_isAlive;
    m_isDone = other.m_isDone;
    m_task = other.m_task;
    m_token = other.m_token;
    return *this;
}

WrapperTask::~WrapperTask() {
    if (!zyt::LoadFlag(*m_isDone) && m_token.use_count() <= 1) zyt::StoreFlag(*m_isAlive, false);
}

ZYTSignalTask* ZYTSignalTask::instance() {
    static ZYTSignalTask task;
    return &task;
}

ZYTSignalTask::ZYTSignalTask() {
    // Before the thread: the log then outlives this object, whose destructor logs.
    ZYTOfflineLog::GetInstance();
    m_threadList.emplace_back(&ZYTSignalTask::loop, this);
    pthread_atfork(nullptr, nullptr, [] { g_gate.CloseInChild(); });
}

ZYTSignalTask::~ZYTSignalTask() {
    const bool isOnLoopThread = m_threadList.front().get_id() == std::this_thread::get_id();
    if (isOnLoopThread) ReleaseLockOfExitingTask();

    remove();
    m_cond.notify_one();
    m_isStop = true;
    // That wake-up came before the flag, and the loop may have returned to its wait in between. After its lock was held
    // here, it either sees the flag or is in the wait that this second wake-up ends.
    { zyt::Lock lock(m_signalListLock); }
    m_cond.notify_all();
    for (std::thread& thread : m_threadList) {
        if (!thread.joinable()) continue;
        if (isOnLoopThread) {
            thread.detach();
        } else {
            thread.join();
        }
    }
    // Other threads may still raise signals. From here on they find the gate closed.
    g_gate.Close();
}

// A task, or a log sink below the loop, that calls exit() brings the destructor onto the loop thread, below the frame
// that holds the map's lock. That frame never continues, so its lock is released here; remove() would wait for its own
// thread otherwise.
void ZYTSignalTask::ReleaseLockOfExitingTask() {
    if (m_isMapLockedByLoop) m_taskMapLock.unlock();
}

void ZYTSignalTask::signal(uint64_t id) {
    insert(id);
    notify();
}

void ZYTSignalTask::notify() {
    zyt::ExitGate::Pass pass(g_gate);
    if (pass) m_cond.notify_one();
}

void ZYTSignalTask::disconnect(uint64_t id) {
    remove(id);
    notify();
}

void ZYTSignalTask::disconnect() {
    remove();
    notify();
}

size_t ZYTSignalTask::insert(uint64_t id) {
    zyt::ExitGate::Pass pass(g_gate);
    if (!pass) return 0;
    ZYT_LOG_AT(V, this, "try signal %lu", id);
    size_t left = 0;
    {
        zyt::Lock lock(m_signalListLock);
        if (std::find(m_signalList.begin(), m_signalList.end(), id) != m_signalList.end()) return m_signalList.size();
        m_signalList.push_back(id);
        left = m_signalList.size();
    }
    ZYT_LOG_AT(V, this, "success signal %lu with %lu signals left", id, left);
    return left;
}

size_t ZYTSignalTask::insert(uint64_t id, WrapperTask&& task) {
    zyt::ExitGate::Pass pass(g_gate);
    if (!pass) return 0;
    ZYT_LOG_AT(V, this, "try connect %lu", id);
    size_t left = 0;
    {
        zyt::Lock lock(m_taskMapLock);
        m_taskMap[id] = task;
        left = m_taskMap.size();
    }
    ZYT_LOG_AT(V, this, "success connect %lu with %lu tasks left", id, left);
    return left;
}

void ZYTSignalTask::remove(uint64_t id) {
    zyt::ExitGate::Pass pass(g_gate);
    if (!pass) return;
    {
        zyt::Lock lock(m_signalListLock);
        m_signalList.remove(id);
    }
    {
        zyt::Lock lock(m_taskMapLock);
        m_taskMap.erase(id);
    }
    ZYT_LOG_AT(V, this, "disconnect %lu", id);
}

void ZYTSignalTask::remove() {
    zyt::ExitGate::Pass pass(g_gate);
    if (!pass) return;
    {
        zyt::Lock lock(m_signalListLock);
        m_signalList.clear();
    }
    {
        zyt::Lock lock(m_taskMapLock);
        std::unordered_map<uint64_t, WrapperTask>().swap(m_taskMap);
    }
    ZYT_LOG_AT(V, this, "disconnect all");
}

bool ZYTSignalTask::WaitForSignal(uint64_t& id) {
    zyt::Lock lock(m_signalListLock);
    if (m_isStop) return false;
    while (m_signalList.empty()) {
        m_cond.wait(lock.Native());
        if (m_isStop) return false;
    }
    id = m_signalList.front();
    m_signalList.pop_front();
    return true;
}

void ZYTSignalTask::loop() {
    pthread_setname_np(pthread_self(), "ZYTSignalTask");
    while (true) {
        ZYT_LOG_AT(V, this, "loop alive");
        uint64_t id = 0;
        if (!WaitForSignal(id)) break;
        // Destroyed after the lock is released: the destructors of the callable's captures may use this object.
        std::optional<WrapperTask> task;
        zyt::Lock lock(m_taskMapLock);
        const auto connection = m_taskMap.find(id);
        if (connection == m_taskMap.end()) continue;
        m_isMapLockedByLoop = true;
        task.emplace(connection->second);
        m_taskMap.erase(connection);
        task->m_task();
        zyt::StoreFlag(*task->m_isDone, true);
        ZYT_LOG_AT(V, this, "task %lu done", id);
        m_isMapLockedByLoop = false;
    }
    ZYT_LOG_AT(V, this, "loop stop");
}
