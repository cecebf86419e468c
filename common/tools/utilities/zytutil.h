#ifndef ZYT_UTIL_H
#define ZYT_UTIL_H

/// @file
/// Small help for nodes (see ZYTUtil), rectangles, and the numbers of regions and devices.

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "base/zytexport.h"
#include "base/zytthreadsafety.h"
#include "zytbuffermanager/zytimagebuffer.h"

/// A rectangle in pixels. The row comes before the column.
struct ZYTRect {
    uint32_t top;     ///< First row.
    uint32_t left;    ///< First column.
    uint32_t width;   ///< Columns.
    uint32_t height;  ///< Rows.
};

/// Market regions, by what "ro.vexo.build.region" reads.
enum : uint32_t {
    ZYT_REGION_GLOBAL = 1,  ///< "GLOBAL" or "global".
    ZYT_REGION_CN = 2,      ///< "CN", "cn" and whatever is not listed here.
    ZYT_REGION_IN = 3,      ///< "IN" or "in".
};

/// Devices, by what "ro.product.device" reads. The numbers are shared with tuning data; the gaps are numbers that were
/// given elsewhere.
enum : uint32_t {
    ZYT_DEVICE_KIVO = 8,       ///< "kivo".
    ZYT_DEVICE_DATU = 9,       ///< "datu".
    ZYT_DEVICE_LEMBROVA = 10,  ///< "lembrova".
    ZYT_DEVICE_OVANEL = 11,    ///< "ovanel".
    ZYT_DEVICE_TRESSIM = 12,   ///< "tressim".
    ZYT_DEVICE_GAVRILOT = 13,  ///< "gavrilot".
    ZYT_DEVICE_PLESK = 14,     ///< "plesk".
    ZYT_DEVICE_ZIROA = 15,     ///< "ziroa".
    ZYT_DEVICE_BRISKO = 16,    ///< "brisko".
    ZYT_DEVICE_YOMA = 17,      ///< "yoma".
    ZYT_DEVICE_CASKELN = 18,   ///< "caskeln".
    ZYT_DEVICE_DROVATIN = 19,  ///< "drovatin".
    ZYT_DEVICE_FENRALUK = 20,  ///< "fenraluk".
    ZYT_DEVICE_SEBA = 129,     ///< "seba".
    ZYT_DEVICE_ZAD = 130,      ///< "zad".
    ZYT_DEVICE_OTHER = 131,    ///< Whatever is not listed here.
};

/// What the node runs on.
struct ZYTProductInfo {
    uint32_t region;              ///< A ZYT_REGION_ value.
    uint32_t device;              ///< A ZYT_DEVICE_ value.
    uint32_t cameraConfigIsZero;  ///< 1 when "ro.boot.camera.config" reads exactly "0", else 0.
};

/// Files, device facts, clocks, rectangles and marks, as static functions. None of them logs. All may be called from
/// any thread at the same time; only the product record is shared, under its lock.
class ZYT_EXPORT ZYTUtil {
public:
    /// @name Files
    /// Statuses are 0 for success and 1 for failure; lists are appended to, never cleared. Paths are put together as
    /// "dir/name" and cut at 2046 characters. Running out of memory for a list ends the process.
    /// @{

    /// Appends every file in dir that is no directory, in the order the directory yields them; with recursive also
    /// those below it, where the subdirectory is met. Symbolic links are followed, and cycles of them too, until the
    /// kernel refuses the path; links to nothing are left out, and so is a path so long that its cut form leads back
    /// into dir itself. Fails when dir or a directory below it cannot be opened; what was appended so far then stays.
    static int32_t GetFileListInDir(const char* dir, std::vector<std::string>& files, bool recursive) noexcept;

    /// Appends the paths whose whole base name matches pattern, a case-sensitive ECMAScript regular expression. Success
    /// also when nothing matches; failure, with files untouched, for a null argument or a listing that failed. An
    /// ill-formed pattern ends the process, whatever the caller catches.
    static int32_t SearchFileByName(const char* dir, const char* pattern, std::vector<std::string>& files,
                                    bool recursive) noexcept;

    /// Copies the part of path behind its last '/', with its terminator if both fit into size bytes. A path without a
    /// '/' is copied without the terminator: clear name first.
    static void GetFileNameFromFilePath(const char* path, char* name, unsigned int size);

    /// The same string with 'A' to 'Z' lowered and every other byte kept, whatever the locale.
    static std::string ToLowerCaseStr(const char* str);

    /// Reads a whole file into a block that FreeFileData releases, without a terminator. Null with size 0 when it
    /// cannot be opened; null with the file's length in size when there is no memory. Lengths are cut to 32 bits, and a
    /// read that ends early is not detected.
    static char* ReadFileData(const char* path, unsigned int& size);
    /// Releases a block of ReadFileData; null is allowed.
    static void FreeFileData(char* data);

    /// Whether path names anything: a file, a directory, or a link to one that exists. False for null.
    static bool IsFileExist(const char* path);

    /// @}

    /// @name Device facts and clocks
    /// @{

    /// The product record, read from "ro.vexo.build.region", "ro.boot.camera.config" and "ro.product.device" by the
    /// first call in the process and the same ever after.
    static ZYTProductInfo GetProductInfo() ZYT_EXCLUDES(m_productInfoLock);

    /// Nanoseconds as ticks of the 19.2 MHz hardware timer: the argument, rounded to a double, times the binary128
    /// ratio, truncated; at most 2^64 - 1. Bit-exact on every processor.
    static unsigned long long QtimerNanoToQtimerTicks(unsigned long long nanos);
    /// Ticks of that timer as nanoseconds, worked out in the same way.
    static unsigned long long QtimerTicksToQtimerNano(unsigned long long ticks);

    /// Milliseconds of the monotonic clock, from an unspecified start.
    static int64_t GetCurMilliSecond();

    /// @}

    /// @name Rectangles
    /// In single precision. Where a coordinate turns back into a whole number the fraction is dropped, negative values
    /// and NaN become 0 and large ones 2^32 - 1. A rectangle whose far edge does not fit 32 bits ends the process.
    /// @{

    /// Scales rect's size by the larger of inWidth / outWidth and inHeight / outHeight, limits it to the output and
    /// centres it there. rect's position is not used.
    static ZYTRect TranslateCropInfo(ZYTRect rect, uint32_t inWidth, uint32_t inHeight, uint32_t outWidth,
                                     uint32_t outHeight);

    /// Appends to mapped each face that lies wholly inside crop, moved to where it is once crop has been scaled to
    /// cover dst's size, with the overflow of the longer axis cut evenly on both sides. dst's position is not used.
    /// Nothing for an empty crop.
    static void MapFaceROIToImageBuffer(const std::vector<ZYTRect>& faces, std::vector<ZYTRect>& mapped, ZYTRect crop,
                                        ZYTRect dst) noexcept;

    /// @}

    /// @name Marks
    /// Of value 255 in the luma plane of NV12 and NV21; other formats are left as they are. A row whose offset does not
    /// fit 32 bits ends the process.
    /// @{

    /// Marks one pixel; nothing outside the image.
    static void DrawPointer(ZYTImageBuffer* pImage, uint32_t x, uint32_t y);

    /// Outlines rect with lines of 2 * (thickness / 2) + 1 pixels centred on its edges and clipped to the image. Ends
    /// the process where an edge with its line does not fit 32 bits, and for an image without width or height, whatever
    /// its format.
    static void DrawRect(ZYTImageBuffer* pImage, ZYTRect rect, uint32_t thickness);

    /// @}

    /// @name The product record
    /// What GetProductInfo() keeps. Never cleared.
    /// @{

    /// The record; all zeros before it was read.
    static ZYTProductInfo m_productInfo ZYT_GUARDED_BY(m_productInfoLock);
    /// Whether the record was read.
    static bool m_isProductInfoInit ZYT_GUARDED_BY(m_productInfoLock);
    /// Guards both.
    static std::mutex m_productInfoLock;

    /// @}
};

#endif  // ZYT_UTIL_H
