#ifndef ZYT_NODEKIT_CPUACCESS_H
#define ZYT_NODEKIT_CPUACCESS_H

/// @file
/// Scoped CPU access to images that are shared with devices.
///
/// @code
/// zyt::CpuAccess access(CPU_SYNC_READ_WRITE, "MyNode", burst, shown);  // a vector of images, and an image
/// if (!access) return false;                                           // refused; no access stays open
/// Merge(burst, *shown);
/// return access.Close();                                               // or without, at the end of the scope
/// @endcode

#include <BufferAllocator/BufferAllocator.h>

#include <algorithm>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "logging/zytlogsite.h"
#include "nodekit/detail.h"
#include "nodekit/trace.h"
#include "zytbuffermanager/zytimagebuffer.h"

namespace zyt {

namespace detail {

/// Returns the platform's allocator. It is never destroyed, and there is one for each library that asks, because its
/// constructor opens a device and may log.
inline BufferAllocator& PlatformAllocator() {
    alignas(BufferAllocator) static unsigned char memory[sizeof(BufferAllocator)];
    static BufferAllocator* const allocator = new (memory) BufferAllocator;
    return *allocator;
}

/// Calls visit(record) for an image, or for each image of a range, until visit returns false.
template <typename Images, typename Visit>
bool EachImage(const Images& images, const Visit& visit) {
    if constexpr (std::is_convertible_v<const Images&, const ZYTImageBuffer&>) {
        return visit(static_cast<const ZYTImageBuffer&>(images));
    } else {
        for (const auto& image : images) {
            if (!EachImage(image, visit)) return false;
        }
        return true;
    }
}

}  // namespace detail

/// Opens a CPU access to each distinct descriptor of its images, and closes each that it opened, in the direction in
/// which it was opened. (The library ends every access as a read, after which kernels before mid-2022 can lose what the
/// CPU wrote.) Planes without a descriptor are skipped, so malloc images cost nothing. Move-only.
///
/// REQUIRES: the descriptors outlive this object. Not thread-safe.
class CpuAccess {
public:
    /// Creates an access to nothing, which is false.
    CpuAccess() = default;

    /// Opens the access to images, records, and ranges of them. When an image is empty, the platform refuses a
    /// descriptor or memory runs out, closes what is already open and logs an error. `name` tags the log lines and must
    /// outlive the access.
    template <typename... Images>
    CpuAccess(CPUSyncType type, const char* name, const Images&... images) : CpuAccess() {
        m_direction = type == CPU_SYNC_READ ? kSyncRead : type == CPU_SYNC_WRITE ? kSyncWrite : kSyncReadWrite;
        m_name = name;
        m_isGood = (detail::EachImage(images, [this](const ZYTImageBuffer& image) { return Open(image); }) && ...);
        if (!m_isGood) CloseAll();
        if (!m_descriptors.empty()) atrace_async_begin(ATRACE_TAG_CAMERA, kSection, Cookie());
    }

    /// Takes over the access of other, which becomes one to nothing.
    CpuAccess(CpuAccess&& other) noexcept { *this = std::move(other); }
    /// Closes its own access and takes over that of other, which becomes one to nothing.
    CpuAccess& operator=(CpuAccess&& other) noexcept {
        if (this == &other) return *this;
        CloseAll();
        m_descriptors.swap(other.m_descriptors);
        m_direction = other.m_direction;
        m_name = other.m_name;
        m_isGood = std::exchange(other.m_isGood, false);
        return *this;
    }
    ~CpuAccess() { CloseAll(); }

    /// Returns true when all descriptors were opened and, once closed, all were closed without an error.
    explicit operator bool() const { return m_isGood; }

    /// Closes the access early. Returns true when all descriptors were opened and closed. Later calls return the same.
    bool Close() {
        CloseAll();
        return m_isGood;
    }

private:
    // Accesses overlap and move, so they are asynchronous events; their memory tells them apart.
    static constexpr const char* kSection = "zyt::CpuAccess";
    int32_t Cookie() const { return static_cast<int32_t>(reinterpret_cast<uintptr_t>(m_descriptors.data()) >> 4); }

    bool Open(const ZYTImageBuffer& image) {
        const bool isEmpty = image.numberOfPlanes == 0;
        bool isOpen = !isEmpty;
        for (uint32_t k = 0; k < image.numberOfPlanes && k < 4 && isOpen; ++k) {
            const int fd = image.fd[k];
            if (fd == 0 || std::find(m_descriptors.begin(), m_descriptors.end(), fd) != m_descriptors.end()) continue;
            isOpen = false;
            detail::WithMemory([&] {
                m_descriptors.reserve(m_descriptors.size() + 1);
                isOpen = detail::PlatformAllocator().CpuSyncStart(static_cast<unsigned int>(fd), m_direction) == 0;
            });
            if (isOpen) m_descriptors.push_back(fd);
        }
        if (isOpen) return true;
        ZYT_LOG(E, m_name, "No CPU access, direction %d: %s", m_direction,
                isEmpty ? "an image is empty" : "the platform refuses it, or there is no memory");
        return false;
    }

    void CloseAll() {
        if (m_isGood && !m_descriptors.empty()) atrace_async_end(ATRACE_TAG_CAMERA, kSection, Cookie());
        for (; !m_descriptors.empty(); m_descriptors.pop_back()) {
            const int fd = m_descriptors.back();
            if (detail::PlatformAllocator().CpuSyncEnd(static_cast<unsigned int>(fd), m_direction) == 0) continue;
            ZYT_LOG(E, m_name, "CPU access to descriptor %d was not closed", fd);
            m_isGood = false;
        }
    }

    std::vector<int> m_descriptors;  // open ones
    SyncType m_direction = kSyncReadWrite;
    const char* m_name = "nodekit";
    bool m_isGood = false;
};

}  // namespace zyt

#endif  // ZYT_NODEKIT_CPUACCESS_H
