// A complete algorithm node. It receives frames, moves them through every kind of image memory, maps and marks detected
// faces, describes the frames to a vendor's library, and dumps them. The marking stands for an algorithm; everything
// else is what a real node does. Runs unchanged on a device and on a desktop.

#include <nodekit/connection.h>
#include <nodekit/cpuaccess.h>
#include <nodekit/dumpfile.h>
#include <nodekit/image.h>
#include <nodekit/logflush.h>
#include <nodekit/poolstate.h>
#include <sys/stat.h>
#include <utilities/zytutil.h>
#include <zytbuffermanager/zytbufferutil.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "base/zytsharedflag.h"

// Defined in samplenodedesk.cpp, which only the desktop build links.
__attribute__((weak)) void ReportDevice();
__attribute__((weak)) void ReportLeftovers();

namespace {

constexpr const char* kName = "SampleNode";
constexpr const char* kUsage =
    "usage: samplenode FILE WIDTHxHEIGHT [--format YUV420NV12|YUV420NV21] [--name NAME] [--out DIR]\n"
    "                  [--tuning DIR] [--faces FILE]\n"
    "FILE contains raw frames without padding; width and height must be even. The first line of the faces file is\n"
    "\"crop TOP LEFT WIDTH HEIGHT\", the others are \"face TOP LEFT WIDTH HEIGHT\", in sensor pixels. A tuning file\n"
    "has a line \"thickness=PIXELS\". Lines that begin with # are comments.\n";

constexpr uint32_t kMaxSide = 16384;
constexpr uint32_t kMaxSensorSide = 99999;
constexpr uint32_t kMaxThickness = 99;
// Row alignment of the camera's DMA engine, in bytes. It depends on the device.
constexpr uint32_t kCameraAlignment = 512;

using Clock = std::chrono::steady_clock;

// Reports an invalid argument in one line and exits with code 2.
[[noreturn]] void Refuse(const std::string& message) {
    std::fflush(stdout);  // keeps stdout and stderr in order when both go to one file
    std::fprintf(stderr, "samplenode: %s\n", message.c_str());
    std::exit(2);
}

struct Options {
    std::string input;
    std::string name = "samplenode";
    std::string out = ".";
    std::string tuning;
    std::string faces;
    ZYTFormat format = ZYT_FORMAT_YUV420NV12;
    uint32_t width = 0;
    uint32_t height = 0;
};

ZYTFormat ParseFormat(const std::string& name) {
    const auto format = zyt::FindFormat(name);
    if (format && zyt::IsYuv420(*format)) return *format;
    Refuse("unknown format '" + name + "' (YUV420NV12 or YUV420NV21)");
}

Options Parse(int argc, char** argv) {
    Options options;
    std::vector<std::string> places;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--help") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        }
        if (word.rfind("--", 0) != 0) {
            places.push_back(word);
            continue;
        }
        if (i + 1 == argc) Refuse("no value for " + word);
        const std::string value = argv[++i];
        if (word == "--format") {
            options.format = ParseFormat(value);
        } else if (word == "--name") {
            options.name = value;
        } else if (word == "--out") {
            options.out = value;
        } else if (word == "--tuning") {
            options.tuning = value;
        } else if (word == "--faces") {
            options.faces = value;
        } else {
            Refuse("unknown option " + word);
        }
    }
    if (places.size() != 2) Refuse("wants a file and a size, such as frame.nv12 1920x1080");
    options.input = places[0];
    if (!zyt::ParseSize(places[1], options.width, options.height) || options.width > kMaxSide ||
        options.height > kMaxSide || options.width % 2 != 0 || options.height % 2 != 0) {
        Refuse("'" + places[1] + "' is no size from 2x2 to 16384x16384 with even sides");
    }
    return options;
}

using FileData = std::unique_ptr<char, void (*)(char*)>;

FileData ReadFile(const std::string& path, unsigned int& size) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) Refuse("cannot find " + path);
    if (!S_ISREG(status.st_mode)) Refuse(path + " is no regular file");
    FileData data(ZYTUtil::ReadFileData(path.c_str(), size), ZYTUtil::FreeFileData);
    if (data == nullptr) Refuse("cannot read " + path);
    return data;
}

// Parses a whole number from `least` to `largest`.
bool ParseNumber(const std::string& word, uint32_t least, uint32_t largest, uint32_t& number) {
    const char* end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, number);
    return error == std::errc() && stop == end && number >= least && number <= largest;
}

// Calls visit(words, place) for each line that is neither empty nor a comment.
template <typename Visit>
void EachLine(const std::string& path, const Visit& visit) {
    unsigned int size = 0;
    const FileData data = ReadFile(path, size);
    std::istringstream lines(std::string(data.get(), size));
    unsigned int number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        std::istringstream text(line);
        std::vector<std::string> words;
        for (std::string word; text >> word;) words.push_back(word);
        if (!words.empty() && words[0][0] != '#') visit(words, path + ": line " + std::to_string(number));
    }
}

// The detected faces, and the part of the sensor that the frame shows; both in sensor pixels.
struct Faces {
    ZYTRect crop{};
    std::vector<ZYTRect> rects;
};

Faces ReadFaces(const std::string& path) {
    Faces faces;
    if (path.empty()) return faces;
    EachLine(path, [&](const std::vector<std::string>& words, const std::string& place) {
        if (words[0] != "crop" && words[0] != "face") Refuse(place + " is neither a crop nor a face");
        ZYTRect rect{};
        if (words.size() != 5 || !ParseNumber(words[1], 0, kMaxSensorSide, rect.top) ||
            !ParseNumber(words[2], 0, kMaxSensorSide, rect.left) ||
            !ParseNumber(words[3], 1, kMaxSensorSide, rect.width) ||
            !ParseNumber(words[4], 1, kMaxSensorSide, rect.height)) {
            Refuse(place + " wants TOP LEFT WIDTH HEIGHT, whole numbers up to " + std::to_string(kMaxSensorSide));
        }
        if (words[0] == "face" && faces.crop.width == 0) Refuse(place + " has a face, but no crop stands above it");
        if (words[0] == "face") return faces.rects.push_back(rect);
        if (faces.crop.width != 0) Refuse(place + " has a second crop");
        faces.crop = rect;
    });
    return faces;
}

struct Tuning {
    std::string path;
    uint32_t thickness = 5;  // thickness of the marks, in pixels
};

// A node ships a default tuning, and separate ones for the devices that need them.
Tuning FindTuning(const std::string& dir, uint32_t device) {
    Tuning tuning;
    if (dir.empty()) return tuning;
    std::vector<std::string> found;
    const std::string own = "samplenode_" + std::to_string(device) + ".tuning";
    const std::string pattern = "samplenode_(" + std::to_string(device) + "|default)\\.tuning";
    if (ZYTUtil::SearchFileByName(dir.c_str(), pattern.c_str(), found, true) != 0) Refuse("cannot list " + dir);
    for (const std::string& path : found) {
        char name[256] = {};
        ZYTUtil::GetFileNameFromFilePath(path.c_str(), name, sizeof(name) - 1);
        if (tuning.path.empty() || own == name) tuning.path = path;
    }
    if (tuning.path.empty()) return tuning;
    bool isThere = false;
    EachLine(tuning.path, [&](const std::vector<std::string>& words, const std::string& place) {
        constexpr const char* kKey = "thickness=";
        isThere = words.size() == 1 && words[0].rfind(kKey, 0) == 0 &&
                  ParseNumber(words[0].substr(std::string(kKey).size()), 1, kMaxThickness, tuning.thickness);
        if (!isThere) Refuse(place + " wants thickness=1 to thickness=" + std::to_string(kMaxThickness));
    });
    if (!isThere) Refuse(tuning.path + " has no thickness");
    return tuning;
}

size_t FrameBytes(const Options& options) { return size_t{options.width} * options.height * 3 / 2; }

class SampleNode {
public:
    explicit SampleNode(const Options& options)
        : m_options(options),
          m_tuning(FindTuning(options.tuning, ZYTUtil::GetProductInfo().device)),
          m_faces(ReadFaces(options.faces)) {}

    void PrintSetUp() const {
        const ZYTProductInfo product = ZYTUtil::GetProductInfo();
        std::printf("device        %u, region %u\n", product.device, product.region);
        std::printf("tuning        %s, thickness %u\n", m_tuning.path.empty() ? "built in" : m_tuning.path.c_str(),
                    m_tuning.thickness);
        std::printf("frame         %ux%u %s, %zu bytes\n", m_options.width, m_options.height,
                    ZYTBufferUtil::GetBufferFormatString(m_options.format).c_str(), FrameBytes(m_options));
    }

    // Processes one frame of packed pixels on the signal task's thread, as for a camera, and writes its dumps. Returns
    // an error text, empty on success.
    std::string Deliver(unsigned int number, unsigned char* pixels) {
        m_number = number;
        m_pixels = pixels;
        m_result = {};
        if (!m_onFrame.Raise()) return "somebody has disconnected the node";
        return m_result.get_future().get();
    }

private:
    std::string Process() {
        const auto start = Clock::now();
        ZYTImageBuffer packed = zyt::Describe(m_options.format, m_options.width, m_options.height);
        zyt::Image plain(m_manager, packed, ZYT_BUFFER_TYPE_MALLOC, kName);
        zyt::Image shown(m_manager, packed, ZYT_BUFFER_TYPE_GRALLOC, kName);
        packed.numberOfPlanes = 1;
        packed.pAddr[0] = m_pixels;
        zyt::Image camera(m_manager,
                          zyt::Describe(m_options.format, m_options.width, m_options.height, kCameraAlignment),
                          ZYT_BUFFER_TYPE_DMABUF, kName);
        if (!camera || !shown || !plain) return "no memory for a frame; the log says why";
        const auto allocated = Clock::now();

        if (!Copy(camera, packed) || !Copy(shown, *camera) || !Copy(plain, *shown)) {
            return "no access to a frame; the log says why";
        }
        ASVL_OFFSCREEN offscreen{};
        ZYTBufferUtil::ZYTBufferToASVLOffScreen(plain.Get(), &offscreen);
        const std::string frameDump = Path(*plain, "-frame");
        if (!zyt::WriteDump(*plain, frameDump, kName)) return "cannot write all of " + frameDump;

        std::vector<ZYTRect> marks;
        ZYTUtil::MapFaceROIToImageBuffer(m_faces.rects, marks, m_faces.crop, {0, 0, m_options.width, m_options.height});
        for (const ZYTRect& mark : marks) {
            ZYTUtil::DrawRect(plain.Get(), mark, m_tuning.thickness);
            ZYTUtil::DrawPointer(plain.Get(), mark.left + mark.width / 2, mark.top + mark.height / 2);
        }
        const std::string markedDump = Path(*plain, "-faces");
        if (!marks.empty() && !zyt::WriteDump(*plain, markedDump, kName)) return "cannot write all of " + markedDump;

        const auto nanos = [](auto duration) {
            return static_cast<unsigned long long>(std::chrono::nanoseconds(duration).count());
        };
        // The camera stack's timestamps are timer ticks, so a node reports ticks too.
        const unsigned long long ticks = ZYTUtil::QtimerNanoToQtimerTicks(nanos(Clock::now() - start));
        std::printf("frame %u\n", m_number);
        std::printf("  memory      %s in %llu us: DMA-BUF fd %d and %d, gralloc fd %d, plain\n",
                    m_number == 1 ? "allocated" : "reused from the pool", nanos(allocated - start) / 1000,
                    camera->fd[0], camera->fd[1], shown->fd[0]);
        std::printf("  strides     DMA-BUF %u, gralloc %u, plain %u bytes\n", camera->planeStride, shown->planeStride,
                    plain->planeStride);
        std::printf("  off-screen  format 0x%x, %dx%d, pitch %d\n", offscreen.u32PixelArrayFormat, offscreen.i32Width,
                    offscreen.i32Height, offscreen.pi32Pitch[0]);
        std::printf("  dump        %s\n", frameDump.c_str());
        for (const ZYTRect& mark : marks) {
            std::printf("  face        %ux%u at column %u, row %u\n", mark.width, mark.height, mark.left, mark.top);
        }
        if (!marks.empty()) std::printf("  marked      %s\n", markedDump.c_str());
        std::printf("  took        %llu ticks, %llu us\n", ticks, ZYTUtil::QtimerTicksToQtimerNano(ticks) / 1000);
        return {};
    }

    bool Copy(zyt::Image& to, ZYTImageBuffer from) {
        zyt::CpuAccess read(CPU_SYNC_READ, kName, from), write(CPU_SYNC_WRITE, kName, to);
        return read && write && ZYTBufferUtil::ZYTBufferCopy(to.Get(), &from) && read.Close() && write.Close();
    }

    std::string Path(const ZYTImageBuffer& image, const char* what) const {
        return m_options.out + "/" + zyt::DumpName(image, m_options.name + what + std::to_string(m_number));
    }

    const Options m_options;
    const Tuning m_tuning;
    const Faces m_faces;
    ZYTBufferManager m_manager{kName};
    unsigned int m_number = 0;
    unsigned char* m_pixels = nullptr;
    std::promise<std::string> m_result;
    zyt::Connection m_onFrame{[this] { m_result.set_value(Process()); }, kName};  // declared last, destroyed first
};

void PrintPool() {
    size_t plain = 0, graphic = 0;
    uint64_t bytes = 0;
    const zyt::PoolState state = zyt::ReadPool();
    if (!state.free) return;
    for (const zyt::PoolBuffer& buffer : *state.free) {
        ++(buffer.type == ZYT_BUFFER_TYPE_GRALLOC ? graphic : plain);
        bytes += buffer.bytes;
    }
    std::printf("pool          releases %zu buffers and %zu of gralloc, %llu bytes\n", plain, graphic,
                static_cast<unsigned long long>(bytes));
}

void PrintOfflineLog() {
    ZYTOfflineLog& log = ZYTOfflineLog::GetInstance();
    if (!zyt::LoadFlag(log.m_enable)) {
        std::printf("offline log   off (persist.vendor.camera.zyttools.offlinelog)\n");
        return;
    }
    zyt::FlushOfflineLog(std::chrono::seconds(5));
    zyt::Lock lock(log.m_logFileListLock);
    std::printf("offline log   %s\n", log.m_logFileList.empty() ? "on, but its directory cannot be written"
                                                                : log.m_logFileList.back().c_str());
}

void Run(const Options& options) {
    unsigned int size = 0;
    const FileData data = ReadFile(options.input, size);
    const size_t frameBytes = FrameBytes(options);
    if (size < frameBytes) {
        Refuse(options.input + " is too short: " + std::to_string(size) + " bytes, a frame has " +
               std::to_string(frameBytes));
    }
    auto* first = reinterpret_cast<unsigned char*>(data.get());
    auto* second = size >= 2 * frameBytes ? first + frameBytes : first;
    std::string failure;
    {
        SampleNode node(options);
        if (ReportDevice != nullptr) ReportDevice();
        node.PrintSetUp();
        failure = node.Deliver(1, first);
        if (failure.empty()) failure = node.Deliver(2, second);
        if (failure.empty()) PrintPool();
    }
    if (!failure.empty()) Refuse(failure);
    if (ReportLeftovers != nullptr) ReportLeftovers();
    PrintOfflineLog();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    Run(Parse(argc, argv));
}
