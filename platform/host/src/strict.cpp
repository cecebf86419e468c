#include "strict.h"

#include <BufferAllocator/BufferAllocator.h>
#include <dirent.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <utility>

#include "internal.h"
#include "maps.h"
#include "memory.h"

namespace hostdevice {
namespace {

// Device and inode, which identify a buffer for all its descriptors.
using Identity = std::pair<dev_t, ino_t>;

struct Buffer {
    int fd = -1;  // the one last seen
    uint64_t size = 0;
    int openAccesses = 0;
    int directions = 0;  // union of the directions opened since no access was open
    bool wasOpened = false;

    int Protection() const {
        if (openAccesses == 0) return PROT_NONE;
        // Write access includes read access.
        return (directions & kSyncWrite) != 0 ? PROT_READ | PROT_WRITE : PROT_READ;
    }
};

struct Watch {
    // Never held while buffer memory is accessed, so the fault handler may take it.
    std::mutex lock;
    std::map<Identity, Buffer> buffers;
    int openBuffers = 0;
    bool isDying = false;
    struct sigaction previous {};
};

std::atomic<bool> g_isStrict{false};

Watch& TheWatch() { return Immortal<Watch>(); }

// Returns null for a descriptor that is neither heap nor graphic memory.
std::pair<const Identity, Buffer>* Find(Watch& watch, int fd) {
    struct stat status {};
    if (fd < 0 || KindOfDescriptor(fd) == MemoryKind::kOther || fstat(fd, &status) != 0) return nullptr;
    const auto found = watch.buffers.try_emplace({status.st_dev, status.st_ino}).first;
    found->second.fd = fd;
    found->second.size = static_cast<uint64_t>(lseek(fd, 0, SEEK_END));
    return &*found;
}

// Protects all mappings of the buffer, also those made outside the device's interfaces.
void Protect(const Identity& identity, const Buffer& buffer) {
    MapsReader maps;
    for (MappedRange range; maps.Next(range);) {
        if (Identity(range.device, range.inode) != identity) continue;
        auto* const start = reinterpret_cast<void*>(range.begin);
        if (mprotect(start, range.end - range.begin, buffer.Protection()) == 0) continue;
        mprotect(start, range.end - range.begin, PROT_READ);  // the descriptor is read-only
    }
}

// Uses one write and no heap memory.
void Report(const char* what, const Buffer& buffer) {
    static constexpr const char* kDirections[] = {"nothing", "reading", "writing", "reading and writing"};
    char state[64] = "no access was ever opened";
    if (buffer.openAccesses > 0) {
        std::snprintf(state, sizeof state, "%d open for %s", buffer.openAccesses, kDirections[buffer.directions & 3]);
    } else if (buffer.wasOpened) {
        std::snprintf(state, sizeof state, "the last access to it was closed");
    }
    char thread[16] = "";
    prctl(PR_GET_NAME, thread);
    char line[256];
    const int length =
        std::snprintf(line, sizeof line, "hostdevice: %s descriptor %d (%llu bytes): %s; thread %ld %s\n", what,
                      buffer.fd, static_cast<unsigned long long>(buffer.size), state, syscall(SYS_gettid), thread);
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line, static_cast<size_t>(length));
}

// Returns "read", "write", or "access" when the CPU does not report which.
const char* NameAccess(const void* context) {
    [[maybe_unused]] const mcontext_t& machine = static_cast<const ucontext_t*>(context)->uc_mcontext;
#if defined(__x86_64__)
    constexpr greg_t kWrite = 2;
    return (machine.gregs[REG_ERR] & kWrite) != 0 ? "write" : "read";
#elif defined(__aarch64__)
    // The exception syndrome is one of the records after the registers.
    const auto* record = reinterpret_cast<const _aarch64_ctx*>(machine.__reserved);
    while (record->magic != 0 && record->magic != ESR_MAGIC) {
        record = reinterpret_cast<const _aarch64_ctx*>(reinterpret_cast<const char*>(record) + record->size);
    }
    constexpr uint64_t kWrite = 1 << 6;
    if (record->magic == 0) return "access";
    return (reinterpret_cast<const esr_context*>(record)->esr & kWrite) != 0 ? "write" : "read";
#else
    return "access";
#endif
}

// Reports the access and returns true when the address is in a buffer.
bool ReportTouch(uintptr_t address, const void* context) {
    Watch& watch = TheWatch();
    const std::lock_guard<std::mutex> guard(watch.lock);
    MapsReader maps;
    for (MappedRange range; maps.Next(range);) {
        if (address < range.begin || address >= range.end) continue;
        const auto found = watch.buffers.find({range.device, range.inode});
        if (found == watch.buffers.end()) return false;
        if (watch.isDying) return true;
        watch.isDying = true;
        char what[64];
        const unsigned long long offset = range.offset + (address - range.begin);
        std::snprintf(what, sizeof what, "%s at offset %llu of", NameAccess(context), offset);
        Report(what, found->second);
        return true;
    }
    return false;
}

// Reports an access to a buffer and restores the previous handler (a sanitizer's, a crash reporter's or the kernel's
// default), which the repeated instruction reaches. Passes any other fault to that handler.
void OnFault(int signal, siginfo_t* info, void* context) {
    const int savedErrno = errno;
    const struct sigaction& previous = TheWatch().previous;
    const bool isTouch =
        info->si_code == SEGV_ACCERR && ReportTouch(reinterpret_cast<uintptr_t>(info->si_addr), context);
    const bool isFunction = previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN;
    if (isTouch || !isFunction) {
        sigaction(signal, &previous, nullptr);
        if (info->si_code <= 0) raise(signal);  // sent by a process: no instruction repeats it
    } else if ((previous.sa_flags & SA_SIGINFO) != 0) {
        previous.sa_sigaction(signal, info, context);
    } else {
        previous.sa_handler(signal);
    }
    errno = savedErrno;
}

[[noreturn]] void Refuse(Watch& watch, const char* what, const Buffer& buffer) {
    watch.isDying = true;
    Report(what, buffer);
    std::abort();
}

bool IsMapped(const Identity& identity) {
    MapsReader maps;
    for (MappedRange range; maps.Next(range);) {
        if (Identity(range.device, range.inode) == identity) return true;
    }
    return false;
}

bool HasDescriptor(const Identity& identity) {
    DIR* const directory = opendir("/proc/self/fd");
    if (directory == nullptr) return true;
    bool isFound = false;
    while (const dirent* const entry = readdir(directory)) {
        struct stat status {};
        if (fstatat(dirfd(directory), entry->d_name, &status, 0) != 0) continue;
        isFound = isFound || Identity(status.st_dev, status.st_ino) == identity;
    }
    closedir(directory);
    return isFound;
}

// A DMA-BUF refuses such a mapping, memfd does not.
bool IsLongerThanBuffer(const Buffer& buffer, size_t size, off_t offset) {
    const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    const uint64_t room = (buffer.size + page - 1) / page * page;
    const auto start = static_cast<uint64_t>(offset);
    return start > room || size > room - start;
}

void* MapStrictly(void* hint, size_t size, int protection, int flags, int fd, off_t offset) {
    Watch& watch = TheWatch();
    const std::lock_guard<std::mutex> guard(watch.lock);
    const auto* const found = Find(watch, fd);
    if (found != nullptr && IsLongerThanBuffer(found->second, size, offset)) {
        errno = EINVAL;
        return MAP_FAILED;
    }
    // With the requested protection, so that a descriptor that does not allow it is refused.
    void* const mapped = mmap(hint, size, protection, flags, fd, offset);
    if (found != nullptr && mapped != MAP_FAILED) mprotect(mapped, size, protection & found->second.Protection());
    return mapped;
}

// Sanitizers make stack frames larger.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HOSTDEVICE_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define HOSTDEVICE_SANITIZED 1
#endif
#endif
#ifdef HOSTDEVICE_SANITIZED
constexpr size_t kThreadStack = 4 * 1032192;
#else
constexpr size_t kThreadStack = 1032192;
#endif

void ShrinkStacks() {
    pthread_attr_t attributes;
    pthread_getattr_default_np(&attributes);
    pthread_attr_setstacksize(&attributes, kThreadStack);
    pthread_setattr_default_np(&attributes);
    pthread_attr_destroy(&attributes);
}

void HandleFaults() {
    struct sigaction action {};
    action.sa_sigaction = OnFault;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigaction(SIGSEGV, &action, &TheWatch().previous);
    // A forked child inherits mappings and accesses, but must not inherit a held lock. Uses the native handle because
    // -Wthread-safety refuses a lock that one function takes and another releases.
    const auto lock = [] { pthread_mutex_lock(TheWatch().lock.native_handle()); };
    const auto unlock = [] { pthread_mutex_unlock(TheWatch().lock.native_handle()); };
    pthread_atfork(lock, unlock, unlock);
}

// Runs at load, so that threads started before main() have the phone's stack too.
[[maybe_unused]] const bool g_isSetByEnvironment = [] {
    const char* const setting = std::getenv("HOSTDEVICE_STRICT");
    const bool isSet = setting != nullptr && *setting != '\0' && std::strcmp(setting, "0") != 0;
    if (isSet) SetStrict(true, std::strcmp(setting, "quiet") == 0);
    return isSet;
}();

// Runs after the static destructors of everything that links to this library.
__attribute__((destructor)) void CheckAtExit() {
    if (!g_isStrict) return;
    Watch& watch = TheWatch();
    const std::lock_guard<std::mutex> guard(watch.lock);
    if (watch.openBuffers == 0) return;
    for (const auto& [identity, buffer] : watch.buffers) {
        if (buffer.openAccesses > 0) Report("exit with an access to", buffer);
    }
    std::fflush(nullptr);
    _exit(1);
}

}  // namespace

bool IsStrict() { return g_isStrict; }

void SetStrict(bool on, bool quiet) {
    if (g_isStrict.exchange(on) || !on) return;
    [[maybe_unused]] static const bool isReady = (HandleFaults(), true);
    ShrinkStacks();
    if (!quiet) std::fprintf(stderr, "hostdevice: strict mode\n");
}

void OpenAccess(int fd, int direction) {
    if (!g_isStrict) return;
    Watch& watch = TheWatch();
    const std::lock_guard<std::mutex> guard(watch.lock);
    auto* const found = Find(watch, fd);
    if (found == nullptr || watch.isDying) return;
    auto& [identity, buffer] = *found;
    if (buffer.openAccesses++ == 0) {
        buffer.directions = 0;
        ++watch.openBuffers;
    }
    buffer.directions |= direction;
    buffer.wasOpened = true;
    Protect(identity, buffer);
}

void CloseAccess(int fd) {
    if (!g_isStrict) return;
    Watch& watch = TheWatch();
    const std::lock_guard<std::mutex> guard(watch.lock);
    auto* const found = Find(watch, fd);
    if (found == nullptr) return;
    auto& [identity, buffer] = *found;
    if (buffer.openAccesses == 0) Refuse(watch, "end of an access that was not opened, to", buffer);
    if (--buffer.openAccesses > 0) return;
    --watch.openBuffers;
    Protect(identity, buffer);
}

void CheckReleased() {
    if (!g_isStrict) return;
    Watch& watch = TheWatch();
    const std::lock_guard<std::mutex> guard(watch.lock);
    if (watch.openBuffers == 0) return;
    for (const auto& [identity, buffer] : watch.buffers) {
        if (buffer.openAccesses == 0 || IsMapped(identity) || HasDescriptor(identity)) continue;
        Refuse(watch, "release of", buffer);
    }
}

}  // namespace hostdevice

// The linker's --wrap redirects calls to these functions.
extern "C" {

HOSTDEVICE_EXPORT void* __wrap_mmap(void* hint, size_t size, int protection, int flags, int fd, off_t offset) {
    return hostdevice::IsStrict() ? hostdevice::MapStrictly(hint, size, protection, flags, fd, offset)
                                  : mmap(hint, size, protection, flags, fd, offset);
}

HOSTDEVICE_EXPORT void* __wrap_mmap64(void* hint, size_t size, int protection, int flags, int fd, off_t offset) {
    return __wrap_mmap(hint, size, protection, flags, fd, offset);
}

HOSTDEVICE_EXPORT int __wrap_munmap(void* start, size_t size) {
    const int result = munmap(start, size);
    hostdevice::CheckReleased();
    return result;
}

HOSTDEVICE_EXPORT int __wrap_close(int fd) {
    const int result = close(fd);
    hostdevice::CheckReleased();
    return result;
}

}  // extern "C"
