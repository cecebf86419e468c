#ifndef HOSTDEVICE_MAPS_H
#define HOSTDEVICE_MAPS_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace hostdevice {

/// A line of /proc/self/maps.
struct MappedRange {
    uintptr_t begin, end;
    uint64_t offset;   ///< Of the file, in bytes.
    dev_t device;      ///< As fstat has it.
    ino_t inode;       ///< 0 where no file is mapped.
    const char* path;  ///< Cut; empty where there is none; valid until the next line is read.
};

/// Reads /proc/self/maps with system calls alone and without memory of its own, so that a signal handler may.
class MapsReader {
public:
    MapsReader();
    ~MapsReader();
    MapsReader(const MapsReader&) = delete;
    MapsReader& operator=(const MapsReader&) = delete;

    /// False behind the last line.
    bool Next(MappedRange& range);

private:
    bool ReadLine();

    const int m_fd;
    size_t m_used = 0;
    size_t m_filled = 0;
    char m_block[1024];
    char m_line[160];
};

}  // namespace hostdevice

#endif  // HOSTDEVICE_MAPS_H
