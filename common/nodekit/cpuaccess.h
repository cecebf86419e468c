#ifndef ZYT_NODEKIT_CPUACCESS_H
#define ZYT_NODEKIT_CPUACCESS_H

/// @file
/// A bracket around what the processor does to images that devices share.
///
/// @code
/// {
///     zyt::CpuAccess access(manager, CPU_SYNC_READ, frame, reference);  // zyt::Image, or plain records
///     if (!access) return false;                                        // the platform refused; nothing stays open
///     Measure(*frame, *reference);
/// }                                                                     // closed here
///
/// zyt::CpuAccess access(manager, CPU_SYNC_WRITE, shown);
/// Draw(*shown);
/// return access.Close();                                                // where the other end's result is wanted
/// @endcode

#include <cstdint>

#include "logging/zytlogsite.h"
#include "zytbuffermanager/zytbuffermanager.h"

namespace zyt {

/// Opens a CPU access to each distinct descriptor of its images and closes what it opened. Planes without a descriptor
/// need none, so plain images cost nothing.
///
/// REQUIRES: the manager outlives it, and so do the descriptors. One thread at a time.
class CpuAccess {
public:
    /// Opens the access. When the platform refuses a descriptor, those opened before are closed again, and both logs
    /// have a line at E.
    template <typename... Images>
    CpuAccess(ZYTBufferManager& manager, CPUSyncType type, const Images&... images) : m_manager(manager) {
        static_assert(sizeof...(images) * 4 <= kMaxDescriptors, "too many images for one access");
        m_isGood = (Open(images, type) && ...);
        if (!m_isGood) CloseAll();
    }
    ~CpuAccess() { CloseAll(); }
    CpuAccess(const CpuAccess&) = delete;
    CpuAccess& operator=(const CpuAccess&) = delete;

    /// Whether the platform opened all of it, and, once closed, closed all of it.
    explicit operator bool() const { return m_isGood; }

    /// Closes the access early. Returns whether the platform both opened and closed all of it; called again, the same.
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
