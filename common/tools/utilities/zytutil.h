#ifndef ZYT_UTIL_H
#define ZYT_UTIL_H

/// @file
/// Files, device facts, clocks, rectangles and marks (see ZYTUtil), and the numbers of regions and devices.

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "base/zytexport.h"
#include "base/zytthreadsafety.h"
#include "zytbuffermanager/zytimagebuffer.h"

/// A rectangle in pixels. The row comes before the column. Its far edges are at left + width and top + height.
struct ZYTRect {
    uint32_t top;     ///< First row.
    uint32_t left;    ///< First column.
    uint32_t width;   ///< Columns.
    uint32_t height;  ///< Rows.
};

/// Market regions, by the value of "ro.vexo.build.region".
enum : uint32_t {
    ZYT_REGION_GLOBAL = 1,  ///< "GLOBAL" or "global".
    ZYT_REGION_CN = 2,      ///< "CN", "cn" and any other value.
    ZYT_REGION_IN = 3,      ///< "IN" or "in".
};

/// Devices, by the value of "ro.product.device". The numbers are shared with tuning data; those missing here are used
/// elsewhere.
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
    ZYT_DEVICE_OTHER = 131,    ///< Any other value.
};

/// The device that the process runs on.
struct ZYTProductInfo {
    uint32_t region;              ///< A ZYT_REGION_ value.
    uint32_t device;              ///< A ZYT_DEVICE_ value.
    uint32_t cameraConfigIsZero;  ///< 1 when "ro.boot.camera.config" reads exactly "0", else 0.
};

/// Files, device facts, clocks, rectangles and marks, as static functions.
///
/// None of them logs. Thread-safe; only the product record is shared, under its lock. Pointers must not be null unless
/// a function says so.
class ZYT_EXPORT ZYTUtil {
public:
    /// @name Files
    /// A status is 0 for success and 1 for failure. Lists are appended to, never cleared. Paths are composed as
    /// "dir/name" and cut to 2046 characters. Running out of memory for a list ends the process.
    /// @{

    /// Appends every file in dir that is not a directory, in the order in which the directory yields them; with
    /// `recursive` also the files below it, where the subdirectory is met. Symbolic links are followed, cycles of them
    /// too, until the kernel refuses the path; dangling links are left out, and so is a path whose cut form names dir
    /// itself. Returns 1 when dir or a directory below it cannot be opened; what was appended so far then stays. Each
    /// directory level takes one descriptor and about 2.4 KiB of stack: the 1,015,808 bytes of a device's thread are
    /// enough for 380 levels.
    static int32_t GetFileListInDir(const char* dir, std::vector<std::string>& files, bool recursive) noexcept;

    /// Appends the paths whose whole base name matches `pattern`, a case-sensitive ECMAScript regular expression. Write
    /// `cam.*\.bin`, not the shell wildcard `cam*.bin`. Returns 0 also when nothing matches, and 1, with `files`
    /// untouched, when dir or pattern is null or the listing failed. An ill-formed pattern, such as `*.bin`, ends the
    /// process, whatever the caller catches.
    ///
    /// A device's C++ library refuses what a desk's may take, such as `a}`, `\_` and `a{1}{2}`. Both take characters,
    /// `.`, `[ ]` with ranges, `^` and classes, `( )`, `(?: )`, `(?= )`, `(?! )`, `|`, `^`, `$`, one of `* + ? {n} {n,}
    /// {n,m}` behind an item and a `?` behind that, `\d \D \s \S \w \W \b \B \xHH \uHHHH`, `\1` to `\9` for a group,
    /// and a backslash before punctuation other than `_`, which a literal `]` or `}` needs too.
    static int32_t SearchFileByName(const char* dir, const char* pattern, std::vector<std::string>& files,
                                    bool recursive) noexcept;

    /// Copies the part of `path` after its last '/', with its terminator if both fit into `size` bytes. A path without
    /// a '/' is copied without the terminator: clear `name` first.
    static void GetFileNameFromFilePath(const char* path, char* name, unsigned int size);

    /// Returns the string with 'A' to 'Z' in lower case and every other byte unchanged, whatever the locale.
    static std::string ToLowerCaseStr(const char* str);

    /// Reads a whole regular file into a block that FreeFileData releases, without a terminator. Returns null with
    /// `size` 0 when the file cannot be opened, and null with the file's length in `size` when there is no memory. The
    /// length is cut to 32 bits, and a short read is not detected.
    ///
    /// Only a file whose length the file system knows can be read. For most of /proc, although it consists of regular
    /// files, and for some directories `size` is 4294967295 and the block, if there is memory for it, is not filled;
    /// other directories give 0, and a file of /sys gives 4096 whatever it holds. A FIFO without a writer waits while
    /// it is opened.
    static char* ReadFileData(const char* path, unsigned int& size);
    /// Releases a block of ReadFileData. Null is allowed.
    static void FreeFileData(char* data);

    /// Returns whether `path` names an existing file of any kind, a directory included; a link counts when its target
    /// exists. False for null.
    static bool IsFileExist(const char* path);

    /// @}

    /// @name Device facts and clocks
    /// @{

    /// Returns the product record, which the first call in the process reads from "ro.vexo.build.region",
    /// "ro.boot.camera.config" and "ro.product.device". A property that the process may not read counts as unset.
    static ZYTProductInfo GetProductInfo() ZYT_EXCLUDES(m_productInfoLock);

    /// Returns nanoseconds as ticks of the 19.2 MHz hardware timer: the argument, rounded to a double, times the
    /// binary128 ratio, truncated; at most 2^64 - 1. Bit-exact on every processor in the default rounding mode.
    static unsigned long long QtimerNanoToQtimerTicks(unsigned long long nanos);
    /// Returns ticks of that timer as nanoseconds, computed in the same way.
    static unsigned long long QtimerTicksToQtimerNano(unsigned long long ticks);

    /// Returns milliseconds of the monotonic clock, from an unspecified start.
    static int64_t GetCurMilliSecond();

    /// @}

    /// @name Rectangles
    /// Computed in single precision. Conversions back to whole numbers truncate; negative values and NaN become 0,
    /// large ones 2^32 - 1.
    /// @{

    /// Scales rect's size by the larger of inWidth / outWidth and inHeight / outHeight, limits it to the output and
    /// centres it there. rect's position is not used.
    static ZYTRect TranslateCropInfo(ZYTRect rect, uint32_t inWidth, uint32_t inHeight, uint32_t outWidth,
                                     uint32_t outHeight);

    /// Appends to `mapped` each face that lies wholly inside `crop`, bounds included, at its place after `crop` was
    /// scaled to cover dst's size, with the overflow of the longer axis cut evenly on both sides. dst's position is not
    /// used. Does nothing for an empty crop or an empty list.
    ///
    /// The result is not clipped. A face beyond dst's far edges keeps its place; one beyond the near edges starts at 0
    /// with its full size. Clip the result before DrawRect, which ends the process when a far edge does not fit in 32
    /// bits.
    ///
    /// Ends the process when a far edge of `crop` does not fit in 32 bits. Each face is tested from left to right, then
    /// from top to bottom, until one test drops it; a far edge that is computed on the way and does not fit in 32 bits
    /// ends the process. REQUIRES: `faces` and `mapped` are different vectors.
    static void MapFaceROIToImageBuffer(const std::vector<ZYTRect>& faces, std::vector<ZYTRect>& mapped, ZYTRect crop,
                                        ZYTRect dst) noexcept;

    /// @}

    /// @name Marks
    /// Written as 255 to the luma plane of NV12 and NV21; other formats stay untouched. A marked row whose offset does
    /// not fit in 32 bits ends the process.
    /// @{

    /// Marks one pixel. Does nothing outside the image.
    static void DrawPointer(ZYTImageBuffer* pImage, uint32_t x, uint32_t y);

    /// Outlines rect with lines of 2 * (thickness / 2) + 1 pixels, centred on its edges and clipped to the image. The
    /// far edges are drawn at column left + width and row top + height, one beyond the rectangle's last pixels. Ends
    /// the process when an edge with its line does not fit in 32 bits, and for an image without width or height,
    /// whatever its format.
    static void DrawRect(ZYTImageBuffer* pImage, ZYTRect rect, uint32_t thickness);

    /// @}

    /// @name The product record
    /// The record that GetProductInfo() keeps. Never cleared.
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
