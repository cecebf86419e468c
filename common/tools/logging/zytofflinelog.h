#ifndef ZYT_OFFLINE_LOG_H
#define ZYT_OFFLINE_LOG_H

/// @file
/// The offline log: lines in files, which outlive the platform log's ring.

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <list>
#include <mutex>
#include <string>

#include "base/zytexport.h"
#include "base/zytsharedflag.h"
#include "base/zytthreadsafety.h"
#include "threadpool/zytthreadpool.h"

/// Level of one offline line; its letter stands in the line. Any other value is written as "V".
enum class ZYTOfflineLogLevel : int32_t {
    E = 1,  ///< Error.
    W = 2,  ///< Warning.
    D = 3,  ///< Debug; before information, as in ZYTLogUtil.
    I = 4,  ///< Information.
    V = 5,  ///< Verbose.
};

/// What a worker is handed: one finished line in a malloc block of exactly this size.
struct ZYTOfflineLogParameter {
    char logLine[2048];  ///< NUL-terminated; zeros up to its end.
};

/// Keeps a copy of the log lines in files, so that they outlive the platform log's ring.
///
/// One instance per process, built on first use in static storage and destroyed at exit. Ten workers start with it,
/// whether it is switched on or not. It is on when "persist.vendor.camera.zyttools.offlinelog" is above 0, or when that
/// property is unset and the camera framework's switch is on; this is decided once, at construction.
///
/// Files are ZYT_OFFLINE_LOG_DIR `ZYTOfflineLog_YYYY-MM-DD--hh-mm-ss-uuuuuu.txt` in local time. A new one is started
/// for the first line and for each line that would bring the current one to 30 MiB; beyond 300 files of this process
/// the oldest is deleted. Each line is stamped with the local time, process, thread and level letter, is at most 2047
/// characters long (a longer one is cut and loses its newline) and is appended in one piece, in no fixed order.
///
/// The log functions run on any thread, ask no level but only the switch, and never touch the file system. A line that
/// cannot be written is lost without a word: there is nowhere left to report it. Lines still queued at exit are
/// discarded. A call that comes after the instance has been destroyed does nothing.
class ZYT_EXPORT ZYTOfflineLog {
public:
    /// Bytes that a file stays below; also the size of m_logPool.
    static constexpr uint32_t kFileSizeLimit = 30u << 20;
    static constexpr uint32_t kFileCountLimit = 300;  ///< Files of this process that are kept.
    static constexpr unsigned int kWorkerCount = 10;  ///< Threads that write.

    /// The instance, created on the first call.
    static ZYTOfflineLog& GetInstance();

    /// Whether the log functions write. Creates the instance, as they do.
    inline static bool IsOn() {
        const ZYTOfflineLog* log = __atomic_load_n(&m_instance, __ATOMIC_ACQUIRE);
        if (log == nullptr) log = &GetInstance();
        return zyt::LoadFlag(log->m_enable);
    }

#define ZYT_OFFLINE_LOG_FUNCTION(letter)                                                                      \
    /** Writes a message of level letter whatever ZYTLogUtil::m_level is; formatted as by printf. */          \
    __attribute__((format(printf, 1, 2))) inline static void ZYTOfflineLog##letter(const char* format, ...) { \
        if (!IsOn()) return;                                                                                  \
        va_list args;                                                                                         \
        va_start(args, format);                                                                               \
        GetInstance().Write(ZYTOfflineLogLevel::letter, format, args);                                        \
        va_end(args);                                                                                         \
    }

    ZYT_OFFLINE_LOG_FUNCTION(E)
    ZYT_OFFLINE_LOG_FUNCTION(W)
    ZYT_OFFLINE_LOG_FUNCTION(D)
    ZYT_OFFLINE_LOG_FUNCTION(I)
    ZYT_OFFLINE_LOG_FUNCTION(V)

#undef ZYT_OFFLINE_LOG_FUNCTION

    /// Stamps one message and queues it for the workers, even when the log is switched off. The text is copied.
    void PushLogToLogPool(const char* log, ZYTOfflineLogLevel level);

    /// What the workers run: writes the ZYTOfflineLogParameter at data. Does nothing for null or another size. The
    /// block stays the caller's.
    static void SaveLog(void* data, unsigned int size);

    /// Appends the line to the current file, or to a new one when the current would reach 30 MiB. False when the file
    /// cannot be opened: the line is lost, and the next one tries again. A failed write still counts as written. The
    /// block stays the caller's.
    bool FlushLogPoolToFile2(ZYTOfflineLogParameter* param) ZYT_EXCLUDES(m_logFileLock, m_logFileListLock);

    /// Writes m_logPool to a file of its own, empties the pool and counts the file towards the 300. False, with nothing
    /// changed, when the file cannot be opened. Takes no lock, so that a crash handler can call it whatever the other
    /// threads hold; the caller keeps it apart from every other use of the instance.
    bool FlushLogPoolToFile() ZYT_NO_THREAD_SAFETY_ANALYSIS;

    /// The camera framework's off-line log switch; false in a build without the framework.
    static bool ReadEnableFromOverrideSettingsFile();

    ZYTOfflineLog(const ZYTOfflineLog&) = delete;
    ZYTOfflineLog& operator=(const ZYTOfflineLog&) = delete;

    /// The switch, decided at construction and off again when the instance is destroyed. The library's own accesses are
    /// atomic.
    bool m_enable = false;
    bool m_previewEnable = false;  ///< The same for callers that keep preview apart; the library does not read it.
    bool m_captureEnable = false;  ///< The same for callers that keep capture apart; the library does not read it.

    /// Guards m_logFileList; taken after m_logFileLock.
    std::mutex m_logFileListLock;
    /// What FlushLogPoolToFile() writes. Nothing in the library fills it. It is left to static storage's zeros:
    /// touching it here would cost every process that logs 30 MiB of resident memory.
    char m_logPool[kFileSizeLimit];
    uint32_t m_logPoolSize = 0;  ///< Bytes used in m_logPool.
    ZYTThreadPool m_threadPool;  ///< The workers, started by the constructor.
    /// Files that this process has made and not deleted, oldest first.
    std::list<std::string> m_logFileList ZYT_GUARDED_BY(m_logFileListLock);
    std::mutex m_logFileLock;                                     ///< Guards the two below.
    uint32_t m_curLogFileSize ZYT_GUARDED_BY(m_logFileLock) = 0;  ///< Bytes in the current file.
    std::string m_curLogFileName ZYT_GUARDED_BY(m_logFileLock);   ///< Empty before the first line.

private:
    // Set at the end of the constructor and never taken back: once it is there, a log site finds out without a call
    // into the library that its line is not wanted. The switch in the static storage behind it outlives the instance.
    static ZYTOfflineLog* m_instance;

    ZYTOfflineLog();
    ~ZYTOfflineLog();

    __attribute__((format(printf, 3, 0))) void Write(ZYTOfflineLogLevel level, const char* format, va_list args) {
        char message[2048] = {};
        std::vsnprintf(message, sizeof(message), format, args);
        PushLogToLogPool(message, level);
    }

    void RememberFile(const std::string& name) ZYT_REQUIRES(m_logFileListLock);
    FILE* StartNextFile() ZYT_REQUIRES(m_logFileLock);
};

#endif  // ZYT_OFFLINE_LOG_H
