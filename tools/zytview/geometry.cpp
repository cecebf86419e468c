#include "geometry.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <filesystem>

namespace {

// More than any sensor has, and small enough for a row to fit 32 bits and a file 64.
constexpr uint32_t kMaxSide = 1u << 17;

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

}  // namespace

const zyt::FormatLayout* FindFormat(std::string_view name) {
    for (const zyt::FormatLayout& layout : zyt::kFormatLayouts) {
        std::string_view brief = layout.name;
        for (const std::string_view prefix : {"YUV420", "YUV_"}) {
            if (brief.substr(0, prefix.size()) == prefix) brief.remove_prefix(prefix.size());
        }
        if (EqualsIgnoringCase(name, layout.name) || EqualsIgnoringCase(name, brief)) return &layout;
    }
    return nullptr;
}

bool ParseNumber(std::string_view text, uint32_t largest, uint32_t& number) {
    uint32_t value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || value > largest) return false;
    number = value;
    return true;
}

bool ParseSize(std::string_view text, uint32_t& width, uint32_t& height) {
    const size_t x = text.find('x');
    uint32_t newWidth = 0;
    uint32_t newHeight = 0;
    if (x == text.npos || !ParseNumber(text.substr(0, x), kMaxSide, newWidth) ||
        !ParseNumber(text.substr(x + 1), kMaxSide, newHeight) || newWidth == 0 || newHeight == 0) {
        return false;
    }
    width = newWidth;
    height = newHeight;
    return true;
}

void FillFromName(Geometry& geometry, const std::string& path) {
    const std::string name = std::filesystem::path(path).filename();
    Geometry found;
    for (size_t begin = 0; begin < name.size();) {
        const size_t end = std::min(name.find_first_of("_-. ", begin), name.size());
        const std::string_view word(name.data() + begin, end - begin);
        ParseSize(word, found.width, found.height);
        if (const zyt::FormatLayout* layout = FindFormat(word)) found.layout = layout;
        begin = end + 1;
    }
    if (geometry.layout == nullptr) geometry.layout = found.layout;
    if (geometry.width == 0) {
        geometry.width = found.width;
        geometry.height = found.height;
    }
}
