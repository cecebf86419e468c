// The device's init process. It mounts file systems, runs each program in a separate process, sends the results to the
// desktop and powers off.
//
// device.sh packs it, statically linked, together with
//   /tests/*_test        GoogleTest executables
//   /vendor/build.prop   system properties during the tests
//   /demo/run            one command line per line, words split at blanks; files left in /demo/out are sent back
//   /demo/build.prop     system properties during the demo
//   /devicelab.conf      time limit of one process in seconds, then a regular expression that selects tests or nothing
// run.sh packs, instead of tests and demo,
//   /jobs                the programs of a user's project, as written by project.py
// Both scripts read the lines on the console that begin with "device: ".

#include <fcntl.h>
#include <sched.h>
#include <sys/klog.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

#include "cpioarchive.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kOfflineLogDir[] = "/data/vendor/camera/offlinelog";
constexpr char kResultPort[] = "/dev/vport0p1";
constexpr size_t kTestsAtOnce = 2;
constexpr size_t kMaxCores = 4;
constexpr std::chrono::seconds kCoreLimit(60);  // for a hung process to write its core

[[noreturn]] void PowerOff() {
    std::fflush(stdout);
    tcdrain(STDOUT_FILENO);
    reboot(RB_POWER_OFF);
    _exit(1);  // Reached only if the kernel refuses. The end of init makes it panic, which device.sh reports.
}

[[noreturn]] void Fatal(const std::string& why) {
    std::printf("device: fatal: %s\n", why.c_str());
    PowerOff();
}

[[noreturn]] void FatalErrno(const std::string& what) { Fatal(what + ": " + std::strerror(errno)); }

std::string ReadAll(int fd) {
    std::string text;
    char buffer[65536];
    for (ssize_t got; (got = pread(fd, buffer, sizeof(buffer), static_cast<off_t>(text.size()))) > 0;) {
        text.append(buffer, static_cast<size_t>(got));
    }
    return text;
}

// Indents a test's output, so that it cannot be mistaken for a line of init.
void PrintIndented(const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::printf("    | %s\n", line.c_str());
    }
}

// Mounts empty /tmp and /data, and creates the offline log's directory as the boot of a phone does.
bool MountStorage() {
    return mount("tmpfs", "/tmp", "tmpfs", 0, "size=512m,mode=1777") == 0 &&
           mount("tmpfs", "/data", "tmpfs", 0, "size=512m,mode=0771") == 0 && mkdir("/data/vendor", 0771) == 0 &&
           mkdir("/data/vendor/camera", 0770) == 0 && mkdir(kOfflineLogDir, 0770) == 0;
}

struct Command {
    std::string title;
    std::vector<std::string> argv;
    std::string workDir = "/tmp";
    bool freshStorage = false;                  // private, empty /tmp and /data
    bool captureStderr = true;                  // if false, stderr goes to the console, not to the output
    bool leavesCore = false;                    // also when it hangs
    std::vector<std::string> environment = {};  // added to init's environment
    std::chrono::seconds limit{0};              // 0 for the common limit
};

struct Outcome {
    pid_t pid;
    bool hung;
    int status;  // from waitpid()
    double seconds;
    std::string output;

    bool Succeeded() const { return !hung && status == 0; }
    std::string Describe() const {
        if (hung) return "hung, killed after " + std::to_string(static_cast<int>(seconds)) + " s";
        if (WIFSIGNALED(status)) return std::string("killed by a signal: ") + strsignal(WTERMSIG(status));
        return "exit " + std::to_string(WEXITSTATUS(status));
    }
};

[[noreturn]] void Exec(const Command& command, int outputFd) {
    setsid();  // a new process group, so that a hung process is killed with all its children
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    dup2(outputFd, STDOUT_FILENO);
    if (command.captureStderr) dup2(outputFd, STDERR_FILENO);

    if (command.freshStorage && (unshare(CLONE_NEWNS) != 0 || !MountStorage())) {
        std::perror("fresh storage");
        _exit(126);
    }
    const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
    if (command.leavesCore) setrlimit(RLIMIT_CORE, &unlimited);
    for (const std::string& entry : command.environment) putenv(const_cast<char*>(entry.c_str()));
    std::vector<char*> argv;
    for (const std::string& word : command.argv) argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    if (chdir(command.workDir.c_str()) == 0) execv(argv[0], argv.data());
    std::perror(argv[0]);
    _exit(127);
}

// Runs the commands in order, up to `slots` at a time, and calls `done` for each as it ends. Also reaps orphans.
void RunAll(const std::vector<Command>& commands, size_t slots, std::chrono::seconds limit,
            const std::function<void(size_t index, const Outcome& outcome)>& done) {
    struct Job {
        size_t index;
        pid_t pid;
        int outputFd;
        Clock::time_point start;
        bool hung;

        bool IsOver(std::chrono::seconds time) const { return Clock::now() - start >= time; }
    };
    std::vector<Job> running;
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);

    for (size_t next = 0; next < commands.size() || !running.empty();) {
        while (running.size() < slots && next < commands.size()) {
            int outputFd = open("/run", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
            if (outputFd < 0) FatalErrno("cannot make an output file");
            pid_t pid = fork();
            if (pid < 0) FatalErrno("cannot fork");
            if (pid == 0) Exec(commands[next], outputFd);
            running.push_back({next++, pid, outputFd, Clock::now(), false});
        }

        timespec tick{0, 100'000'000};
        sigtimedwait(&child, nullptr, &tick);
        int status;
        for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
            auto job = std::find_if(running.begin(), running.end(), [pid](const Job& j) { return j.pid == pid; });
            if (job == running.end()) continue;
            kill(-pid, SIGKILL);  // kills what it left running
            std::chrono::duration<double> taken = Clock::now() - job->start;
            Outcome outcome{pid, job->hung, status, taken.count(), ReadAll(job->outputFd)};
            close(job->outputFd);
            size_t index = job->index;
            running.erase(job);
            done(index, outcome);
        }
        for (Job& job : running) {
            const Command& command = commands[job.index];
            const std::chrono::seconds patience = command.limit.count() > 0 ? command.limit : limit;
            // Reported before it is dead, because a process that hangs in the kernel may never die.
            if (!job.hung && job.IsOver(patience)) {
                job.hung = true;
                std::printf("device: %s hangs, killing it\n", command.title.c_str());
                kill(command.leavesCore ? job.pid : -job.pid, command.leavesCore ? SIGQUIT : SIGKILL);
            } else if (job.hung && command.leavesCore && job.IsOver(patience + kCoreLimit)) {
                kill(-job.pid, SIGKILL);
            }
        }
    }
}

// Appends one line per test and demo command for device.sh: verdict, seconds, title, detail.
void Report(std::string& results, const char* verdict, const Command& command, const Outcome& outcome,
            const std::string& detail = "") {
    char seconds[32];
    std::snprintf(seconds, sizeof(seconds), "%.2f", outcome.seconds);
    results += std::string(verdict) + "\t" + seconds + "\t" + command.title + "\t" + detail + "\n";
    std::printf("%-8s %s (%s s)%s%s\n", verdict, command.title.c_str(), seconds, detail.empty() ? "" : ": ",
                detail.c_str());
}

// Parses the output of --gtest_list_tests: "Suite." at the margin, its tests indented, "# ..." comments after either.
std::vector<Command> ParseList(const std::string& executable, const std::string& list) {
    auto disabled = [](const std::string& name) { return ("/" + name).find("/DISABLED_") != std::string::npos; };
    std::vector<Command> tests;
    std::string suite;
    std::istringstream lines(list);
    for (std::string line; std::getline(lines, line);) {
        line.resize(std::min(line.find('#'), line.size()));
        line.resize(line.find_last_not_of(' ') + 1);
        if (line.rfind("  ", 0) != 0) {
            suite = !line.empty() && line.back() == '.' ? line : "";
        } else if (!suite.empty() && !disabled(suite) && !disabled(line.substr(2))) {
            const std::string name = suite + line.substr(2);
            tests.push_back(
                {executable + " " + name, {"/tests/" + executable, "--gtest_filter=" + name}, "/tmp", true});
        }
    }
    return tests;
}

std::vector<Command> ListTests(std::chrono::seconds limit, std::string& results) {
    std::vector<Command> listings;
    for (const auto& file : std::filesystem::directory_iterator("/tests")) {
        const std::string name = file.path().filename();
        listings.push_back({name, {file.path(), "--gtest_list_tests"}, "/tmp", true, false});
    }
    std::sort(listings.begin(), listings.end(), [](const Command& a, const Command& b) { return a.title < b.title; });

    std::vector<std::vector<Command>> lists(listings.size());
    RunAll(listings, kTestsAtOnce, limit, [&](size_t index, const Outcome& outcome) {
        if (outcome.Succeeded()) lists[index] = ParseList(listings[index].title, outcome.output);
        // An executable that lists no tests is a failure, not a smaller suite.
        if (lists[index].empty()) {
            Report(results, "failed", listings[index], outcome, "lists no tests: " + outcome.Describe());
        }
    });
    std::vector<Command> tests;
    for (const auto& list : lists) tests.insert(tests.end(), list.begin(), list.end());
    return tests;
}

void RunTests(const std::vector<Command>& tests, std::chrono::seconds limit, std::string& results) {
    RunAll(tests, kTestsAtOnce, limit, [&](size_t index, const Outcome& outcome) {
        auto printed = [&](const char* text) { return outcome.output.find(text) != std::string::npos; };
        if (outcome.Succeeded() && printed("[  PASSED  ] 1 test.")) {
            Report(results, "passed", tests[index], outcome);
        } else if (outcome.Succeeded() && printed("[  SKIPPED ] 1 test")) {
            Report(results, "skipped", tests[index], outcome);
        } else {
            // Exit code 0 is not enough: code under test may have called exit().
            Report(results, outcome.hung ? "hung" : "failed", tests[index], outcome,
                   outcome.Succeeded() ? "ended before the test did" : outcome.Describe());
            PrintIndented(outcome.output);
        }
    });
}

// Runs the demo's commands in order up to the first that fails, because each needs the results of the ones before.
void RunDemo(std::chrono::seconds limit, std::string& results) {
    setenv("HOSTDEVICE_PROPERTIES", "/demo/build.prop", 1);
    std::ifstream script("/demo/run");
    bool sound = true;
    for (std::string line; sound && std::getline(script, line);) {
        std::istringstream words(line);
        Command command{line, {}, "/demo"};
        for (std::string word; words >> word;) command.argv.push_back(word);
        if (command.argv.empty()) continue;
        RunAll({command}, 1, limit, [&](size_t, const Outcome& outcome) {
            sound = outcome.Succeeded();
            Report(results, sound ? "demo-ok" : "demo-bad", command, outcome, sound ? "" : outcome.Describe());
            PrintIndented(outcome.output);
        });
    }
}

void AddFile(CpioArchive& archive, const std::string& name, const std::string& path) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) FatalErrno("cannot read " + path);
    archive.Add(name, ReadAll(fd));
    close(fd);
}

// Adds the files of a directory that have changed since the given time, by default all.
void AddDirectory(CpioArchive& archive, const std::string& name, const std::string& dir, timespec since = {}) {
    std::error_code error;  // a missing directory has no files to send
    for (const auto& file : std::filesystem::recursive_directory_iterator(dir, error)) {
        struct stat status;
        if (lstat(file.path().c_str(), &status) != 0 || !S_ISREG(status.st_mode)) continue;
        const timespec& changed = status.st_ctim;  // programs can set the modification time
        if (std::tie(changed.tv_sec, changed.tv_nsec) < std::tie(since.tv_sec, since.tv_nsec)) continue;
        AddFile(archive, name + "/" + std::filesystem::relative(file.path(), dir).string(), file.path());
    }
}

// Reads the NUL-terminated strings of /jobs. A list is its length, then its strings.
class JobReader {
public:
    bool Next(std::string& text) { return bool(std::getline(m_file, text, '\0')); }
    std::string Text() {
        std::string text;
        if (!Next(text)) Fatal("/jobs came in cut off");
        return text;
    }
    int Number() { return std::atoi(Text().c_str()); }
    std::vector<std::string> List() {
        std::vector<std::string> list(static_cast<size_t>(Number()));
        for (std::string& text : list) text = Text();
        return list;
    }

private:
    std::ifstream m_file{"/jobs"};
};

// Runs a project's programs one after the other. Adds the output of each as output/NUMBER and its core as core/NUMBER,
// appends number, status, whether it hung, and seconds to `results`, and adds the changed files of the project's
// directories.
void RunJobs(std::chrono::seconds limit, CpioArchive& archive, std::string& results) {
    std::ofstream("/proc/sys/kernel/core_pattern") << "/run/core.%p";
    JobReader reader;
    const std::vector<std::string> directories = reader.List();  // alternating names and paths
    std::vector<Command> jobs;
    for (std::string title; reader.Next(title);) {
        Command job{title, {}, reader.Text(), false, true, true};
        job.limit = std::chrono::seconds(reader.Number());
        job.environment = reader.List();
        job.argv = reader.List();
        std::filesystem::create_directories(job.workDir);
        jobs.push_back(job);
    }

    timespec start;
    clock_gettime(CLOCK_REALTIME_COARSE, &start);  // the clock that stamps files
    size_t cores = 0;
    for (size_t number = 0; number < jobs.size(); ++number) {
        std::printf("device: running %s\n", jobs[number].title.c_str());
        RunAll({jobs[number]}, 1, limit, [&](size_t, const Outcome& outcome) {
            const std::string core = "/run/core." + std::to_string(outcome.pid);
            if (access(core.c_str(), R_OK) == 0 && cores++ < kMaxCores) {
                AddFile(archive, "core/" + std::to_string(number), core);
            }
            archive.Add("output/" + std::to_string(number), outcome.output);
            std::ostringstream line;
            line << number << ' ' << outcome.status << ' ' << outcome.hung << ' ' << outcome.seconds << '\n';
            results += line.str();
        });
        for (const auto& file : std::filesystem::directory_iterator("/run")) std::filesystem::remove(file.path());
    }
    for (size_t i = 0; i + 1 < directories.size(); i += 2) {
        AddDirectory(archive, directories[i], directories[i + 1], start);
    }
}

// Runs the tests that match the filter. Without a filter also runs the demo.
void RunSuite(std::chrono::seconds limit, const std::string& filter, CpioArchive& archive, std::string& results) {
    std::vector<Command> tests = ListTests(limit, results);
    try {
        const std::regex wanted(filter);
        auto unwanted = [&](const Command& test) { return !std::regex_search(test.title, wanted); };
        tests.erase(std::remove_if(tests.begin(), tests.end(), unwanted), tests.end());
    } catch (const std::regex_error& error) {
        Fatal("the filter '" + filter + "' is no regular expression: " + error.what());
    }
    if (tests.empty()) Fatal("no test" + (filter.empty() ? "s to run" : " matches '" + filter + "'"));
    std::printf("device: %zu tests\n", tests.size());
    RunTests(tests, limit, results);
    if (filter.empty()) RunDemo(limit, results);
    AddDirectory(archive, "out", "/demo/out");
}

void SetUp() {
    klogctl(8, nullptr, 4);  // limits the kernel's messages to errors, because they can split init's lines
    const struct {
        const char *type, *target, *options;
    } mounts[] = {{"proc", "/proc", ""}, {"sysfs", "/sys", ""}, {"devtmpfs", "/dev", ""}, {"tmpfs", "/run", "size=1g"}};
    for (const auto& m : mounts) {
        mkdir(m.target, 0755);
        if (mount(m.type, m.target, m.type, 0, m.options) != 0) FatalErrno(std::string("cannot mount ") + m.target);
    }
    mkdir("/tmp", 0755);
    mkdir("/data", 0755);
    // A project's jobs need the packed files that fresh mounts would hide.
    if (access("/jobs", F_OK) == 0) {
        std::filesystem::create_directories(kOfflineLogDir);
    } else if (!MountStorage()) {
        FatalErrno("cannot make /tmp and /data");
    }
    if (access("/dev/dma_heap/system", R_OK) != 0) FatalErrno("the kernel's heap is missing, /dev/dma_heap/system");

    clearenv();
    setenv("PATH", "/tests", 1);
    setenv("HOME", "/tmp", 1);
    setenv("TMPDIR", "/tmp", 1);
    setenv("HOSTDEVICE_DATA", "/", 1);
    setenv("HOSTDEVICE_PROPERTIES", "/vendor/build.prop", 1);
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    sigprocmask(SIG_BLOCK, &child, nullptr);  // RunAll() waits for this signal
}

}  // namespace

int main() {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    SetUp();
    utsname kernel;
    uname(&kernel);
    std::printf("device: up: Linux %s %s, %ld processors, the kernel's DMA-BUF heap\n", kernel.release, kernel.machine,
                sysconf(_SC_NPROCESSORS_ONLN));

    std::ifstream config("/devicelab.conf");
    std::string seconds, filter;
    std::getline(config, seconds);
    std::getline(config, filter);
    const std::chrono::seconds limit(std::atoi(seconds.c_str()));
    if (limit.count() <= 0) Fatal("no time limit in /devicelab.conf");

    CpioArchive archive(kResultPort);
    if (!archive.IsSound()) FatalErrno(std::string("no way to send results, ") + kResultPort);
    std::string results;
    if (access("/jobs", F_OK) == 0) {
        RunJobs(limit, archive, results);
    } else {
        RunSuite(limit, filter, archive, results);
    }
    archive.Add("results", results);
    AddDirectory(archive, "offlinelog", kOfflineLogDir);
    if (!archive.Finish()) Fatal("cannot send the results");
    std::printf("device: done\n");
    PowerOff();
}
