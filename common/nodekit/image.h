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
/// zyt::CpuAccess access(CPU_SYNC_READ_WRITE, "MyNode", frame, shown);
/// if (!access) return false;
/// ZYTBufferUtil::ZYTBufferCopy(shown.Get(), frame.Get());  // or frame->width, *frame
/// @endcode                                                 // the destructors release both

#include <sys/mman.h>
#include <system/graphics.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <memory>
#include <utility>

#include "logging/zytlogsite.h"
#include "nodekit/detail.h"
#include "nodekit/plane.h"
#include "nodekit/poolstate.h"
#include "nodekit/trace.h"
#include "zytbuffermanager/zytbuffermanager.h"

namespace zyt {

namespace detail {

inline uint64_t AlignUp(uint64_t value, uint64_t alignment) { return (value + alignment - 1) / alignment * alignment; }

/// Gives a buffer back to its manager, or to the pool's client that took it.
struct GiveBack {
    ZYTBufferManager* manager = nullptr;
    std::unique_ptr<ZYTBufferPool> client = nullptr;
    void operator()(void* buffer) const {
        WithMemory([&] {
            if (client != nullptr) {
                client->PutBufferToPool(buffer);
            } else {
                manager->FreeBuffer(buffer);
            }
        });
    }
};

struct Unmap {
    size_t bytes = 0;
    void operator()(void* address) const { munmap(address, bytes); }
};
using Mapping = std::unique_ptr<void, Unmap>;

inline ZYTImageBuffer WithoutMemory(ZYTImageBuffer image) {
    std::fill(std::begin(image.pAddr), std::end(image.pAddr), nullptr);
    std::fill(std::begin(image.fd), std::end(image.fd), 0);
    image.numberOfPlanes = 0;
    image.pNativeHandle = nullptr;
    return image;
}

/// Returns null when the descriptor of plane k, which begins at that offset, is large enough, otherwise the reason why
/// not. REQUIRES: fd[k] is set.
inline const char* WhatIsWrongWithDescriptor(const ZYTImageBuffer& image, uint32_t k, uint64_t offset) {
    const FormatLayout& layout = *FindFormatLayout(image.format);
    const auto bytes = [&](uint32_t rows) {
        return rows == 0 ? 0 : uint64_t{image.planeStride} * (rows - 1) + RowBytes(layout, image.width);
    };
    uint64_t wanted = bytes(RowsOf(layout, image.height, k));
    if (image.numberOfPlanes == 1 && RowsOf(layout, image.height, 1) > 0) {
        wanted = uint64_t{image.planeStride} * image.sliceHeight + bytes(RowsOf(layout, image.height, 1));
    }
    const int64_t length = DescriptorLength(image.fd[k]);
    if (length < 0) return "a descriptor is not open, or no memory";
    const auto available = static_cast<uint64_t>(length);
    return available < offset || available - offset < wanted ? "a descriptor is smaller than its plane" : nullptr;
}

/// Sets format, stride and slice height as gralloc reports the planes of an NV12 or NV21 image. Returns null, or the
/// reason why a record cannot say it.
inline const char* TakeLayout(const android_ycbcr& planes, ZYTImageBuffer& image) {
    const auto luma = reinterpret_cast<uintptr_t>(planes.y), cb = reinterpret_cast<uintptr_t>(planes.cb),
               cr = reinterpret_cast<uintptr_t>(planes.cr), chroma = std::min(cb, cr);
    if (luma == 0 || chroma == 0) return "gralloc does not report its planes";
    if (luma % static_cast<uintptr_t>(getpagesize()) != 0) return "its luma does not begin at a page";
    if (planes.chroma_step != 2 || std::max(cb, cr) - chroma != 1) return "its chroma is not interleaved";
    if (planes.ystride == 0 || planes.ystride != planes.cstride) return "its planes differ in stride";
    if (chroma < luma || (chroma - luma) % planes.ystride != 0) return "its chroma does not begin at a row";
    if (chroma - luma > std::numeric_limits<uint32_t>::max()) return "its size does not fit 32 bits";
    image.format = cb < cr ? ZYT_FORMAT_YUV420NV12 : ZYT_FORMAT_YUV420NV21;
    image.planeStride = static_cast<uint32_t>(planes.ystride);
    image.sliceHeight = static_cast<uint32_t>((chroma - luma) / planes.ystride);
    return nullptr;
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
        // Where both planes have one descriptor, the chroma begins after the slice height or at an offset of its own.
        const uint64_t offset = k != 1 || image.fd[1] != image.fd[0]
                                    ? 0
                                    : std::min(uint64_t{image.planeStride} * image.sliceHeight,
                                               uint64_t{reinterpret_cast<uintptr_t>(image.pAddr[1])} -
                                                   reinterpret_cast<uintptr_t>(image.pAddr[0]));
        if (const char* reason = detail::WhatIsWrongWithDescriptor(image, k, offset)) return reason;
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
    ~ImageRecord() = default;
    /// Takes over the record of other, which becomes all zeros.
    ImageRecord(ImageRecord&& other) noexcept : m_record(std::exchange(other.m_record, {})) {}
    /// Takes over the record of other, which becomes all zeros.
    ImageRecord& operator=(ImageRecord&& other) noexcept {
        m_record = std::exchange(other.m_record, {});
        return *this;
    }

    ZYTImageBuffer m_record{};  ///< The record that callers see.
};

/// Owns the memory of one image. Move-only. Empty after any failure, which is logged as an error to both logs.
///
/// The pixels of a non-empty image can be accessed: all planes are mapped and as large as the record says. Malloc and
/// DMA-BUF images have one buffer for each plane, P010 and Y16 included, which the manager itself does not allocate. A
/// gralloc image is one buffer, NV12 or NV21, and its stride, slice height and order of chroma are those that gralloc
/// reports, not the description's. Where NV12 was asked for and NV21 is there, or the other way round, the record says
/// what is there, and a warning is logged.
///
/// A mapping that the kernel refuses is tried once more and leaves no unmapped buffer in the pool. What the library
/// itself loses is lost: one descriptor when the kernel refuses two threads at the same time or when the same manager
/// holds another unmapped buffer, and the buffer that it is recording when `operator new` fails.
///
/// REQUIRES: the manager outlives malloc and DMA-BUF images; a gralloc image may outlive it. Not thread-safe.
class Image : public ImageRecord {
public:
    /// Creates an empty image.
    Image() = default;

    /// Allocates memory for the description. `name` tags the log lines and must outlive the image.
    Image(ZYTBufferManager& manager, const ZYTImageBuffer& description, ZYTBufferType type,
          const char* name = "nodekit") {
        const ScopedTrace section("zyt::Image");
        m_record = detail::WithoutMemory(description);
        const char* reason = "there is no memory";
        detail::WithMemory(
            [&] { reason = type == ZYT_BUFFER_TYPE_GRALLOC ? TakeGralloc(name) : TakePlanes(manager, type); });
        if (reason == nullptr) return;
        Reset();
        ZYT_LOG(E, name, "No image of format %d, %ux%u, stride %u, type %d: %s", description.format, description.width,
                description.height, description.planeStride, type, reason);
    }

    /// Takes over the memory of other, which becomes empty.
    Image(Image&& other) noexcept = default;
    /// Releases its own memory and takes over that of other, which becomes empty.
    Image& operator=(Image&& other) noexcept = default;

    /// Releases the memory and makes the image empty.
    void Reset() { *this = Image(); }

    /// Returns true unless the image is empty.
    explicit operator bool() const { return m_buffers[0] != nullptr; }

private:
    using Pool = ZYTBufferPool;

    // These return null on success, otherwise the reason. Reset() then releases what they have taken.
    const char* TakePlanes(ZYTBufferManager& manager, ZYTBufferType type) {
        if (type != ZYT_BUFFER_TYPE_MALLOC && type != ZYT_BUFFER_TYPE_DMABUF) return "its type is unknown";
        if (const char* reason = detail::WhatIsWrongWithGeometry(m_record)) return reason;
        const uint32_t first = m_record.planeStride * m_record.sliceHeight;
        if (const char* reason = TakePlane(manager, 0, first, type)) return reason;
        if (FindFormatLayout(m_record.format)->HasChroma()) {
            if (first == 1) return "its chroma has no bytes";
            if (const char* reason = TakePlane(manager, 1, first / 2, type)) return reason;
        }
        return nullptr;
    }

    // Planes are taken by size, one at a time: refused buffers all have the address MAP_FAILED, so the pool would
    // confuse them.
    const char* TakePlane(ZYTBufferManager& manager, unsigned int k, unsigned int size, ZYTBufferType type) {
        for (int attempt = 0; attempt < 2; ++attempt) {
            void* buffer = nullptr;
            if (!manager.AllocBuffer(size, &buffer, m_record.fd[k], type)) {
                return k == 0 ? "there is no memory" : "there is no memory for its chroma";
            }
            if (buffer != MAP_FAILED) {
                m_buffers[k] = {buffer, detail::GiveBack{&manager}};
                m_record.pAddr[k] = static_cast<unsigned char*>(buffer);
                m_record.numberOfPlanes = k + 1;
                return nullptr;
            }
            GiveBackUnmapped(manager, m_record.fd[k]);
            PurgeUnmapped();
        }
        return "the kernel refused to map it";
    }

    // The busy list has one entry for the address MAP_FAILED. When it is not this buffer's, the pool would take back
    // somebody else's buffer: entries of others are set aside until the manager has forgotten the address.
    static void GiveBackUnmapped(ZYTBufferManager& manager, int fd) {
        decltype(Pool::m_busyBufferList)::node_type plain;
        decltype(Pool::m_busyGrallocBufferList)::node_type graphic;
        {
            Lock lock(Pool::m_busyBufferListLock);
            const auto busy = Pool::m_busyBufferList.find(MAP_FAILED);
            if (busy == Pool::m_busyBufferList.end() || busy->second.fd != fd) {
                close(fd);
                plain = Pool::m_busyBufferList.extract(MAP_FAILED);
                graphic = Pool::m_busyGrallocBufferList.extract(MAP_FAILED);
            }
        }
        manager.FreeBuffer(MAP_FAILED);
        Lock lock(Pool::m_busyBufferListLock);
        Pool::m_busyBufferList.insert(std::move(plain));
        Pool::m_busyGrallocBufferList.insert(std::move(graphic));
    }

    const char* TakeGralloc(const char* name) {
        if (!IsYuv420(m_record.format)) return "gralloc images are NV12 or NV21";
        if (m_record.width == 0 || m_record.height == 0) return "it has no pixels";
        // The library ends the process when stride * height does not fit. Gralloc pads rows, by far less than this.
        constexpr uint64_t kMostPadding = 4096;
        if ((m_record.width + kMostPadding) * m_record.height > std::numeric_limits<uint32_t>::max()) {
            return "its size does not fit 32 bits";
        }
        auto client = std::make_unique<Pool>();
        client->SetClientName(name);
        for (int attempt = 0; attempt < 2; ++attempt) {
            void* buffer = client->GetBufferFromPool(m_record.width, m_record.height, m_record.fd[0],
                                                     &m_record.pNativeHandle, ZYT_BUFFER_TYPE_GRALLOC);
            if (buffer == nullptr) return "gralloc has no memory";
            if (buffer != MAP_FAILED) {
                m_buffers[0] = {buffer, detail::GiveBack{nullptr, std::move(client)}};
                const char* reason = AskGralloc(name);
                return reason != nullptr ? reason : MapGralloc();
            }
            {
                Lock lock(Pool::m_busyBufferListLock);
                const auto busy = Pool::m_busyGrallocBufferList.find(MAP_FAILED);
                if (busy != Pool::m_busyGrallocBufferList.end() && busy->second.fd == m_record.fd[0]) {
                    Pool::m_busyGrallocBufferList.erase(busy);
                }
            }
            PurgeUnmapped();
        }
        return "the kernel refused to map it";
    }

    // Gralloc decides where the rows and the chroma of its implementation-defined format are.
    const char* AskGralloc(const char* name) {
        android::sp<android::GraphicBuffer> buffer;
        {
            Lock lock(Pool::m_busyBufferListLock);
            const auto busy = Pool::m_busyGrallocBufferList.find(m_buffers[0].get());
            if (busy == Pool::m_busyGrallocBufferList.end()) return "somebody else has given it back";
            buffer = busy->second.graphicBuffer;
        }
        constexpr uint32_t kReadOften = 3;  // GRALLOC_USAGE_SW_READ_OFTEN
        android_ycbcr planes{};
        if (buffer->lockYCbCr(kReadOften, &planes) != 0) return "gralloc refuses to report its planes";
        buffer->unlock();
        const ZYTFormat wanted = m_record.format;
        const char* reason = detail::TakeLayout(planes, m_record);
        if (reason == nullptr && m_record.format != wanted) {
            ZYT_LOG(W, name, "Gralloc has %s", FindFormatLayout(m_record.format)->name);
        }
        return reason;
    }

    // The pool maps one byte per pixel, without the chroma. This maps the whole buffer.
    const char* MapGralloc() {
        const int64_t length = detail::DescriptorLength(m_record.fd[0]);
        if (length <= 0) return "its descriptor has no length";
        const auto bytes = static_cast<size_t>(length);
        char* mapping = m_buffers[0].get_deleter().client->GetAllocator()->MapFDToBufferPointer(m_record.fd[0], bytes);
        if (mapping == nullptr || mapping == MAP_FAILED) return "the kernel refused to map it";
        m_mapping = {mapping, {bytes}};
        m_record.pAddr[0] = reinterpret_cast<unsigned char*>(mapping);
        m_record.numberOfPlanes = 1;
        return WhatIsWrong(m_record);
    }

    std::unique_ptr<void, detail::GiveBack> m_buffers[2];  // identified by the manager's or the pool's addresses
    detail::Mapping m_mapping;                             // the whole buffer; for gralloc images only
};

}  // namespace zyt

#endif  // ZYT_NODEKIT_IMAGE_H
