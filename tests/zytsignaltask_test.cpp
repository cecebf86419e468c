#include "zytsignaltask/zytsignaltask.h"

#include <gmock/gmock.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>

#include "base/zytsharedflag.h"
#include "logging/zytlogsite.h"
#include "support.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
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

    std::string Line(const char* function, const char* text) {
        return zyttest::Text("V zytsignaltask.cpp %s() [%p] %s", function, static_cast<void*>(&m_task), text);
    }

    // Connects a task of which no other copy is left, and returns its flags: alive and done.
    std::pair<std::shared_ptr<bool>, std::shared_ptr<bool>> Connect(uint64_t id, const std::function<void()>& work) {
        WrapperTask task = Wrap(work);
        EXPECT_EQ(m_task.insert(id, WrapperTask(task)), 1u);
        return {task.m_isAlive, task.m_isDone};
    }

    // Returns when the loop runs this task, after everything that was raised before.
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

    // Occupies the loop until told otherwise, so that what is raised stays pending; longer than any test waits.
    void HoldLoop() {
        RunNow(~1ull, [this] {
            while (!m_isReleased) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        });
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

ZYT_CHILD(RunAnEmptyCallable) { return RunToTheEnd({}); }

ZYT_CHILD(LogAtExit) {
    ZYTLogUtil::m_level = 5;
    ZYTSignalTask::instance();
    return 0;
}

}  // namespace

TEST_F(SignalTask, RunsAConnectedTaskOnceOnItsOwnThread) {
    std::atomic<int> runs{0};
    std::string threadName(16, '\0');
    const WrapperTask task = Wrap([&] {
        pthread_getname_np(pthread_self(), threadName.data(), threadName.size());
        ++runs;
    });
    EXPECT_EQ(m_task.insert(5, WrapperTask(task)), 1u);
    m_task.signal(5);
    m_task.signal(6);  // nothing is connected: lost
    Settle();
    EXPECT_EQ(runs, 1);
    EXPECT_STREQ(threadName.c_str(), "ZYTSignalTask");
    EXPECT_TRUE(zyt::LoadFlag(*task.m_isDone));
    EXPECT_TRUE(zyt::LoadFlag(*task.m_isAlive));
    for (const uint64_t id : {6u, 8u}) m_task.insert(id, Wrap([&] { ++runs; }));
    RunNow(7, [this] {
        for (const uint64_t id : {5u, 8u}) m_task.signal(id);
    });
    Settle();
    EXPECT_EQ(runs, 2) << "of 8 alone: a run used up the connection of 5, and the signal 6 came before its own";
}

TEST_F(SignalTask, RunsInTheOrderOfRaisingAndNeverTwiceForAPendingSignal) {
    std::vector<int> order;  // written on the loop thread, read when it has settled
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
    EXPECT_THAT(order, ElementsAre(3, 1, 2));
}

TEST_F(SignalTask, DisconnectsSignalsAndTasks) {
    std::atomic<int> runs{0};
    for (const bool isAll : {false, true}) {
        const auto [isAlive, isDone] = Connect(5, [&runs] { ++runs; });
        EXPECT_TRUE(zyt::LoadFlag(*isAlive)) << "the connection is a copy";
        m_task.disconnect(4);
        m_isReleased = false;
        HoldLoop();
        EXPECT_EQ(m_task.insert(5), 1u);
        // Will wait for the held task's lock.
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
}

TEST_F(SignalTask, AReplacedConnectionKeepsItsFlags) {
    std::atomic<int> runs{0};
    const std::shared_ptr<bool> replacedIsAlive = Connect(5, [&runs] { runs += 10; }).first;
    EXPECT_EQ(m_task.insert(5, Wrap([&runs] { ++runs; })), 1u);
    m_task.signal(5);
    Settle();
    EXPECT_EQ(runs, 1);
    EXPECT_TRUE(zyt::LoadFlag(*replacedIsAlive));
}

TEST(Wrapper, AssignmentSharesAllFourMembersEvenFromATemporary) {
    WrapperTask a;
    WrapperTask b;
    const std::shared_ptr<bool> oldAlive = a.m_isAlive;
    b.m_task = [] {};
    a = std::move(b);
    EXPECT_EQ(a.m_isAlive, b.m_isAlive);
    EXPECT_EQ(a.m_isDone, b.m_isDone);
    EXPECT_EQ(a.m_token, b.m_token);
    EXPECT_TRUE(a.m_task && b.m_task);
    EXPECT_TRUE(*oldAlive) << "assignment is no destruction";

    auto last = std::make_unique<WrapperTask>();
    const std::shared_ptr<bool> isAlive = last->m_isAlive;
    { WrapperTask copy(*last); }
    EXPECT_TRUE(*isAlive);
    *last->m_isDone = true;
    last.reset();
    EXPECT_TRUE(*isAlive) << "it has run";
}

TEST_F(SignalTask, LogsEachStep) {
    Settle();
    LogCapture log;
    HoldLoop();
    log.Take();
    m_task.insert(5);
    m_task.insert(5);
    EXPECT_THAT(log.Take(),
                ElementsAre(Line("insert", "try signal 5"), Line("insert", "success signal 5 with 1 signals left"),
                            Line("insert", "try signal 5")));
    m_isReleased = true;
    m_task.remove(5);
    Settle();
    log.Take();
    m_task.insert(9, Wrap([] {}));
    m_task.remove(9);
    m_task.remove();
    m_task.insert(9, Wrap([] {}));
    m_task.signal(9);
    Settle();
    const std::vector<std::string> lines = log.Take();
    EXPECT_THAT(lines,
                testing::IsSupersetOf(
                    {Line("insert", "try connect 9"), Line("insert", "success connect 9 with 1 tasks left"),
                     Line("remove", "disconnect 9"), Line("remove", "disconnect all"), Line("loop", "loop alive")}));
    EXPECT_THAT(lines, testing::Contains(Line("loop", "task 9 done")).Times(1));
}

TEST(SignalTaskAtExit, EndsWhenATaskItselfExits) { EXPECT_EQ(zyttest::RunChild("ExitFromATask").exitCode, 7); }

TEST(SignalTaskAtExit, LogsItsEndAndStopsItsLoop) {
    const zyttest::ChildResult child = zyttest::RunChild("LogAtExit");
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_THAT(child.output, HasSubstr("disconnect all"));
    EXPECT_THAT(child.output, HasSubstr("loop stop"));
}

TEST(SignalTaskAtExit, AnEmptyCallableEndsTheProcess) {
    const zyttest::ChildResult child = zyttest::RunChild("RunAnEmptyCallable");
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_THAT(child.output, HasSubstr("bad_function_call"));
}
