#ifndef ZYT_NODEKIT_IMPORTEDIMAGE_H
#define ZYT_NODEKIT_IMPORTEDIMAGE_H

/// @file
/// An image whose memory somebody else owns, such as a buffer that the camera brings.
///
/// @code
/// bool MyNode::OnFrame(int cameraFd) {
///     ZYTImageBuffer brought = zyt::Describe(ZYT_FORMAT_YUV420NV12, 1920, 1080, 512, 32);  // as the camera says
///     brought.numberOfPlanes = 1;                     // luma and chroma in one piece
///     brought.fd[0] = cameraFd;
///     zyt::ImportedImage frame(brought, "MyNode");
///     if (!frame) return false;                       // both logs say why
///     zyt::CpuAccess access(m_manager, CPU_SYNC_READ, frame);
///     return access && Process(*frame);
/// }                                                   // unmapped; the descriptor is still the camera's
/// @endcode

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>
#include <utility>

#include "logging/zytlogsite.h"
#include "nodekit/image.h"

namespace zyt {

/// Maps the descriptors of an image and checks that they are as large as the image. Move-only; empty after any failure,
/// of which both logs have a line at E.
///
/// The record says geometry, number of planes and their descriptors; its addresses are not read. Two planes of one
/// descriptor lie behind each other, the chroma at planeStride * sliceHeight bytes; a descriptor of its own holds its
/// plane from its start.
///
/// REQUIRES: the descriptors stay open while it lives. It closes none of them. One thread at a time.
class ImportedImage : public ImageRecord {
public:
    /// No image.
    ImportedImage() = default;

    /// Maps what the record describes. `name` tags the log line.
    explicit ImportedImage(const ZYTImageBuffer& brought, const char* name = "nodekit") : ImageRecord(brought) {
        const char* reason = Map();
        if (reason == nullptr) return;
        Reset();
        ZYT_LOG(E, name, "No image of format %d, %ux%u, stride %u, from descriptor %d: %s", brought.format,
                brought.width, brought.height, brought.planeStride, brought.fd[0], reason);
    }

    /// Takes over the other's mapping and leaves it empty.
    ImportedImage(ImportedImage&& other) noexcept { *this = std::move(other); }
    /// Unmaps what it has, then takes over the other's mapping and leaves that empty.
    ImportedImage& operator=(ImportedImage&& other) noexcept {
        if (this == &other) return *this;
        Reset();
        m_record = std::exchange(other.m_record, {});
        for (int k = 0; k < 2; ++k) m_mappings[k] = std::exchange(other.m_mappings[k], {});
        return *this;
    }
    ~ImportedImage() { Reset(); }

    /// Unmaps the memory and is empty from then on.
    void Reset() {
        for (Mapping& mapping : m_mappings) {
            if (mapping.address != nullptr) munmap(mapping.address, mapping.bytes);
            mapping = {};
        }
        m_record = {};
    }

    /// Whether there is an image.
    explicit operator bool() const { return m_mappings[0].address != nullptr; }

private:
    struct Mapping {
        void* address = nullptr;
        size_t bytes = 0;
    };

    // Null, or what went wrong. What is mapped by then goes with Reset().
    const char* Map() {
        if (const char* reason = detail::WhatIsWrongWithGeometry(m_record)) return reason;
        if (m_record.numberOfPlanes == 0 || m_record.numberOfPlanes > 2) return "it has neither one plane nor two";
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
