#ifndef ZYT_NODEKIT_DUMPFILE_H
#define ZYT_NODEKIT_DUMPFILE_H

/// @file
/// Writes images to files and loads them.
///
/// @code
/// zyt::Image frame = zyt::LoadDump(manager, "night_4000x3000_RawMipi10.raw", ZYT_BUFFER_TYPE_DMABUF, "MyNode");
/// if (!frame) return 1;                                // both logs have the reason
/// zyt::CpuAccess access(manager, CPU_SYNC_READ_WRITE, frame);
/// Denoise(*frame);
/// if (!access || !zyt::WriteDump(*frame, "out/" + zyt::DumpName(*frame, "denoised"), "MyNode")) return 1;
/// @endcode
///
/// A dump holds all rows of all planes back to back, without header or padding.

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "logging/zytlogsite.h"
#include "nodekit/cpuaccess.h"
#include "nodekit/dumpname.h"
#include "nodekit/image.h"

namespace zyt {

namespace detail {

/// Calls visit(address, bytes) for the pixels of each row of all planes. Stops and returns false when visit does.
template <typename Visit>
bool EachRow(const ZYTImageBuffer& image, const Visit& visit) {
    const FormatLayout& layout = *FindFormatLayout(image.format);
    const auto bytes = static_cast<size_t>(RowBytes(layout, image.width));
    const auto visitPlane = [&](unsigned char* plane, uint32_t rows) {
        for (uint32_t y = 0; y < rows; ++y) {
            if (!visit(plane + size_t{y} * image.planeStride, bytes)) return false;
        }
        return true;
    };
    return visitPlane(image.pAddr[0], image.height) &&
           (!layout.HasChroma() || image.height < 2 || visitPlane(ChromaOf(image), image.height / 2));
}

}  // namespace detail

/// Creates or truncates the file and writes the image. Returns false and logs an error when the image is not valid (see
/// WhatIsWrong) or the file cannot be written completely; a partial file stays. Unlike ZYTBufferDump it writes Y16
/// completely. REQUIRES: the caller holds a CPU access for reading.
inline bool WriteDump(const ZYTImageBuffer& image, const std::string& path, const char* name = "nodekit") {
    const char* reason = WhatIsWrong(image);
    FILE* file = nullptr;
    if (reason == nullptr) {
        constexpr size_t kBufferSize = size_t{512} << 10;
        const std::unique_ptr<char[]> buffer(new (std::nothrow) char[kBufferSize]);
        file = std::fopen(path.c_str(), "wb");
        bool isWritten = file != nullptr;
        if (isWritten) {
            // A few large writes are several times as fast as many small ones.
            if (buffer != nullptr) std::setvbuf(file, buffer.get(), _IOFBF, kBufferSize);
            isWritten = detail::EachRow(image, [file](const unsigned char* row, size_t bytes) {
                return std::fwrite(row, 1, bytes, file) == bytes;
            });
            const int error = errno;
            if (std::fclose(file) != 0) {
                isWritten = false;
            } else {
                errno = error;
            }
        }
        if (isWritten) return true;
        reason = std::strerror(errno);
    }
    ZYT_LOG(E, name, "Cannot write %s: %s", path.c_str(), reason);
    return false;
}

/// Allocates an image of that geometry and type (see Image) and loads the dump into it. Returns an empty image and logs
/// an error when that fails, when the file cannot be read, or when its length is not that of the image. Opens and
/// closes the CPU access that it needs.
inline Image LoadDump(ZYTBufferManager& manager, const std::string& path, const ZYTImageBuffer& description,
                      ZYTBufferType type, const char* name = "nodekit") {
    Image image(manager, description, type, name);
    if (!image) return {};
    FILE* file = std::fopen(path.c_str(), "rb");
    const char* reason = file == nullptr ? std::strerror(errno) : nullptr;
    if (file != nullptr) {
        CpuAccess access(manager, CPU_SYNC_WRITE, image);
        const bool isRead = access && detail::EachRow(*image, [file](unsigned char* row, size_t bytes) {
                                return std::fread(row, 1, bytes, file) == bytes;
                            });
        if (access && !isRead) {
            reason = std::ferror(file) != 0 ? std::strerror(errno) : "it is shorter than the image";
        } else if (isRead && std::fgetc(file) != EOF) {
            reason = "it is longer than the image";
        } else if (!access.Close()) {
            reason = "its memory cannot be accessed";
        }
        std::fclose(file);
    }
    if (reason == nullptr) return image;
    ZYT_LOG(E, name, "Cannot load %s into %ux%u of format %d: %s", path.c_str(), image->width, image->height,
            image->format, reason);
    return {};
}

/// Like above, with size and format taken from the file name; the image has no padding.
inline Image LoadDump(ZYTBufferManager& manager, const std::string& path, ZYTBufferType type,
                      const char* name = "nodekit") {
    const DumpInfo info = ParseDumpName(path);
    if (info.format && info.width > 0) {
        return LoadDump(manager, path, Describe(*info.format, info.width, info.height), type, name);
    }
    ZYT_LOG(E, name, "Cannot load %s: its name does not tell size and format", path.c_str());
    return {};
}

}  // namespace zyt

#endif  // ZYT_NODEKIT_DUMPFILE_H
