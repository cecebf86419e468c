#ifndef HOSTDEVICE_UI_GRAPHICBUFFER_H
#define HOSTDEVICE_UI_GRAPHICBUFFER_H

/// @file
/// The platform's graphic buffers.

#include <nativebase/nativebase.h>
#include <utils/RefBase.h>

#include <cstdint>
#include <string>

#include "hostdevice/export.h"

/// The platform's own namespace: here graphic buffers and the pointers that hold them.
namespace android {

using status_t = int32_t;     ///< 0 or a negative errno.
using PixelFormat = int32_t;  ///< A value of the platform's graphics interface; the emulated memory suits all.

/// An image buffer as gralloc makes them, on memfd memory, held by android::sp and immutable once made.
///
/// Rows are as long as the width rounded up to hostdevice::SetStrideAlignment. Whatever the format, the memory is
/// stride x height x 2 bytes a layer: room for 8-bit YUV 4:2:0 and for 16-bit raw, so a client that maps a byte a pixel
/// maps the start of it only. The last strong pointer closes the descriptor in the handle; mappings stay the client's.
/// A buffer without pixels is backed by the memory of a single one, stride included, as the platform does it.
class HOSTDEVICE_EXPORT GraphicBuffer : public ANativeWindowBuffer, public RefBase {
public:
    /// Never throws for want of memory: see initCheck(). The name is for the platform's statistics, which are not here.
    GraphicBuffer(uint32_t inWidth, uint32_t inHeight, PixelFormat inFormat, uint32_t inLayerCount, uint64_t inUsage,
                  std::string requestorName = "<Unknown>");

    /// 0, or the negative errno of the allocation; the handle is then null and all sizes are 0.
    status_t initCheck() const { return mInitCheck; }

    uint32_t getWidth() const { return static_cast<uint32_t>(width); }            ///< In pixels, without padding.
    uint32_t getHeight() const { return static_cast<uint32_t>(height); }          ///< In rows.
    uint32_t getStride() const { return static_cast<uint32_t>(stride); }          ///< In pixels.
    uint64_t getUsage() const { return usage; }                                   ///< As asked for.
    PixelFormat getPixelFormat() const { return format; }                         ///< As asked for.
    uint32_t getLayerCount() const { return static_cast<uint32_t>(layerCount); }  ///< As asked for.

    /// Maps the memory and opens an access for what the usage says: GRALLOC_USAGE_SW_READ_ and SW_WRITE_ bits, 0xf and
    /// 0xf0. 0 with the address; -EINVAL without memory, address or usage; -EBUSY when it is locked, for locks do not
    /// nest here. Sizes per pixel and row are -1: not known. One thread at a time.
    status_t lock(uint32_t inUsage, void** vaddr, int32_t* outBytesPerPixel = nullptr,
                  int32_t* outBytesPerStride = nullptr);
    /// Closes that access and takes the mapping away. 0, or -EINVAL when it is not locked.
    status_t unlock();

    /// The record above; lives as long as the buffer.
    ANativeWindowBuffer* getNativeBuffer() const { return const_cast<GraphicBuffer*>(this); }

private:
    ~GraphicBuffer() override;
    status_t Allocate(uint32_t inWidth, uint32_t inHeight, uint32_t inLayerCount);

    uint64_t mBytes = 0;
    void* mLocked = nullptr;
    status_t mInitCheck;  // last: making it sets the others
};

}  // namespace android

#endif  // HOSTDEVICE_UI_GRAPHICBUFFER_H
