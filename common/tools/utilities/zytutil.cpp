#include "utilities/zytutil.h"

#include <cutils/properties.h>
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>

#include "base/zytchecked.h"
#include "zytbuffermanager/zytimagelayout.h"

namespace {

constexpr size_t kPathSize = 2048;

// Closes a stream that may be null. C libraries answer a null one with an error, but some declare the parameter as
// never null; a compiler that sees the call would conclude that the stream was opened and drop the test that says it
// was not. Called through this pointer, it sees nothing.
int (*volatile g_closeDirectory)(DIR*) = closedir;

bool IsSameDirectory(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace

int32_t ZYTUtil::GetFileListInDir(const char* dir, std::vector<std::string>& files, bool recursive) noexcept {
    char path[kPathSize] = {};
    struct stat dirStat {};
    DIR* stream = nullptr;
    if (stat(dir, &dirStat) == 0 && S_ISDIR(dirStat.st_mode)) stream = opendir(dir);
    if (stream == nullptr) {
        g_closeDirectory(stream);
        return 1;
    }
    int32_t result = 0;
    while (const dirent* entry = readdir(stream)) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
        const int length = std::snprintf(path, sizeof(path) - 1, "%s/%s", dir, entry->d_name);
        struct stat pathStat {};
        if (stat(path, &pathStat) != 0) continue;
        if (!S_ISDIR(pathStat.st_mode)) {
            files.emplace_back(path);
            continue;
        }
        if (!recursive) continue;
        // What is left of a cut path can be dir itself, which would be listed without end.
        const bool isCut = length < 0 || static_cast<size_t>(length) >= sizeof(path) - 1;
        if (isCut && IsSameDirectory(pathStat, dirStat)) continue;
        if (GetFileListInDir(path, files, true) != 0) {
            result = 1;
            break;
        }
    }
    g_closeDirectory(stream);
    return result;
}

void ZYTUtil::GetFileNameFromFilePath(const char* path, char* name, unsigned int size) {
    const size_t length = std::strlen(path);
    if (const char* slash = std::strrchr(path, '/')) {
        const auto index = static_cast<size_t>(slash - path);
        std::memcpy(name, slash + 1, std::min<size_t>(length - index, size));
    } else {
        std::memcpy(name, path, std::min<size_t>(length, size));
    }
}

std::string ZYTUtil::ToLowerCaseStr(const char* str) {
    std::string lower(str);
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 0x20);
    }
    return lower;
}

char* ZYTUtil::ReadFileData(const char* path, unsigned int& size) {
    std::ifstream file(path, std::ios::in | std::ios::binary);
    if (!file.is_open()) {
        size = 0;
        return nullptr;
    }
    file.seekg(0, std::ios::end);
    const auto length = static_cast<uint32_t>(static_cast<std::streamoff>(file.tellg()));
    file.seekg(0, std::ios::beg);
    char* data = static_cast<char*>(std::malloc(length));
    if (data != nullptr) file.read(data, static_cast<std::streamsize>(length));
    size = length;
    return data;
}

void ZYTUtil::FreeFileData(char* data) { std::free(data); }

bool ZYTUtil::IsFileExist(const char* path) {
    struct stat pathStat {};
    return path != nullptr && stat(path, &pathStat) == 0;
}

namespace {

struct NamedValue {
    const char* name;
    uint32_t value;
};

constexpr NamedValue kRegions[] = {
    {"GLOBAL", ZYT_REGION_GLOBAL}, {"global", ZYT_REGION_GLOBAL}, {"CN", ZYT_REGION_CN},
    {"cn", ZYT_REGION_CN},         {"IN", ZYT_REGION_IN},         {"in", ZYT_REGION_IN},
};

constexpr NamedValue kDevices[] = {
    {"kivo", ZYT_DEVICE_KIVO},         {"datu", ZYT_DEVICE_DATU},       {"lembrova", ZYT_DEVICE_LEMBROVA},
    {"ovanel", ZYT_DEVICE_OVANEL},     {"tressim", ZYT_DEVICE_TRESSIM}, {"gavrilot", ZYT_DEVICE_GAVRILOT},
    {"plesk", ZYT_DEVICE_PLESK},       {"ziroa", ZYT_DEVICE_ZIROA},     {"brisko", ZYT_DEVICE_BRISKO},
    {"yoma", ZYT_DEVICE_YOMA},         {"caskeln", ZYT_DEVICE_CASKELN}, {"drovatin", ZYT_DEVICE_DROVATIN},
    {"fenraluk", ZYT_DEVICE_FENRALUK}, {"seba", ZYT_DEVICE_SEBA},       {"zad", ZYT_DEVICE_ZAD},
};

class Property {
public:
    explicit Property(const char* key) { property_get(key, m_value, ""); }

    bool Is(const char* value) const { return std::strcmp(m_value, value) == 0; }

    template <size_t N>
    uint32_t Among(const NamedValue (&values)[N], uint32_t other) const {
        for (const NamedValue& candidate : values) {
            if (Is(candidate.name)) return candidate.value;
        }
        return other;
    }

private:
    char m_value[512] = {};
};

}  // namespace

ZYTProductInfo ZYTUtil::m_productInfo{};
bool ZYTUtil::m_isProductInfoInit = false;
std::mutex ZYTUtil::m_productInfoLock;

ZYTProductInfo ZYTUtil::GetProductInfo() {
    zyt::Lock lock(m_productInfoLock);
    if (!m_isProductInfoInit) {
        ZYTProductInfo info{};
        info.region = Property("ro.vexo.build.region").Among(kRegions, ZYT_REGION_CN);
        info.cameraConfigIsZero = Property("ro.boot.camera.config").Is("0") ? 1 : 0;
        info.device = Property("ro.product.device").Among(kDevices, ZYT_DEVICE_OTHER);
        m_isProductInfoInit = true;
        m_productInfo = info;
    }
    return m_productInfo;
}

namespace {

// binary128: a type of its own on x86-64, what long double is on 64-bit Arm.
#if defined(__SIZEOF_FLOAT128__)
using Binary128 = __float128;
#else
using Binary128 = long double;
static_assert(std::numeric_limits<long double>::digits == 113);
#endif

// The ratios by their bits, for no literal of this type is written the same way everywhere. Both lie a little above
// the exact ratio, so that whole multiples do not fall short when the fraction is dropped.
struct Binary128Bits {
    uint64_t low;
    uint64_t high;
};
constexpr Binary128Bits kTicksPerNano = {0x17C1BDA5119CE076, 0x3FF93A92A3055326};  // 0.0192
constexpr Binary128Bits kNanosPerTick = {0xAAAAAAAAAAAAAAAB, 0x4004A0AAAAAAAAAA};  // 625 / 12

unsigned long long Scale(unsigned long long count, const Binary128Bits& ratioBits) {
    Binary128 ratio = 0;
    static_assert(sizeof(ratio) == sizeof(ratioBits));
    std::memcpy(&ratio, &ratioBits, sizeof(ratio));
    const Binary128 scaled = static_cast<Binary128>(static_cast<double>(count)) * ratio;
    constexpr double kTwoTo64 = 18446744073709551616.0;
    if (scaled >= static_cast<Binary128>(kTwoTo64)) return std::numeric_limits<unsigned long long>::max();
    return static_cast<unsigned long long>(scaled);
}

}  // namespace

unsigned long long ZYTUtil::QtimerNanoToQtimerTicks(unsigned long long nanos) { return Scale(nanos, kTicksPerNano); }

unsigned long long ZYTUtil::QtimerTicksToQtimerNano(unsigned long long ticks) { return Scale(ticks, kNanosPerTick); }

int64_t ZYTUtil::GetCurMilliSecond() {
    const auto sinceStart = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(sinceStart).count() / 1000000;
}

namespace {

float ToFloat(uint32_t value) { return static_cast<float>(value); }

// As the Arm conversion instruction has it, on every processor.
uint32_t ToUnsigned(float value) {
    if (!(value > 0.0f)) return 0;
    if (value >= 4294967296.0f) return std::numeric_limits<uint32_t>::max();
    return static_cast<uint32_t>(value);
}

// A product that is rounded before anything is done with it. Compilers may otherwise fuse it with a following
// subtraction, depending on processor and flags, and the result would differ between a desk and a device.
float Product(float a, float b) {
    volatile float product = a * b;
    return product;
}

// How far a side that was scaled to cover the destination sticks out at each end.
float Overflow(float ratio, uint32_t cropSide, uint32_t dstSide) {
    return std::fma(ratio, ToFloat(cropSide), -ToFloat(dstSide)) * 0.5f;
}

bool IsWithin(uint32_t start, uint32_t length, uint32_t low, uint32_t high) {
    if (start < low || start > high) return false;
    return zyt::CheckedAdd(start, length) <= high;
}

// The rows or columns of a band, first and last inclusive; none when last is the smaller. Signed and wide, so that
// neighbours of 0 and of the largest coordinate can be named.
struct Span {
    int64_t first;
    int64_t last;
};

unsigned char* LumaRow(const ZYTImageBuffer& image, uint32_t y) {
    return image.pAddr[0] + zyt::CheckedMul(image.planeStride, y);
}

// Marks from sizeof(Word) to twice as many pixels with two stores that may overlap.
template <typename Word>
void MarkEnds(unsigned char* start, size_t length) {
    constexpr auto kMarks = static_cast<Word>(~Word{0});
    std::memcpy(start, &kMarks, sizeof(kMarks));
    std::memcpy(start + length - sizeof(kMarks), &kMarks, sizeof(kMarks));
}

// Marks the columns of a span in one row. Lines of the usual widths go without a call, which would cost more than they.
inline void Mark(unsigned char* row, Span columns) {
    if (columns.first > columns.last) return;
    unsigned char* start = row + columns.first;
    const auto length = static_cast<size_t>(columns.last - columns.first + 1);
    if (length > 16 || length < 4) {
        std::memset(start, 255, length);
    } else if (length >= 8) {
        MarkEnds<uint64_t>(start, length);
    } else {
        MarkEnds<uint32_t>(start, length);
    }
}

constexpr Span kNothing = {0, -1};

// Marks two spans of columns in a run of rows. Row by row, because the end of one row lies next to the start of the
// next.
void Mark(const ZYTImageBuffer& image, Span rows, Span columns, Span moreColumns = kNothing) {
    if (rows.first > rows.last) return;
    static_cast<void>(LumaRow(image, static_cast<uint32_t>(rows.last)));  // ends the process if it is out of reach
    unsigned char* row = LumaRow(image, static_cast<uint32_t>(rows.first));
    for (int64_t y = rows.first; y <= rows.last; ++y, row += image.planeStride) {
        Mark(row, columns);
        Mark(row, moreColumns);
    }
}

// One axis of an outline: the bands around its near and its far edge and what lies between, clipped to the image.
struct OutlineAxis {
    Span whole;
    Span nearBand;
    Span between;
    Span farBand;

    OutlineAxis(uint32_t start, uint32_t length, uint32_t reach, uint32_t imageLength) {
        const uint32_t end = zyt::CheckedAdd(start, length);
        const uint32_t imageLast = zyt::CheckedSub(imageLength, 1);
        whole = {zyt::ClippedSub(start, reach), std::min(zyt::CheckedAdd(end, reach), imageLast)};
        nearBand = {whole.first, std::min(zyt::CheckedAdd(start, reach), imageLast)};
        farBand = {std::max<int64_t>(zyt::ClippedSub(end, reach), nearBand.last + 1), whole.last};
        between = {nearBand.last + 1, std::min(farBand.first - 1, whole.last)};
    }
};

}  // namespace

ZYTRect ZYTUtil::TranslateCropInfo(ZYTRect rect, uint32_t inWidth, uint32_t inHeight, uint32_t outWidth,
                                   uint32_t outHeight) {
    const float scaleX = ToFloat(inWidth) / ToFloat(outWidth);
    const float scaleY = ToFloat(inHeight) / ToFloat(outHeight);
    const float scale = scaleX < scaleY ? scaleY : scaleX;
    const uint32_t width = std::min(ToUnsigned(scale * ToFloat(rect.width)), outWidth);
    const uint32_t height = std::min(ToUnsigned(scale * ToFloat(rect.height)), outHeight);
    return {(outHeight - height) / 2, (outWidth - width) / 2, width, height};
}

void ZYTUtil::MapFaceROIToImageBuffer(const std::vector<ZYTRect>& faces, std::vector<ZYTRect>& mapped, ZYTRect crop,
                                      ZYTRect dst) noexcept {
    if (crop.width == 0 || crop.height == 0 || faces.empty()) return;
    const uint32_t cropRight = zyt::CheckedAdd(crop.left, crop.width);
    const uint32_t cropBottom = zyt::CheckedAdd(crop.top, crop.height);
    const float ratioX = ToFloat(dst.width) / ToFloat(crop.width);
    const float ratioY = ToFloat(dst.height) / ToFloat(crop.height);
    const bool coversByWidth = ratioX > ratioY;
    const float scale = coversByWidth ? ratioX : ratioY;
    const float offsetX = coversByWidth ? 0.0f : Overflow(ratioY, crop.width, dst.width);
    const float offsetY = coversByWidth ? Overflow(ratioX, crop.height, dst.height) : 0.0f;

    for (const ZYTRect& face : faces) {
        if (!IsWithin(face.left, face.width, crop.left, cropRight)) continue;
        if (!IsWithin(face.top, face.height, crop.top, cropBottom)) continue;
        const float left = Product(scale, ToFloat(face.left - crop.left)) - offsetX;
        const float top = Product(scale, ToFloat(face.top - crop.top)) - offsetY;
        mapped.push_back({ToUnsigned(top), ToUnsigned(left), ToUnsigned(scale * ToFloat(face.width)),
                          ToUnsigned(scale * ToFloat(face.height))});
    }
}

void ZYTUtil::DrawPointer(ZYTImageBuffer* pImage, uint32_t x, uint32_t y) {
    if (!zyt::IsYuv420(pImage->format) || x >= pImage->width || y >= pImage->height) return;
    LumaRow(*pImage, y)[x] = 255;
}

void ZYTUtil::DrawRect(ZYTImageBuffer* pImage, ZYTRect rect, uint32_t thickness) {
    const uint32_t reach = thickness / 2;
    const OutlineAxis rows(rect.top, rect.height, reach, pImage->height);
    const OutlineAxis columns(rect.left, rect.width, reach, pImage->width);
    if (!zyt::IsYuv420(pImage->format)) return;

    Mark(*pImage, rows.nearBand, columns.whole);
    Mark(*pImage, rows.between, columns.nearBand, columns.farBand);
    Mark(*pImage, rows.farBand, columns.whole);
}
