#ifndef ZYT_THREAD_SAFETY_H
#define ZYT_THREAD_SAFETY_H

#include <mutex>

/// Lock rules for the compiler. They are checked by clang with libc++, whose std::mutex is an annotated capability when
/// _LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS is defined; with any other compiler or library they expand to nothing.
#if defined(__clang__) && defined(_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS)
#define ZYT_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZYT_THREAD_ANNOTATION(x)
#endif

#define ZYT_GUARDED_BY(lock) ZYT_THREAD_ANNOTATION(guarded_by(lock))
#define ZYT_REQUIRES(lock) ZYT_THREAD_ANNOTATION(requires_capability(lock))
#define ZYT_EXCLUDES(...) ZYT_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ZYT_ACQUIRE(...) ZYT_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ZYT_RELEASE(...) ZYT_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ZYT_SCOPED_CAPABILITY ZYT_THREAD_ANNOTATION(scoped_lockable)
#define ZYT_NO_THREAD_SAFETY_ANALYSIS ZYT_THREAD_ANNOTATION(no_thread_safety_analysis)

/// For a lock in static storage that threads may still use after static destruction. On a phone std::mutex has a
/// destructor, and a lock that was destroyed ends the process. gcc's library has none.
#ifdef __clang__
#define ZYT_NO_DESTROY [[clang::no_destroy]]
#else
#define ZYT_NO_DESTROY
#endif

namespace zyt {

/// Holds a mutex for a scope and can let go of it early. std::unique_lock does the work; this class only carries the
/// annotations that the standard one lacks.
class ZYT_SCOPED_CAPABILITY Lock {
public:
    explicit Lock(std::mutex& mutex) ZYT_ACQUIRE(mutex) : m_lock(mutex) {}
    ~Lock() ZYT_RELEASE() = default;
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    void Unlock() ZYT_RELEASE() { m_lock.unlock(); }

    /// For std::condition_variable::wait, which gives the mutex back locked, as it found it.
    std::unique_lock<std::mutex>& Native() { return m_lock; }

private:
    std::unique_lock<std::mutex> m_lock;
};

}  // namespace zyt

#endif  // ZYT_THREAD_SAFETY_H
