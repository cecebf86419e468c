#include "zytsignaltask/zytsignaltask.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>
#include <tuple>

#include "base/zytexitgate.h"
#include "base/zytsharedflag.h"
#include "logging/zytlogsite.h"
#include "support.h"

using zyttest::LogCapture;
using zyttest::WaitUntil;

namespace {

WrapperTask Wrap(std::function<void()> work) {
    WrapperTask task;
    task.m_task = std::move(work);
    return task;
}

class SignalTask : public testing::Test {
protected:
    void TearDown() override {
        m_isReleased = true;
        m_task.disconnect();
    }

    // Connects a task without keeping a copy. Returns its flags: alive and done.
    std::pair<std::shared_ptr<bool>, std::shared_ptr<bool>> Connect(uint64_t id, const std::function<void()>& work) {
        WrapperTask task = Wrap(work);
        EXPECT_EQ(m_task.insert(id, WrapperTask(task)), 1u);
        return {task.m_isAlive, task.m_isDone};
    }

    // Raises a task after all pending ones and returns when the loop runs it.
    void RunNow(uint64_t id, const std::function<void()>& work) {
        std::atomic<bool> isRunning{false};
        m_task.insert(id, Wrap([&isRunning, work] {
                          isRunning = true;
                          work();
                      }));
        m_task.signal(id);
        ASSERT_TRUE(WaitUntil([&isRunning] { return isRunning.load(); }));
    }

    void Settle() {
        RunNow(~0ull, [] {});
    }

    // Blocks the loop until it is released, so that raised signals stay pending.
    void HoldLoop() {
        RunNow(~1ull, [this] { WaitUntil([this] { return m_isReleased.load(); }); });
    }

    ZYTSignalTask& m_task = *ZYTSignalTask::instance();
    std::atomic<bool> m_isReleased{false};
};

int RunToTheEnd(WrapperTask task) {
    ZYTSignalTask::instance()->insert(1, std::move(task));
    ZYTSignalTask::instance()->signal(1);
    WaitUntil([] { return false; });
    return 1;
}

ZYT_CHILD(ExitFromATask) {
    return RunToTheEnd(Wrap([] { std::exit(7); }));
}

// Destroyed after the signal task, which then refuses all calls.
struct Late {
    ~Late() { std::_Exit(ZYTSignalTask::instance()->insert(5) == 0 ? 7 : 1); }
};

ZYT_CHILD(LogAtExit) {
    static const Late late;
    ZYTLogUtil::m_level = 5;
    ZYTSignalTask::instance()->signal(1);
    return 0;
}

ZYT_CHILD(ExitFromALogSink) {
    LogCapture log([](const std::string& line) {
        if (line.find("success signal") != std::string::npos) std::exit(7);
    });
    ZYTSignalTask::instance()->signal(1);
    return 1;
}

}  // namespace

TEST_F(SignalTask, RunsAConnectedTaskOnceOnItsOwnThread) {
    std::atomic<int> runs{0};
    std::string threadName(16, '\0');
    const auto [isAlive, isDone] = Connect(5, [&] {
        pthread_getname_np(pthread_self(), threadName.data(), threadName.size());
        ++runs;
    });
    m_task.signal(5);
    m_task.signal(6);  // lost, because no task is connected
    Settle();
    EXPECT_EQ(runs, 1);
    EXPECT_STREQ(threadName.c_str(), "ZYTSignalTask");
    EXPECT_TRUE(zyt::LoadFlag(*isDone));
    EXPECT_TRUE(zyt::LoadFlag(*isAlive)) << "it has run";
    for (const uint64_t id : {6u, 8u}) m_task.insert(id, Wrap([&] { ++runs; }));
    RunNow(7, [this] {
        for (const uint64_t id : {5u, 8u}) m_task.signal(id);
    });
    Settle();
    EXPECT_EQ(runs, 2) << "of 8 alone: a run used up the connection of 5, and the signal 6 came before its own";
}

TEST_F(SignalTask, RunsInTheOrderOfRaisingAndNeverTwiceForAPendingSignal) {
    std::vector<int> order;  // written on the loop thread, read after Settle()
    for (int id = 1; id <= 3; ++id) {
        m_task.insert(static_cast<uint64_t>(id), Wrap([&order, id] { order.push_back(id); }));
    }
    HoldLoop();
    EXPECT_EQ(m_task.insert(3), 1u);
    EXPECT_EQ(m_task.insert(1), 2u);
    EXPECT_EQ(m_task.insert(2), 3u);
    EXPECT_EQ(m_task.insert(3), 3u);
    m_isReleased = true;
    Settle();
    EXPECT_THAT(order, testing::ElementsAre(3, 1, 2));
}

TEST_F(SignalTask, DisconnectsAndReplaces) {
    std::atomic<int> runs{0};
    for (const bool isAll : {false, true}) {
        const auto [isAlive, isDone] = Connect(5, [&runs] { ++runs; });
        m_task.disconnect(4);
        EXPECT_TRUE(zyt::LoadFlag(*isAlive)) << "the connection is a copy";
        m_isReleased = false;
        HoldLoop();
        EXPECT_EQ(m_task.insert(5), 1u);
        // Waits for the lock of the held task.
        std::thread disconnecting([this, isAll] { isAll ? m_task.disconnect() : m_task.disconnect(5); });
        EXPECT_TRUE(WaitUntil([this] { return m_task.insert(7) == 1; })) << "the pending signal goes first";
        m_isReleased = true;
        disconnecting.join();
        Settle();
        EXPECT_EQ(runs, 0);
        EXPECT_FALSE(zyt::LoadFlag(*isAlive));
        EXPECT_FALSE(zyt::LoadFlag(*isDone));
    }

    const WrapperTask kept = Wrap([&runs] { ++runs; });
    m_task.insert(5, WrapperTask(kept));
    m_task.disconnect();
    EXPECT_TRUE(zyt::LoadFlag(*kept.m_isAlive)) << "a copy is left to connect again";
    const std::shared_ptr<bool> replacedIsAlive = Connect(5, [&runs] { runs += 10; }).first;
    EXPECT_EQ(m_task.insert(5, WrapperTask(kept)), 1u);
    m_task.signal(5);
    Settle();
    EXPECT_EQ(runs, 1);
    EXPECT_TRUE(zyt::LoadFlag(*replacedIsAlive)) << "a replaced connection keeps its flags";
}

TEST_F(SignalTask, LetsGoOfCapturesOutsideItsLocks) {
    std::atomic<bool> isConnected{false};
    m_task.insert(5, Wrap([capture = std::shared_ptr<void>(nullptr, [&](void*) {
                               m_task.insert(9, WrapperTask());
                               isConnected = true;
                           })] {}));
    m_task.signal(5);
    EXPECT_TRUE(WaitUntil([&isConnected] { return isConnected.load(); }));
}

TEST(Wrapper, AssignmentSharesAllFourMembersEvenFromATemporary) {
    WrapperTask a, b;
    const std::shared_ptr<bool> oldAlive = a.m_isAlive;
    b.m_task = [] {};
    a = std::move(b);
    EXPECT_EQ(std::tie(a.m_isAlive, a.m_isDone, a.m_token), std::tie(b.m_isAlive, b.m_isDone, b.m_token));
    EXPECT_TRUE(a.m_task);
    EXPECT_TRUE(b.m_task);
    EXPECT_TRUE(*oldAlive) << "assignment is no destruction";
}

TEST_F(SignalTask, LogsEachStep) {
    Settle();
    m_task.insert(5, Wrap([] {}));
    HoldLoop();
    std::atomic<int> rounds{0};
    LogCapture log([&rounds](const std::string& line) { rounds += line.find("loop alive") != std::string::npos; });
    m_task.insert(5);
    m_task.insert(5);
    m_isReleased = true;
    EXPECT_TRUE(WaitUntil([&rounds] { return rounds == 2; }));
    m_task.insert(9, Wrap([] {}));
    m_task.remove(9);
    m_task.remove();
    EXPECT_EQ(log.Transcript("loop()"), R"(
V loop() [@1] task 18446744073709551614 done
V loop() [@1] loop alive
V loop() [@1] task 5 done
V loop() [@1] loop alive)");
    EXPECT_EQ(log.Transcript(), R"(
V insert() [@1] try signal 5
V insert() [@1] success signal 5 with 1 signals left
V insert() [@1] try signal 5
V insert() [@1] try connect 9
V insert() [@1] success connect 9 with 1 tasks left
V remove() [@1] disconnect 9
V remove() [@1] disconnect all)");
}

TEST(SignalTaskAtExit, LeavesAndRefusesWhatComesLater) {
    const zyttest::ChildResult child = zyttest::RunChild("LogAtExit");
    EXPECT_EQ(child.exitCode, 7);
    EXPECT_THAT(child.output, testing::HasSubstr("disconnect all"));
    EXPECT_LT(child.output.find("loop stop"), child.output.find("Join Thread[0]")) << "the log ends after it";
    EXPECT_EQ(zyttest::RunChild("ExitFromATask").exitCode, 7);
    EXPECT_EQ(zyttest::RunChild("ExitFromALogSink").exitCode, 7);
}

TEST(SignalTaskAtExit, AnEmptyCallableEndsTheProcess) { EXPECT_ABORT("bad_function_call", RunToTheEnd({})); }

TEST(ExitGate, ClosesOnceOthersHaveLeftHoweverManyAsk) {
    using Pass = zyt::ExitGate::Pass;
    static zyt::ExitGate gate;
    std::atomic<bool> isInside{false}, hasLeft{false}, isOver{false};
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        const Pass pass(gate);
        isInside = true;
        while (Pass(gate)) std::this_thread::yield();  // until the gate starts to close
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        hasLeft = true;
    });
    for (int i = 0; i < 16; ++i) {
        threads.emplace_back([&isOver] {
            while (!isOver) const Pass pass(gate);
        });
    }
    EXPECT_TRUE(WaitUntil([&isInside] { return isInside.load(); }));
    {
        const Pass own(gate), another(gate);  // as when a log sink inside two calls exits
        gate.Close();
        EXPECT_TRUE(hasLeft);
    }
    EXPECT_FALSE(Pass(gate));
    isOver = true;
    for (std::thread& thread : threads) thread.join();
}
