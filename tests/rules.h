#ifndef ZYT_TESTS_RULES_H
#define ZYT_TESTS_RULES_H

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "utilities/zytutil.h"
#include "zytbuffermanager/zytbufferutil.h"

#ifdef ZYT_RULE
#include <fuzzer/FuzzedDataProvider.h>
#endif

/// Rules that compare the library with slow references. The suite chooses cases at random, the fuzz targets by
/// coverage. Cases in which the library ends the process by design are skipped, so that every crash is a finding. Files
/// are created in the directory `scratch`.
namespace zytrule {

constexpr uint64_t kMax32 = UINT32_MAX;

#ifdef ZYT_RULE
using Choices = FuzzedDataProvider;
#else
/// Random choices, with the functions of FuzzedDataProvider that the rules use.
class Choices {
public:
    explicit Choices(uint64_t seed) : m_random(seed) {}

    template <typename T>
    T ConsumeIntegralInRange(T low, T high) {
        return std::uniform_int_distribution<T>(low, high)(m_random);
    }
    template <typename T>
    T ConsumeIntegral() {
        return ConsumeIntegralInRange(std::numeric_limits<T>::min(), std::numeric_limits<T>::max());
    }
    bool ConsumeBool() { return ConsumeIntegralInRange(0, 1) > 0; }

private:
    std::mt19937_64 m_random;
};

/// Returns true when a rule holds for random cases. Prints the seed of the first failure to stderr.
inline bool Holds(bool (*rule)(Choices&, const std::string&), uint64_t cases, const std::string& scratch) {
    for (uint64_t seed = 0; seed < cases; ++seed) {
        Choices choices(seed);
        if (rule(choices, scratch)) continue;
        std::fprintf(stderr, "not for seed %llu\n", static_cast<unsigned long long>(seed));
        return false;
    }
    return true;
}
#endif

using Bytes = std::vector<unsigned char>;

/// Returns a heap block of the exact size, so that the address sanitizer sees every access beyond it.
inline Bytes Block(size_t size, size_t seed) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(seed + i * 7 + i / 251);
    return bytes;
}

// Mostly small, sometimes near a limit of 32 bits.
inline uint32_t Side(Choices& data, uint32_t usual) {
    if (data.ConsumeIntegralInRange(0, 15) > 0) return data.ConsumeIntegralInRange(0u, usual);
    constexpr uint32_t kEnds[] = {0x19999999, 0x1999999a, 0x3fffffff, 0x40000000,
                                  0x7fffffff, 0x80000000, 0xfffffffe, 0xffffffff};
    return kEnds[data.ConsumeIntegralInRange<size_t>(0, std::size(kEnds) - 1)];
}

inline bool IsBetween(int64_t value, int64_t low, int64_t high) { return value >= low && value <= high; }

// Inside the outer edge of the outline's four bands, but not inside their inner edge.
inline bool IsMarked(int64_t x, int64_t y, const ZYTRect& rect, int64_t t) {
    const int64_t left = rect.left, top = rect.top, right = left + rect.width, bottom = top + rect.height;
    const bool isInOuter = IsBetween(x, left - t, right + t) && IsBetween(y, top - t, bottom + t);
    const bool isInInner = IsBetween(x, left + t + 1, right - t - 1) && IsBetween(y, top + t + 1, bottom - t - 1);
    return isInOuter && !isInInner;
}

/// Compares points and outlines with a test of each pixel, on a luma plane that ends with its last pixel.
inline bool DrawsByRule(Choices& data, const std::string&) {
    ZYTImageBuffer image{};
    image.format = static_cast<ZYTFormat>(data.ConsumeBool() ? data.ConsumeIntegralInRange(0, 1)
                                                             : data.ConsumeIntegralInRange(-1, 11));
    const bool isDrawable = image.format == 0 || image.format == 1;
    image.width = isDrawable ? data.ConsumeIntegralInRange(0u, 40u) : Side(data, 60);
    image.height = isDrawable ? data.ConsumeIntegralInRange(0u, 40u) : Side(data, 60);
    image.planeStride = data.ConsumeIntegralInRange(0u, 60u);
    const bool isEmpty = image.width == 0 || image.height == 0;
    const size_t needed = isDrawable && !isEmpty ? image.planeStride * (image.height - 1) + image.width : 0;
    Bytes drawn = Block(needed, 1), expected = drawn;
    image.pAddr[0] = drawn.data();

    const uint32_t pointX = Side(data, 60), pointY = Side(data, 60);
    const ZYTRect rect = {Side(data, 60), Side(data, 60), Side(data, 60), Side(data, 60)};
    const uint32_t thickness = Side(data, 60), t = thickness / 2;
    // An image without pixels ends the process, as does an outline whose far edge does not fit in 32 bits.
    const bool isOutlined =
        !isEmpty && uint64_t{rect.left} + rect.width + t <= kMax32 && uint64_t{rect.top} + rect.height + t <= kMax32;
    for (uint32_t y = 0; isDrawable && y < image.height; ++y) {
        for (uint32_t x = 0; x < image.width; ++x) {
            const bool isPoint = x == pointX && y == pointY;
            if (isPoint || (isOutlined && IsMarked(x, y, rect, t))) expected[y * image.planeStride + x] = 255;
        }
    }
    ZYTUtil::DrawPointer(&image, pointX, pointY);
    if (isOutlined) ZYTUtil::DrawRect(&image, rect, thickness);
    return drawn == expected;
}

constexpr uint64_t kMost = 1 << 16;  // limit for the bytes of an image and the bytes moved
constexpr uint32_t kBits[] = {8, 8, 10, 12, 14, 16, 16, 16, 16, 16, 16};  // bits per pixel, indexed by format

inline bool IsKnown(int format) { return format >= 0 && format <= 10; }
inline bool IsNv(int format) { return format == 0 || format == 1; }
inline bool HasChroma(int format) { return IsNv(format) || format == ZYT_FORMAT_YUV_P010; }

struct Moved {
    uint64_t rowBytes;
    uint64_t rows[2];

    Moved(uint32_t width, uint32_t height, uint32_t bits, bool hasChroma)
        : rowBytes(bits % 8 == 0 ? uint64_t{width} * (bits / 8) : uint64_t{width} * bits),
          rows{height > INT32_MAX ? 0 : height, hasChroma ? height / 2 : 0} {
        // A product that overflows ends the process even if the row would fit, so it stays too large here.
        if (bits % 8 != 0 && rowBytes <= kMax32) rowBytes /= 8;
    }
};

struct Picture {
    ZYTImageBuffer image;
    std::array<Bytes, 2> memory;
    std::vector<unsigned char*> pixels;  // all that are moved, in order

    explicit Picture(const ZYTImageBuffer& described) : image(described) {}

    // Returns false for cases that end the process or need too much memory for a fuzzer.
    bool Allocate(const Moved& moved, size_t seed) {
        const bool isSingle = IsNv(image.format) && image.numberOfPlanes < 2;
        const uint64_t chroma = isSingle && moved.rows[1] > 0 ? uint64_t{image.planeStride} * image.sliceHeight : 0;
        if (moved.rowBytes > INT32_MAX || chroma > kMost) return false;
        uint64_t size[2] = {chroma, 0};
        for (size_t p = 0; p < 2; ++p) {
            if (moved.rows[p] == 0 || moved.rowBytes == 0) continue;
            const uint64_t end = (moved.rows[p] - 1) * image.planeStride + moved.rowBytes;
            if (end > kMost || moved.rows[p] * moved.rowBytes > kMost) return false;
            size[isSingle ? 0 : p] = std::max(size[isSingle ? 0 : p], p * chroma + end);
        }
        for (size_t p = 0; p < 2; ++p) {
            memory[p] = Block(size[p], seed + p);
            if (p == 0 || !isSingle) image.pAddr[p] = memory[p].data();
            unsigned char* row = isSingle ? image.pAddr[0] + p * chroma : image.pAddr[p];
            for (uint64_t left = moved.rowBytes > 0 ? moved.rows[p] : 0; left > 0; --left, row += image.planeStride) {
                for (uint64_t i = 0; i < moved.rowBytes; ++i) pixels.push_back(row + i);
            }
        }
        return true;
    }
};

inline ZYTImageBuffer Describe(Choices& data) {
    const auto format = static_cast<ZYTFormat>(data.ConsumeIntegralInRange(-1, 11));
    const uint32_t width = Side(data, 40), height = Side(data, 40), stride = Side(data, 100), slice = Side(data, 40);
    return {format, width, height, stride, slice, data.ConsumeIntegralInRange(0u, 4u), {}, {}, nullptr};
}

inline bool CopiesByRule(const ZYTImageBuffer& from, ZYTImageBuffer to) {
    const bool isMatching =
        (from.width == to.width && from.height == to.height) || (from.width == to.height && from.height == to.width);
    const bool isP010 = from.format == ZYT_FORMAT_YUV_P010;
    const bool isLike = isMatching && IsKnown(from.format) && (from.format == to.format || isP010);
    const Moved moved(isMatching ? from.width : 0, from.height, isLike ? kBits[from.format] : 16,
                      isLike && HasChroma(from.format));
    // The chroma is copied to the second address, regardless of the destination's number of planes.
    if (isP010) to.numberOfPlanes = 2;
    Picture src(from), dst(to), expected(to);
    if (!src.Allocate(moved, 1) || !dst.Allocate(moved, 100) || !expected.Allocate(moved, 100)) return true;
    for (size_t i = 0; i < src.pixels.size(); ++i) *expected.pixels[i] = *src.pixels[i];
    return ZYTBufferUtil::ZYTBufferCopy(&dst.image, &src.image) == isMatching && dst.memory == expected.memory;
}

inline bool DumpsByRule(const ZYTImageBuffer& from, const std::string& path) {
    // A dump of Y16 has half of each row, a copy all of it.
    const bool isKnown = IsKnown(from.format), isHalf = !isKnown || from.format == ZYT_FORMAT_Y16;
    const Moved moved(isKnown ? from.width : 0, from.height, isHalf ? 8 : kBits[from.format], HasChroma(from.format));
    Picture src(from);
    if (!src.Allocate(moved, 1)) return true;
    std::string expected;
    for (const unsigned char* pixel : src.pixels) expected.push_back(static_cast<char>(*pixel));
    if (!ZYTBufferUtil::ZYTBufferDump(&src.image, path.c_str())) return false;
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {}) == expected;
}

/// Compares copies and dumps with a bytewise copy, on memory that ends with the image.
inline bool MovesByRule(Choices& data, const std::string& scratch) {
    const ZYTImageBuffer from = Describe(data);
    ZYTImageBuffer to = Describe(data);
    // Random sizes hardly ever match.
    const int relation = data.ConsumeIntegralInRange(0, 7);
    if (relation > 0) to.width = relation == 1 ? from.height : from.width;
    if (relation > 0) to.height = relation == 1 ? from.width : from.height;
    if (relation > 2) to.format = from.format;
    return CopiesByRule(from, to) && DumpsByRule(from, scratch + "/dump");
}

inline double Single(double value) { return static_cast<float>(value); }

inline uint32_t Whole(double value) {
    if (std::isnan(value) || value < 0) return 0;
    return value > static_cast<double>(kMax32) ? UINT32_MAX : static_cast<uint32_t>(std::floor(value));
}

inline bool AreSame(const ZYTRect& a, const ZYTRect& b) { return std::memcmp(&a, &b, sizeof(a)) == 0; }

inline ZYTRect ExpectedCrop(const ZYTRect& rect, uint32_t inWidth, uint32_t inHeight, uint32_t outWidth,
                            uint32_t outHeight) {
    const double x = Single(Single(inWidth) / Single(outWidth));
    const double y = Single(Single(inHeight) / Single(outHeight));
    const double scale = x < y ? y : x;
    const uint32_t width = std::min(Whole(Single(scale * Single(rect.width))), outWidth);
    const uint32_t height = std::min(Whole(Single(scale * Single(rect.height))), outHeight);
    return {(outHeight - height) / 2, (outWidth - width) / 2, width, height};
}

// Returns (ratio * cropSide - dstSide) / 2, rounded once: the product is exact.
inline double Overflow(double ratio, uint32_t cropSide, uint32_t dstSide) {
    const long double overflow = static_cast<long double>(ratio) * Single(cropSide) - Single(dstSide);
    return static_cast<float>(overflow) / 2.0;
}

inline ZYTRect ExpectedFace(const ZYTRect& face, const ZYTRect& crop, const ZYTRect& dst) {
    const double ratioX = Single(Single(dst.width) / Single(crop.width));
    const double ratioY = Single(Single(dst.height) / Single(crop.height));
    const double scale = std::max(ratioX, ratioY);
    double left = Single(scale * Single(face.left - crop.left));
    double top = Single(scale * Single(face.top - crop.top));
    if (ratioX > ratioY) {
        top = Single(top - Overflow(ratioX, crop.height, dst.height));
    } else {
        left = Single(left - Overflow(ratioY, crop.width, dst.width));
    }
    return {Whole(top), Whole(left), Whole(Single(scale * Single(face.width))),
            Whole(Single(scale * Single(face.height)))};
}

inline uint32_t Number(Choices& data) {
    const int shift = data.ConsumeIntegralInRange(0, 31);
    return data.ConsumeIntegral<uint32_t>() >> shift;
}

inline ZYTRect Rect(Choices& data) { return {Number(data), Number(data), Number(data), Number(data)}; }

// Returns a number in or next to the range, or any number: a random one is nearly always outside.
inline uint32_t About(Choices& data, uint64_t low, uint64_t high) {
    if (data.ConsumeBool()) return Number(data);
    return static_cast<uint32_t>(low - 1 + data.ConsumeIntegralInRange<uint64_t>(0, high - low + 2));
}

/// Compares crops and faces with the same rules in double and integers, rounded to single precision after every step.
/// Rounding the double sum, product or quotient of two floats gives the same result as single precision.
inline bool PlacesByRule(Choices& data, const std::string&) {
    const ZYTRect rect = Rect(data), sides = Rect(data), crop = Rect(data), dst = Rect(data);
    if (!AreSame(ZYTUtil::TranslateCropInfo(rect, sides.top, sides.left, sides.width, sides.height),
                 ExpectedCrop(rect, sides.top, sides.left, sides.width, sides.height))) {
        return false;
    }

    const uint64_t right = uint64_t{crop.left} + crop.width, bottom = uint64_t{crop.top} + crop.height;
    const bool isEmpty = crop.width == 0 || crop.height == 0;
    if (!isEmpty && (right > kMax32 || bottom > kMax32)) return true;
    std::vector<ZYTRect> faces, expected = {{1, 2, 3, 4}}, mapped = expected;
    for (int i = data.ConsumeIntegralInRange(0, 8); i > 0; --i) {
        ZYTRect face{};
        face.left = About(data, crop.left, right);
        face.top = About(data, crop.top, bottom);
        const uint64_t width = right - std::min<uint64_t>(right, face.left);
        const uint64_t height = bottom - std::min<uint64_t>(bottom, face.top);
        // A far edge that does not fit in 32 bits ends the process, unless the face starts outside.
        face.width = std::min(About(data, width, width), UINT32_MAX - face.left);
        face.height = std::min(About(data, height, height), UINT32_MAX - face.top);
        faces.push_back(face);
        const bool isInside = face.left >= crop.left && uint64_t{face.left} + face.width <= right &&
                              face.top >= crop.top && uint64_t{face.top} + face.height <= bottom;
        if (!isEmpty && isInside) expected.push_back(ExpectedFace(face, crop, dst));
    }
    ZYTUtil::MapFaceROIToImageBuffer(faces, mapped, crop, dst);
    return std::equal(mapped.begin(), mapped.end(), expected.begin(), expected.end(), AreSame);
}

/// Checks base names and lower case on memory that ends with each string. Bytes around a name must not change.
inline bool NamesByRule(Choices& data, const std::string&) {
    std::string text(data.ConsumeIntegralInRange<size_t>(0, 40), '\0');
    for (char& c : text) {
        const bool isUsual = data.ConsumeBool();
        c = isUsual ? "abAB./"[data.ConsumeIntegralInRange(0, 5)]
                    : static_cast<char>(data.ConsumeIntegralInRange(1, 255));
    }
    uint32_t capacity = data.ConsumeIntegral<uint32_t>();
    if (data.ConsumeBool()) capacity %= static_cast<uint32_t>(text.size()) + 3;
    const std::vector<char> path(text.c_str(), text.c_str() + text.size() + 1);

    // The terminator is part of the name only after a slash.
    const size_t slash = text.rfind('/');
    const std::string name = slash == std::string::npos ? text : text.substr(slash + 1) + '\0';
    const std::string expected = name.substr(0, capacity);
    const std::string block = std::string(8, '#') + expected + std::string(std::min(8u, capacity), '#');
    std::vector<char> written(block.size(), '#');
    ZYTUtil::GetFileNameFromFilePath(path.data(), written.data() + 8, capacity);

    std::string lower = text;
    for (char& c : lower) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    return std::string(written.begin(), written.end()) == block && ZYTUtil::ToLowerCaseStr(path.data()) == lower;
}

/// Reads whole files of any content: empty, linked, missing, and with a length that does not fit in 32 bits.
inline bool ReadsByRule(Choices& data, const std::string& scratch) {
    const bool isMissing = data.ConsumeIntegralInRange(0, 15) == 0;
    const uint64_t wraps = data.ConsumeBool() ? 0 : data.ConsumeIntegralInRange<uint64_t>(0, 3);
    const size_t size = data.ConsumeIntegralInRange<size_t>(0, 40000);  // several stream buffers
    const Bytes bytes = Block(size, data.ConsumeIntegral<size_t>());
    const std::string content(bytes.begin(), bytes.end());
    const std::string file = scratch + "/file", link = scratch + "/link";
    std::filesystem::remove(file);
    std::filesystem::remove(link);
    if (!isMissing) {
        std::ofstream(file, std::ios::binary) << content;
        // The rest is a hole; only the low 32 bits of the length count.
        std::filesystem::resize_file(file, (wraps << 32) + content.size());
    }
    std::filesystem::create_symlink("file", link);
    const std::string& path = data.ConsumeBool() ? link : file;
    unsigned int count = 0xdeadbeef;
    char* block = ZYTUtil::ReadFileData(path.c_str(), count);
    const bool isRight =
        isMissing ? block == nullptr && count == 0 : block != nullptr && std::string(block, count) == content;
    ZYTUtil::FreeFileData(block);
    return isRight && ZYTUtil::IsFileExist(path.c_str()) == !isMissing;
}

// Returns false when dir or a directory below it cannot be listed.
inline bool List(const std::string& dir, bool recursive, std::vector<std::string>& files) {
    namespace fs = std::filesystem;
    std::error_code error;
    for (fs::directory_iterator entry(dir, error), end; !error && entry != end; entry.increment(error)) {
        const std::string whole = dir + "/" + entry->path().filename().string();
        const std::string path = whole.substr(0, 2046);
        std::error_code missing;
        const fs::file_status status = fs::status(path, missing);
        if (missing || !fs::exists(status)) continue;
        if (!fs::is_directory(status)) {
            files.push_back(path);
        } else if (recursive && (path == whole || !fs::equivalent(path, dir))) {
            if (!List(path, true, files)) return false;
        }
    }
    return !error;
}

// Creates a small tree below base. Returns one of its directories, a name in one, or a path so long that it is cut.
inline std::string Plant(Choices& data, const std::string& base) {
    namespace fs = std::filesystem;
    // Each name is the beginning of another one, or differs from it in case or dots. Parents first.
    constexpr const char* kDirs[] = {"", "/a", "/a/aB", "/a/aB/..a"};
    constexpr const char* kFiles[] = {"/a/ab", "/a/B",          "/a/aB/Ba", "/a/aB/a", "/a/aB/..a/bb",
                                      "/A.a",  "/\xc3\xbc\xff", "/...",     "/AB",     "/b"};
    fs::remove_all(base);
    fs::create_directory(base);
    for (const char* name : kDirs) {
        if (data.ConsumeIntegralInRange(0, 3) > 0) mkdir((base + name).c_str(), 0700);
    }
    for (const char* name : kFiles) {
        const int kind = data.ConsumeIntegralInRange(0, 3);
        if (kind > 0) mknod((base + name).c_str(), (kind == 1 ? S_IFIFO : S_IFREG) | 0600, 0);
    }
    // One link: two cycles have too many paths to list.
    constexpr const char* kTargets[] = {".", "..", "missing", "a", "aB", "B"};
    const std::string link = base + kDirs[data.ConsumeIntegralInRange(0, 1)] + "/bA";
    std::error_code ignored;
    fs::create_symlink(kTargets[data.ConsumeIntegralInRange(0, 5)], link, ignored);
    std::string dir = base + kDirs[data.ConsumeIntegralInRange(0, 3)];
    const int spelling = data.ConsumeIntegralInRange(0, 5);
    if (spelling == 0) dir += "/x";
    if (spelling == 1) dir += "/";
    if (spelling == 2) dir.resize(2047 - data.ConsumeIntegralInRange<size_t>(0, 8), '/');
    return dir;
}

/// Compares listing and searching a small tree with the standard library. Results are appended to the lists.
inline bool ListsByRule(Choices& data, const std::string& scratch) {
    constexpr const char* kPatterns[] = {"",  "a",      "A.",      "a.*",       "[a-bX]+",      "(a|B){2}",
                                         ".", "(.)\\1", "^[^.]+$", "\\w(?=b).", "[[:alpha:]_]*"};
    const std::string dir = Plant(data, scratch + "/tree");
    const std::string pattern = kPatterns[data.ConsumeIntegralInRange<size_t>(0, std::size(kPatterns) - 1)];
    const bool recursive = data.ConsumeBool();
    const std::regex expression(pattern);
    const auto agrees = [&] {
        std::vector<std::string> listed = {"kept"}, files = listed, matching = listed, found = listed;
        const int32_t result = List(dir, recursive, listed) ? 0 : 1;
        if (ZYTUtil::GetFileListInDir(dir.c_str(), files, recursive) != result || files != listed) return false;
        for (size_t i = 1; result == 0 && i < listed.size(); ++i) {
            if (std::regex_match(listed[i].substr(listed[i].rfind('/') + 1), expression)) matching.push_back(listed[i]);
        }
        return ZYTUtil::SearchFileByName(dir.c_str(), pattern.c_str(), found, recursive) == result && found == matching;
    };
    // During a mount in any process the kernel counts links twice and gives up early on cyclic ones, so a difference
    // counts only when it lasts.
    for (int i = 0; i < 50; ++i) {
        if (agrees()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

}  // namespace zytrule

#endif  // ZYT_TESTS_RULES_H
