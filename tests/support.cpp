#include "support.h"

#include <fcntl.h>
#include <hostdevice/hostdevice.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <thread>

#include "logging/zytlogsite.h"

using testing::HasSubstr;

namespace zyttest {
namespace {

std::map<std::string, int (*)()>& Children() {
    static std::map<std::string, int (*)()> children;
    return children;
}

char PriorityLetter(int priority) { return priority >= 2 && priority <= 6 ? "VDIWE"[priority - 2] : '?'; }

// Atomic, because other threads may be logging.
void SetLevel(int level) { __atomic_store_n(&ZYTLogUtil::m_level, level, __ATOMIC_RELAXED); }

thread_local uint64_t t_callsUntilFailure[5] = {};  // by kind; 0: none fails

uint64_t& CallsUntilFailure(Call call) { return t_callsUntilFailure[static_cast<int>(call)]; }

std::filesystem::path Self() { return std::filesystem::read_symlink("/proc/self/exe"); }

int ExitCode(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status); }

}  // namespace

std::string Text(const char* format, ...) {
    va_list args;
    va_start(args, format);
    char text[4096];
    std::vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    return text;
}

LogCapture::LogCapture(std::function<void(const std::string& line)> onLine) : m_savedLevel(ZYTLogUtil::m_level) {
    // The first log call of a process starts the offline log's workers, which log lines of their own.
    ZYTOfflineLog::GetInstance();
    SetLevel(5);
    hostdevice::SetLogSink([this, onLine](int priority, const char*, const char* text) {
        const std::string line = std::string(1, PriorityLetter(priority)) + " " + text;
        if (onLine) onLine(line);
        std::lock_guard<std::mutex> lock(m_lock);
        m_lines.push_back(line);
    });
}

LogCapture::~LogCapture() {
    hostdevice::SetLogSink({});
    SetLevel(m_savedLevel);
}

std::vector<std::string> LogCapture::Take() {
    std::lock_guard<std::mutex> lock(m_lock);
    return std::exchange(m_lines, {});
}

std::string LogCapture::Transcript(const std::string& only) {
    static const std::regex kPlace("[a-z]+\\.cpp:[0-9]+ "), kNumbered("(0x|fd[0-3]?[:,] )([1-9a-f][0-9a-f]*)");
    std::string rest, text;
    for (const std::string& line : Take()) {
        if (line.find(only) == std::string::npos) {
            std::lock_guard<std::mutex> lock(m_lock);
            m_lines.push_back(line);
        } else {
            rest += "\n" + std::regex_replace(line, kPlace, "");
        }
    }
    std::map<std::string, size_t> addresses, descriptors;
    for (std::smatch match; std::regex_search(rest, match, kNumbered); rest = match.suffix()) {
        const bool isAddress = match[1] == "0x";
        std::map<std::string, size_t>& seen = isAddress ? addresses : descriptors;
        const size_t number = seen.emplace(match[2], seen.size() + 1).first->second;
        text += match.prefix().str() + (isAddress ? "@" : match[1].str() + "#") + std::to_string(number);
    }
    return text + rest;
}

TempDir::TempDir() {
    std::string path = (std::filesystem::temp_directory_path() / "zyttools-test-XXXXXX").string();
    if (mkdtemp(path.data()) == nullptr) std::abort();
    m_path = path;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

ZYTImageBuffer Image(int format, uint32_t width, uint32_t height, uint32_t planeStride, uint32_t sliceHeight) {
    return {static_cast<ZYTFormat>(format), width, height, planeStride, sliceHeight, 0, {}, {}, nullptr};
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

void FailNth(Call call, uint64_t n) { CallsUntilFailure(call) = n; }

bool FaultPending(Call call) { return CallsUntilFailure(call) != 0; }

bool Fails(Call call) { return FaultPending(call) && --CallsUntilFailure(call) == 0; }

void ExpectExit(int status, const std::string& said, const std::function<void()>& body) {
    const auto run = [&body] {
        body();
        std::exit(testing::Test::HasFailure() ? 1 : 0);
    };
    const auto isExpected = [status](int end) { return status == -1 ? end != 0 : ExitCode(end) == status; };
    EXPECT_EXIT(run(), isExpected, said);
}

bool WaitUntil(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(ZYT_TIME_LIMIT);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

ChildResult RunCommand(const std::string& command) {
    std::istringstream stream(command);
    std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);

    const TempDir dir;
    const std::string output = dir / "output";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    pid_t pid = 0;
    const int error = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) return {-1, std::strerror(error)};
    int status = 0;
    waitpid(pid, &status, 0);
    return {ExitCode(status), ReadFile(output)};
}

ChildResult RunBuilt(const std::string& command) {
    return RunCommand((Self().parent_path().parent_path() / command).string());
}

std::string ExpectRefusal(const std::string& command, const std::string& reason) {
    const ChildResult result = RunBuilt(command);
    EXPECT_EQ(result.exitCode, 2) << result.output;
    const size_t end = result.output.rfind('\n', result.output.size() - 2);
    const std::string program = std::filesystem::path(command.substr(0, command.find(' '))).filename();
    // All of the output when there is only one line.
    EXPECT_THAT(result.output.substr(end + 1), testing::AllOf(HasSubstr(program + ": "), HasSubstr(reason)));
    return result.output;
}

ChildResult RunChild(const std::string& name, const std::map<std::string, std::string>& properties) {
    const TempDir dir;
    std::string file;
    for (const auto& [key, value] : properties) file.append(key).append("=").append(value).append("\n");
    WriteFile(dir / "build.prop", file);
    setenv("HOSTDEVICE_PROPERTIES", (dir / "build.prop").c_str(), 1);
    const ChildResult result = RunCommand(Self().string() + " --child " + name);
    unsetenv("HOSTDEVICE_PROPERTIES");
    return result;
}

bool RegisterChild(const char* name, int (*body)()) { return Children().emplace(name, body).second; }

}  // namespace zyttest

int main(int argc, char** argv) {
    // Children print no line about strict mode, because tests compare their output.
    if (hostdevice::IsStrict()) setenv("HOSTDEVICE_STRICT", "quiet", 1);
    if (argc == 3 && std::strcmp(argv[1], "--child") == 0) {
        alarm(ZYT_TIME_LIMIT);
        const auto child = zyttest::Children().find(argv[2]);
        return child != zyttest::Children().end() ? child->second() : 99;
    }
    const bool isDeathTest =
        std::any_of(argv, argv + argc, [](const char* word) { return std::strstr(word, "_internal_run_death_test="); });
    testing::InitGoogleTest(&argc, argv);
    // Death tests run in a new process: a forked one would inherit locks of threads that it does not have.
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    // Files of crashed children and of the device are removed with this directory.
    const zyttest::TempDir dir;
    setenv("TMPDIR", dir.Path().c_str(), 1);
    setenv("HOSTDEVICE_DATA", (dir / "device").c_str(), 0);
    // Without this, a test that calls exit() would pass.
    static bool isTesting = !isDeathTest;
    std::atexit([] {
        if (!isTesting) return;
        std::fputs("the process ended before its tests did\n", stderr);
        _exit(1);
    });
    const int result = RUN_ALL_TESTS();
    isTesting = false;
    return result;
}
