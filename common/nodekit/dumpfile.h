#ifndef ZYT_NODEKIT_DUMPFILE_H
#define ZYT_NODEKIT_DUMPFILE_H

/// @file
/// Images to files and back.
///
/// @code
/// zyt::Image frame = zyt::LoadDump(manager, "night_4000x3000_RawMipi10.raw", ZYT_BUFFER_TYPE_DMABUF, "MyNode");
/// if (!frame) return 1;                                // both logs say why
/// zyt::CpuAccess access(manager, CPU_SYNC_READ_WRITE, frame);
/// Denoise(*frame);
/// if (!access || !zyt::WriteDump(*frame, "out/" + zyt::DumpName(*frame, "denoised"), "MyNode")) return 1;
/// @endcode
///
/// A dump has all rows of all planes back to back, no header and no padding.

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "logging/zytlogsite.h"
#include "nodekit/cpuaccess.h"
#include "nodekit/dumpname.h"
#include "nodekit/image.h"

namespace zyt {

namespace detail {

/// Gives the pixels of each row of all planes to a function, as an address and a length, until that returns false.
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

/// Creates or truncates the file and writes the image. False, with a line at E, unless all of it is in the file: an
/// image that cannot be touched, a path that cannot be written, a full disk. What was written by then stays. Unlike
/// ZYTBufferDump it writes Y16 whole. CPU access is the caller's to bracket.
inline bool WriteDump(const ZYTImageBuffer& image, const std::string& path, const char* name = "nodekit") {
    const char* reason = WhatIsWrong(image);
    FILE* file = nullptr;
    if (reason == nullptr) {
        file = std::fopen(path.c_str(), "wb");
        bool isWritten = file != nullptr;
        if (isWritten) {
            // File systems take many small writes several times as long as a few large ones.
            std::setvbuf(file, nullptr, _IOFBF, size_t{512} << 10);
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

/// Takes an image of that geometry and type and fills it with the dump; see Image. Empty, with a line at E, also when
/// the file cannot be read or is not exactly as long as the image. The access that filling needs is closed again.
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

/// The same for a dump whose name tells its size and format, without padding.
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
