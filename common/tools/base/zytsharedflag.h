#ifndef ZYT_SHARED_FLAG_H
#define ZYT_SHARED_FLAG_H

/// Flags that clients see as a plain bool while the library reads and writes them from several threads. The library's
/// own accesses are atomic, so they order what was done before the flag was set and never tear.
namespace zyt {

[[nodiscard]] inline bool LoadFlag(const bool& flag) { return __atomic_load_n(&flag, __ATOMIC_ACQUIRE); }

inline void StoreFlag(bool& flag, bool value) { __atomic_store_n(&flag, value, __ATOMIC_RELEASE); }

}  // namespace zyt

#endif  // ZYT_SHARED_FLAG_H
