#include "support.h"

#include <fcntl.h>
#include <hostdevice/hostdevice.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <thread>

#include "logging/zytlogsite.h"

extern char** environ;

namespace zyttest {
namespace {

using Clock = std::chrono::steady_clock;

std::map<std::string, int (*)()>& Children() {
    static std::map<std::string, int (*)()> children;
    return children;
}

char PriorityLetter(int priority) { return priority >= 2 && priority <= 6 ? "VDIWE"[priority - 2] : '?'; }

// Other threads may be logging.
void SetLevel(int level) { __atomic_store_n(&ZYTLogUtil::m_level, level, __ATOMIC_RELAXED); }

std::string Self() { return std::filesystem::read_symlink("/proc/self/exe").string(); }

}  // namespace

std::string Text(const char* format, ...) {
    char text[4096];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    return text;
}

LogCapture::LogCapture() : m_savedLevel(ZYTLogUtil::m_level) {
    // A process's first log site starts the offline log's workers, and these announce themselves.
    ZYTOfflineLog::GetInstance();
    SetLevel(5);
    hostdevice::SetLogSink([this](int priority, const char*, const char* text) {
        static const std::regex kSourceLine("(\\.cpp):[0-9]+ ");
        std::lock_guard<std::mutex> lock(m_lock);
        m_lines.push_back(std::string(1, PriorityLetter(priority)) + " " +
                          std::regex_replace(text, kSourceLine, "$1 "));
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

TempDir::TempDir() {
    std::string path = (std::filesystem::temp_directory_path() / "zyttools-test-XXXXXX").string();
    if (mkdtemp(path.data()) == nullptr) std::abort();
    m_path = path;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

bool WaitUntil(const std::function<bool()>& condition) {
    const auto end = Clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (Clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

ChildResult RunCommand(const std::vector<std::string>& command, const std::map<std::string, std::string>& env,
                       std::chrono::seconds timeOut) {
    std::vector<std::string> settings;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string setting = *e;
        if (env.count(setting.substr(0, setting.find('='))) == 0) settings.push_back(setting);
    }
    for (const auto& [key, value] : env) settings.push_back(key + "=" + value);
    std::vector<char*> envp;
    for (std::string& setting : settings) envp.push_back(setting.data());
    envp.push_back(nullptr);
    std::vector<std::string> words = command;
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);

    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) std::abort();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
    pid_t pid = 0;
    ChildResult result;
    const int error = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (error != 0) {
        close(ends[0]);
        result.output = std::strerror(error);
        return result;
    }
    const auto end = Clock::now() + timeOut;
    pollfd readable{ends[0], POLLIN, 0};
    char chunk[4096];
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0 || poll(&readable, 1, static_cast<int>(left)) == 0) {
            result.timedOut = true;
            kill(pid, SIGKILL);
            break;
        }
        const ssize_t count = read(ends[0], chunk, sizeof(chunk));
        if (count <= 0) break;
        result.output.append(chunk, static_cast<size_t>(count));
    }
    close(ends[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    return result;
}

ChildResult RunChild(const std::string& name, const std::map<std::string, std::string>& env) {
    return RunCommand({Self(), "--child", name}, env);
}

ChildResult RunChildWithProperties(const std::string& name, const std::map<std::string, std::string>& properties) {
    TempDir dir;
    std::string file;
    for (const auto& [key, value] : properties) file.append(key).append("=").append(value).append("\n");
    WriteFile(dir / "build.prop", file);
    return RunChild(name, {{"HOSTDEVICE_PROPERTIES", dir / "build.prop"}});
}

bool RegisterChild(const char* name, int (*body)()) { return Children().emplace(name, body).second; }

}  // namespace zyttest

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--child") == 0) {
        const auto child = zyttest::Children().find(argv[2]);
        return child != zyttest::Children().end() ? child->second() : 99;
    }
    testing::InitGoogleTest(&argc, argv);
    // Deaths are staged in a fresh process: a mere fork would inherit the locks of threads that it does not have.
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    return RUN_ALL_TESTS();
}
