#ifndef ZYT_NODEKIT_IMPORTEDIMAGE_H
#define ZYT_NODEKIT_IMPORTEDIMAGE_H

/// @file
/// An image whose memory has another owner, such as a buffer from the camera.
///
/// @code
/// bool MyNode::OnFrame(int cameraFd) {
///     ZYTImageBuffer brought = zyt::Describe(ZYT_FORMAT_YUV420NV12, 1920, 1080, 512, 32);  // the camera's layout
///     brought.numberOfPlanes = 1;                     // luma and chroma in one buffer
///     brought.fd[0] = cameraFd;
///     zyt::ImportedImage frame(brought, "MyNode");
///     if (!frame) return false;                       // both logs have the reason
///     zyt::CpuAccess access(m_manager, CPU_SYNC_READ, frame);
///     return access && Process(*frame);
/// }                                                   // unmapped; the camera still owns the descriptor
/// @endcode

#include <sys/mman.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <utility>

#include "logging/zytlogsite.h"
#include "nodekit/image.h"

namespace zyt {

/// Maps the descriptors of an image and checks that they are large enough. Move-only. Empty after any failure, which is
/// logged as an error to both logs.
///
/// The record gives the geometry, the number of planes and their descriptors; its addresses are ignored. When both
/// planes have the same descriptor, the chroma begins at planeStride * sliceHeight bytes; otherwise each plane begins
/// at the start of its descriptor.
///
/// REQUIRES: the descriptors outlive this object, which never closes them. Not thread-safe.
class ImportedImage : public ImageRecord {
public:
    /// Creates an empty image.
    ImportedImage() = default;

    /// Maps what the record describes. `name` tags the log line.
    explicit ImportedImage(const ZYTImageBuffer& brought, const char* name = "nodekit") : ImageRecord(brought) {
        const char* reason = Map();
        if (reason == nullptr) return;
        Reset();
        ZYT_LOG(E, name, "No image of format %d, %ux%u, stride %u, from descriptor %d: %s", brought.format,
                brought.width, brought.height, brought.planeStride, brought.fd[0], reason);
    }

    /// Takes over the mappings of other, which becomes empty.
    ImportedImage(ImportedImage&& other) noexcept { *this = std::move(other); }
    /// Unmaps its own memory and takes over the mappings of other, which becomes empty.
    ImportedImage& operator=(ImportedImage&& other) noexcept {
        if (this == &other) return *this;
        Reset();
        m_record = std::exchange(other.m_record, {});
        for (int k = 0; k < 2; ++k) m_mappings[k] = std::exchange(other.m_mappings[k], {});
        return *this;
    }
    ~ImportedImage() { Reset(); }

    /// Unmaps the memory and makes the image empty.
    void Reset() {
        for (Mapping& mapping : m_mappings) {
            if (mapping.address != nullptr) munmap(mapping.address, mapping.bytes);
            mapping = {};
        }
        m_record = {};
    }

    /// Returns true unless the image is empty.
    explicit operator bool() const { return m_mappings[0].address != nullptr; }

private:
    struct Mapping {
        void* address = nullptr;
        size_t bytes = 0;
    };

    // Returns null on success, otherwise the reason. Reset() then unmaps what was mapped.
    const char* Map() {
        if (const char* reason = detail::WhatIsWrongWithGeometry(m_record)) return reason;
        if (m_record.numberOfPlanes == 0 || m_record.numberOfPlanes > 2) return "it has neither one plane nor two";
        std::fill(std::begin(m_record.pAddr), std::end(m_record.pAddr), nullptr);
        for (uint32_t k = 0; k < m_record.numberOfPlanes; ++k) {
            if (m_record.fd[k] <= 0) return "a plane has no descriptor";
            if (const char* reason = detail::WhatIsWrongWithDescriptor(m_record, k)) return reason;
            if (k == 1 && m_record.fd[1] == m_record.fd[0]) {
                m_record.pAddr[1] = m_record.pAddr[0] + size_t{m_record.planeStride} * m_record.sliceHeight;
                continue;
            }
            const auto bytes = static_cast<size_t>(detail::DescriptorLength(m_record.fd[k]));
            void* address = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, m_record.fd[k], 0);
            if (address == MAP_FAILED) return "the kernel refused to map it";
            m_mappings[k] = {address, bytes};
            m_record.pAddr[k] = static_cast<unsigned char*>(address);
        }
        return WhatIsWrong(m_record);
    }

    Mapping m_mappings[2];
};

}  // namespace zyt

#endif  // ZYT_NODEKIT_IMPORTEDIMAGE_H
