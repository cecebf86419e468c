#include "memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "internal.h"
#include "maps.h"

namespace hostdevice {
namespace {

constexpr char kMemfdPrefix[] = "/memfd:";

// Indexed by MemoryKind.
constexpr const char* kPathPrefixes[] = {"/memfd:hostdevice-heap", "/memfd:hostdevice-graphic", "/dmabuf:"};

// Fixes the size, like that of a DMA-BUF. Applies the kMapping fault.
int Seal(int fd) {
    const int readOnly = TakeFault(Fault::kMapping) ? F_SEAL_WRITE : 0;
    return fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL | readOnly);
}

void Count(MemoryKind kind, uint64_t& heap, uint64_t& graphic) {
    if (kind == MemoryKind::kGraphic) {
        ++graphic;
    } else if (kind != MemoryKind::kOther) {
        ++heap;
    }
}

}  // namespace

MemoryKind KindOfPath(const char* path) {
    size_t kind = 0;
    for (const char* prefix : kPathPrefixes) {
        if (std::strncmp(path, prefix, std::strlen(prefix)) == 0) break;
        ++kind;
    }
    return static_cast<MemoryKind>(kind);
}

MemoryKind KindOfDescriptor(int fd) {
    char link[32];
    char target[64] = "";
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    if (readlink(link, target, sizeof target - 1) < 0) return MemoryKind::kOther;
    return KindOfPath(target);
}

size_t PageSize() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }

uint64_t WholePages(uint64_t size) { return (size + PageSize() - 1) / PageSize() * PageSize(); }

bool FitsMachine(uint64_t bytes) { return bytes <= PageSize() * static_cast<uint64_t>(sysconf(_SC_PHYS_PAGES)); }

int CreateMemory(MemoryKind kind, uint64_t bytes) {
    if (!FitsMachine(bytes)) return -ENOMEM;
    const char* name = kPathPrefixes[static_cast<size_t>(kind)] + std::strlen(kMemfdPrefix);
    const int fd = AboveStandardDescriptors(memfd_create(name, MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (fd < 0) return fd;
    if (ftruncate(fd, static_cast<off_t>(WholePages(bytes))) == 0 && Seal(fd) == 0) return fd;
    const int error = errno;
    close(fd);
    return -error;
}

int AboveStandardDescriptors(int fd) {
    if (fd < 0) return -errno;
    if (fd > STDERR_FILENO) return fd;
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    close(fd);
    return moved >= 0 ? moved : -error;
}

LiveResources CountLive() {
    LiveResources live{};
    live.graphicBuffers = CountGraphicBuffers();
    ForEachDescriptor([&](int fd) { Count(KindOfDescriptor(fd), live.heapDescriptors, live.graphicDescriptors); });
    MapsReader maps;
    for (MappedRange range; maps.Next(range);) {
        Count(KindOfPath(range.path), live.heapMappings, live.graphicMappings);
    }
    return live;
}

}  // namespace hostdevice
