#ifndef ZYT_IMAGE_BUFFER_H
#define ZYT_IMAGE_BUFFER_H

/// @file
/// The image record that all image code of the library works on, and its enumerations.

#include <cstdint>

/// Pixel format of an image. The values are shared with other processes' records and never change.
///
/// The layouts are those of the camera's interfaces. Packed rows are MIPI CSI-2's. A group of pixels starts with the
/// upper 8 bits of each pixel. The lower bits of all its pixels follow, the first pixel's in the lowest bits. A row is
/// width * bits / 8 bytes; when that cuts the last group, some of its lower bits are not in a copy or dump. 16-bit
/// containers are little-endian. Apart from the marks that ZYTUtil draws, the library moves bytes and never interprets
/// a pixel.
enum ZYTFormat : int32_t {
    ZYT_FORMAT_YUV420NV12 = 0,  ///< 8-bit YUV 4:2:0, luma plane, then interleaved U/V plane.
    ZYT_FORMAT_YUV420NV21 = 1,  ///< The same with V/U order.
    ZYT_FORMAT_RAWMIPI10 = 2,   ///< Bayer raw, 10 bits per pixel, packed: 4 pixels in 5 bytes.
    ZYT_FORMAT_RAWMIPI12 = 3,   ///< Bayer raw, 12 bits per pixel, packed: 2 pixels in 3 bytes.
    ZYT_FORMAT_RAWMIPI14 = 4,   ///< Bayer raw, 14 bits per pixel, packed: 4 pixels in 7 bytes.
    ZYT_FORMAT_YUV_P010 = 5,    ///< YUV 4:2:0, the upper 10 bits of 16, luma plane, then interleaved U/V plane.
    ZYT_FORMAT_Y16 = 6,         ///< One 16-bit plane.
    ZYT_FORMAT_RAW10 = 7,       ///< Bayer raw, the lower 10 bits of a 16-bit container.
    ZYT_FORMAT_RAW12 = 8,       ///< Bayer raw, the lower 12 bits of a 16-bit container.
    ZYT_FORMAT_RAW14 = 9,       ///< Bayer raw, the lower 14 bits of a 16-bit container.
    ZYT_FORMAT_RAW16 = 10,      ///< Bayer raw, 16 bits per pixel.
};

/// Memory behind a buffer.
enum ZYTBufferType : int32_t {
    ZYT_BUFFER_TYPE_MALLOC = 0,   ///< Process memory, no descriptor.
    ZYT_BUFFER_TYPE_DMABUF = 1,   ///< DMA-BUF from the system heap, mapped, with a descriptor.
    ZYT_BUFFER_TYPE_GRALLOC = 2,  ///< Gralloc buffer, mapped, with a descriptor and a native handle.
};

/// Direction of a CPU access to a DMA-BUF. The values are the kernel's direction bits. Any other value means both.
enum CPUSyncType : int32_t {
    CPU_SYNC_READ = 1,        ///< The CPU reads.
    CPU_SYNC_WRITE = 2,       ///< The CPU writes.
    CPU_SYNC_READ_WRITE = 3,  ///< The CPU does both.
};

/// Describes one image. The caller owns the record; the memory behind pAddr belongs to whoever filled it in.
///
/// The caller sets the first five fields; nothing in the library derives or aligns them. ZYTBufferManager::AllocBuffer
/// fills in the others, or a caller who describes memory of its own.
struct ZYTImageBuffer {
    ZYTFormat format;         ///< Pixel format.
    uint32_t width;           ///< Pixels per row.
    uint32_t height;          ///< Rows of the first plane.
    uint32_t planeStride;     ///< Bytes from one row to the next, in every plane.
    uint32_t sliceHeight;     ///< Rows reserved for the first plane; in a single buffer the second plane follows them.
    uint32_t numberOfPlanes;  ///< Planes in use, 0 to 4.
    unsigned char* pAddr[4];  ///< Start of each plane; null from numberOfPlanes on.
    int fd[4];                ///< Descriptor behind each plane; 0 where there is none.
    void* pNativeHandle;      ///< Native handle of a gralloc image, owned by its graphic buffer; null for others.
};

#endif  // ZYT_IMAGE_BUFFER_H
