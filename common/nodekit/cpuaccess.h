#ifndef ZYT_NODEKIT_CPUACCESS_H
#define ZYT_NODEKIT_CPUACCESS_H

/// @file
/// Scoped CPU access to images that are shared with devices.
///
/// @code
/// {
///     zyt::CpuAccess access(manager, CPU_SYNC_READ, frame, reference);  // zyt::Image, or plain records
///     if (!access) return false;                                        // refused; no access stays open
///     Measure(*frame, *reference);
/// }                                                                     // closed here
///
/// zyt::CpuAccess access(manager, CPU_SYNC_WRITE, shown);
/// Draw(*shown);
/// return access.Close();                                                // reports whether closing succeeded
/// @endcode

#include <cstdint>

#include "logging/zytlogsite.h"
#include "zytbuffermanager/zytbuffermanager.h"

namespace zyt {

/// Opens a CPU access to each distinct descriptor of its images, and closes each that it opened. Planes without a
/// descriptor are skipped, so malloc images cost nothing.
///
/// REQUIRES: the manager and the descriptors outlive this object. Not thread-safe.
class CpuAccess {
public:
    /// Opens the access. When the platform refuses a descriptor, closes those already opened and logs an error to both
    /// logs.
    template <typename... Images>
    CpuAccess(ZYTBufferManager& manager, CPUSyncType type, const Images&... images) : m_manager(manager) {
        static_assert(sizeof...(images) * 4 <= kMaxDescriptors, "too many images for one access");
        m_isGood = (Open(images, type) && ...);
        if (!m_isGood) CloseAll();
    }
    ~CpuAccess() { CloseAll(); }
    CpuAccess(const CpuAccess&) = delete;
    CpuAccess& operator=(const CpuAccess&) = delete;

    /// Returns true when all descriptors were opened and, once closed, all were closed without an error.
    explicit operator bool() const { return m_isGood; }

    /// Closes the access early. Returns true when all descriptors were opened and closed. Later calls return the same.
    bool Close() {
        CloseAll();
        return m_isGood;
    }

private:
    static constexpr uint32_t kMaxDescriptors = 32;

    bool Open(const ZYTImageBuffer& image, CPUSyncType type) {
        for (uint32_t k = 0; k < image.numberOfPlanes && k < 4; ++k) {
            if (image.fd[k] == 0 || IsOpen(image.fd[k])) continue;
            if (!m_manager.StartCPUSync(image.fd[k], type)) {
                ZYT_LOG(E, "nodekit", "No CPU access to descriptor %d, type %d", image.fd[k], type);
                return false;
            }
            m_descriptors[m_count++] = image.fd[k];
        }
        return true;
    }

    bool IsOpen(int fd) const {
        for (uint32_t i = 0; i < m_count; ++i) {
            if (m_descriptors[i] == fd) return true;
        }
        return false;
    }

    void CloseAll() {
        for (; m_count > 0; --m_count) {
            if (m_manager.EndCPUSync(m_descriptors[m_count - 1])) continue;
            ZYT_LOG(E, "nodekit", "CPU access to descriptor %d was not closed", m_descriptors[m_count - 1]);
            m_isGood = false;
        }
    }

    ZYTBufferManager& m_manager;
    int m_descriptors[kMaxDescriptors] = {};
    uint32_t m_count = 0;
    bool m_isGood = false;
};

}  // namespace zyt

#endif  // ZYT_NODEKIT_CPUACCESS_H
