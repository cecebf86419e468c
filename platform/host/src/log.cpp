#include <android/log.h>
#include <android/set_abort_message.h>
#include <cutils/properties.h>
#include <errno.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "internal.h"

namespace hostdevice {
namespace {

// The current sink. Each call inside it holds a reference too.
struct Sink {
    std::mutex lock;
    std::shared_ptr<const LogSink> function = std::make_shared<const LogSink>();
};

// One sink call on this thread; the list starts with the innermost.
struct SinkCall {
    const std::shared_ptr<const LogSink> function;
    const SinkCall* const outer;
};
thread_local const SinkCall* t_innermostCall = nullptr;

// logcat's letters and its palette, by priority.
constexpr struct {
    char letter;
    int colour;
} kStyles[] = {{'?', 231}, {'?', 231}, {'V', 231}, {'D', 75}, {'I', 40},
               {'W', 166}, {'E', 196}, {'F', 196}, {'S', 231}};

// Returns "month-day hour:minute:second.millisecond  pid  tid P tag     : ", like logcat -v threadtime.
std::string ThreadtimePrefix(char letter, const char* tag) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char date[32];
    strftime(date, sizeof date, "%m-%d %H:%M:%S", &local);
    char head[80];
    std::snprintf(head, sizeof head, "%s.%03ld %5d %5ld %c ", date, now.tv_nsec / 1000000, getpid(),
                  syscall(SYS_gettid), letter);
    constexpr size_t kTagWidth = 8;
    std::string padded = tag;
    if (padded.size() < kTagWidth) padded.resize(kTagWidth, ' ');
    return head + padded + ": ";
}

void Print(int priority, const char* tag, const char* text) {
    const bool isKnown = priority >= ANDROID_LOG_UNKNOWN && priority <= ANDROID_LOG_SILENT;
    const auto& style = kStyles[isKnown ? priority : ANDROID_LOG_UNKNOWN];
    const bool isTerminal = isatty(STDERR_FILENO) != 0;
    std::string prefix = isTerminal ? "\x1B[38;5;" + std::to_string(style.colour) + "m" : "";
    prefix += ThreadtimePrefix(style.letter, tag);
    const char* suffix = isTerminal ? "\x1B[0m\n" : "\n";
    std::string lines;
    const char* line = text;
    do {
        const size_t length = std::strcspn(line, "\n");
        lines.append(prefix).append(line, length).append(suffix);
        line += length;
        if (*line == '\n') ++line;
    } while (*line != '\0');
    // One write, so that lines of several threads and processes do not mix on stderr.
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, lines.data(), lines.size());
}

}  // namespace

// The first property that is set to a letter decides; the tag's own precedes the one for all tags.
bool IsLoggable(int priority, const char* tag, int defaultLevel) {
    for (const std::string& name : {std::string("log.tag.") + (tag != nullptr ? tag : ""), std::string("log.tag")}) {
        for (const std::string& key : {"persist." + name, name}) {
            char value[PROPERTY_VALUE_MAX];
            property_get(key.c_str(), value, "-");
            constexpr char kLetters[] = "VDIWEFS";
            const char* const letter = std::strchr(kLetters, std::toupper(static_cast<unsigned char>(value[0])));
            if (letter == nullptr) continue;
            return priority >= ANDROID_LOG_VERBOSE + (letter - kLetters);
        }
    }
    return priority >= defaultLevel;
}

void CrashOnNull(const char* what) {
    std::fprintf(stderr, "hostdevice: %s is null, which crashes on a device\n", what);
    std::abort();
}

bool DeliverLog(int priority, const char* tag, const char* text) {
    if (tag == nullptr) tag = program_invocation_short_name;
    if (text == nullptr) CrashOnNull("a log message");
    if (!IsLoggable(priority, tag, priority)) return false;
    Sink& sink = Immortal<Sink>();
    std::unique_lock<std::mutex> guard(sink.lock);
    const SinkCall call = {sink.function, t_innermostCall};
    guard.unlock();
    if (*call.function) {
        t_innermostCall = &call;
        (*call.function)(priority, tag, text);
        t_innermostCall = call.outer;
    } else {
        Print(priority, tag, text);
    }
    return true;
}

void SetLogSink(LogSink function) {
    auto replaced = std::make_shared<const LogSink>(std::move(function));
    Sink& sink = Immortal<Sink>();
    {
        const std::lock_guard<std::mutex> guard(sink.lock);
        sink.function.swap(replaced);
    }
    // The caller may destroy what the previous sink refers to once this returns. Its calls on this thread continue.
    long own = 0;
    for (const SinkCall* call = t_innermostCall; call != nullptr; call = call->outer) own += call->function == replaced;
    while (replaced.use_count() > own + 1) std::this_thread::sleep_for(std::chrono::microseconds(50));
}

}  // namespace hostdevice

void android_set_abort_message(const char* msg) {
    if (msg == nullptr) return;
    char newline = '\n';
    const iovec parts[] = {{const_cast<char*>(msg), std::strlen(msg)}, {&newline, 1}};
    [[maybe_unused]] const ssize_t written = writev(STDERR_FILENO, parts, 2);
}
