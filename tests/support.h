#ifndef ZYT_TESTS_SUPPORT_H
#define ZYT_TESTS_SUPPORT_H

#include <gmock/gmock.h>

#include <csignal>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "zytbuffermanager/zytimagebuffer.h"

/// The statement ends the process with abort(), whatever is caught around it, and says so with these words.
#define EXPECT_ABORT(words, ...) EXPECT_EXIT(__VA_ARGS__, testing::KilledBySignal(SIGABRT), testing::HasSubstr(words))

namespace zyttest {

/// printf into a string, for expected log lines.
__attribute__((format(printf, 1, 2))) std::string Text(const char* format, ...);

/// While it lives, all levels are on and every platform log line lands here, as "L text" with L the priority's letter.
class LogCapture {
public:
    /// onLine sees each line on the thread that logs it, before the line is kept.
    explicit LogCapture(std::function<void(const std::string& line)> onLine = {});
    ~LogCapture();

    /// What was logged since the last call.
    std::vector<std::string> Take();

    /// The same as one text, a line break before each line; `only` the lines that have that in them, the others stay.
    /// Source places are cut out, so that tests survive edits; addresses and descriptors are numbered in the order in
    /// which they appear: @1, @2, and #1, #2.
    std::string Transcript(const std::string& only = "");

private:
    const int m_savedLevel;
    std::mutex m_lock;
    std::vector<std::string> m_lines;
};

/// A directory of its own, removed with everything in it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }
    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);

/// An image without memory.
ZYTImageBuffer Image(int format, uint32_t width, uint32_t height, uint32_t planeStride, uint32_t sliceHeight);

/// Polls until the condition holds; false after a generous time, which only a hang exceeds.
bool WaitUntil(const std::function<bool()>& condition);

struct ChildResult {
    int exitCode = -1;  // -1 when a signal ended it
    int signal = 0;
    std::string output;  // stdout and stderr
};

/// Runs a command, words with blanks between, without a shell. Settings ("NAME=value") come before this process's
/// environment.
ChildResult RunCommand(const std::string& command, const std::vector<std::string>& settings = {});

/// The same for a program of the build tree, given by its path there.
ChildResult RunBuilt(const std::string& command, const std::vector<std::string>& settings = {});

/// That such a program ends with status 2, and that its last line has its name and the reason. Returns all it said.
std::string ExpectRefusal(const std::string& command, const std::string& reason);

/// Runs a body declared with ZYT_CHILD in a fresh process of this executable: load, static initialisers, and exit are
/// those of a new process, with these system properties and no others. SIGALRM ends one that hangs.
ChildResult RunChild(const std::string& name, const std::map<std::string, std::string>& properties = {});

bool RegisterChild(const char* name, int (*body)());

/// Declares a body for RunChild; its result is the exit code, unless static destructors or exit() decide otherwise.
#define ZYT_CHILD(name)                                                                    \
    static int Child_##name();                                                             \
    static const bool g_isRegistered_##name = zyttest::RegisterChild(#name, Child_##name); \
    static int Child_##name()

}  // namespace zyttest

#endif  // ZYT_TESTS_SUPPORT_H
