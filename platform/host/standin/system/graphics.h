#ifndef HOSTDEVICE_SYSTEM_GRAPHICS_H
#define HOSTDEVICE_SYSTEM_GRAPHICS_H

/// @file
/// Formats and layouts of graphic buffers, as far as camera nodes use them.

#include <stddef.h>
#include <stdint.h>

/// Pixel formats.
enum {
    HAL_PIXEL_FORMAT_RAW16 = 0x20,                   ///< 2 bytes a pixel.
    HAL_PIXEL_FORMAT_BLOB = 0x21,                    ///< Bytes, such as a JPEG.
    HAL_PIXEL_FORMAT_IMPLEMENTATION_DEFINED = 0x22,  ///< What the camera and the graphics memory agree on.
    HAL_PIXEL_FORMAT_YCBCR_420_888 = 0x23,           ///< 8-bit YUV 4:2:0 in any layout.
    HAL_PIXEL_FORMAT_RAW10 = 0x25,                   ///< 4 pixels in 5 bytes.
};

/// The planes of a locked YUV image.
struct android_ycbcr {
    void* y;               ///< The first byte of each component.
    void* cb;              ///< See y.
    void* cr;              ///< See y.
    size_t ystride;        ///< Bytes from one row of y to the next.
    size_t cstride;        ///< Bytes from one row of cb, or of cr, to the next.
    size_t chroma_step;    ///< Bytes from one value of cb, or of cr, to the next in a row.
    uint32_t reserved[8];  ///< 0.
};

#endif  // HOSTDEVICE_SYSTEM_GRAPHICS_H
