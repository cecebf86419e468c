#ifndef HOSTDEVICE_UI_GRAPHICBUFFER_H
#define HOSTDEVICE_UI_GRAPHICBUFFER_H

/// @file
/// The platform's graphic buffers.

#include <nativebase/nativebase.h>
#include <system/graphics.h>
#include <utils/RefBase.h>

#include <cstdint>
#include <string>

#include "hostdevice/export.h"

/// The platform's namespace, with graphic buffers and their smart pointers.
namespace android {

using status_t = int32_t;     ///< 0 or a negative errno.
using PixelFormat = int32_t;  ///< A value of the platform's graphics interface; the emulated memory suits all values.

/// A gralloc image buffer on memfd memory. Held by android::sp; its geometry never changes.
///
/// The stride is the width rounded up to hostdevice::SetStrideAlignment. For every format the memory of a layer is
/// stride x height x 2 bytes, which suits 16-bit raw, or, where that is more, 8-bit YUV 4:2:0 with the height rounded
/// up to hostdevice::SetHeightAlignment; a client that maps one byte per pixel maps only its start. The last strong
/// pointer closes the descriptor in the handle; clients own their mappings. A buffer without pixels has the memory of
/// one pixel, stride included, as on the platform.
class HOSTDEVICE_EXPORT GraphicBuffer : public ANativeWindowBuffer, public RefBase {
public:
    /// Allocates the memory. Never throws; see initCheck(). The name is for the platform's statistics and ignored here.
    GraphicBuffer(uint32_t inWidth, uint32_t inHeight, PixelFormat inFormat, uint32_t inLayerCount, uint64_t inUsage,
                  std::string requestorName = "<Unknown>");

    /// Returns 0, or the negative errno of a failed allocation, after which the handle is null and all sizes are 0.
    status_t initCheck() const { return mInitCheck; }

    uint32_t getWidth() const { return static_cast<uint32_t>(width); }            ///< In pixels, without padding.
    uint32_t getHeight() const { return static_cast<uint32_t>(height); }          ///< In rows.
    uint32_t getStride() const { return static_cast<uint32_t>(stride); }          ///< In pixels.
    uint64_t getUsage() const { return usage; }                                   ///< As requested.
    PixelFormat getPixelFormat() const { return format; }                         ///< As requested.
    uint32_t getLayerCount() const { return static_cast<uint32_t>(layerCount); }  ///< As requested.

    /// Maps the memory and opens a CPU access for the GRALLOC_USAGE_SW_READ_ (0xf) and SW_WRITE_ (0xf0) bits of the
    /// usage. Returns 0; -EINVAL without memory, address or usage; -EBUSY when already locked, because locks do not
    /// nest here. Sets the bytes per pixel and per row to -1: not known. Not thread-safe.
    status_t lock(uint32_t inUsage, void** vaddr, int32_t* outBytesPerPixel = nullptr,
                  int32_t* outBytesPerStride = nullptr);
    /// Like lock, for HAL_PIXEL_FORMAT_IMPLEMENTATION_DEFINED and YCBCR_420_888 (-EINVAL for any other), and returns
    /// where the planes of the first layer are: NV12, whose chroma begins behind the padding rows of the luma.
    status_t lockYCbCr(uint32_t inUsage, android_ycbcr* ycbcr);
    /// Closes that access and unmaps the memory. Returns 0, or -EINVAL when not locked.
    status_t unlock();

    /// Returns the base record, valid as long as the buffer.
    ANativeWindowBuffer* getNativeBuffer() const { return const_cast<GraphicBuffer*>(this); }

private:
    ~GraphicBuffer() override;
    status_t Allocate(uint32_t inWidth, uint32_t inHeight, uint32_t inLayerCount);

    uint64_t mBytes = 0;
    uint64_t mLumaRows = 0;  // with padding
    void* mLocked = nullptr;
    status_t mInitCheck;  // declared last: its initialisation sets the other members
};

}  // namespace android

#endif  // HOSTDEVICE_UI_GRAPHICBUFFER_H
