#ifndef HOSTDEVICE_MAPS_H
#define HOSTDEVICE_MAPS_H

#include <dirent.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace hostdevice {

/// A line of /proc/self/maps.
struct MappedRange {
    uintptr_t begin, end;
    uint64_t offset;   ///< Bytes into the file.
    dev_t device;      ///< As returned by fstat.
    ino_t inode;       ///< 0 when no file is mapped.
    const char* path;  ///< Truncated; empty when there is none. Valid until the next line is read.
};

/// Reads /proc/self/maps with system calls only and without the heap, so a signal handler may use it.
class MapsReader {
public:
    MapsReader();
    ~MapsReader();
    MapsReader(const MapsReader&) = delete;
    MapsReader& operator=(const MapsReader&) = delete;

    /// Returns false when the file cannot be opened. There are no lines then.
    bool IsOpen() const { return m_fd >= 0; }

    /// Reads the next line. Returns false at the end.
    bool Next(MappedRange& range);

private:
    bool ReadLine();

    const int m_fd;
    size_t m_used = 0;
    size_t m_filled = 0;
    char m_block[4096];
    char m_line[160];
};

/// Calls `use` with each open descriptor of this process. Returns false when they cannot be listed.
template <typename Use>
bool ForEachDescriptor(Use use) {
    DIR* const directory = opendir("/proc/self/fd");
    if (directory == nullptr) return false;
    while (const dirent* const entry = readdir(directory)) {
        if (entry->d_name[0] != '.') use(std::atoi(entry->d_name));
    }
    closedir(directory);
    return true;
}

}  // namespace hostdevice

#endif  // HOSTDEVICE_MAPS_H
