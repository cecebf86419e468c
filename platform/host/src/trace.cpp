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

bool hostdevice_is_tracing = false;

namespace {

int g_fd = -1;

// Trace events in JSON. Viewers accept a list without its end, so a process may end at any time.
[[maybe_unused]] const bool g_isOpened = [] {
    const char* const setting = std::getenv("HOSTDEVICE_TRACE");
    std::string name = setting != nullptr ? setting : "";
    if (name.empty()) return false;
    for (size_t at; (at = name.find("%p")) != std::string::npos;) name.replace(at, 2, std::to_string(getpid()));
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC;
    g_fd = hostdevice::AboveStandardDescriptors(open(name.c_str(), kFlags, 0666));
    hostdevice_is_tracing = g_fd >= 0 && write(g_fd, "[\n", 2) == 2;
    if (!hostdevice_is_tracing)
        std::fprintf(stderr, "hostdevice: no trace: %s: %s\n", name.c_str(), std::strerror(errno));
    return true;
}();

// A name as the inside of a JSON string: printable ASCII, anything else by its code.
struct Quoted {
    explicit Quoted(const char* name) {
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

// Writes an event with what the format adds. One write, so that events of several threads and processes do not mix.
__attribute__((format(printf, 2, 3))) void Write(char phase, const char* format, ...) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    char event[3 * sizeof(Quoted)];
    va_list args;
    va_start(args, format);
    std::vsnprintf(event, sizeof event, format, args);
    va_end(args);
    char line[sizeof event + 128];
    const int length = std::snprintf(line, sizeof line, "{\"ph\":\"%c\",\"ts\":%lld.%03ld,\"pid\":%d,\"tid\":%ld%s},\n",
                                     phase, now.tv_sec * 1000000LL + now.tv_nsec / 1000, now.tv_nsec % 1000, getpid(),
                                     syscall(SYS_gettid), event);
    [[maybe_unused]] const ssize_t written = write(g_fd, line, static_cast<size_t>(length));
}

// Names the process and the thread before the thread's first event and after a change.
void WriteNames() {
    thread_local char t_name[16] = "";
    thread_local pid_t t_process = 0;
    char name[sizeof t_name] = "";
    prctl(PR_GET_NAME, name);
    if (t_process == getpid() && std::strcmp(name, t_name) == 0) return;
    t_process = getpid();
    std::memcpy(t_name, name, sizeof name);
    constexpr char kFormat[] = R"(,"name":"%s","args":{"name":"%s"})";
    Write('M', kFormat, "process_name", Quoted(program_invocation_short_name).text);
    Write('M', kFormat, "thread_name", Quoted(name).text);
}

}  // namespace

void hostdevice_trace(char phase, const char* name, int64_t value) {
    const int savedErrno = errno;
    WriteNames();
    const Quoted quoted(name != nullptr ? name : "(null)");
    if (phase == 'E') {
        Write(phase, "%s", "");
    } else if (phase == 'B') {
        Write(phase, R"(,"name":"%s")", quoted.text);
    } else if (phase == 'C') {
        Write(phase, R"(,"name":"%s","args":{"value":%)" PRId64 "}", quoted.text, value);
    } else {
        // The category makes the name a part of the identity.
        Write(phase, R"(,"name":"%s","cat":"%s","id2":{"local":"%)" PRId64 R"("})", quoted.text, quoted.text, value);
    }
    errno = savedErrno;
}
