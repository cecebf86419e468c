#include <android/log.h>
#include <errno.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "internal.h"

namespace hostdevice {
namespace {

struct Sink {
    std::mutex lock;
    LogSink function;
};

// logcat's letters and its palette, by priority.
constexpr struct {
    char letter;
    int colour;
} kStyles[] = {{'?', 231}, {'?', 231}, {'V', 231}, {'D', 75}, {'I', 40},
               {'W', 166}, {'E', 196}, {'F', 196}, {'S', 231}};

// "month-day hour:minute:second.millisecond  pid  tid P tag     : ", as logcat -v threadtime has it.
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
    std::string prefix = head;
    prefix += tag;
    constexpr size_t kTagWidth = 8;
    if (std::strlen(tag) < kTagWidth) prefix.append(kTagWidth - std::strlen(tag), ' ');
    return prefix += ": ";
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
    // In one piece, so that lines of several threads and processes on one stderr do not mix.
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, lines.data(), lines.size());
}

}  // namespace

void DeliverLog(int priority, const char* tag, const char* text) {
    if (tag == nullptr) tag = program_invocation_short_name;
    if (text == nullptr) text = "";
    Sink& sink = Immortal<Sink>();
    const std::lock_guard<std::mutex> guard(sink.lock);
    if (sink.function) {
        sink.function(priority, tag, text);
    } else {
        Print(priority, tag, text);
    }
}

void SetLogSink(LogSink function) {
    Sink& sink = Immortal<Sink>();
    const std::lock_guard<std::mutex> guard(sink.lock);
    // The previous sink goes with the argument, outside the lock: what it holds may log when it is destroyed.
    sink.function.swap(function);
}

}  // namespace hostdevice
