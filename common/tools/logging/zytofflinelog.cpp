#include "logging/zytofflinelog.h"

#include <cutils/properties.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "base/zytexitgate.h"

#if __has_include(<camxsettingsmanager.h>)
#include <camxsettingsmanager.h>
#define ZYT_HAS_CAMERA_FRAMEWORK 1
#endif

// Where the files go, with a final slash. A desk's build puts an expression in place of the device's directory.
#ifndef ZYT_OFFLINE_LOG_DIR
#define ZYT_OFFLINE_LOG_DIR "/data/vendor/camera/offlinelog/"
#endif

namespace {

zyt::ExitGate g_gate;

// Around tzset(), whose own lock a thread sanitizer does not see.
ZYT_NO_DESTROY std::mutex g_zoneLock;

// Breaks a time down as localtime() does, which looks at TZ and the zone's file anew each time; localtime_r() alone
// need not.
tm LocalTime(time_t time) {
    zyt::Lock lock(g_zoneLock);
    tzset();
    tm local{};
    localtime_r(&time, &local);
    return local;
}

const char* LevelLetter(ZYTOfflineLogLevel level) {
    static constexpr const char* kLetters[] = {"V", "E", "W", "D", "I", "V"};
    const auto index = static_cast<uint32_t>(level);
    return index < sizeof(kLetters) / sizeof(kLetters[0]) ? kLetters[index] : "V";
}

constexpr size_t kFileNameSize = 256;

std::string NextFileName() {
    timeval now{};
    gettimeofday(&now, nullptr);
    const tm local = LocalTime(now.tv_sec);
    char name[kFileNameSize] = {};
    std::snprintf(name, sizeof(name), "%sZYTOfflineLog_%04d-%02d-%02d--%02d-%02d-%02d-%06ld.txt", ZYT_OFFLINE_LOG_DIR,
                  local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<long>(now.tv_usec));
    return name;
}

// The parts of a stamp that stay the same for a thread within one second: the local time and the identifiers. Computing
// them costs more than the rest of queueing a line.
struct StampCache {
    time_t second = -1;
    char date[16] = {};  // "MM-DD hh:mm:ss:"
    char ids[32] = {};   // "  pid  tid "

    void Refresh(time_t now) {
        const tm local = LocalTime(now);
        std::strftime(date, sizeof(date), "%m-%d %H:%M:%S:", &local);
        std::snprintf(ids, sizeof(ids), "  %4d  %4d ", getpid(), gettid());
        second = now;
    }
};

struct FreeBlock {
    void operator()(void* block) const { std::free(block); }
};

char* Append(char* end, const char* text) {
    const size_t length = std::strlen(text);
    std::memcpy(end, text, length);
    return end + length;
}

// Writes "MM-DD hh:mm:ss:nanoseconds  pid  tid L ZYT: " at the start of a line and returns its length.
size_t StampLine(char (&line)[sizeof(ZYTOfflineLogParameter)], ZYTOfflineLogLevel level) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    thread_local StampCache cache;
    if (cache.second != now.tv_sec) cache.Refresh(now.tv_sec);
    char* end = Append(line, cache.date);
    constexpr int kNanosecondDigits = 9;
    long nanoseconds = now.tv_nsec;
    for (int i = kNanosecondDigits - 1; i >= 0; --i, nanoseconds /= 10)
        end[i] = static_cast<char>('0' + nanoseconds % 10);
    end = Append(end + kNanosecondDigits, cache.ids);
    end = Append(end, LevelLetter(level));
    end = Append(end, " ZYT: ");
    return static_cast<size_t>(end - line);
}

}  // namespace

std::atomic<ZYTOfflineLog*> ZYTOfflineLog::m_instance{nullptr};

ZYTOfflineLog& ZYTOfflineLog::GetInstance() {
    static ZYTOfflineLog instance;
    return instance;
}

ZYTOfflineLog::ZYTOfflineLog() {
    m_threadPool.Init(kWorkerCount);
    {
        zyt::Lock lock(m_threadPool.m_threadListLock);
        for (const int64_t id : m_threadPool.m_threadIdList) {
            pthread_setname_np(static_cast<pthread_t>(id), "ZYTOfflineLog");
        }
    }
    pthread_atfork(nullptr, nullptr, [] { g_gate.CloseInChild(); });
    const int32_t property = property_get_int32("persist.vendor.camera.zyttools.offlinelog", -1);
    m_enable = property == -1 ? ReadEnableFromOverrideSettingsFile() : property > 0;
    m_previewEnable = m_enable;
    m_captureEnable = m_enable;
    zyt::Lock lock(m_logFileLock);
    m_curLogFileName.clear();
    m_curLogFileSize = kFileSizeLimit;  // full, so that the first line starts a file
    m_instance.store(this, std::memory_order_release);
}

ZYTOfflineLog::~ZYTOfflineLog() {
    // Objects that are destroyed later and threads that still run continue to log. From here on they find the log off;
    // those that are already past that test are waited for.
    zyt::StoreFlag(m_enable, false);
    g_gate.Close();
    m_threadPool.DeInit(true);
}

bool ZYTOfflineLog::ReadEnableFromOverrideSettingsFile() {
#ifdef ZYT_HAS_CAMERA_FRAMEWORK
    // The switch is bit 0 of byte 15 of the record. Releases of the framework name the field differently but keep its
    // place.
    const auto* settings =
        reinterpret_cast<const unsigned char*>(CamX::SettingsManager::GetInstance(nullptr)->GetStaticSettings());
    return (settings[15] & 1) != 0;
#else
    return false;
#endif
}

void ZYTOfflineLog::PushLogToLogPool(const char* log, ZYTOfflineLogLevel level) {
    zyt::ExitGate::Pass pass(g_gate);
    if (!pass) return;
    std::unique_ptr<ZYTOfflineLogParameter, FreeBlock> owner(
        static_cast<ZYTOfflineLogParameter*>(std::malloc(sizeof(ZYTOfflineLogParameter))));
    if (owner == nullptr) return;
    auto& line = owner->logLine;
    constexpr size_t kLongest = sizeof(line) - 1;
    size_t length = StampLine(line, level);
    const size_t messageLength = std::min(std::strlen(log), kLongest - length);
    std::memcpy(line + length, log, messageLength);
    length += messageLength;
    if (length < kLongest) line[length++] = '\n';
    std::memset(line + length, 0, sizeof(line) - length);
    m_threadPool.QueueTask({ZYT_THREAD_POOL_TASK_NORMAL, SaveLog, owner.get(), sizeof(ZYTOfflineLogParameter)});
    static_cast<void>(owner.release());  // the queue's, unless there was no memory for its node
}

void ZYTOfflineLog::SaveLog(void* data, unsigned int size) {
    if (data == nullptr || size != sizeof(ZYTOfflineLogParameter)) return;
    GetInstance().FlushLogPoolToFile2(static_cast<ZYTOfflineLogParameter*>(data));
}

void ZYTOfflineLog::RememberFile(const std::string& name) {
    m_logFileList.push_back(name);
    if (m_logFileList.size() > kFileCountLimit) {
        std::remove(m_logFileList.front().c_str());
        m_logFileList.pop_front();
    }
}

FILE* ZYTOfflineLog::StartNextFile() {
    const std::string name = NextFileName();
    FILE* file = std::fopen(name.c_str(), "w");
    if (file == nullptr) return nullptr;
    // Other workers append to this file as soon as its name is known. This line must not be written at a position of
    // its own, where it would overwrite theirs.
    fcntl(fileno(file), F_SETFL, O_APPEND);
    m_curLogFileSize = 0;
    m_curLogFileName = name;
    zyt::Lock listLock(m_logFileListLock);
    RememberFile(name);
    return file;
}

bool ZYTOfflineLog::FlushLogPoolToFile2(ZYTOfflineLogParameter* param) {
    const auto length = static_cast<uint32_t>(std::strlen(param->logLine));
    zyt::Lock lock(m_logFileLock);
    FILE* file = nullptr;
    if (m_curLogFileSize + length < kFileSizeLimit) {
        const std::string name = m_curLogFileName;
        lock.Unlock();
        file = std::fopen(name.c_str(), "a");
    } else {
        file = StartNextFile();
        lock.Unlock();
    }
    if (file == nullptr) return false;
    // Room for the whole line: with a smaller buffer, as in some C libraries, the line would be appended in pieces,
    // with other workers' lines between them.
    char buffer[sizeof(ZYTOfflineLogParameter)];
    std::setvbuf(file, buffer, _IOFBF, sizeof(buffer));
    std::fwrite(param->logLine, 1, length, file);
    {
        zyt::Lock sizeLock(m_logFileLock);
        m_curLogFileSize += length;
    }
    std::fclose(file);
    return true;
}

bool ZYTOfflineLog::FlushLogPoolToFile() {
    const std::string name = NextFileName();
    FILE* file = std::fopen(name.c_str(), "w");
    if (file == nullptr) return false;
    std::fwrite(m_logPool, 1, m_logPoolSize, file);
    std::memset(m_logPool, 0, sizeof(m_logPool));
    m_logPoolSize = 0;
    RememberFile(name);
    std::fclose(file);
    return true;
}
