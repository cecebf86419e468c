#include "logging/zytofflinelog.h"

#include <cutils/properties.h>
#include <gmock/gmock.h>
#include <hostdevice/files.h>
#include <hostdevice/hostdevice.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <thread>

#include "base/zytsharedflag.h"
#include "support.h"

using testing::MatchesRegex;
using zyttest::RunChild;

namespace {

namespace fs = std::filesystem;

constexpr const char* kSwitchProperty = "persist.vendor.camera.zyttools.offlinelog";
constexpr const char* kFrameworkProperty = "test.framework";  // what the framework's switch is set to

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

size_t FilesInLogDir() {
    return static_cast<size_t>(
        std::distance(fs::directory_iterator(hostdevice::OfflineLogDir()), fs::directory_iterator()));
}

// Switches the process's log on for one test and takes the files it made away again.
class OfflineLog : public testing::Test {
protected:
    void SetUp() override {
        m_filesBefore = FilesInLogDir();
        zyt::StoreFlag(m_log.m_enable, true);
        StartNextFile();
    }

    void TearDown() override {
        zyt::StoreFlag(m_log.m_enable, false);
        Drain();
        std::lock_guard<std::mutex> lock(m_log.m_logFileListLock);
        m_log.m_logFileList.clear();
    }

    // All queued lines are in their files once the workers have been joined.
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

    uint32_t FileSize() {
        std::lock_guard<std::mutex> lock(m_log.m_logFileLock);
        return m_log.m_curLogFileSize;
    }

    void StartNextFile() { SetFileSize(ZYTOfflineLog::kFileSizeLimit); }

    std::vector<std::string> Files() {
        std::lock_guard<std::mutex> lock(m_log.m_logFileListLock);
        return {m_log.m_logFileList.begin(), m_log.m_logFileList.end()};
    }

    bool WriteLine(const std::string& text) {
        ZYTOfflineLogParameter param{};
        text.copy(param.logLine, sizeof(param.logLine) - 1);
        return m_log.FlushLogPoolToFile2(&param);
    }

    const zyttest::LogDir m_dir;
    ZYTOfflineLog& m_log = ZYTOfflineLog::GetInstance();
    size_t m_filesBefore = 0;
};

ptrdiff_t CountThreads() { return std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator()); }

ZYT_CHILD(PrintSwitch) {
    hostdevice::SetOfflineLogSwitch(property_get_int32(kFrameworkProperty, 0) != 0);
    const ptrdiff_t before = CountThreads();
    ZYTOfflineLog::ZYTOfflineLogV("starts the workers, even when it is off");
    const bool hasWorkers = CountThreads() - before >= ZYTOfflineLog::kWorkerCount;  // a sanitizer may add its own
    ZYTOfflineLog& log = ZYTOfflineLog::GetInstance();
    log.m_threadPool.DeInit(false);
    std::cout << log.m_enable << log.m_previewEnable << log.m_captureEnable << hasWorkers << log.m_logFileList.size();
    for (const std::string& file : log.m_logFileList) fs::remove(file);
    return 0;
}

}  // namespace

TEST_F(OfflineLog, StampsALineAndKeepsEveryLevel) {
    ZYTOfflineLog::ZYTOfflineLogE("text %d", 1);
    ZYTOfflineLog::ZYTOfflineLogW("text %d", 2);
    ZYTOfflineLog::ZYTOfflineLogD("text %d", 3);
    ZYTOfflineLog::ZYTOfflineLogI("text %d", 4);
    ZYTOfflineLog::ZYTOfflineLogV("text %d", 5);
    m_log.PushLogToLogPool("text 6", static_cast<ZYTOfflineLogLevel>(9));
    m_log.PushLogToLogPool("text 7", static_cast<ZYTOfflineLogLevel>(0));
    Drain();

    ASSERT_EQ(Files().size(), 1u);
    EXPECT_THAT(
        Files()[0],
        MatchesRegex(
            hostdevice::OfflineLogDir() +
            std::string("ZYTOfflineLog_[0-9]{4}-[0-9]{2}-[0-9]{2}--[0-9]{2}-[0-9]{2}-[0-9]{2}-[0-9]{6}\\.txt")));
    std::vector<std::string> lines = Lines(zyttest::ReadFile(Files()[0]));
    std::sort(lines.begin(), lines.end(),
              [](const std::string& a, const std::string& b) { return a.back() < b.back(); });
    const std::string letters = "EWDIVVV";
    ASSERT_EQ(lines.size(), letters.size());
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string ids = zyttest::Text("  %4d  %4d ", getpid(), gettid());
        EXPECT_THAT(lines[i], MatchesRegex("[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}:[0-9]{9}" + ids + letters[i] +
                                           " ZYT: text " + std::to_string(i + 1)));
    }
}

TEST_F(OfflineLog, CutsALongLineWithItsNewline) {
    ZYTOfflineLog::ZYTOfflineLogE("%s", std::string(3000, 'x').c_str());
    Drain();
    ASSERT_EQ(Files().size(), 1u);
    const std::string content = zyttest::ReadFile(Files()[0]);
    EXPECT_EQ(content.size(), 2047u);
    EXPECT_EQ(content.back(), 'x');
}

TEST_F(OfflineLog, RollsOverWhenALineWouldReachTheLimit) {
    const std::string line = "0123456789\n";
    const auto length = static_cast<uint32_t>(line.size());
    ASSERT_TRUE(WriteLine(line));
    ASSERT_TRUE(WriteLine(line));
    EXPECT_EQ(Files().size(), 1u);
    EXPECT_EQ(FileSize(), 2 * length);

    SetFileSize(ZYTOfflineLog::kFileSizeLimit - length - 1);
    ASSERT_TRUE(WriteLine(line));
    EXPECT_EQ(Files().size(), 1u) << "one byte below the limit still fits";
    SetFileSize(ZYTOfflineLog::kFileSizeLimit - length);
    ASSERT_TRUE(WriteLine(line));
    ASSERT_EQ(Files().size(), 2u);
    EXPECT_EQ(zyttest::ReadFile(Files()[0]), line + line + line);
    EXPECT_EQ(zyttest::ReadFile(Files()[1]), line);
    EXPECT_EQ(FileSize(), length);
}

TEST_F(OfflineLog, KeepsItsLast300Files) {
    for (int i = 0; i < 302; ++i) {
        StartNextFile();
        ASSERT_TRUE(WriteLine("line\n"));
    }
    EXPECT_EQ(Files().size(), 300u);
    EXPECT_EQ(FilesInLogDir() - m_filesBefore, 300u);
}

TEST_F(OfflineLog, KeepsEachLineOnceAndWholeAcrossRollOvers) {
    constexpr int kThreads = 8;
    constexpr int kLinesEach = 400;
    const auto text = [](int t, int i) {
        return zyttest::Text("<%d:%d %s>", t, i, std::string(static_cast<size_t>(i), 'x').c_str());
    };
    ASSERT_TRUE(WriteLine("<first>\n"));
    std::vector<std::thread> threads;
    std::vector<std::string> expected = {"<first>"};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t, &text] {
            for (int i = 0; i < kLinesEach; ++i) {
                if (i % 16 == 0) {
                    WaitUntilQueueIsEmpty();  // so that what follows is written after the next line
                    SetFileSize(ZYTOfflineLog::kFileSizeLimit - 300);
                }
                ZYTOfflineLog::ZYTOfflineLogI("%s", text(t, i).c_str());
            }
        });
        for (int i = 0; i < kLinesEach; ++i) expected.push_back(text(t, i));
    }
    for (std::thread& thread : threads) thread.join();
    Drain();

    std::vector<std::string> found;
    for (const std::string& file : Files()) {
        for (const std::string& line : Lines(zyttest::ReadFile(file))) found.push_back(line.substr(line.find('<')));
    }
    EXPECT_GT(Files().size(), 10u);
    std::sort(expected.begin(), expected.end());
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found.size(), expected.size());
    EXPECT_TRUE(found == expected);
}

TEST_F(OfflineLog, LosesALineThatCannotBeWrittenAndTriesAgain) {
    const fs::path dir = fs::path(hostdevice::OfflineLogDir()).parent_path();
    const fs::path aside = dir.string() + ".aside";
    fs::rename(dir, aside);
    EXPECT_FALSE(WriteLine("lost\n"));
    EXPECT_FALSE(m_log.FlushLogPoolToFile());
    EXPECT_EQ(FileSize(), ZYTOfflineLog::kFileSizeLimit) << "so that the next line opens a file again";
    fs::rename(aside, dir);
    EXPECT_TRUE(WriteLine("kept\n"));
    ASSERT_EQ(Files().size(), 1u);

    fs::remove(Files()[0]);
    fs::create_directory(Files()[0]);  // an append now fails
    EXPECT_FALSE(WriteLine("lost\n"));
    EXPECT_EQ(FileSize(), 5u);
    EXPECT_EQ(Files().size(), 1u);
}

TEST_F(OfflineLog, LosesLinesOnAFullDiskOnly) {
    ASSERT_TRUE(WriteLine("first\n"));
    fs::rename(Files()[0], Files()[0] + ".aside");
    fs::create_symlink("/dev/full", Files()[0]);
    EXPECT_TRUE(WriteLine("lost\n")) << "a write that fails counts as one";
    EXPECT_EQ(FileSize(), 11u);
    fs::rename(Files()[0] + ".aside", Files()[0]);
    EXPECT_TRUE(WriteLine("kept\n"));
    EXPECT_EQ(zyttest::ReadFile(Files()[0]), "first\nkept\n");
}

TEST_F(OfflineLog, FlushesThePoolToAFileOfItsOwn) {
    ASSERT_TRUE(WriteLine("line\n"));
    const std::string content = "what a client left in the pool";
    content.copy(m_log.m_logPool, content.size());
    m_log.m_logPoolSize = static_cast<uint32_t>(content.size());
    ASSERT_TRUE(m_log.FlushLogPoolToFile());
    EXPECT_EQ(m_log.m_logPoolSize, 0u);
    EXPECT_EQ(m_log.m_logPool[0], '\0');
    ASSERT_EQ(Files().size(), 2u);
    EXPECT_EQ(zyttest::ReadFile(Files()[1]), content);

    ASSERT_TRUE(WriteLine("more\n"));
    EXPECT_EQ(zyttest::ReadFile(Files()[0]), "line\nmore\n") << "the line writer keeps its own file";
}

TEST_F(OfflineLog, SavesOnlyWholeBlocks) {
    ZYTOfflineLogParameter param{"line\n"};
    ZYTOfflineLog::SaveLog(&param, 2047);
    ZYTOfflineLog::SaveLog(nullptr, 2048);
    EXPECT_TRUE(Files().empty());
    ZYTOfflineLog::SaveLog(&param, 2048);
    ASSERT_EQ(Files().size(), 1u);
    EXPECT_EQ(zyttest::ReadFile(Files()[0]), "line\n");
}

TEST(OfflineLogSwitch, IsThePropertyAndWithoutItTheFrameworks) {
    const zyttest::LogDir dir;
    const auto print = [](const char* property, const char* framework) {
        return RunChild("PrintSwitch", {{kSwitchProperty, property}, {kFrameworkProperty, framework}}).output;
    };
    const std::string on = "11111", off = "00010";
    for (const char* property : {"1", "7"}) EXPECT_EQ(print(property, "0"), on) << property;
    for (const char* property : {"0", "-5"}) EXPECT_EQ(print(property, "1"), off) << property;
    for (const char* unset : {"-1", ""}) {
        EXPECT_EQ(print(unset, "1"), on) << unset;
        EXPECT_EQ(print(unset, "0"), off) << unset;
    }
}
