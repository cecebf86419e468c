#ifndef ZYT_BUFFER_UTIL_H
#define ZYT_BUFFER_UTIL_H

/// @file
/// Operations on whole images: copy, dump, conversion to the vendor's descriptor, names.

#include <asvloffscreen.h>

#include <cstdio>
#include <string>

#include "base/zytexport.h"
#include "zytbuffermanager/zytimagebuffer.h"

/// The vendor's image descriptor, by the name that its users write.
using ASVL_OFFSCREEN = ASVLOFFSCREEN;

/// Copies, dumps, names and describes images.
///
/// The functions keep no state, take no lock and log nothing. They trust their arguments: no pointer may be null, and
/// the memory of an image must hold what its record says. Only the pixels of a row are read or written, never the slack
/// up to the stride. The caller brackets CPU access to DMA-BUF memory. A row of 2^31 bytes
/// or more, and an offset that does not fit in 32 bits, end the process. Thread-safe as long as no other thread writes
/// the same memory.
class ZYT_EXPORT ZYTBufferUtil {
public:
    /// Copies `rows` rows of rowBytes bytes; the strides are in bytes. Does nothing for less than one row or byte.
    /// REQUIRES: source and destination do not overlap.
    static void ZYTCopyPlane(unsigned char* pDst, const unsigned char* pSrc, int rowBytes, int rows, int dstStride,
                             int srcStride);

    /// Copies the pixels of an image row by row, by the source's geometry, each side with its own stride. Returns
    /// false, with nothing copied, unless the sizes are equal or transposed (a transposed copy is not rotated).
    /// REQUIRES: the images do not share memory.
    ///
    /// When the formats differ or the source's is unknown, only the first plane is copied, as 16-bit pixels. A P010
    /// source is copied whole into a destination of any format.
    static bool ZYTBufferCopy(ZYTImageBuffer* pDst, const ZYTImageBuffer* pSrc);

    /// Writes `rows` rows of rowBytes bytes to fp, which stays open. Write errors are ignored.
    static void ZYTDumpPlane(FILE* fp, const unsigned char* pData, int rowBytes, int rows, int stride);

    /// Creates or truncates the file and writes the pixels of all planes without padding. Returns false when the file
    /// cannot be opened; write errors are ignored. Y16 is dumped at one byte per pixel, half of each row, which offline
    /// tools expect. An unknown format leaves an empty file.
    static bool ZYTBufferDump(const ZYTImageBuffer* pImage, const char* path);

    /// Fills the vendor's descriptor, which then shares the image's memory. Sets the pixel format for NV12 and NV21
    /// only; for raw images the caller sets it from GetASVLOffScreenRawFormat.
    static void ZYTBufferToASVLOffScreen(const ZYTImageBuffer* pImage, ASVL_OFFSCREEN* pOffscreen);

    /// Returns the vendor's code for a raw format and Bayer order (0 RGGB, 1 GRBG, 2 GBRG, 3 BGGR), or 0 for another
    /// order. The codes are those of the vendor's published header. Formats other than Raw12, Raw14 and Raw16 count as
    /// Raw10.
    static unsigned int GetASVLOffScreenRawFormat(ZYTFormat format, int pattern);

    /// Returns the format's name, "Unknow" for a value outside the enumeration.
    static std::string GetBufferFormatString(ZYTFormat format);
    /// Returns the name of the image's format.
    static std::string GetBufferFormatString(const ZYTImageBuffer* pImage);
};

#endif  // ZYT_BUFFER_UTIL_H
