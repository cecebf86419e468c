#ifndef ZYT_NODEKIT_IMPORTEDIMAGE_H
#define ZYT_NODEKIT_IMPORTEDIMAGE_H

/// @file
/// An image whose memory has another owner, such as a buffer from the camera.
///
/// @code
/// ZYTImageBuffer description = zyt::Describe(ZYT_FORMAT_YUV420NV12, 1920, 1080, 512, 32);  // the camera's layout
/// description.numberOfPlanes = 1;                 // luma and chroma in one buffer
/// description.fd[0] = cameraFd;
/// zyt::ImportedImage frame(description, "MyNode", {{}, CPU_SYNC_READ});
/// if (!frame) return false;                       // both logs have the reason
/// zyt::CpuAccess access(CPU_SYNC_READ, "MyNode", frame);
/// return access && Process(*frame);
/// @endcode                                        // unmapped; the camera still owns the descriptor
///
/// Mapping costs far more than access. A camera delivers the buffers of one ring again and again: import each once,
/// when the ring is configured, and destroy the imports when it is reconfigured. Descriptor numbers are reused, so they
/// do not identify a buffer beyond that.

#include <sys/mman.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "logging/zytlogsite.h"
#include "nodekit/image.h"

namespace zyt {

/// How the planes of an import lie in their descriptors, and what for it is mapped.
struct ImportOptions {
    /// Bytes from the start of the descriptor to the plane. 0 is the start, and for a second plane with the first one's
    /// descriptor number, planeStride * sliceHeight bytes after the first. A duplicate of a descriptor has another
    /// number: where both planes are in one buffer under two numbers, the second needs its offset here.
    uint64_t offsets[2] = {};
    CPUSyncType access = CPU_SYNC_READ_WRITE;  ///< CPU_SYNC_READ maps for reading only, read-only descriptors too.
};

/// Maps the descriptors of an image, each as a whole, and checks that they are large enough. Move-only. Empty after any
/// failure, which is logged as an error to both logs. REQUIRES: the descriptors outlive this object, which never closes
/// them. Not thread-safe.
class ImportedImage : public ImageRecord {
public:
    /// Creates an empty image.
    ImportedImage() = default;

    /// Maps what the record describes; its addresses are ignored. `name` tags the log line.
    explicit ImportedImage(const ZYTImageBuffer& description, const char* name = "nodekit",
                           const ImportOptions& options = {}) {
        m_record = description;
        const char* reason = Map(options);
        if (reason == nullptr) return;
        Reset();
        ZYT_LOG(E, name, "No image of format %d, %ux%u, stride %u, from descriptor %d: %s", description.format,
                description.width, description.height, description.planeStride, description.fd[0], reason);
    }

    /// Takes over the mappings of other, which becomes empty.
    ImportedImage(ImportedImage&& other) noexcept = default;
    /// Unmaps its own memory and takes over the mappings of other, which becomes empty.
    ImportedImage& operator=(ImportedImage&& other) noexcept = default;

    /// Unmaps the memory and makes the image empty.
    void Reset() { *this = ImportedImage(); }

    /// Returns true unless the image is empty.
    explicit operator bool() const { return m_mappings[0] != nullptr; }

private:
    // Returns null on success, otherwise the reason. Reset() then unmaps what was mapped.
    const char* Map(const ImportOptions& options) {
        if (const char* reason = detail::WhatIsWrongWithGeometry(m_record)) return reason;
        if (m_record.numberOfPlanes == 0 || m_record.numberOfPlanes > 2) return "it has neither one plane nor two";
        if (m_record.numberOfPlanes == 1 && options.offsets[1] != 0) return "it has no second plane to be at an offset";
        std::fill(std::begin(m_record.pAddr), std::end(m_record.pAddr), nullptr);
        const int protection = options.access == CPU_SYNC_READ ? PROT_READ : PROT_READ | PROT_WRITE;
        for (uint32_t k = 0; k < m_record.numberOfPlanes; ++k) {
            const int fd = m_record.fd[k];
            if (fd <= 0) return "a plane has no descriptor";
            const bool isMapped = k == 1 && fd == m_record.fd[0];
            uint64_t offset = options.offsets[k];
            if (isMapped && offset == 0) {
                offset = options.offsets[0] + uint64_t{m_record.planeStride} * m_record.sliceHeight;
            }
            if (const char* reason = detail::WhatIsWrongWithDescriptor(m_record, k, offset)) return reason;
            if (!isMapped) {
                const auto bytes = static_cast<size_t>(detail::DescriptorLength(fd));
                void* address = mmap(nullptr, bytes, protection, MAP_SHARED, fd, 0);
                if (address == MAP_FAILED) return "the kernel refused to map it";
                m_mappings[k] = {address, {bytes}};
            }
            m_record.pAddr[k] = static_cast<unsigned char*>(m_mappings[isMapped ? 0 : k].get()) + offset;
        }
        return WhatIsWrong(m_record);
    }

    detail::Mapping m_mappings[2];
};

}  // namespace zyt

#endif  // ZYT_NODEKIT_IMPORTEDIMAGE_H
