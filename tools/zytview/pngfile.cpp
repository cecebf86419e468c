#include "pngfile.h"

#include <png.h>

#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <vector>

namespace {

// libpng reports an error by a jump back into this frame, so nothing here may need a destructor.
bool Encode(FILE* file, const PngHeader& header, uint16_t* values, unsigned char* bytes, const RowReader& readRow) {
    const auto jumpBack = [](png_structp png, png_const_charp) { png_longjmp(png, 1); };
    const auto ignore = [](png_structp, png_const_charp) {};
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, jumpBack, ignore);
    png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
    if (info == nullptr || setjmp(png_jmpbuf(png)) != 0) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_init_io(png, file);
    png_set_IHDR(png, info, header.width, header.height, static_cast<int>(header.depth),
                 header.channels == 1 ? PNG_COLOR_TYPE_GRAY : PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    const size_t count = size_t{header.width} * header.channels;
    for (uint32_t y = 0; y < header.height; ++y) {
        readRow(y, values);
        unsigned char* next = bytes;
        for (size_t i = 0; i < count; ++i) {
            if (header.depth == 16) *next++ = static_cast<unsigned char>(values[i] >> 8);
            *next++ = static_cast<unsigned char>(values[i]);
        }
        png_write_row(png, bytes);
    }
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return true;
}

}  // namespace

void WritePng(const std::string& path, const PngHeader& header, const RowReader& readRow) {
    std::error_code error;
    // A pipe or a device has no content to lose, and must not be replaced.
    const bool isInPlace = std::filesystem::exists(path, error) && !std::filesystem::is_regular_file(path, error);
    const std::string target = isInPlace ? path : path + ".part";
    std::vector<uint16_t> values(size_t{header.width} * header.channels);
    std::vector<unsigned char> bytes(values.size() * 2);

    FILE* file = std::fopen(target.c_str(), "wb");
    bool isWritten = file != nullptr && Encode(file, header, values.data(), bytes.data(), readRow);
    if (file != nullptr && std::fclose(file) != 0) isWritten = false;
    if (isWritten && !isInPlace) isWritten = std::rename(target.c_str(), path.c_str()) == 0;
    if (isWritten) return;
    const std::string reason = std::strerror(errno);
    if (file != nullptr && !isInPlace) std::remove(target.c_str());
    throw WriteError("cannot write " + path + ": " + reason);
}
