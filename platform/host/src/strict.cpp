#include "strict.h"

#include <BufferAllocator/BufferAllocator.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <set>
#include <string_view>
#include <utility>

#include "internal.h"
#include "maps.h"
#include "memory.h"

namespace hostdevice {
namespace {

// Device and inode, which identify a buffer for all its descriptors.
using Identity = std::pair<dev_t, ino_t>;

struct Buffer {
    int fd = -1;           // the one last seen
    uint64_t size = 0;     // as requested from this process's device, otherwise the descriptor's
    bool hasTail = false;  // the pattern lies between that size and the end of the last page
    int openAccesses = 0;
    int inherited = 0;   // those of them that the parent opened
    int directions = 0;  // all directions opened since no access was open
    bool wasOpened = false;

    int Protection() const {
        if (openAccesses == 0) return PROT_NONE;
        // Write access includes read access.
        return (directions & kSyncWrite) != 0 ? PROT_READ | PROT_WRITE : PROT_READ;
    }
};

struct Watch {
    // Never held while a client's mapping is accessed, so the fault handler may take it. Held while memory is unmapped:
    // a start that has read the list of mappings must not protect what took their place.
    std::mutex lock;
    std::map<Identity, Buffer> buffers;
    std::set<uintptr_t> guards;  // inaccessible pages behind mappings
    int openBuffers = 0;
    bool isDying = false;
    struct sigaction previous {};
};

std::atomic<bool> g_isStrict{false};

using Lock = std::unique_lock<std::mutex>;

Watch& g_watch = *new Watch;  // never destroyed: threads outlive main()

// Returns null for a descriptor that is neither heap nor graphic memory.
std::pair<const Identity, Buffer>* Find(int fd) {
    struct stat status {};
    if (fd < 0 || KindOfDescriptor(fd) == MemoryKind::kOther || fstat(fd, &status) != 0) return nullptr;
    const auto [found, isNew] = g_watch.buffers.try_emplace({status.st_dev, status.st_ino});
    found->second.fd = fd;
    if (isNew) found->second.size = static_cast<uint64_t>(lseek(fd, 0, SEEK_END));
    return &*found;
}

// Uses one write and no heap memory. Adds the thread.
__attribute__((format(printf, 1, 2))) void Say(const char* format, ...) {
    char text[192];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    char thread[16] = "";
    prctl(PR_GET_NAME, thread);
    char line[256];
    const int length =
        std::snprintf(line, sizeof line, "hostdevice: %s; thread %ld %s\n", text, syscall(SYS_gettid), thread);
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line, static_cast<size_t>(length));
}

void Report(const char* what, const Buffer& buffer) {
    static constexpr const char* kDirections[] = {"nothing", "reading", "writing", "reading and writing"};
    char state[64] = "no access was ever opened";
    if (buffer.openAccesses > 0) {
        std::snprintf(state, sizeof state, "%d open for %s", buffer.openAccesses, kDirections[buffer.directions & 3]);
    } else if (buffer.wasOpened) {
        std::snprintf(state, sizeof state, "the last access to it was closed");
    }
    Say("%s descriptor %d (%llu bytes): %s", what, buffer.fd, static_cast<unsigned long long>(buffer.size), state);
}

// Unlocks first, because a handler of SIGABRT may use the device.
[[noreturn]] void Abort(Lock& lock) {
    g_watch.isDying = true;
    lock.unlock();
    std::abort();
}

[[noreturn]] void Refuse(Lock& lock, const char* what, const Buffer& buffer) {
    Report(what, buffer);
    Abort(lock);
}

// Reads on to the buffer's next mapping, also one made outside the device's interfaces.
bool NextOf(const Identity& identity, MapsReader& maps, MappedRange& range) {
    while (maps.Next(range)) {
        if (Identity(range.device, range.inode) == identity) return true;
    }
    return false;
}

void Protect(Lock& lock, const Identity& identity, const Buffer& buffer) {
    MapsReader maps;
    if (!maps.IsOpen()) Refuse(lock, "cannot read /proc/self/maps to protect", buffer);
    for (MappedRange range; NextOf(identity, maps, range);) {
        auto* const start = reinterpret_cast<void*>(range.begin);
        if (mprotect(start, range.end - range.begin, buffer.Protection()) == 0) continue;
        mprotect(start, range.end - range.begin, PROT_READ);  // the descriptor is read-only
    }
}

// Calls `use` with each byte between the buffer's end and the end of its last page, and with the byte's pattern.
// Returns false when there is no such byte or it cannot be mapped. The mapping is apart from the clients'.
template <typename Use>
bool ForTail(const Buffer& buffer, int protection, Use use) {
    const size_t page = PageSize();
    const size_t used = buffer.size % page;
    if (used == 0) return false;
    void* const mapped = mmap(nullptr, page, protection, MAP_SHARED, buffer.fd, static_cast<off_t>(buffer.size - used));
    if (mapped == MAP_FAILED) return false;
    // The pattern differs from byte to byte, unlike constant pixels.
    auto* const bytes = static_cast<unsigned char*>(mapped);
    for (size_t at = used; at < page; ++at) use(bytes[at], static_cast<unsigned char>(at * 41 + 90));
    munmap(mapped, page);
    return true;
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
    const Lock lock(g_watch.lock);
    MapsReader maps;
    if (!maps.IsOpen()) {
        Say("cannot read /proc/self/maps after a fault at %p", reinterpret_cast<const void*>(address));
        return true;
    }
    const uintptr_t page = address - address % PageSize();
    const bool isBehind = g_watch.guards.count(page) != 0;
    for (MappedRange range; maps.Next(range);) {
        if (isBehind ? range.end != page : address < range.begin || address >= range.end) continue;
        const auto found = g_watch.buffers.find({range.device, range.inode});
        if (found == g_watch.buffers.end()) return false;
        if (g_watch.isDying) return true;
        g_watch.isDying = true;
        char what[80];
        const unsigned long long offset = range.offset + (address - range.begin);
        std::snprintf(what, sizeof what, "%s at offset %llu%s of", NameAccess(context), offset,
                      isBehind ? ", behind the end of a mapping," : "");
        Report(what, found->second);
        return true;
    }
    return false;
}

// Reports an access to a buffer and restores the previous handler (a sanitizer's, a crash reporter's or the kernel's
// default), which the repeated instruction reaches. Passes any other fault to that handler.
void OnFault(int signal, siginfo_t* info, void* context) {
    const int savedErrno = errno;
    const struct sigaction& previous = g_watch.previous;
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

bool IsMapped(const Identity& identity) {
    MapsReader maps;
    MappedRange range;
    return !maps.IsOpen() || NextOf(identity, maps, range);
}

bool HasDescriptor(const Identity& identity) {
    bool isFound = false;
    const bool isComplete = ForEachDescriptor([&](int fd) {
        struct stat status {};
        isFound = isFound || (fstat(fd, &status) == 0 && Identity(status.st_dev, status.st_ino) == identity);
    });
    return isFound || !isComplete;
}

// A DMA-BUF refuses such a mapping, memfd does not.
bool IsLongerThanBuffer(const Buffer& buffer, size_t size, off_t offset) {
    const uint64_t room = WholePages(buffer.size);
    const auto start = static_cast<uint64_t>(offset);
    return start > room || size > room - start;
}

// Forgets the guard pages from start up to end, which are no longer mapped as such.
void ForgetGuards(void* start, uintptr_t end) {
    const auto first = g_watch.guards.lower_bound(reinterpret_cast<uintptr_t>(start));
    g_watch.guards.erase(first, g_watch.guards.lower_bound(end));
}

void* MapStrictly(void* hint, size_t size, int protection, int flags, int fd, off_t offset) {
    const Lock lock(g_watch.lock);
    const auto* const found = Find(fd);
    if (found != nullptr && IsLongerThanBuffer(found->second, size, offset)) {
        errno = EINVAL;
        return MAP_FAILED;
    }
    const size_t whole = WholePages(size);
    const bool hasGuard = found != nullptr && hint == nullptr && (flags & MAP_FIXED) == 0;
    if (hasGuard) {
        hint = mmap(nullptr, whole + PageSize(), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (hint == MAP_FAILED) return hint;
        flags |= MAP_FIXED;
    }
    // With the requested protection, so that a descriptor that does not allow it is refused.
    void* const mapped = mmap(hint, size, protection, flags, fd, offset);
    if (mapped == MAP_FAILED) {
        const int savedErrno = errno;
        if (hasGuard) munmap(hint, whole + PageSize());
        errno = savedErrno;
        return mapped;
    }
    if (found != nullptr) mprotect(mapped, size, protection & found->second.Protection());
    const auto end = reinterpret_cast<uintptr_t>(mapped) + whole;
    ForgetGuards(mapped, end);
    if (hasGuard) g_watch.guards.insert(end);
    return mapped;
}

// Calls `release`, and ends the process when that took the last descriptor or mapping of a buffer with an open access.
// Keeps the lock, so that the check in another thread does not miss a descriptor that has just been duplicated.
template <typename Release>
int ReleaseStrictly(Release release) {
    Lock lock(g_watch.lock);
    const int result = release();
    const int savedErrno = errno;
    for (const auto& [identity, buffer] : g_watch.buffers) {
        if (g_watch.openBuffers == 0) break;
        if (buffer.openAccesses == 0 || IsMapped(identity) || HasDescriptor(identity)) continue;
        Refuse(lock, "release of", buffer);
    }
    errno = savedErrno;
    return result;
}

int Unmap(void* start, size_t size) {
    const auto end = reinterpret_cast<uintptr_t>(start) + WholePages(size);
    const bool hasGuard = g_watch.guards.count(end) != 0;
    const int result = munmap(start, hasGuard ? WholePages(size) + PageSize() : size);
    if (result == 0) ForgetGuards(start, hasGuard ? end + 1 : end);
    return result;
}

// Sanitizers make stack frames larger. GCC before 14 has no __has_feature.
#ifndef __has_feature
#define __has_feature(feature) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || __has_feature(address_sanitizer) || \
    __has_feature(thread_sanitizer)
constexpr size_t kThreadStack = 4 * 1015808;
#else
constexpr size_t kThreadStack = 1015808;
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
    sigaction(SIGSEGV, &action, &g_watch.previous);
    // A forked child inherits mappings and accesses, but must not inherit a held lock. Uses the native handle because
    // -Wthread-safety refuses a lock that one function takes and another releases.
    const auto lock = [] { pthread_mutex_lock(g_watch.lock.native_handle()); };
    const auto unlock = [] { pthread_mutex_unlock(g_watch.lock.native_handle()); };
    const auto inherit = [] {
        for (auto& [identity, buffer] : g_watch.buffers) buffer.inherited = buffer.openAccesses;
        pthread_mutex_unlock(g_watch.lock.native_handle());
    };
    pthread_atfork(lock, unlock, inherit);
}

// Runs at load, so that threads started before main() have the phone's stack too.
[[maybe_unused]] const bool g_isConfigured = [] {
    const char* const setting = std::getenv("HOSTDEVICE_STRICT");
    const std::string_view mode = setting != nullptr ? setting : "";
    if (!mode.empty() && mode != "0") SetStrict(true, mode == "quiet");
    return true;
}();

// Runs after the static destructors of everything that links to this library.
__attribute__((destructor)) void CheckAtExit() {
    if (!g_isStrict) return;
    const Lock lock(g_watch.lock);
    bool isLeft = false;
    for (const auto& [identity, buffer] : g_watch.buffers) {
        if (buffer.openAccesses <= buffer.inherited) continue;
        Report("exit with an access to", buffer);
        isLeft = true;
    }
    if (!isLeft) return;
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
    Lock lock(g_watch.lock);
    auto* const found = Find(fd);
    if (found == nullptr) return;
    auto& [identity, buffer] = *found;
    if (buffer.openAccesses++ == 0) {
        buffer.directions = 0;
        ++g_watch.openBuffers;
    }
    buffer.directions |= direction;
    buffer.wasOpened = true;
    Protect(lock, identity, buffer);
}

void CloseAccess(int fd) {
    if (!g_isStrict) return;
    Lock lock(g_watch.lock);
    auto* const found = Find(fd);
    if (found == nullptr) return;
    auto& [identity, buffer] = *found;
    if (buffer.openAccesses == 0) Refuse(lock, "end of an access that was not opened, to", buffer);
    buffer.inherited = std::min(buffer.inherited, --buffer.openAccesses);
    if (buffer.openAccesses > 0) return;
    --g_watch.openBuffers;
    Protect(lock, identity, buffer);
    if (!buffer.hasTail || (buffer.directions & kSyncWrite) == 0) return;
    size_t overwritten = 0;
    ForTail(buffer, PROT_READ, [&](unsigned char byte, unsigned char pattern) { overwritten += byte != pattern; });
    if (overwritten == 0) return;
    Say("%zu bytes written behind the %llu of descriptor %d", overwritten, static_cast<unsigned long long>(buffer.size),
        fd);
    Abort(lock);
}

void WatchMemory(int fd, uint64_t bytes) {
    if (!g_isStrict) return;
    const Lock lock(g_watch.lock);
    auto* const found = Find(fd);
    if (found == nullptr) return;
    found->second = {fd, bytes};
    found->second.hasTail = ForTail(found->second, PROT_READ | PROT_WRITE,
                                    [](unsigned char& byte, unsigned char pattern) { byte = pattern; });
}

}  // namespace hostdevice

void* __wrap_mmap(void* hint, size_t size, int protection, int flags, int fd, off_t offset) {
    return hostdevice::IsStrict() ? hostdevice::MapStrictly(hint, size, protection, flags, fd, offset)
                                  : mmap(hint, size, protection, flags, fd, offset);
}

void* __wrap_mmap64(void* hint, size_t size, int protection, int flags, int fd, off_t offset) {
    return __wrap_mmap(hint, size, protection, flags, fd, offset);
}

int __wrap_munmap(void* start, size_t size) {
    if (!hostdevice::IsStrict()) return munmap(start, size);
    return hostdevice::ReleaseStrictly([=] { return hostdevice::Unmap(start, size); });
}

int __wrap_close(int fd) {
    const bool isWatched = hostdevice::IsStrict() && hostdevice::KindOfDescriptor(fd) != hostdevice::MemoryKind::kOther;
    return isWatched ? hostdevice::ReleaseStrictly([=] { return close(fd); }) : close(fd);
}
