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

// What a copy between unlike images moves: the first plane, as if it were 16-bit raw.
constexpr zyt::FormatLayout kUnlikeLayout = {"", zyt::FormatKind::kGrey, 16, 2, 1};

bool SizesMatch(const ZYTImageBuffer& a, const ZYTImageBuffer& b) {
    return (a.width == b.width && a.height == b.height) || (a.width == b.height && a.height == b.width);
}

const zyt::FormatLayout& CopyLayout(const ZYTImageBuffer& dst, const ZYTImageBuffer& src) {
    const zyt::FormatLayout* layout = zyt::FindFormatLayout(src.format);
    if (layout == nullptr) return kUnlikeLayout;
    // P010 is not compared: its producers hand over destinations whose format is not filled in yet.
    return dst.format == src.format || layout->kind == zyt::FormatKind::kP010 ? *layout : kUnlikeLayout;
}

unsigned char* ChromaPlane(const ZYTImageBuffer& image, zyt::FormatKind kind) {
    if (kind == zyt::FormatKind::kYuv420 && image.numberOfPlanes < 2) {
        return image.pAddr[0] + zyt::FirstPlaneSize(image);
    }
    return image.pAddr[1];
}

// Rows and strides travel as signed values: a height beyond 2^31 - 1 counts as no rows.
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
    // The stream's own buffer holds about a row, and a file system takes many small writes several times as long as a
    // few large ones. Without memory for a larger one the dump is as good, only slower.
    const std::unique_ptr<char[]> buffer(new (std::nothrow) char[kDumpBufferSize]);
    if (buffer != nullptr) std::setvbuf(file, buffer.get(), _IOFBF, kDumpBufferSize);
    if (const zyt::FormatLayout* layout = zyt::FindFormatLayout(pImage->format)) {
        // Y16 keeps the one byte a pixel that offline tools were written for.
        const int rowBytes =
            layout->kind == zyt::FormatKind::kGrey ? zyt::CheckedInt(pImage->width) : layout->RowBytes(pImage->width);
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
    if (pImage->format == ZYT_FORMAT_YUV420NV12) pOffscreen->u32PixelArrayFormat = ASVL_PAF_NV12;
    if (pImage->format == ZYT_FORMAT_YUV420NV21) pOffscreen->u32PixelArrayFormat = ASVL_PAF_NV21;
    pOffscreen->i32Width = Signed(pImage->width);
    pOffscreen->i32Height = Signed(pImage->height);
    std::copy(std::begin(pImage->pAddr), std::end(pImage->pAddr), pOffscreen->ppu8Plane);
    std::fill(std::begin(pOffscreen->pi32Pitch), std::end(pOffscreen->pi32Pitch), Signed(pImage->planeStride));
}

unsigned int ZYTBufferUtil::GetASVLOffScreenRawFormat(ZYTFormat format, int pattern) {
    if (static_cast<unsigned int>(pattern) > 3) return 0;
    // The first of each format's four consecutive codes.
    unsigned int code = 0xD09;
    if (format == ZYT_FORMAT_RAW12) code = 0xD11;
    if (format == ZYT_FORMAT_RAW14) code = 0xD41;
    if (format == ZYT_FORMAT_RAW16) code = 0xD21;
    return code + static_cast<unsigned int>(pattern);
}

std::string ZYTBufferUtil::GetBufferFormatString(ZYTFormat format) {
    const zyt::FormatLayout* layout = zyt::FindFormatLayout(format);
    return layout != nullptr ? layout->name : "Unknow";
}

std::string ZYTBufferUtil::GetBufferFormatString(const ZYTImageBuffer* pImage) {
    return GetBufferFormatString(pImage->format);
}
