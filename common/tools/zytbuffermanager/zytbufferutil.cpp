#include "zytbuffermanager/zytbufferutil.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>

#include "zytbuffermanager/zytimagelayout.h"

namespace {

constexpr size_t kDumpBufferSize = 512u << 10;

bool SizesMatch(const ZYTImageBuffer& a, const ZYTImageBuffer& b) {
    return (a.width == b.width && a.height == b.height) || (a.width == b.height && a.height == b.width);
}

const zyt::FormatLayout& CopyLayout(const ZYTImageBuffer& dst, const ZYTImageBuffer& src) {
    const zyt::FormatLayout& layout = zyt::LayoutOf(src.format);
    // The destination of a P010 copy is not compared: its producers fill in the format later.
    return dst.format == src.format || layout.kind == zyt::FormatKind::kP010 ? layout : zyt::kUnknownLayout;
}

unsigned char* ChromaPlane(const ZYTImageBuffer& image, zyt::FormatKind kind) {
    if (kind == zyt::FormatKind::kYuv420 && image.numberOfPlanes < 2) {
        return image.pAddr[0] + zyt::FirstPlaneSize(image);
    }
    return image.pAddr[1];
}

// Rows and strides are passed as signed values, so a height above 2^31 - 1 counts as no rows.
int Signed(uint32_t value) { return static_cast<int>(value); }

}  // namespace

void ZYTBufferUtil::ZYTCopyPlane(unsigned char* pDst, const unsigned char* pSrc, int rowBytes, int rows, int dstStride,
                                 int srcStride) {
    if (rowBytes < 1) return;
    for (ptrdiff_t row = 0; row < rows; ++row) {
        std::memcpy(pDst + row * dstStride, pSrc + row * srcStride, static_cast<size_t>(rowBytes));
    }
}

bool ZYTBufferUtil::ZYTBufferCopy(ZYTImageBuffer* pDst, const ZYTImageBuffer* pSrc) {
    if (!SizesMatch(*pDst, *pSrc)) return false;
    const zyt::FormatLayout& layout = CopyLayout(*pDst, *pSrc);
    const int rowBytes = layout.RowBytes(pSrc->width);
    const int dstStride = Signed(pDst->planeStride);
    const int srcStride = Signed(pSrc->planeStride);
    ZYTCopyPlane(pDst->pAddr[0], pSrc->pAddr[0], rowBytes, Signed(pSrc->height), dstStride, srcStride);
    if (layout.HasChroma() && pSrc->height >= 2) {
        ZYTCopyPlane(ChromaPlane(*pDst, layout.kind), ChromaPlane(*pSrc, layout.kind), rowBytes,
                     Signed(pSrc->height / 2), dstStride, srcStride);
    }
    return true;
}

void ZYTBufferUtil::ZYTDumpPlane(FILE* fp, const unsigned char* pData, int rowBytes, int rows, int stride) {
    if (rowBytes < 1) return;
    for (ptrdiff_t row = 0; row < rows; ++row) {
        std::fwrite(pData + row * stride, static_cast<size_t>(rowBytes), 1, fp);
    }
}

bool ZYTBufferUtil::ZYTBufferDump(const ZYTImageBuffer* pImage, const char* path) {
    FILE* file = std::fopen(path, "wb+");
    if (file == nullptr) return false;
    // The stream's own buffer holds about one row, and many small writes cost a file system several times as much as a
    // few large ones. Without memory for a larger buffer the dump is the same, only slower.
    const std::unique_ptr<char[]> buffer(new (std::nothrow) char[kDumpBufferSize]);
    if (buffer != nullptr) std::setvbuf(file, buffer.get(), _IOFBF, kDumpBufferSize);
    if (const zyt::FormatLayout* layout = zyt::FindFormatLayout(pImage->format)) {
        // Offline tools read Y16 dumps at one byte per pixel.
        const int rowBytes = layout->kind == zyt::FormatKind::kGrey ? zyt::CheckedInt(pImage->width, "bytes of a row")
                                                                    : layout->RowBytes(pImage->width);
        const int stride = Signed(pImage->planeStride);
        ZYTDumpPlane(file, pImage->pAddr[0], rowBytes, Signed(pImage->height), stride);
        if (layout->HasChroma() && pImage->height >= 2) {
            ZYTDumpPlane(file, ChromaPlane(*pImage, layout->kind), rowBytes, Signed(pImage->height / 2), stride);
        }
    }
    std::fclose(file);
    return true;
}

void ZYTBufferUtil::ZYTBufferToASVLOffScreen(const ZYTImageBuffer* pImage, ASVL_OFFSCREEN* pOffscreen) {
    const uint32_t format = zyt::LayoutOf(pImage->format).offscreenFormat;
    if (format != 0) pOffscreen->u32PixelArrayFormat = format;
    pOffscreen->i32Width = Signed(pImage->width);
    pOffscreen->i32Height = Signed(pImage->height);
    std::copy(std::begin(pImage->pAddr), std::end(pImage->pAddr), pOffscreen->ppu8Plane);
    std::fill(std::begin(pOffscreen->pi32Pitch), std::end(pOffscreen->pi32Pitch), Signed(pImage->planeStride));
}

unsigned int ZYTBufferUtil::GetASVLOffScreenRawFormat(ZYTFormat format, int pattern) {
    if (static_cast<unsigned int>(pattern) > 3) return 0;
    return zyt::LayoutOf(format).offscreenRawFormat + static_cast<unsigned int>(pattern);
}

std::string ZYTBufferUtil::GetBufferFormatString(ZYTFormat format) { return zyt::LayoutOf(format).name; }

std::string ZYTBufferUtil::GetBufferFormatString(const ZYTImageBuffer* pImage) {
    return GetBufferFormatString(pImage->format);
}
