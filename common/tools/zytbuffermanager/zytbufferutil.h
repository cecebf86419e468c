#ifndef ZYT_BUFFER_UTIL_H
#define ZYT_BUFFER_UTIL_H

/// @file
/// What can be done with a whole image; see ZYTBufferUtil.

#include <asvloffscreen.h>

#include <cstdio>
#include <string>

#include "base/zytexport.h"
#include "zytbuffermanager/zytimagebuffer.h"

/// The vendor's image descriptor, by the name that its users write.
using ASVL_OFFSCREEN = ASVLOFFSCREEN;

/// Copies, dumps, names and describes images.
///
/// The functions keep no state, take no lock and log nothing. They trust their arguments: pointers are not tested, and
/// the memory of an image must hold what its record says. CPU access to DMA-BUF memory is the caller's to bracket.
/// Only the pixels of a row are read or written, never the slack up to the stride. A row or an offset that does not
/// fit 32 bits ends the process.
class ZYT_EXPORT ZYTBufferUtil {
public:
    /// Copies rows of rowBytes bytes; the strides are in bytes too. Nothing for less than one row.
    static void ZYTCopyPlane(unsigned char* pDst, const unsigned char* pSrc, int rowBytes, int rows, int dstStride,
                             int srcStride);

    /// Copies the pixels of an image, row for row by the source's geometry, each side with its own stride. False, with
    /// nothing copied, unless the sizes are equal or transposed (a transposed copy is not rotated).
    ///
    /// Where the formats differ or the source's is unknown, the first plane alone is copied, as 16-bit pixels; a P010
    /// source is copied whole into any destination.
    static bool ZYTBufferCopy(ZYTImageBuffer* pDst, const ZYTImageBuffer* pSrc);

    /// Writes rows of rowBytes bytes to fp, which stays open. Write errors are ignored.
    static void ZYTDumpPlane(FILE* fp, const unsigned char* pData, int rowBytes, int rows, int stride);

    /// Creates or truncates the file and writes the pixels of all planes back to back. False when it cannot be opened;
    /// write errors are ignored. Y16 is dumped at one byte a pixel, half of each row: offline tools expect it so. An
    /// unknown format leaves an empty file.
    static bool ZYTBufferDump(const ZYTImageBuffer* pImage, const char* path);

    /// Fills the vendor's descriptor, which shares the image's memory. The pixel format is set for NV12 and NV21 only;
    /// for raw images set it from GetASVLOffScreenRawFormat.
    static void ZYTBufferToASVLOffScreen(const ZYTImageBuffer* pImage, ASVL_OFFSCREEN* pOffscreen);

    /// The vendor's code for a raw format and Bayer order (0 RGGB, 1 GRBG, 2 GBRG, 3 BGGR); 0 for another order. The
    /// codes are those of the vendor's published header. Formats other than Raw12, Raw14 and Raw16 count as Raw10.
    static unsigned int GetASVLOffScreenRawFormat(ZYTFormat format, int pattern);

    /// The format's name, "Unknow" for a value outside the enumeration.
    static std::string GetBufferFormatString(ZYTFormat format);
    /// The name of the image's format, in the same way.
    static std::string GetBufferFormatString(const ZYTImageBuffer* pImage);
};

#endif  // ZYT_BUFFER_UTIL_H
