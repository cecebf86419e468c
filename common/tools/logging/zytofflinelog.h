#ifndef ZYT_OFFLINE_LOG_H
#define ZYT_OFFLINE_LOG_H

/// @file
/// The offline log: log lines in files, which survive when the platform log has rotated.

#include <atomic>
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

// <complex.h> defines a macro of this name in the compilers' GNU modes.
#pragma push_macro("I")
#undef I

/// Level of an offline line; its letter is written in the line. Any other value is written as "V".
enum class ZYTOfflineLogLevel : int32_t {
    E = 1,  ///< Error.
    W = 2,  ///< Warning.
    D = 3,  ///< Debug; before information, as in ZYTLogUtil.
    I = 4,  ///< Information.
    V = 5,  ///< Verbose.
};

/// One finished line, handed to a worker in a malloc block of exactly this size.
struct ZYTOfflineLogParameter {
    char logLine[2048];  ///< NUL-terminated; zeros up to its end.
};

/// Keeps a copy of the log lines in files.
///
/// There is one instance per process, created on first use in static storage and destroyed at exit. Its ten workers,
/// named "ZYTOfflineLog", start with it, whether it is on or not. It is on when
/// "persist.vendor.camera.zyttools.offlinelog" is above 0, or when that property is unset and the camera framework's
/// switch is on; this is decided once, at construction.
///
/// Files are named `/data/vendor/camera/offlinelog/ZYTOfflineLog_YYYY-MM-DD--hh-mm-ss-uuuuuu.txt` in local time. A new
/// file is opened for the first line and for each line that would bring the current file to 30 MiB. Beyond 300 files of
/// this process the oldest is deleted. Each line is stamped with the local time, process, thread and level letter, is
/// at most 2047 characters long (a longer one is cut and loses its newline) and is appended in one piece. Lines of
/// different workers have no fixed order. A line is counted after it was written, so a file can exceed 30 MiB by the
/// lines that workers write at the same time.
///
/// The log functions are thread-safe and test only the switch, never a level. They access the file system only for the
/// time zone, at most once a second in each thread, where the C library looks at the zone's file. A line that cannot be
/// written is lost without a report, because no place is left for one. Lines that are queued while there are no
/// workers, because no thread could be started or a caller stopped m_threadPool, stay in memory. Lines that are still
/// queued at exit are discarded. After the instance has been destroyed the log functions and PushLogToLogPool do
/// nothing; no other member may be used then.
///
/// The same holds in a forked child when the instance existed at the fork, since its workers are not there. Such a
/// child ends by exec or _exit(): exit() waits for the workers. A child that is the first to log has an instance of its
/// own. REQUIRES: no fork while another thread creates the instance.
///
/// dlclose() of the last library that links to this one destroys the instance under the loader's lock: a thread that
/// still logs crashes, and exit() or a library load on a worker waits for ever. A service that unloads nodes keeps this
/// library loaded: `dlopen("libzyttools.so", RTLD_NOW | RTLD_NODELETE)`.
class ZYT_EXPORT ZYTOfflineLog {
public:
    /// Bytes at which a file is full; also the size of m_logPool.
    static constexpr uint32_t kFileSizeLimit = 30u << 20;
    static constexpr uint32_t kFileCountLimit = 300;  ///< Files of this process that are kept.
    static constexpr unsigned int kWorkerCount = 10;  ///< Threads that write.

    /// Returns the instance, which the first call creates.
    static ZYTOfflineLog& GetInstance();

    /// Returns whether the log functions write. Creates the instance, as they do.
    inline static bool IsOn() {
        const ZYTOfflineLog* log = m_instance.load(std::memory_order_acquire);
        if (log == nullptr) log = &GetInstance();
        return zyt::LoadFlag(log->m_enable);
    }

    /// Writes an error, formatted as by printf and cut to 2047 characters, whatever ZYTLogUtil::m_level is.
    __attribute__((format(printf, 1, 2))) inline static void ZYTOfflineLogE(const char* format, ...)
        ZYT_EXCLUDES(GetInstance().m_threadPool.m_taskListLock) {
        if (!IsOn()) return;
        va_list args;
        va_start(args, format);
        GetInstance().Write(ZYTOfflineLogLevel::E, format, args);
        va_end(args);
    }

    /// Writes a warning, formatted as by printf and cut to 2047 characters, whatever ZYTLogUtil::m_level is.
    __attribute__((format(printf, 1, 2))) inline static void ZYTOfflineLogW(const char* format, ...)
        ZYT_EXCLUDES(GetInstance().m_threadPool.m_taskListLock) {
        if (!IsOn()) return;
        va_list args;
        va_start(args, format);
        GetInstance().Write(ZYTOfflineLogLevel::W, format, args);
        va_end(args);
    }

    /// Writes a debug message, formatted as by printf and cut to 2047 characters, whatever ZYTLogUtil::m_level is.
    __attribute__((format(printf, 1, 2))) inline static void ZYTOfflineLogD(const char* format, ...)
        ZYT_EXCLUDES(GetInstance().m_threadPool.m_taskListLock) {
        if (!IsOn()) return;
        va_list args;
        va_start(args, format);
        GetInstance().Write(ZYTOfflineLogLevel::D, format, args);
        va_end(args);
    }

    /// Writes an information message, formatted as by printf and cut to 2047 characters, whatever ZYTLogUtil::m_level
    /// is.
    __attribute__((format(printf, 1, 2))) inline static void ZYTOfflineLogI(const char* format, ...)
        ZYT_EXCLUDES(GetInstance().m_threadPool.m_taskListLock) {
        if (!IsOn()) return;
        va_list args;
        va_start(args, format);
        GetInstance().Write(ZYTOfflineLogLevel::I, format, args);
        va_end(args);
    }

    /// Writes a verbose message, formatted as by printf and cut to 2047 characters, whatever ZYTLogUtil::m_level is.
    __attribute__((format(printf, 1, 2))) inline static void ZYTOfflineLogV(const char* format, ...)
        ZYT_EXCLUDES(GetInstance().m_threadPool.m_taskListLock) {
        if (!IsOn()) return;
        va_list args;
        va_start(args, format);
        GetInstance().Write(ZYTOfflineLogLevel::V, format, args);
        va_end(args);
    }

    /// Stamps a message and queues it for the workers, even when the log is off. The text is copied. Dropped when there
    /// is no memory. Thread-safe.
    void PushLogToLogPool(const char* log, ZYTOfflineLogLevel level) ZYT_EXCLUDES(m_threadPool.m_taskListLock);

    /// Writes the ZYTOfflineLogParameter at `data`; the workers run this. Does nothing for null or for another size.
    /// The caller keeps the block. Thread-safe.
    static void SaveLog(void* data, unsigned int size)
        ZYT_EXCLUDES(GetInstance().m_logFileLock, GetInstance().m_logFileListLock);

    /// Appends the line to the current file, or to a new one when the line would bring the current file to 30 MiB.
    /// Returns false when the file cannot be opened: the line is lost, and the next one tries again. A failed write
    /// counts as written. The caller keeps the block. Thread-safe.
    bool FlushLogPoolToFile2(ZYTOfflineLogParameter* param) ZYT_EXCLUDES(m_logFileLock, m_logFileListLock);

    /// Writes m_logPool to a file of its own, empties the pool and counts the file towards the 300. Returns false, with
    /// nothing changed, when the file cannot be opened. Clears the whole pool, which makes its 30 MiB resident. Takes
    /// none of the locks below, so that it can be called while another thread holds them; REQUIRES: no other use of the
    /// instance at the same time. It allocates memory and uses stdio, so it is not safe in a signal handler.
    bool FlushLogPoolToFile() ZYT_NO_THREAD_SAFETY_ANALYSIS;

    /// Returns the camera framework's offline-log switch; false in a build without the framework.
    static bool ReadEnableFromOverrideSettingsFile();

    ZYTOfflineLog(const ZYTOfflineLog&) = delete;
    ZYTOfflineLog& operator=(const ZYTOfflineLog&) = delete;

    /// The switch, set by the constructor and cleared by the destructor. The library accesses it atomically.
    bool m_enable = false;
    bool m_previewEnable = false;  ///< The switch for callers' preview paths. The library does not read it.
    bool m_captureEnable = false;  ///< The switch for callers' capture paths. The library does not read it.

    /// Guards m_logFileList; taken after m_logFileLock.
    std::mutex m_logFileListLock;
    /// What FlushLogPoolToFile() writes. Nothing in the library fills it. The zeros are those of static storage:
    /// writing them would cost every process that logs 30 MiB of resident memory.
    char m_logPool[kFileSizeLimit];
    uint32_t m_logPoolSize = 0;  ///< Bytes used in m_logPool.
    ZYTThreadPool m_threadPool;  ///< The workers, started by the constructor.
    /// Files that this process has created and not deleted, oldest first.
    std::list<std::string> m_logFileList ZYT_GUARDED_BY(m_logFileListLock);
    std::mutex m_logFileLock;                                     ///< Guards the two members below.
    uint32_t m_curLogFileSize ZYT_GUARDED_BY(m_logFileLock) = 0;  ///< Bytes in the current file.
    std::string m_curLogFileName ZYT_GUARDED_BY(m_logFileLock);   ///< Full path; empty before the first line.

private:
    // Set at the end of the constructor and never cleared, so that a log site learns without a call into the library
    // that its line is not wanted. The switch it leads to is in static storage and outlives the instance.
    static std::atomic<ZYTOfflineLog*> m_instance;

    ZYT_LOCAL ZYTOfflineLog();
    ZYT_LOCAL ~ZYTOfflineLog();

    __attribute__((format(printf, 3, 0))) void Write(ZYTOfflineLogLevel level, const char* format, va_list args)
        ZYT_EXCLUDES(m_threadPool.m_taskListLock) {
        char message[2048] = {};
        std::vsnprintf(message, sizeof(message), format, args);
        PushLogToLogPool(message, level);
    }

    ZYT_LOCAL void RememberFile(const std::string& name) ZYT_REQUIRES(m_logFileListLock);
    ZYT_LOCAL FILE* StartNextFile() ZYT_REQUIRES(m_logFileLock);
};

#pragma pop_macro("I")

#endif  // ZYT_OFFLINE_LOG_H
