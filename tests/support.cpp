#include "support.h"

#include <fcntl.h>
#include <hostdevice/files.h>
#include <hostdevice/hostdevice.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <thread>

#include "logging/zytlogsite.h"

extern char** environ;

namespace zyttest {
namespace {

std::map<std::string, int (*)()>& Children() {
    static std::map<std::string, int (*)()> children;
    return children;
}

char PriorityLetter(int priority) { return priority >= 2 && priority <= 6 ? "VDIWE"[priority - 2] : '?'; }

// Other threads may be logging.
void SetLevel(int level) { __atomic_store_n(&ZYTLogUtil::m_level, level, __ATOMIC_RELAXED); }

std::filesystem::path Self() { return std::filesystem::read_symlink("/proc/self/exe"); }

__attribute__((format(printf, 1, 0))) std::string Print(const char* format, va_list args) {
    char text[4096];
    std::vsnprintf(text, sizeof(text), format, args);
    return text;
}

std::vector<char*> Pointers(const std::vector<std::string>& words) {
    std::vector<char*> pointers;
    for (const std::string& word : words) pointers.push_back(const_cast<char*>(word.c_str()));
    return pointers;
}

}  // namespace

std::string Text(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const std::string text = Print(format, args);
    va_end(args);
    return text;
}

std::string LinesOf::operator()(char level, const char* format, ...) const {
    va_list args;
    va_start(args, format);
    const std::string text = Print(format, args);
    va_end(args);
    return std::string(1, level) + " " + source + " " + function + "() " + text;
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

LogDir::LogDir() {
    for (const auto& entry : std::filesystem::directory_iterator(hostdevice::OfflineLogDir())) {
        m_before.insert(entry.path());
    }
}

LogDir::~LogDir() {
    for (const auto& entry : std::filesystem::directory_iterator(hostdevice::OfflineLogDir())) {
        if (m_before.count(entry.path()) == 0) std::filesystem::remove_all(entry.path());
    }
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

bool WaitUntil(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

ChildResult RunCommand(const std::string& command, const std::vector<std::string>& settings) {
    std::istringstream stream(command);
    const std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
    std::vector<char*> argv = Pointers(words);
    argv.push_back(nullptr);
    // Of two settings of one name the first counts.
    std::vector<char*> envp = Pointers(settings);
    for (char** setting = environ; *setting != nullptr; ++setting) envp.push_back(*setting);
    envp.push_back(nullptr);

    const TempDir dir;
    const std::string output = dir / "output";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    pid_t pid = 0;
    const int error = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) return {-1, 0, std::strerror(error)};
    int status = 0;
    waitpid(pid, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, WIFSIGNALED(status) ? WTERMSIG(status) : 0, ReadFile(output)};
}

ChildResult RunBuilt(const std::string& command, const std::vector<std::string>& settings) {
    return RunCommand((Self().parent_path().parent_path() / command).string(), settings);
}

std::string ExpectRefusal(const std::string& command, const std::string& reason) {
    const ChildResult result = RunBuilt(command);
    EXPECT_EQ(result.exitCode, 2) << result.output;
    const size_t end = result.output.rfind('\n', result.output.size() - 2);
    const std::string line = result.output.substr(end + 1);  // all of it where there is no other line
    EXPECT_NE(line.find(reason), std::string::npos) << line;
    EXPECT_NE(line.find(std::filesystem::path(command.substr(0, command.find(' '))).filename().string() + ": "),
              std::string::npos);
    return result.output;
}

ChildResult RunChild(const std::string& name, const std::map<std::string, std::string>& properties) {
    const TempDir dir;
    std::string file;
    for (const auto& [key, value] : properties) file.append(key).append("=").append(value).append("\n");
    WriteFile(dir / "build.prop", file);
    return RunCommand(Self().string() + " --child " + name, {"HOSTDEVICE_PROPERTIES=" + (dir / "build.prop")});
}

bool RegisterChild(const char* name, int (*body)()) { return Children().emplace(name, body).second; }

}  // namespace zyttest

int main(int argc, char** argv) {
    // Said once for a test is enough: what its children say is read to the letter.
    if (hostdevice::IsStrict()) setenv("HOSTDEVICE_STRICT", "quiet", 1);
    // The device's files stay in the build's own folder, also when a test is started by hand.
    setenv("HOSTDEVICE_DATA", (zyttest::Self().parent_path().parent_path() / "device").c_str(), 0);
    if (argc == 3 && std::strcmp(argv[1], "--child") == 0) {
        alarm(120);
        const auto child = zyttest::Children().find(argv[2]);
        return child != zyttest::Children().end() ? child->second() : 99;
    }
    testing::InitGoogleTest(&argc, argv);
    // Deaths are staged in a fresh process: a mere fork would inherit the locks of threads that it does not have.
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    // What a process leaves behind that dies goes with its parent's directory.
    const zyttest::TempDir dir;
    setenv("TMPDIR", dir.Path().c_str(), 1);
    return RUN_ALL_TESTS();
}
