#ifndef ZYT_NODEKIT_DUMPFILE_H
#define ZYT_NODEKIT_DUMPFILE_H

/// @file
/// Writes images to files and loads them.
///
/// @code
/// zyt::Image frame = zyt::LoadDump(manager, "night_4000x3000_RawMipi10.raw", ZYT_BUFFER_TYPE_DMABUF, "MyNode");
/// if (!frame) return 1;                                // both logs have the reason
/// zyt::CpuAccess access(CPU_SYNC_READ_WRITE, "MyNode", frame);
/// Denoise(*frame);
/// if (!access || !zyt::WriteDump(*frame, "out/" + zyt::DumpName(*frame, "denoised"), "MyNode")) return 1;
/// @endcode
///
/// A dump holds all rows of all planes back to back, without header or padding.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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
    for (uint32_t k = 0; k < 2; ++k) {
        const Plane<unsigned char> plane = PlaneOf<unsigned char>(image, k);
        for (uint32_t y = 0; y < plane.height; ++y) {
            if (!visit(plane.Row(y), size_t{plane.width})) return false;
        }
    }
    return true;
}

/// A file, or null with errno set. Opening never waits for the other end of a FIFO, and neither do reads and writes.
struct DumpStream : std::unique_ptr<FILE, int (*)(FILE*)> {
    DumpStream(const std::string& path, int flags, const char* mode) : unique_ptr(nullptr, std::fclose) {
        const int fd = open(path.c_str(), flags | O_NONBLOCK | O_CLOEXEC, 0666);
        if (fd < 0) return;
        reset(fdopen(fd, mode));
        if (*this == nullptr) close(fd);
    }
};

}  // namespace detail

/// Creates or truncates the file and writes the image. Returns false and logs an error when the image is not valid (see
/// WhatIsWrong) or the file cannot be written completely; a partial file stays. Never waits for the reader of a FIFO.
/// Unlike ZYTBufferDump it writes Y16 completely. REQUIRES: the caller holds a CPU access for reading.
inline bool WriteDump(const ZYTImageBuffer& image, const std::string& path, const char* name = "nodekit") {
    const ScopedTrace section("zyt::WriteDump");
    const char* reason = WhatIsWrong(image);
    if (reason == nullptr) {
        // A few large writes are several times as fast as many small ones.
        constexpr size_t kBufferSize = size_t{512} << 10;
        const std::unique_ptr<char[]> buffer(new (std::nothrow) char[kBufferSize]);
        detail::DumpStream file(path, O_WRONLY | O_CREAT | O_TRUNC, "wb");
        if (file != nullptr) {
            if (buffer != nullptr) std::setvbuf(file.get(), buffer.get(), _IOFBF, kBufferSize);
            const bool isWritten = detail::EachRow(image, [&](const unsigned char* row, size_t bytes) {
                return std::fwrite(row, 1, bytes, file.get()) == bytes;
            });
            const int error = errno;
            if (std::fclose(file.release()) == 0) {
                if (isWritten) return true;
                errno = error;
            }
        }
        reason = std::strerror(errno);
    }
    ZYT_LOG(E, name, "Cannot write %s: %s", path.c_str(), reason);
    return false;
}

/// Allocates an image of that geometry and type (see Image) and loads the dump into it. Returns an empty image and logs
/// an error when that fails, or when the file is none, cannot be read or has another length than the image; those are
/// looked at before memory is allocated. Opens and closes the CPU access that it needs.
inline Image LoadDump(ZYTBufferManager& manager, const std::string& path, const ZYTImageBuffer& description,
                      ZYTBufferType type, const char* name = "nodekit") {
    const ScopedTrace section("zyt::LoadDump");
    const char* reason = detail::WhatIsWrongWithSize(description);
    if (reason == nullptr) {
        const FormatLayout& layout = *FindFormatLayout(description.format);
        const uint64_t rows = uint64_t{description.height} + detail::RowsOf(layout, description.height, 1);
        const uint64_t wanted = detail::RowBytes(layout, description.width) * rows;
        const detail::DumpStream file(path, O_RDONLY, "rb");
        struct stat status {};
        if (file == nullptr || fstat(fileno(file.get()), &status) != 0) {
            reason = std::strerror(errno);
        } else if (!S_ISREG(status.st_mode)) {
            reason = "it is no regular file";
        } else if (const auto length = static_cast<uint64_t>(status.st_size); length != wanted) {
            reason = length < wanted ? "it is shorter than the image" : "it is longer than the image";
        } else {
            Image image(manager, description, type, name);
            if (!image) return {};
            CpuAccess access(CPU_SYNC_WRITE, name, image);
            if (access && !detail::EachRow(*image, [&](unsigned char* row, size_t bytes) {
                    return std::fread(row, 1, bytes, file.get()) == bytes;
                })) {
                reason = std::ferror(file.get()) != 0 ? std::strerror(errno) : "it is shorter than the image";
            } else if (access.Close()) {
                return image;
            } else {
                reason = "its memory cannot be accessed";
            }
        }
    }
    ZYT_LOG(E, name, "Cannot load %s into %ux%u of format %d: %s", path.c_str(), description.width, description.height,
            description.format, reason);
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
