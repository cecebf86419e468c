// A complete algorithm node. It receives frames as events, moves them through every kind of image memory, maps and
// marks detected faces, describes the frames to a vendor's library, and dumps them. The marking stands for an
// algorithm; everything else is what a real node does. Runs unchanged on a device and on a desktop.

#include <nodekit/connection.h>
#include <nodekit/cpuaccess.h>
#include <nodekit/dumpfile.h>
#include <nodekit/image.h>
#include <nodekit/logflush.h>
#include <sys/stat.h>
#include <utilities/zytutil.h>
#include <zytbuffermanager/zytbufferutil.h>

#include <cstdio>
#include <cstdlib>
#include <future>
#include <sstream>
#include <string>
#include <vector>

#include "base/zytsharedflag.h"

// Defined in samplenodedesk.cpp, which only the desktop build links.
__attribute__((weak)) void ReportDevice();

namespace {

constexpr const char* kName = "SampleNode";
constexpr const char* kUsage =
    "usage: samplenode FILE WIDTHxHEIGHT PREFIX [FACES]\n"
    "FILE contains an NV12 frame without padding; width and height must be even. The names of the dumps begin with\n"
    "PREFIX. The first line of the file FACES is \"crop TOP LEFT WIDTH HEIGHT\", the others are \"face TOP LEFT WIDTH\n"
    "HEIGHT\", in sensor pixels. Lines that begin with # are comments.\n";

constexpr uint32_t kMaxSide = 16384;
constexpr int64_t kMaxSensorSide = 99999;
// Row alignment of the camera's DMA engine, in bytes. It depends on the device.
constexpr uint32_t kCameraAlignment = 512;

// Reports an invalid argument in one line and exits with code 2.
[[noreturn]] void Refuse(const std::string& message) {
    std::fflush(stdout);  // keeps stdout and stderr in order when both go to one file
    std::fprintf(stderr, "samplenode: %s\n", message.c_str());
    std::exit(2);
}

std::string ReadFile(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) Refuse("cannot find " + path);
    if (!S_ISREG(status.st_mode)) Refuse(path + " is no regular file");
    unsigned int size = 0;
    char* data = ZYTUtil::ReadFileData(path.c_str(), size);
    if (data == nullptr) Refuse("cannot read " + path);
    std::string content(data, size);
    ZYTUtil::FreeFileData(data);
    return content;
}

// The detected faces, and the part of the sensor that the frame shows; both in sensor pixels.
struct Faces {
    ZYTRect crop{};
    std::vector<ZYTRect> rects;
};

Faces ReadFaces(const std::string& path) {
    Faces faces;
    std::istringstream lines(ReadFile(path));
    int number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        if (line.empty() || line[0] == '#') continue;
        const bool isCrop = faces.crop.width == 0;
        std::istringstream words(line);
        std::string kind;
        int64_t sides[4] = {};
        words >> kind >> sides[0] >> sides[1] >> sides[2] >> sides[3];
        bool isGood = !words.fail() && (words >> std::ws).eof() && kind == (isCrop ? "crop" : "face");
        for (int i = 0; i < 4; ++i) isGood = isGood && sides[i] >= (i < 2 ? 0 : 1) && sides[i] <= kMaxSensorSide;
        if (!isGood) {
            Refuse(path + ": line " + std::to_string(number) + " wants " + (isCrop ? "crop" : "face") +
                   " TOP LEFT WIDTH HEIGHT, whole numbers up to " + std::to_string(kMaxSensorSide));
        }
        const auto side = [&sides](int i) { return static_cast<uint32_t>(sides[i]); };
        (isCrop ? faces.crop : faces.rects.emplace_back()) = {side(0), side(1), side(2), side(3)};
    }
    return faces;
}

class SampleNode {
public:
    SampleNode(std::string prefix, Faces faces) : m_prefix(std::move(prefix)), m_faces(std::move(faces)) {}

    // Processes one frame on the signal task's thread, as for a camera, and writes its dumps. The frame has packed
    // pixels in one plane. Returns an error text, empty on success.
    std::string Deliver(unsigned int number, const ZYTImageBuffer& frame) {
        m_number = number;
        m_frame = frame;
        m_result = {};
        if (!m_onFrame.Raise()) return "somebody has disconnected the node";
        return m_result.get_future().get();
    }

private:
    std::string Process() {
        const int64_t start = ZYTUtil::GetCurMilliSecond();
        const ZYTImageBuffer size = zyt::Describe(m_frame.format, m_frame.width, m_frame.height);
        zyt::Image camera(m_manager, zyt::Describe(size.format, size.width, size.height, kCameraAlignment),
                          ZYT_BUFFER_TYPE_DMABUF, kName);
        zyt::Image shown(m_manager, size, ZYT_BUFFER_TYPE_GRALLOC, kName);
        zyt::Image plain(m_manager, size, ZYT_BUFFER_TYPE_MALLOC, kName);
        if (!camera || !shown || !plain) return "no memory for a frame; the log says why";
        if (!Copy(camera, m_frame) || !Copy(shown, *camera) || !Copy(plain, *shown)) {
            return "no access to a frame; the log says why";
        }
        ASVL_OFFSCREEN offscreen{};
        ZYTBufferUtil::ZYTBufferToASVLOffScreen(plain.Get(), &offscreen);
        std::printf("frame %u\n  memory      DMA-BUF fd %d and %d, gralloc fd %d, plain\n", m_number, camera->fd[0],
                    camera->fd[1], shown->fd[0]);
        std::printf("  strides     DMA-BUF %u, gralloc %u, plain %u bytes\n", camera->planeStride, shown->planeStride,
                    plain->planeStride);
        std::printf("  off-screen  format 0x%x, %dx%d, pitch %d\n", offscreen.u32PixelArrayFormat, offscreen.i32Width,
                    offscreen.i32Height, offscreen.pi32Pitch[0]);
        if (!Dump(*plain, "-frame")) return "cannot write a dump; the log says why";

        std::vector<ZYTRect> marks;
        ZYTUtil::MapFaceROIToImageBuffer(m_faces.rects, marks, m_faces.crop, {0, 0, size.width, size.height});
        for (const ZYTRect& mark : marks) {
            std::printf("  face        %ux%u at column %u, row %u\n", mark.width, mark.height, mark.left, mark.top);
            ZYTUtil::DrawRect(plain.Get(), mark, kThickness);
            ZYTUtil::DrawPointer(plain.Get(), mark.left + mark.width / 2, mark.top + mark.height / 2);
        }
        if (!marks.empty() && !Dump(*plain, "-faces")) return "cannot write a dump; the log says why";
        std::printf("  took        %lld ms\n", static_cast<long long>(ZYTUtil::GetCurMilliSecond() - start));
        return {};
    }

    static bool Copy(zyt::Image& to, ZYTImageBuffer from) {
        zyt::CpuAccess read(CPU_SYNC_READ, kName, from), write(CPU_SYNC_WRITE, kName, to);
        return read && write && ZYTBufferUtil::ZYTBufferCopy(to.Get(), &from) && read.Close() && write.Close();
    }

    bool Dump(const ZYTImageBuffer& image, const char* what) const {
        const std::string path = zyt::DumpName(image, m_prefix + what + std::to_string(m_number));
        std::printf("  dump        %s\n", path.c_str());
        return zyt::WriteDump(image, path, kName);
    }

    static constexpr uint32_t kThickness = 5;  // of the marks, in pixels

    const std::string m_prefix;
    const Faces m_faces;
    ZYTBufferManager m_manager{kName};
    unsigned int m_number = 0;
    ZYTImageBuffer m_frame{};
    std::promise<std::string> m_result;
    zyt::Connection m_onFrame{[this] { m_result.set_value(Process()); }, kName};  // declared last, destroyed first
};

void PrintOfflineLog() {
    ZYTOfflineLog& log = ZYTOfflineLog::GetInstance();
    const bool isOn = zyt::LoadFlag(log.m_enable);
    if (isOn) zyt::FlushOfflineLog(std::chrono::seconds(5));
    zyt::Lock lock(log.m_logFileListLock);
    std::printf("offline log   %s\n", !isOn                       ? "off (persist.vendor.camera.zyttools.offlinelog)"
                                      : log.m_logFileList.empty() ? "on, but its directory cannot be written"
                                                                  : log.m_logFileList.back().c_str());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4 || argc > 5) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    const std::string file = argv[1], size = argv[2];
    uint32_t width = 0, height = 0;
    if (!zyt::ParseSize(size, width, height) || width > kMaxSide || height > kMaxSide || width % 2 != 0 ||
        height % 2 != 0) {
        Refuse("'" + size + "' is no size from 2x2 to 16384x16384 with even sides");
    }
    std::string pixels = ReadFile(file);
    const size_t bytes = size_t{width} * height * 3 / 2;
    if (pixels.size() < bytes) {
        Refuse(file + " is too short: " + std::to_string(pixels.size()) + " bytes, a frame has " +
               std::to_string(bytes));
    }
    ZYTImageBuffer frame = zyt::Describe(ZYT_FORMAT_YUV420NV12, width, height);
    frame.numberOfPlanes = 1;
    frame.pAddr[0] = reinterpret_cast<unsigned char*>(pixels.data());
    std::string failure;
    {
        SampleNode node(argv[3], argc == 5 ? ReadFaces(argv[4]) : Faces());
        std::printf("frame         %ux%u %s, %zu bytes\n", width, height,
                    ZYTBufferUtil::GetBufferFormatString(&frame).c_str(), bytes);
        for (unsigned int number = 1; number <= 2 && failure.empty(); ++number) failure = node.Deliver(number, frame);
    }
    if (!failure.empty()) Refuse(failure);
    if (ReportDevice != nullptr) ReportDevice();
    PrintOfflineLog();
}
