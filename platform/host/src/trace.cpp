#include "cutils/trace.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "memory.h"

uint64_t atrace_enabled_tags = 0;

namespace {

int g_fd = -1;

// Trace events in JSON. Viewers accept a list without its end, so a process may end at any time.
void OpenFile() {
    const char* const setting = std::getenv("HOSTDEVICE_TRACE");
    if (setting == nullptr || *setting == '\0') return;
    std::string name = setting;
    for (size_t at; (at = name.find("%p")) != std::string::npos;) name.replace(at, 2, std::to_string(getpid()));
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC;
    g_fd = hostdevice::AboveStandardDescriptors(open(name.c_str(), kFlags, 0666));
    if (g_fd < 0 || write(g_fd, "[\n", 2) != 2) {
        std::fprintf(stderr, "hostdevice: no trace: %s: %s\n", name.c_str(), std::strerror(errno));
        return;
    }
    atrace_enabled_tags = ~uint64_t{ATRACE_TAG_NEVER};
}

[[maybe_unused]] const bool g_isOpened = (OpenFile(), true);

// A name as the inside of a JSON string: printable ASCII, anything else by its code.
struct Quoted {
    explicit Quoted(const char* name) {
        if (name == nullptr) name = "(null)";
        size_t used = 0;
        for (size_t length = 0; length < kLongest && name[length] != '\0'; ++length) {
            const auto c = static_cast<unsigned char>(name[length]);
            const bool isPlain = c >= ' ' && c < 0x7f && c != '"' && c != '\\';
            used += static_cast<size_t>(std::snprintf(text + used, sizeof text - used, isPlain ? "%c" : "\\u%04x", c));
        }
    }

    static constexpr size_t kLongest = 127;
    char text[6 * kLongest + 1] = "";
};

// Writes one event: its phase, time, process and thread, and what the format adds. One write, so that events of
// several threads and forked processes do not mix.
__attribute__((format(printf, 2, 3))) void WriteEvent(char phase, const char* format, ...) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    char line[3 * sizeof(Quoted)];
    int length =
        std::snprintf(line, sizeof line, R"({"ph":"%c","ts":%lld.%03ld,"pid":%d,"tid":%ld)", phase,
                      now.tv_sec * 1000000LL + now.tv_nsec / 1000, now.tv_nsec % 1000, getpid(), syscall(SYS_gettid));
    va_list args;
    va_start(args, format);
    length += std::vsnprintf(line + length, sizeof line - static_cast<size_t>(length), format, args);
    va_end(args);
    length += std::snprintf(line + length, sizeof line - static_cast<size_t>(length), "},\n");
    [[maybe_unused]] const ssize_t written = write(g_fd, line, static_cast<size_t>(length));
}

// Keeps errno, and names the process and the thread before a thread's first event and after a change.
class Event {
public:
    Event() {
        thread_local char t_name[16] = "";
        thread_local pid_t t_process = 0;
        char name[16] = "";
        prctl(PR_GET_NAME, name);
        if (t_process == getpid() && std::strcmp(name, t_name) == 0) return;
        t_process = getpid();
        std::strcpy(t_name, name);
        constexpr char kFormat[] = R"(,"name":"%s","args":{"name":"%s"})";
        WriteEvent('M', kFormat, "process_name", Quoted(program_invocation_short_name).text);
        WriteEvent('M', kFormat, "thread_name", Quoted(name).text);
    }
    ~Event() { errno = m_savedErrno; }
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

private:
    const int m_savedErrno = errno;
};

// The category makes the name a part of the identity.
void WriteAsync(char phase, const char* name, int32_t cookie) {
    const Event event;
    const Quoted quoted(name);
    WriteEvent(phase, R"(,"cat":"%s","id2":{"local":"%)" PRId32 R"("},"name":"%s")", quoted.text, cookie, quoted.text);
}

}  // namespace

void atrace_begin_body(const char* name) {
    const Event event;
    WriteEvent('B', R"(,"name":"%s")", Quoted(name).text);
}

void atrace_end_body() {
    const Event event;
    WriteEvent('E', "%s", "");
}

void atrace_async_begin_body(const char* name, int32_t cookie) { WriteAsync('b', name, cookie); }

void atrace_async_end_body(const char* name, int32_t cookie) { WriteAsync('e', name, cookie); }

void atrace_int_body(const char* name, int32_t value) { atrace_int64_body(name, value); }

void atrace_int64_body(const char* name, int64_t value) {
    const Event event;
    WriteEvent('C', R"(,"name":"%s","args":{"value":%)" PRId64 "}", Quoted(name).text, value);
}
