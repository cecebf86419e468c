// The box's init process. It mounts this machine's folders, runs the jobs that inbox.sh hands over, each with a /data
// of its own, and powers off when told. It shares the folder kShare with the scripts:
//   .box/mounts     paths of the shares "share0", "share1" …, one a line; here they have the same paths
//   .box/up         written once jobs are taken
//   .box/queue/JOB  hands over the folder JOB; "off" ends the box
//   JOB/command     working directory, number of arguments, arguments, environment, each ended by a NUL
//   JOB/beat        changes as long as inbox.sh waits for the job
//   JOB/data        the job's /data; JOB/stdout, JOB/stderr (if there), JOB/core
//   JOB/status      written at the end: "exit", "signal" or "hung", and a number

#include <fcntl.h>
#include <sys/klog.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

const fs::path kShare = "/run/result", kControl = kShare / ".box", kTemporary = "/run/tmp";
const fs::path kOwn = "/run/own";    // kShare again, for what the box alone writes
constexpr char kJob[] = "/run/job";  // a job's folder of kOwn, in its namespace
constexpr std::chrono::seconds kSilenceLimit(20), kCoreLimit(60);

struct Job {
    fs::path dir;
    timespec beat{};
    Clock::time_point heard = Clock::now();
    bool isHung = false;  // and asked for its core at `heard`
};

[[noreturn]] void PowerOff() {
    std::fflush(stdout);
    sync();
    tcdrain(STDOUT_FILENO);
    reboot(RB_POWER_OFF);
    _exit(1);  // Reached only if the kernel refuses. The end of init makes it panic, which ends the emulator.
}

void Mount(const char* type, const std::string& source, const std::string& target, const char* options,
           unsigned long flags = 0) {
    std::error_code error;
    fs::create_directories(target, error);
    if (mount(source.c_str(), target.c_str(), type, flags, options) == 0) return;
    std::printf("device: fatal: cannot mount %s: %s\n", target.c_str(), std::strerror(errno));
    PowerOff();
}

void MountShare(const std::string& tag, const std::string& target, const std::string& cache = "mmap") {
    Mount("9p", tag, target, ("trans=virtio,version=9p2000.L,msize=262144,cache=" + cache).c_str());
}

void WriteWhole(const fs::path& path, const std::string& text) {
    const fs::path part = path.string() + ".part";
    std::ofstream(part) << text << '\n';
    fs::rename(part, path);
}

[[noreturn]] void Exec(const fs::path& dir) {
    setsid();  // a new process group, which is killed as a whole
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    const fs::path temporary = kTemporary / std::to_string(getpid());  // 9p has neither FIFOs nor unnamed files
    fs::create_directories(temporary);

    std::ifstream command(dir / "command");
    std::string word;
    const auto next = [&] { return static_cast<bool>(std::getline(command, word, '\0')); };
    next();
    const std::string workDir = word;
    next();
    std::vector<char*> argv(std::stoul(word) + 1);
    for (size_t i = 0; i + 1 < argv.size() && next(); ++i) argv[i] = strdup(word.c_str());
    clearenv();
    while (next()) {
        if (word.rfind("LD_", 0) != 0) putenv(strdup(word.c_str()));  // those of this machine's own libraries
    }
    setenv("PATH", "/", 1);
    setenv("HOME", temporary.c_str(), 1);
    setenv("TMPDIR", temporary.c_str(), 1);
    setenv("HOSTDEVICE_DATA", "/", 1);
    setenv("TEST_PREMATURE_EXIT_FILE", (std::string(kJob) + "/unfinished").c_str(), 1);

    const int out = open((dir / "stdout").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    const int err = open((dir / "stderr").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(err < 0 ? out : err, STDERR_FILENO);
    const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_CORE, &unlimited);
    unshare(CLONE_NEWNS);
    const fs::path own = kOwn / dir.filename();
    if (mount(own.c_str(), kJob, nullptr, MS_BIND, nullptr) != 0 ||
        mount((own / "data").c_str(), "/data", nullptr, MS_BIND, nullptr) != 0) {
        std::perror("/data");
    } else if (chdir(workDir.c_str()) != 0) {
        std::perror(workDir.c_str());
    } else {
        execv(argv[0], argv.data());
        std::perror(argv[0]);
    }
    _exit(127);
}

// Ends jobs that nobody waits for any more, first in a way that leaves a core.
void CheckBeat(pid_t pid, Job& job, bool isOff) {
    struct stat beat {};
    stat((job.dir / "beat").c_str(), &beat);
    const auto silence = Clock::now() - job.heard;
    if (job.isHung) {
        if (silence > kCoreLimit) kill(-pid, SIGKILL);
    } else if (isOff || silence > kSilenceLimit) {
        job.isHung = true;
        job.heard = Clock::now();
        kill(pid, SIGQUIT);
    } else if (beat.st_mtim.tv_sec != job.beat.tv_sec || beat.st_mtim.tv_nsec != job.beat.tv_nsec) {
        job.beat = beat.st_mtim;
        job.heard = Clock::now();
    }
}

void Finish(pid_t pid, const Job& job, int status) {
    kill(-pid, SIGKILL);  // kills what it left running
    std::error_code ignored;
    fs::remove_all(kTemporary / std::to_string(pid), ignored);
    // A core of a child, such as a death test's, is of no use.
    if (!WIFSIGNALED(status)) fs::remove(job.dir / "core", ignored);
    const char* const how = job.isHung ? "hung " : WIFSIGNALED(status) ? "signal " : "exit ";
    WriteWhole(job.dir / "status", how + std::to_string(WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status)));
}

void SetUp() {
    klogctl(8, nullptr, 4);  // limits the kernel's messages to errors
    Mount("proc", "proc", "/proc", "");
    Mount("sysfs", "sysfs", "/sys", "");
    Mount("devtmpfs", "devtmpfs", "/dev", "");
    Mount("tmpfs", "tmpfs", "/run", "");
    MountShare("result", kShare);
    // With 9p, only a cache makes appending whole after a switch to O_APPEND. It is written back every second.
    MountShare("own", kOwn, "loose");
    std::ofstream("/proc/sys/vm/dirty_writeback_centisecs") << 100;
    std::ofstream("/proc/sys/vm/dirty_expire_centisecs") << 100;
    std::ifstream mounts(kControl / "mounts");
    size_t number = 0;
    for (std::string path; std::getline(mounts, path);) MountShare("share" + std::to_string(number++), path);
    for (const fs::path dir : {"/tmp", "/data", kJob}) fs::create_directories(dir);
    std::ofstream("/proc/sys/kernel/core_pattern") << kJob << "/core";
    if (access("/dev/dma_heap/system", R_OK) != 0) {
        std::printf("device: fatal: the kernel's heap is missing, /dev/dma_heap/system\n");
        PowerOff();
    }
}

}  // namespace

int main() {
    SetUp();
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    sigprocmask(SIG_BLOCK, &child, nullptr);
    WriteWhole(kControl / "up", "");
    std::map<pid_t, Job> jobs;
    for (bool isOff = false; !isOff || !jobs.empty();) {
        std::error_code ignored;
        for (const auto& entry : fs::directory_iterator(kControl / "queue", ignored)) {
            const std::string name = entry.path().filename();
            fs::remove(entry.path());
            isOff = isOff || name == "off";
            if (name == "off") continue;
            const pid_t pid = fork();
            if (pid == 0) Exec(kShare / name);
            jobs[pid].dir = kShare / name;
        }
        const timespec tick{0, 50'000'000};
        sigtimedwait(&child, nullptr, &tick);
        int status;
        for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
            if (const auto job = jobs.find(pid); job != jobs.end()) {
                Finish(pid, job->second, status);
                jobs.erase(job);
            }
        }
        for (auto& [pid, job] : jobs) CheckBeat(pid, job, isOff);
    }
    PowerOff();
}
