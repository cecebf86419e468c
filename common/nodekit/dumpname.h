#ifndef ZYT_NODEKIT_DUMPNAME_H
#define ZYT_NODEKIT_DUMPNAME_H

/// @file
/// Names of dumps, which carry size and format because a dump has no header.
///
/// @code
/// std::string name = zyt::DumpName(frame, "night");                        // "night_4000x3000_RawMipi10.raw"
/// zyt::DumpInfo info = zyt::ParseDumpName("/tmp/night-4000X3000.nv12");
/// if (info.width == 0 || !info.format) return 1;                           // both are present here
/// @endcode
///
/// The functions are pure: thread-safe, without log lines, and independent of the compiled library.

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "zytbuffermanager/zytimagelayout.h"

namespace zyt {

/// The most pixels of a side in a dump's name: more than any sensor has, and a row fits in 32 bits.
inline constexpr uint32_t kMaxDumpSide = 1u << 17;

/// Size and format found in a dump's name.
struct DumpInfo {
    std::optional<ZYTFormat> format;  ///< Empty when no format is named.
    uint32_t width = 0;               ///< Pixels; 0 when there is no size.
    uint32_t height = 0;              ///< Rows; 0 when there is no size.
};

/// Returns the format with that name, ignoring case. The prefix "YUV420" or "YUV_" may be left out.
inline std::optional<ZYTFormat> FindFormat(std::string_view name) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    const auto isName = [&](std::string_view other) {
        return std::equal(other.begin(), other.end(), name.begin(), name.end(),
                          [&](char a, char b) { return lower(a) == lower(b); });
    };
    for (const FormatLayout& layout : kFormatLayouts) {
        std::string_view brief = layout.name;
        for (const std::string_view prefix : {"YUV420", "YUV_"}) {
            if (brief.substr(0, prefix.size()) == prefix) brief.remove_prefix(prefix.size());
        }
        if (isName(layout.name) || isName(brief)) return static_cast<ZYTFormat>(&layout - kFormatLayouts);
    }
    return std::nullopt;
}

/// Parses a size such as "4000x3000" or "4000X3000". Each side is 1 to kMaxDumpSide pixels. Returns false for any
/// other text and leaves width and height unchanged.
inline bool ParseSize(std::string_view text, uint32_t& width, uint32_t& height) {
    uint32_t sides[2] = {};
    const char* at = text.data();
    const char* const end = at + text.size();
    for (uint32_t& side : sides) {
        if (&side != sides && (at == end || (*at != 'x' && *at != 'X'))) return false;
        const auto [stop, error] = std::from_chars(&side == sides ? at : at + 1, end, side);
        if (error != std::errc() || side == 0 || side > kMaxDumpSide) return false;
        at = stop;
    }
    if (at != end) return false;
    width = sides[0];
    height = sides[1];
    return true;
}

/// Parses a file name, whose words are separated by '_', '-', '.' and blanks. The last size and the last format win.
/// Directories are ignored.
inline DumpInfo ParseDumpName(std::string_view path) {
    path.remove_prefix(path.rfind('/') + 1);
    DumpInfo info;
    for (size_t begin = 0; begin < path.size();) {
        const size_t stop = path.find_first_of("_-. ", begin);
        const size_t end = stop == path.npos ? path.size() : stop;
        const std::string_view word = path.substr(begin, end - begin);
        ParseSize(word, info.width, info.height);
        if (const auto format = FindFormat(word)) info.format = format;
        begin = end + 1;
    }
    return info;
}

/// Returns "STEM_WIDTHxHEIGHT_FORMAT.raw", which ParseDumpName and zytview understand, or an empty string, which is no
/// file's name, for a side beyond kMaxDumpSide. FORMAT is "Unknow" for a value outside the enumeration.
inline std::string DumpName(const ZYTImageBuffer& image, std::string_view stem) {
    if (image.width > kMaxDumpSide || image.height > kMaxDumpSide) return {};
    const FormatLayout* layout = FindFormatLayout(image.format);
    return std::string(stem) + "_" + std::to_string(image.width) + "x" + std::to_string(image.height) + "_" +
           (layout != nullptr ? layout->name : "Unknow") + ".raw";
}

}  // namespace zyt

#endif  // ZYT_NODEKIT_DUMPNAME_H
