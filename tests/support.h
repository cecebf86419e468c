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

/// Expects that the statement ends the process with abort(), despite any catch around it, and prints these words.
#define EXPECT_ABORT(words, ...) EXPECT_EXIT(__VA_ARGS__, testing::KilledBySignal(SIGABRT), testing::HasSubstr(words))

namespace zyttest {

/// Returns the text of a printf format, for expected log lines.
__attribute__((format(printf, 1, 2))) std::string Text(const char* format, ...);

/// Enables all log levels and collects the platform log lines, as "L text" with L the priority's letter.
class LogCapture {
public:
    /// onLine is called with each line on the logging thread, before the line is stored.
    explicit LogCapture(std::function<void(const std::string& line)> onLine = {});
    ~LogCapture();

    /// Returns the lines logged since the last call.
    std::vector<std::string> Take();

    /// Like Take(), as one text with a line break before each line. With `only`, takes the lines that contain it and
    /// keeps the others. Source locations are removed, so that tests survive edits. Addresses and descriptors become
    /// "@1", "@2" and "#1", "#2" in order of appearance.
    std::string Transcript(const std::string& only = "");

private:
    const int m_savedLevel;
    std::mutex m_lock;
    std::vector<std::string> m_lines;
};

/// A temporary directory, removed with its contents by the destructor.
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

/// Returns an image record without memory.
ZYTImageBuffer Image(int format, uint32_t width, uint32_t height, uint32_t planeStride, uint32_t sliceHeight);

/// Calls that can fail: kNew in a test with failnew.cpp, in the libraries too; the others in faultsweep_test.
enum class Call { kNew, kMalloc, kFopen, kMmap, kPthreadCreate };

/// Makes the n-th such call of this thread from now on fail once; 0: none.
void FailNth(Call call, uint64_t n);
/// Returns true while the call that is to fail has not been reached.
bool FaultPending(Call call);
/// Counts a call. Returns true when this one must fail.
bool Fails(Call call);

/// Expects that a process that runs the body says that on stderr and exits with the status, or with 1 when one of the
/// body's expectations fails. A status of -1 stands for all but 0, and for death by a signal.
void ExpectExit(int status, const std::string& said, const std::function<void()>& body);

/// Polls until the condition holds. Returns false after a timeout that only a hang exceeds.
bool WaitUntil(const std::function<bool()>& condition);

struct ChildResult {
    int exitCode = 0;    // -N when signal N ended it
    std::string output;  // stdout and stderr
};

/// Runs a command, whose words are separated by blanks, without a shell.
ChildResult RunCommand(const std::string& command);

/// Like RunCommand, for a program given by its path in the build tree.
ChildResult RunBuilt(const std::string& command);

/// Expects such a program to exit with status 2 and a last line with its name and the reason. Returns its output.
std::string ExpectRefusal(const std::string& command, const std::string& reason);

/// Runs a body declared with ZYT_CHILD in a new process of this executable, with load, static initialisers and exit,
/// and with only these system properties. SIGALRM ends a process that hangs.
ChildResult RunChild(const std::string& name, const std::map<std::string, std::string>& properties = {});

bool RegisterChild(const char* name, int (*body)());

/// Declares a body for RunChild. Its result is the exit code, unless a static destructor or exit() changes it.
#define ZYT_CHILD(name)                                                                    \
    static int Child_##name();                                                             \
    static const bool g_isRegistered_##name = zyttest::RegisterChild(#name, Child_##name); \
    static int Child_##name()

}  // namespace zyttest

#endif  // ZYT_TESTS_SUPPORT_H
