#ifndef ZYT_NODEKIT_IMAGE_H
#define ZYT_NODEKIT_IMAGE_H

/// @file
/// An image that owns its memory, of any buffer type.
///
/// @code
/// ZYTBufferManager manager("MyNode");
/// zyt::Image frame(manager, zyt::Describe(ZYT_FORMAT_YUV420NV12, 1920, 1080, 512), ZYT_BUFFER_TYPE_DMABUF, "MyNode");
/// zyt::Image shown(manager, zyt::Describe(ZYT_FORMAT_YUV420NV12, 1920, 1080), ZYT_BUFFER_TYPE_GRALLOC, "MyNode");
/// if (!frame || !shown) return false;                      // both logs have the reason; nothing leaks
/// zyt::CpuAccess access(manager, CPU_SYNC_READ_WRITE, frame, shown);
/// if (!access) return false;
/// ZYTBufferUtil::ZYTBufferCopy(shown.Get(), frame.Get());  // or frame->width, *frame
/// @endcode                                                 // the destructors release both

#include <sys/mman.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <memory>
#include <new>
#include <utility>

#include "logging/zytlogsite.h"
#include "nodekit/poolstate.h"
#include "zytbuffermanager/zytbuffermanager.h"
#include "zytbuffermanager/zytimagelayout.h"

namespace zyt {

namespace detail {

/// Returns the bytes of pixel data in a row. Unlike FormatLayout::RowBytes it never ends the process.
inline uint64_t RowBytes(const FormatLayout& layout, uint32_t width) {
    return uint64_t{width} * layout.rowNumerator / layout.rowDenominator;
}

inline uint64_t AlignUp(uint64_t value, uint64_t alignment) { return (value + alignment - 1) / alignment * alignment; }

/// Returns null when the geometry is valid, otherwise the reason why not.
inline const char* WhatIsWrongWithGeometry(const ZYTImageBuffer& image) {
    const FormatLayout* layout = FindFormatLayout(image.format);
    if (layout == nullptr) return "its format is unknown";
    if (image.width == 0 || image.height == 0) return "it has no pixels";
    constexpr uint64_t kLargest = std::numeric_limits<int32_t>::max();
    const uint64_t rowBytes = RowBytes(*layout, image.width);
    if (rowBytes == 0) return "a row has less than a byte";
    if (rowBytes > kLargest || image.planeStride > kLargest || image.height > kLargest ||
        uint64_t{image.planeStride} * image.sliceHeight > std::numeric_limits<uint32_t>::max()) {
        return "its size does not fit 32 bits";
    }
    if (image.planeStride < rowBytes) return "its stride is below the bytes of a row";
    if (image.sliceHeight < image.height) return "its slice height is below its height";
    return nullptr;
}

inline ZYTImageBuffer WithoutMemory(ZYTImageBuffer image) {
    std::fill(std::begin(image.pAddr), std::end(image.pAddr), nullptr);
    std::fill(std::begin(image.fd), std::end(image.fd), 0);
    image.numberOfPlanes = 0;
    image.pNativeHandle = nullptr;
    return image;
}

/// Returns the start of the chroma: the second plane's address, or the end of the only plane's luma.
inline unsigned char* ChromaOf(const ZYTImageBuffer& image) {
    if (image.numberOfPlanes > 1) return image.pAddr[1];
    return image.pAddr[0] + size_t{image.planeStride} * image.sliceHeight;
}

/// Returns null when the descriptor of plane k is large enough, otherwise the reason why not. REQUIRES: fd[k] is set.
inline const char* WhatIsWrongWithDescriptor(const ZYTImageBuffer& image, uint32_t k) {
    const FormatLayout& layout = *FindFormatLayout(image.format);
    const uint64_t first = uint64_t{image.planeStride} * image.sliceHeight;
    const auto bytes = [&](uint32_t rows) {
        return rows == 0 ? 0 : uint64_t{image.planeStride} * (rows - 1) + RowBytes(layout, image.width);
    };
    uint64_t wanted = bytes(image.height);
    if (layout.HasChroma() && k == 1) wanted = (image.fd[1] == image.fd[0] ? first : 0) + bytes(image.height / 2);
    if (layout.HasChroma() && image.numberOfPlanes == 1 && image.height > 1) wanted = first + bytes(image.height / 2);
    const int64_t length = DescriptorLength(image.fd[k]);
    if (length < 0) return "a descriptor is not open, or no memory";
    return static_cast<uint64_t>(length) < wanted ? "a descriptor is smaller than its plane" : nullptr;
}

}  // namespace detail

/// Returns a record without memory for that format and size. The stride is the bytes of a row, with whole groups of
/// packed pixels and whole chroma pairs, rounded up to strideAlignment (bytes). The slice height is the height, made
/// even for formats with chroma, rounded up to sliceAlignment (rows). A result that does not fit in 32 bits becomes 0,
/// which Image refuses.
inline ZYTImageBuffer Describe(ZYTFormat format, uint32_t width, uint32_t height, uint32_t strideAlignment = 1,
                               uint32_t sliceAlignment = 1) {
    ZYTImageBuffer image{};
    image.format = format;
    image.width = width;
    image.height = height;
    const FormatLayout* layout = FindFormatLayout(format);
    if (layout == nullptr) return image;
    const uint64_t pixels = layout->HasChroma() ? 2 : !layout->IsPacked() ? 1 : layout->bits == 12 ? 2 : 4;
    const uint64_t rowBytes = detail::AlignUp(width, pixels) * layout->rowNumerator / layout->rowDenominator;
    const auto fitting = [](uint64_t value) {
        return value <= std::numeric_limits<uint32_t>::max() ? static_cast<uint32_t>(value) : 0;
    };
    image.planeStride = fitting(detail::AlignUp(rowBytes, std::max(strideAlignment, 1u)));
    image.sliceHeight =
        fitting(detail::AlignUp(detail::AlignUp(height, layout->HasChroma() ? 2 : 1), std::max(sliceAlignment, 1u)));
    return image;
}

/// Returns null when the pixels of the image can be accessed, otherwise the reason why not: a bad geometry, a plane
/// without an address or with a refused mapping, or a descriptor that is smaller than its plane. Moves the file offset
/// of the descriptors, which buffers do not use.
inline const char* WhatIsWrong(const ZYTImageBuffer& image) {
    if (const char* reason = detail::WhatIsWrongWithGeometry(image)) return reason;
    if (image.numberOfPlanes == 0) return "it has no memory";
    if (image.numberOfPlanes > 4) return "it has more than 4 planes";
    if (image.format == ZYT_FORMAT_YUV_P010 && image.numberOfPlanes < 2) return "it has no chroma";
    for (uint32_t k = 0; k < image.numberOfPlanes; ++k) {
        if (image.pAddr[k] == nullptr) return k == 0 ? "it has no address" : "it has no chroma";
        if (image.pAddr[k] == MAP_FAILED) return "the kernel refused to map it";
        if (image.fd[k] == 0) continue;
        if (const char* reason = detail::WhatIsWrongWithDescriptor(image, k)) return reason;
    }
    return nullptr;
}

/// Access to the record of an image; all zeros when there is no image. Changes to the record do not affect which memory
/// is released.
class ImageRecord {
public:
    ZYTImageBuffer* Get() { return &m_record; }                     ///< The record.
    const ZYTImageBuffer* Get() const { return &m_record; }         ///< The record.
    ZYTImageBuffer& operator*() { return m_record; }                ///< The record.
    const ZYTImageBuffer& operator*() const { return m_record; }    ///< The record.
    ZYTImageBuffer* operator->() { return &m_record; }              ///< The record.
    const ZYTImageBuffer* operator->() const { return &m_record; }  ///< The record.
    operator const ZYTImageBuffer&() const { return m_record; }     ///< The record.

protected:
    ImageRecord() = default;
    /// Copies the record.
    explicit ImageRecord(const ZYTImageBuffer& record) : m_record(record) {}
    ~ImageRecord() = default;
    ImageRecord(const ImageRecord&) = delete;
    ImageRecord& operator=(const ImageRecord&) = delete;

    ZYTImageBuffer m_record{};  ///< The record that callers see.
};

/// Owns the memory of one image. Move-only. Empty after any failure, which is logged as an error to both logs.
///
/// The pixels of a non-empty image can be accessed: all planes are mapped and as large as the record says. A mapping
/// that the kernel refuses is tried once more and leaves no unmapped buffer in the pool. (When the kernel refuses two
/// threads at the same time, the pool itself can leak one of the two descriptors.)
///
/// Malloc and DMA-BUF images have one buffer for each plane. A gralloc image is one buffer and NV12 or NV21 only. Its
/// stride is gralloc's, not the description's. Its chroma begins after sliceHeight rows, or after height rows when the
/// description's sliceHeight is 0.
///
/// REQUIRES: the manager outlives malloc and DMA-BUF images; a gralloc image may outlive it. Not thread-safe.
class Image : public ImageRecord {
public:
    /// Creates an empty image.
    Image() = default;

    /// Allocates memory for the description. `name` tags the log lines and must outlive the image.
    Image(ZYTBufferManager& manager, const ZYTImageBuffer& description, ZYTBufferType type,
          const char* name = "nodekit")
        : ImageRecord(detail::WithoutMemory(description)) {
        const char* reason = type == ZYT_BUFFER_TYPE_GRALLOC ? TakeGralloc(name) : TakePlanes(manager, type);
        if (reason == nullptr) return;
        Reset();
        ZYT_LOG(E, name, "No image of format %d, %ux%u, stride %u, type %d: %s", description.format, description.width,
                description.height, description.planeStride, type, reason);
    }

    /// Takes over the memory of other, which becomes empty.
    Image(Image&& other) noexcept { *this = std::move(other); }
    /// Releases its own memory and takes over that of other, which becomes empty.
    Image& operator=(Image&& other) noexcept {
        if (this == &other) return *this;
        Reset();
        m_record = std::exchange(other.m_record, {});
        m_manager = std::exchange(other.m_manager, nullptr);
        m_client = std::move(other.m_client);
        for (int k = 0; k < 2; ++k) m_buffers[k] = std::exchange(other.m_buffers[k], nullptr);
        m_mapping = std::exchange(other.m_mapping, nullptr);
        m_mappedBytes = std::exchange(other.m_mappedBytes, 0);
        return *this;
    }
    ~Image() { Reset(); }

    /// Releases the memory and makes the image empty.
    void Reset() {
        if (m_mapping != nullptr) munmap(m_mapping, m_mappedBytes);
        for (void* buffer : m_buffers) {
            if (buffer == nullptr) continue;
            if (m_client != nullptr) {
                m_client->PutBufferToPool(buffer);
            } else {
                m_manager->FreeBuffer(buffer);
            }
        }
        m_client.reset();
        m_buffers[0] = m_buffers[1] = m_mapping = nullptr;
        m_record = {};
    }

    /// Returns true unless the image is empty.
    explicit operator bool() const { return m_buffers[0] != nullptr; }

private:
    // These return null on success, otherwise the reason. Reset() then releases what they have taken.
    const char* TakePlanes(ZYTBufferManager& manager, ZYTBufferType type) {
        if (const char* reason = detail::WhatIsWrongWithGeometry(m_record)) return reason;
        m_manager = &manager;
        unsigned int count = 0;
        unsigned int sizes[4] = {};
        manager.GetImgBufferSize(m_record, count, sizes, 4, type);
        if (count == 0 || count > 2) return "its format cannot be allocated";
        for (unsigned int k = 0; k < count; ++k) {
            if (const char* reason = TakePlane(k, sizes[k], type)) return reason;
            m_record.numberOfPlanes = k + 1;
        }
        return nullptr;
    }

    // Planes are taken one at a time: refused buffers all have the address MAP_FAILED, so the pool would confuse them.
    const char* TakePlane(unsigned int k, unsigned int size, ZYTBufferType type) {
        for (int attempt = 0; attempt < 2; ++attempt) {
            void* buffer = nullptr;
            if (!m_manager->AllocBuffer(size, &buffer, m_record.fd[k], type)) {
                return k == 0 ? "there is no memory" : "there is no memory for its chroma";
            }
            if (buffer != MAP_FAILED) {
                m_buffers[k] = buffer;
                m_record.pAddr[k] = static_cast<unsigned char*>(buffer);
                return nullptr;
            }
            m_manager->FreeBuffer(buffer);
            PurgeUnmapped();
        }
        return "the kernel refused to map it";
    }

    const char* TakeGralloc(const char* name) {
        if (!IsYuv420(m_record.format)) return "gralloc images are NV12 or NV21";
        if (m_record.width == 0 || m_record.height == 0) return "it has no pixels";
        // The library ends the process when stride * height does not fit. Gralloc pads rows, by far less than this.
        constexpr uint64_t kMostPadding = 4096;
        if ((m_record.width + kMostPadding) * m_record.height > std::numeric_limits<uint32_t>::max()) {
            return "its size does not fit 32 bits";
        }
        m_client.reset(new (std::nothrow) ZYTBufferPool);
        if (m_client == nullptr) return "there is no memory";
        m_client->SetClientName(name);
        for (int attempt = 0; attempt < 2; ++attempt) {
            void* buffer = m_client->GetBufferFromPool(m_record.width, m_record.height, m_record.fd[0],
                                                       &m_record.pNativeHandle, ZYT_BUFFER_TYPE_GRALLOC);
            if (buffer == nullptr) return "gralloc has no memory";
            if (buffer != MAP_FAILED) {
                m_buffers[0] = buffer;
                return MapGralloc();
            }
            m_client->PutBufferToPool(buffer);
            PurgeUnmapped();
        }
        return "the kernel refused to map it";
    }

    // The pool maps one byte per pixel, without the chroma. This maps the whole buffer.
    const char* MapGralloc() {
        {
            Lock lock(ZYTBufferPool::m_busyBufferListLock);
            const auto busy = ZYTBufferPool::m_busyGrallocBufferList.find(m_buffers[0]);
            if (busy == ZYTBufferPool::m_busyGrallocBufferList.end()) return "somebody else has given it back";
            m_record.planeStride = busy->second.graphicBuffer->getStride();
        }
        if (m_record.sliceHeight == 0) m_record.sliceHeight = m_record.height;
        const int64_t length = detail::DescriptorLength(m_record.fd[0]);
        if (length <= 0) return "its descriptor has no length";
        m_mappedBytes = static_cast<size_t>(length);
        char* mapping = m_client->GetAllocator()->MapFDToBufferPointer(m_record.fd[0], m_mappedBytes);
        if (mapping == nullptr || mapping == MAP_FAILED) return "the kernel refused to map it";
        m_mapping = mapping;
        m_record.pAddr[0] = reinterpret_cast<unsigned char*>(mapping);
        m_record.numberOfPlanes = 1;
        return WhatIsWrong(m_record);
    }

    ZYTBufferManager* m_manager = nullptr;
    std::unique_ptr<ZYTBufferPool> m_client;  // for gralloc images only
    void* m_buffers[2] = {};                  // identify the buffers to the manager or the pool
    void* m_mapping = nullptr;                // the whole buffer; for gralloc images only
    size_t m_mappedBytes = 0;
};

}  // namespace zyt

#endif  // ZYT_NODEKIT_IMAGE_H
