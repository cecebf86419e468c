// The library under load and at process exit. ZYT_EXIT_ROUNDS in the environment sets the number of exits under load.

#include <hostdevice/hostdevice.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <random>
#include <thread>

#include "base/zytsharedflag.h"
#include "logging/zytlogsite.h"
#include "support.h"
#include "zytbuffermanager/zytbuffermanager.h"
#include "zytsignaltask/zytsignaltask.h"

namespace {

// A buffer with a unique mark at both ends.
struct Held {
    uint64_t* pFirst;
    uint64_t* pLast;
    uint64_t mark;
    int fd;

    // Opens an access that lasts until the buffer is released.
    Held(ZYTBufferManager& manager, void* pBuf, size_t size, int newFd, uint64_t newMark)
        : pFirst(static_cast<uint64_t*>(pBuf)), pLast(pFirst + size / sizeof(mark) - 1), mark(newMark), fd(newFd) {
        if (fd != 0) manager.StartCPUSync(fd, CPU_SYNC_READ_WRITE);
        *pFirst = *pLast = mark;
    }
    bool LeaveIntact(ZYTBufferManager& manager) const {
        const bool isIntact = *pFirst == mark && *pLast == mark;
        if (fd != 0) manager.EndCPUSync(fd);
        return isIntact;
    }
};

// Simulates one node after another: each has two managers, takes buffers of random sizes and types, holds them for a
// random time and leaves some to its managers' destructors. Returns true when all contents were intact.
bool LiveAsNodes(uint64_t thread, uint64_t operations) {
    std::mt19937_64 random(thread);
    uint64_t mark = thread << 48;
    bool isIntact = true;
    while (operations > 0) {
        ZYTBufferManager managers[2] = {ZYTBufferManager("Node"), ZYTBufferManager()};
        std::vector<Held> held[2];
        for (uint64_t left = std::min<uint64_t>(operations, 50 + random() % 500); left > 0; --left, --operations) {
            const size_t m = random() % 2;
            if (held[m].size() > random() % 24) {
                const size_t i = random() % held[m].size();
                isIntact = held[m][i].LeaveIntact(managers[m]) && isIntact;
                managers[m].FreeBuffer(held[m][i].pFirst);
                held[m].erase(held[m].begin() + static_cast<ptrdiff_t>(i));
                continue;
            }
            void* pBuf = nullptr;
            int fd = 0;
            const auto size = static_cast<uint32_t>(16 + random() % 40 * 1000);
            if (!managers[m].AllocBuffer(size, &pBuf, fd, static_cast<ZYTBufferType>(random() % 2))) return false;
            held[m].emplace_back(managers[m], pBuf, size, fd, ++mark);
        }
        for (size_t m = 0; m < 2; ++m) {
            for (const Held& buffer : held[m]) isIntact = buffer.LeaveIntact(managers[m]) && isIntact;
        }
    }
    return isIntact;
}

// Starts threads that connect, raise and log until the process ends.
void KeepBusy(ZYTSignalTask* task) {
    for (int t = 0; t < 3; ++t) {
        std::thread([task] {
            for (uint64_t id = 0;; ++id) {
                WrapperTask work;
                work.m_task = [task, id] { task->signal(id + 1); };
                task->insert(id % 16, std::move(work));
                task->signal(id % 16);
                ZYT_LOG(E, "Busy", "line %lu", id);
            }
        }).detach();
    }
}

// Forks while all parts of the library are busy. The children use the log and the signal task, and must not wait.
ZYT_CHILD(ForkWhileBusy) {
    ZYTOfflineLog& log = ZYTOfflineLog::GetInstance();
    zyt::StoreFlag(log.m_enable, true);
    ZYTLogUtil::m_level = 0;  // the platform's log has a lock of its own
    ZYTSignalTask* task = ZYTSignalTask::instance();
    KeepBusy(task);
    for (int i = 0; i < 30; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(60);
            for (int k = 0; k < 10; ++k) {
                ZYT_LOG(E, "Child", "line %d", k);
                log.PushLogToLogPool("line", ZYTOfflineLogLevel::E);
                if (task->insert(1, WrapperTask()) != 0) _exit(1);
                task->signal(1);
                task->disconnect(1);
                task->disconnect();
            }
            _exit(0);
        }
        int status = 1;
        if (waitpid(child, &status, 0) != child || status != 0) _exit(WIFSIGNALED(status) ? 2 : 1);
    }
    _exit(7);
}

// Ends a process while all parts of the library are busy.
ZYT_CHILD(ExitWhileBusy) {
    ZYTOfflineLog& log = ZYTOfflineLog::GetInstance();
    zyt::StoreFlag(log.m_enable, true);
    static ZYTBufferManager early("Early");
    void* pBuf = nullptr;
    int fd = 0;
    early.AllocBuffer(4096, &pBuf, fd, ZYT_BUFFER_TYPE_DMABUF);
    ZYTSignalTask* task = ZYTSignalTask::instance();
    static ZYTBufferManager late("Late");
    late.AllocBuffer(4096, &pBuf, fd, ZYT_BUFFER_TYPE_MALLOC);

    KeepBusy(task);
    for (int i = 0; i < 3000; ++i) ZYT_LOG(E, "Main", "line %d", i);
    for (uint64_t id = 0; id < 1000; ++id) task->signal(id);
    return 7;
}

}  // namespace

TEST(Load, NoBufferHasTwoHoldersAndNothingIsLeft) {
    constexpr uint64_t kThreads = 16;
    // Fewer in strict mode, which reads all mappings at every access.
    const uint64_t kOperations = hostdevice::IsStrict() ? 20000 : 1000000;
    std::atomic<bool> isIntact{true};
    std::vector<std::thread> threads;
    for (uint64_t t = 1; t <= kThreads; ++t) {
        threads.emplace_back([t, kOperations, &isIntact] {
            if (!LiveAsNodes(t, kOperations / kThreads)) isIntact = false;
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_TRUE(isIntact);
    EXPECT_EQ(hostdevice::CountLive().heapDescriptors + hostdevice::CountLive().heapMappings, 0u);
    EXPECT_TRUE(ZYTBufferPool::m_busyBufferList.empty());
    for (const auto& list : ZYTBufferPool::m_freeBufferList) EXPECT_TRUE(list.empty());
}

TEST(Exit, IsCalmWhateverIsGoingOn) {
    const char* setting = std::getenv("ZYT_EXIT_ROUNDS");
    const int rounds = setting != nullptr ? std::atoi(setting) : 20;
    std::atomic<bool> isOver{false};
    std::vector<std::thread> burners;
    for (unsigned int i = 0; i < std::thread::hardware_concurrency(); ++i) {
        burners.emplace_back([&isOver] {
            while (!isOver) continue;
        });
    }
    for (int i = 0; i < rounds && !HasFailure(); ++i) {
        const zyttest::ChildResult child = zyttest::RunChild("ExitWhileBusy");
        const size_t shown = std::min<size_t>(child.output.size(), 3000);
        EXPECT_EQ(child.exitCode, 7) << child.output.substr(child.output.size() - shown);
    }
    isOver = true;
    for (std::thread& burner : burners) burner.join();
    EXPECT_GT(rounds, 0);
}

TEST(Fork, GivesAChildThatNeitherLogsNorSignalsNorWaits) { EXPECT_EQ(zyttest::RunChild("ForkWhileBusy").exitCode, 7); }
