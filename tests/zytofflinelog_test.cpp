#include "logging/zytofflinelog.h"

#include <cutils/properties.h>
#include <hostdevice/files.h>
#include <hostdevice/hostdevice.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <new>
#include <set>
#include <sstream>
#include <thread>

#include "base/zytsharedflag.h"
#include "support.h"
#include "zytsignaltask/zytsignaltask.h"

using zyttest::ReadFile;
using zyttest::RunChild;
using zyttest::Text;

namespace {

namespace fs = std::filesystem;

constexpr const char* kSwitchProperty = "persist.vendor.camera.zyttools.offlinelog";
constexpr const char* kFrameworkProperty = "test.framework";  // value for the framework's switch

ptrdiff_t FilesInLogDir() {
    return std::distance(fs::directory_iterator(hostdevice::OfflineLogDir()), fs::directory_iterator());
}

// Turns the process's log on for one test.
class OfflineLog : public testing::Test {
protected:
    void SetUp() override {
        zyt::StoreFlag(m_log.m_enable, true);
        StartNextFile();
    }

    void TearDown() override {
        zyt::StoreFlag(m_log.m_enable, false);
        Drain();
        m_log.m_logFileList.clear();
    }

    // Joins the workers, after which all queued lines are in their files.
    void Drain() {
        m_log.m_threadPool.DeInit(false);
        m_log.m_threadPool.Init(ZYTOfflineLog::kWorkerCount);
    }

    void WaitUntilQueueIsEmpty() {
        EXPECT_TRUE(zyttest::WaitUntil([this] {
            std::lock_guard<std::mutex> lock(m_log.m_threadPool.m_taskListLock);
            return m_log.m_threadPool.m_taskList.empty();
        }));
    }

    void SetFileSize(uint32_t size) {
        std::lock_guard<std::mutex> lock(m_log.m_logFileLock);
        m_log.m_curLogFileSize = size;
    }

    void StartNextFile() { SetFileSize(ZYTOfflineLog::kFileSizeLimit); }

    // Returns the contents of the log's files, oldest first.
    std::vector<std::string> Contents() {
        std::vector<std::string> contents;
        for (const std::string& file : m_log.m_logFileList) contents.push_back(ReadFile(file));
        return contents;
    }

    bool WriteLine(const std::string& text) {
        ZYTOfflineLogParameter param{};
        text.copy(param.logLine, sizeof(param.logLine) - 1);
        return m_log.FlushLogPoolToFile2(&param);
    }

    ZYTOfflineLog& m_log = ZYTOfflineLog::GetInstance();
};

ZYT_CHILD(PrintSwitch) {
    hostdevice::SetOfflineLogSwitch(property_get_int32(kFrameworkProperty, 0) != 0);
    ZYTOfflineLog::ZYTOfflineLogV("starts the workers, even when it is off");
    ptrdiff_t workers = 0;
    for (const auto& task : fs::directory_iterator("/proc/self/task")) {
        workers += ReadFile(task.path() / "comm") == "ZYTOfflineLog\n";
    }
    ZYTOfflineLog& log = ZYTOfflineLog::GetInstance();
    log.m_threadPool.DeInit(false);
    std::cout << log.m_enable << log.m_previewEnable << log.m_captureEnable << workers << log.m_logFileList.size();
    return 0;
}

// Keeps a worker busy until the log's destructor has queued the stop tasks.
void WaitForStop(void*, unsigned int) {
    ZYTThreadPool& pool = ZYTOfflineLog::GetInstance().m_threadPool;
    for (bool isStopped = false; !isStopped; std::this_thread::yield()) {
        std::lock_guard<std::mutex> lock(pool.m_taskListLock);
        isStopped = !pool.m_taskList.empty() && pool.m_taskList.back().type == ZYT_THREAD_POOL_TASK_STOP;
    }
}

ZYT_CHILD(ExitWithALineQueued) {
    ZYTThreadPool& pool = ZYTOfflineLog::GetInstance().m_threadPool;
    for (unsigned int i = 0; i < ZYTOfflineLog::kWorkerCount; ++i) {
        pool.QueueTask({ZYT_THREAD_POOL_TASK_NORMAL, WaitForStop, nullptr, 0});
    }
    ZYTOfflineLog::GetInstance().PushLogToLogPool("queued", ZYTOfflineLogLevel::E);
    return 0;
}

// Uses both for the first time in a child.
ZYT_CHILD(ForkFirst) {
    if (fork() == 0) {
        ZYTOfflineLog& log = ZYTOfflineLog::GetInstance();
        zyt::StoreFlag(log.m_enable, true);
        ZYTOfflineLog::ZYTOfflineLogE("from the child");
        std::atomic<bool> isRun{false};
        WrapperTask task;
        task.m_task = [&isRun] { isRun = true; };
        ZYTSignalTask::instance()->insert(1, std::move(task));
        ZYTSignalTask::instance()->signal(1);
        const bool isDone = zyttest::WaitUntil([&isRun] { return isRun.load(); });
        log.m_threadPool.DeInit(false);
        _exit(isDone && ReadFile(log.m_curLogFileName).find("from the child\n") != std::string::npos ? 7 : 1);
    }
    int status = 1;
    wait(&status);
    return WEXITSTATUS(status);
}

}  // namespace

TEST_F(OfflineLog, StampsALineAndKeepsEveryLevel) {
    m_log.m_threadPool.DeInit(false);
    m_log.m_threadPool.Init(1);  // one worker, which keeps the lines in order
    ZYTOfflineLog::ZYTOfflineLogE("text %d", 1);
    ZYTOfflineLog::ZYTOfflineLogW("text %d", 2);
    ZYTOfflineLog::ZYTOfflineLogD("text %d", 3);
    ZYTOfflineLog::ZYTOfflineLogI("text %d", 4);
    ZYTOfflineLog::ZYTOfflineLogV("text %d", 5);
    for (const int level : {9, 0}) m_log.PushLogToLogPool("text 6", static_cast<ZYTOfflineLogLevel>(level));
    ZYTOfflineLog::ZYTOfflineLogE("%s", std::string(3000, 'x').c_str());
    Drain();

    ASSERT_EQ(Contents().size(), 1u);
    std::istringstream lines(Contents()[0]);
    std::string line;
    for (const char* end : {"E ZYT: text 1", "W ZYT: text 2", "D ZYT: text 3", "I ZYT: text 4", "V ZYT: text 5",
                            "V ZYT: text 6", "V ZYT: text 6", "E ZYT: x+"}) {
        std::getline(lines, line);
        EXPECT_THAT(line,
                    testing::MatchesRegex(Text("[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}:[0-9]{9}  %4d  %4d %s",
                                               getpid(), gettid(), end)));
    }
    EXPECT_TRUE(lines.eof()) << "a line that is cut loses its newline";
    EXPECT_EQ(line.size(), 2047u);
}

TEST_F(OfflineLog, StampsWithTheZonesTimeAndTheThreadThatLogs) {
    const std::pair<const char*, int> zones[] = {{"AAA-13:45", 49500}, {"BBB+9:15", -33300}};
    for (const auto& [zone, offset] : zones) {
        setenv("TZ", zone, 1);
        // Waits for the next second, because the stamp of a second is cached.
        EXPECT_TRUE(zyttest::WaitUntil([set = time(nullptr)] { return time(nullptr) > set; }));
        const auto now = [offset = offset](const char* format) {
            timespec time{};
            clock_gettime(CLOCK_REALTIME, &time);
            time.tv_sec += offset;
            char text[64] = {};
            std::strftime(text, sizeof(text), format, std::gmtime(&time.tv_sec));
            return Text("%s%09ld", text, time.tv_nsec);
        };
        const auto nowInAName = [&now] { return now("ZYTOfflineLog_%Y-%m-%d--%H-%M-%S-"); };
        StartNextFile();
        const std::string before = now("%m-%d %H:%M:%S:"), earlier = nowInAName();
        m_log.PushLogToLogPool("", ZYTOfflineLogLevel::E);
        Drain();
        const std::string line = Contents().back(), name = fs::path(m_log.m_logFileList.back()).filename();
        EXPECT_TRUE(before <= line && line.substr(0, before.size()) <= now("%m-%d %H:%M:%S:")) << line;
        const size_t stamped = earlier.size() - 3;  // to the microsecond
        EXPECT_TRUE(earlier.substr(0, stamped) <= name && name.substr(0, stamped) <= nowInAName()) << name;
        EXPECT_EQ(name.substr(stamped), ".txt");
    }
    unsetenv("TZ");

    std::string ids;
    std::thread([this, &ids] {
        ids = Text("  %4d  %4d E ", getpid(), gettid());
        m_log.PushLogToLogPool("", ZYTOfflineLogLevel::E);
    }).join();
    Drain();
    EXPECT_THAT(Contents().back(), testing::HasSubstr(ids));
}

TEST_F(OfflineLog, RollsOverWhenALineWouldReachTheLimitAndDeletesTheOldestOf301Files) {
    constexpr uint32_t kLimit = ZYTOfflineLog::kFileSizeLimit;
    const std::string line = "0123456789\n";
    for (const uint32_t size : {kLimit, 11u, kLimit - 12, kLimit - 11}) {
        SetFileSize(size);
        ASSERT_TRUE(WriteLine(line));
    }
    EXPECT_THAT(Contents(), testing::ElementsAre(line + line + line, line)) << "one byte below the limit still fits";
    EXPECT_EQ(m_log.m_curLogFileSize, 11u);

    const std::list<std::string> oldest = m_log.m_logFileList;
    for (int i = 0; i < 300; ++i) {
        StartNextFile();
        ASSERT_TRUE(WriteLine(line));
    }
    for (const std::string& file : oldest) EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(Contents(), std::vector<std::string>(300, line));
}

TEST_F(OfflineLog, KeepsEachLineOnceAndWholeAcrossRollOvers) {
    constexpr int kThreads = 8;
    constexpr int kLinesEach = 400;
    const auto text = [](int t, int i) {
        return Text("<%d:%d %s>", t, i, std::string(static_cast<size_t>(i), 'x').c_str());
    };
    ASSERT_TRUE(WriteLine("<first>\n"));
    std::vector<std::thread> threads;
    std::multiset<std::string> expected = {"<first>"}, found;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t, &text] {
            for (int i = 0; i < kLinesEach; ++i) {
                if (i % 16 == 0) {
                    WaitUntilQueueIsEmpty();  // so that the following lines are written after the next one
                    SetFileSize(ZYTOfflineLog::kFileSizeLimit - 300);
                }
                ZYTOfflineLog::ZYTOfflineLogI("%s", text(t, i).c_str());
            }
        });
        for (int i = 0; i < kLinesEach; ++i) expected.insert(text(t, i));
    }
    for (std::thread& thread : threads) thread.join();
    Drain();

    EXPECT_GT(Contents().size(), 10u);
    for (const std::string& content : Contents()) {
        std::istringstream lines(content);
        for (std::string line; std::getline(lines, line);) found.insert(line.substr(line.find('<')));
    }
    EXPECT_TRUE(found == expected);
}

TEST_F(OfflineLog, LosesLinesThatCannotBeWrittenAndTriesAgain) {
    const fs::path dir = fs::path(hostdevice::OfflineLogDir()).parent_path();
    const fs::path aside = dir.string() + ".aside";
    fs::rename(dir, aside);
    EXPECT_FALSE(WriteLine("lost\n"));
    EXPECT_FALSE(m_log.FlushLogPoolToFile());
    EXPECT_EQ(m_log.m_curLogFileSize, ZYTOfflineLog::kFileSizeLimit) << "so that the next line opens a file again";
    fs::rename(aside, dir);
    EXPECT_TRUE(WriteLine("kept\n"));
    ASSERT_EQ(m_log.m_logFileList.size(), 1u);

    const std::string file = m_log.m_logFileList.front();
    fs::rename(file, aside);
    fs::create_symlink("/dev/full", file);
    EXPECT_TRUE(WriteLine("lost\n")) << "a write that fails counts as one";
    fs::remove(file);
    fs::create_directory(file);  // makes the next append fail
    EXPECT_FALSE(WriteLine("lost\n"));
    EXPECT_EQ(m_log.m_curLogFileSize, 10u);
    fs::remove(file);
    fs::rename(aside, file);
    EXPECT_TRUE(WriteLine("kept\n"));
    EXPECT_THAT(Contents(), testing::ElementsAre("kept\nkept\n"));
}

TEST_F(OfflineLog, AppendsToACurrentFileWhosePathIsLong) {
    const fs::path folder = fs::path(hostdevice::OfflineLogDir()) / std::string(200, 'a') / std::string(200, 'b');
    fs::create_directories(folder);
    m_log.m_curLogFileName = folder / "log";
    SetFileSize(0);
    ASSERT_TRUE(WriteLine("line\n"));
    EXPECT_EQ(ReadFile(folder / "log"), "line\n");
}

TEST_F(OfflineLog, KeepsNothingOfALineThatCannotBeQueued) {
    FailNth(zyttest::Call::kNew, 1);
    EXPECT_THROW(m_log.PushLogToLogPool("lost", ZYTOfflineLogLevel::E), std::bad_alloc);
    m_log.PushLogToLogPool("kept", ZYTOfflineLogLevel::E);
    Drain();
    EXPECT_THAT(Contents(), testing::ElementsAre(testing::EndsWith("kept\n")));
}

TEST_F(OfflineLog, SavesWholeBlocksAndThePoolToAFileOfItsOwn) {
    ZYTOfflineLogParameter param{"line\n"};
    ZYTOfflineLog::SaveLog(&param, 2047);
    ZYTOfflineLog::SaveLog(nullptr, 2048);
    EXPECT_TRUE(m_log.m_logFileList.empty());
    ZYTOfflineLog::SaveLog(&param, 2048);
    const std::string content = "what a client left in the pool";
    content.copy(m_log.m_logPool, content.size());
    m_log.m_logPoolSize = static_cast<uint32_t>(content.size());
    ASSERT_TRUE(m_log.FlushLogPoolToFile());
    EXPECT_EQ(m_log.m_logPoolSize, 0u);
    EXPECT_EQ(m_log.m_logPool[0], '\0');
    ASSERT_TRUE(WriteLine("more\n"));
    EXPECT_THAT(Contents(), testing::ElementsAre("line\nmore\n", content)) << "the line writer keeps its own file";
}

TEST(OfflineLogSwitch, IsThePropertyAndWithoutItTheFrameworks) {
    const auto print = [](const char* property, const char* framework) {
        return RunChild("PrintSwitch", {{kSwitchProperty, property}, {kFrameworkProperty, framework}}).output;
    };
    const std::string on = "111101", off = "000100";
    for (const char* property : {"1", "7"}) EXPECT_EQ(print(property, "0"), on) << property;
    for (const char* property : {"0", "-5"}) EXPECT_EQ(print(property, "1"), off) << property;
    for (const char* unset : {"-1", ""}) {
        EXPECT_EQ(print(unset, "1"), on) << unset;
        EXPECT_EQ(print(unset, "0"), off) << unset;
    }
}

TEST(OfflineLogInAChild, IsWholeWhenTheChildIsTheFirstToUseIt) { EXPECT_EQ(RunChild("ForkFirst").exitCode, 7); }

TEST(OfflineLogAtExit, DiscardsWhatIsQueued) {
    const ptrdiff_t before = FilesInLogDir();
    EXPECT_EQ(RunChild("ExitWithALineQueued").exitCode, 0);
    EXPECT_EQ(FilesInLogDir(), before);
}
