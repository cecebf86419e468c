// An algorithm node from start to finish: it takes frames, moves them through every kind of image memory, maps and
// marks the faces that were found in them, describes them to a vendor's library, and dumps them. Its "algorithm" is the
// marking; everything around it is what a real node does too.

#include <hostdevice/hostdevice.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <future>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/zytsharedflag.h"
#include "logging/zytlogsite.h"
#include "utilities/zytutil.h"
#include "zytbuffermanager/zytbuffermanager.h"
#include "zytbuffermanager/zytbufferutil.h"
#include "zytsignaltask/zytsignaltask.h"

namespace {

constexpr const char* kUsage =
    "usage: samplenode FILE WIDTHxHEIGHT [--format YUV420NV12|YUV420NV21] [--name NAME] [--out DIR]\n"
    "                  [--tuning DIR] [--faces FILE]\n"
    "FILE holds raw frames without padding. The faces file has lines \"crop TOP LEFT WIDTH HEIGHT\" and\n"
    "\"face TOP LEFT WIDTH HEIGHT\" in sensor pixels.\n";

constexpr uint32_t kMaxSide = 16384;

// What the camera's DMA engine and gralloc pad rows to, in bytes. A node is told these by its device.
constexpr uint32_t kCameraAlignment = 512;
constexpr uint32_t kGrallocAlignment = 64;

// A mistake in what the user gave: one line, exit code 2.
struct BadInput {
    std::string message;
};

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
    for (const ZYTFormat format : {ZYT_FORMAT_YUV420NV12, ZYT_FORMAT_YUV420NV21}) {
        if (ZYTBufferUtil::GetBufferFormatString(format) == name) return format;
    }
    throw BadInput{"unknown format '" + name + "' (YUV420NV12 or YUV420NV21)"};
}

Options Parse(int argc, char** argv) {
    Options options;
    std::vector<std::string> places;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word.rfind("--", 0) != 0) {
            places.push_back(word);
            continue;
        }
        if (i + 1 == argc) throw BadInput{"no value for " + word};
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
            throw BadInput{"unknown option " + word};
        }
    }
    if (places.size() != 2) throw BadInput{"wants a file and a size, such as frame.nv12 1920x1080"};
    options.input = places[0];
    char rest = 0;
    const bool isSize = std::sscanf(places[1].c_str(), "%6ux%6u%c", &options.width, &options.height, &rest) == 2;
    if (!isSize || options.width == 0 || options.height == 0 || options.width > kMaxSide || options.height > kMaxSide) {
        throw BadInput{"'" + places[1] + "' is no size from 1x1 to 16384x16384"};
    }
    return options;
}

using FileData = std::unique_ptr<char, void (*)(char*)>;

FileData ReadFile(const std::string& path, unsigned int& size) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) throw BadInput{"cannot find " + path};
    if (!S_ISREG(status.st_mode)) throw BadInput{path + " is no regular file"};
    FileData data(ZYTUtil::ReadFileData(path.c_str(), size), ZYTUtil::FreeFileData);
    if (data == nullptr) throw BadInput{"cannot read " + path};
    return data;
}

// What the detector found, in pixels of the sensor, and the part of the sensor that the frame shows.
struct Faces {
    ZYTRect crop{};
    std::vector<ZYTRect> rects;
};

Faces ReadFaces(const std::string& path) {
    Faces faces;
    if (path.empty()) return faces;
    unsigned int size = 0;
    const FileData data = ReadFile(path, size);
    std::istringstream lines(std::string(data.get(), size));
    unsigned int number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        if (line.empty() || line[0] == '#') continue;
        char kind[8] = {};
        ZYTRect rect{};
        if (std::sscanf(line.c_str(), "%7s %6u %6u %6u %6u", kind, &rect.top, &rect.left, &rect.width, &rect.height) !=
            5) {
            throw BadInput{path + ": line " + std::to_string(number) + " is neither a crop nor a face"};
        }
        if (std::strcmp(kind, "crop") == 0) {
            faces.crop = rect;
        } else {
            faces.rects.push_back(rect);
        }
    }
    return faces;
}

struct Tuning {
    std::string path;
    uint32_t thickness = 5;  // of the marks, in pixels
};

// A node ships tuning for the devices that need their own, and a default.
Tuning FindTuning(const std::string& dir, uint32_t device) {
    Tuning tuning;
    if (dir.empty()) return tuning;
    std::vector<std::string> found;
    const std::string own = "samplenode_" + std::to_string(device) + ".tuning";
    const std::string pattern = "samplenode_(" + std::to_string(device) + "|default)\\.tuning";
    if (ZYTUtil::SearchFileByName(dir.c_str(), pattern.c_str(), found, true) != 0) throw BadInput{"cannot list " + dir};
    for (const std::string& path : found) {
        char name[256] = {};
        ZYTUtil::GetFileNameFromFilePath(path.c_str(), name, sizeof(name) - 1);
        if (tuning.path.empty() || own == name) tuning.path = path;
    }
    if (tuning.path.empty()) return tuning;
    unsigned int size = 0;
    const FileData data = ReadFile(tuning.path, size);
    if (std::sscanf(std::string(data.get(), size).c_str(), "thickness=%3u", &tuning.thickness) != 1) {
        throw BadInput{tuning.path + " has no thickness"};
    }
    return tuning;
}

uint32_t AlignUp(uint32_t value, uint32_t alignment) { return (value + alignment - 1) / alignment * alignment; }

ZYTImageBuffer Describe(const Options& options, uint32_t stride) {
    ZYTImageBuffer image{};
    image.format = options.format;
    image.width = options.width;
    image.height = options.height;
    image.planeStride = stride;
    image.sliceHeight = options.height;
    return image;
}

size_t FrameBytes(const Options& options) {
    return size_t{options.width} * (size_t{options.height} + options.height / 2);
}

class SampleNode {
public:
    explicit SampleNode(const Options& options)
        : m_options(options),
          m_cameraStride(AlignUp(options.width, kCameraAlignment)),
          m_grallocStride(AlignUp(options.width, kGrallocAlignment)),
          m_tuning(FindTuning(options.tuning, ZYTUtil::GetProductInfo().device)),
          m_faces(ReadFaces(options.faces)) {}

    // Takes one frame of packed pixels through the node and leaves its dump behind.
    void Process(unsigned int number, unsigned char* pixels) {
        const auto start = std::chrono::steady_clock::now();
        ZYTImageBuffer packed = Describe(m_options, m_options.width);
        packed.numberOfPlanes = 1;
        packed.pAddr[0] = pixels;

        ZYTImageBuffer camera = Describe(m_options, m_cameraStride);
        ZYTImageBuffer gralloc = Describe(m_options, m_grallocStride);
        ZYTImageBuffer plain = Describe(m_options, m_options.width);
        // The library maps stride * height bytes of a graphic buffer, so the chroma rows have to be asked for as well.
        gralloc.height = m_options.height + (m_options.height + 1) / 2;
        if (!m_manager.AllocBuffer(camera, ZYT_BUFFER_TYPE_DMABUF) ||
            !m_manager.AllocBuffer(gralloc, ZYT_BUFFER_TYPE_GRALLOC) || gralloc.pAddr[0] == nullptr ||
            !m_manager.AllocBuffer(plain, ZYT_BUFFER_TYPE_MALLOC)) {
            throw BadInput{"no memory for a frame; the log says why"};
        }
        gralloc.height = m_options.height;
        const auto allocated = std::chrono::steady_clock::now();

        BracketedAccess(camera, CPU_SYNC_WRITE, [&] { ZYTBufferUtil::ZYTBufferCopy(&camera, &packed); });
        BracketedAccess(camera, CPU_SYNC_READ, [&] { ZYTBufferUtil::ZYTBufferCopy(&gralloc, &camera); });
        ZYTBufferUtil::ZYTBufferCopy(&plain, &gralloc);

        ASVL_OFFSCREEN offscreen{};
        ZYTBufferUtil::ZYTBufferToASVLOffScreen(&plain, &offscreen);
        const std::string frameDump = Dump(plain, m_options.name + "-frame" + std::to_string(number));

        std::vector<ZYTRect> marks;
        ZYTUtil::MapFaceROIToImageBuffer(m_faces.rects, marks, m_faces.crop, {0, 0, m_options.width, m_options.height});
        for (const ZYTRect& mark : marks) {
            ZYTUtil::DrawRect(&plain, mark, m_tuning.thickness);
            ZYTUtil::DrawPointer(&plain, mark.left + mark.width / 2, mark.top + mark.height / 2);
        }
        const std::string markedDump =
            marks.empty() ? "" : Dump(plain, m_options.name + "-faces" + std::to_string(number));

        m_manager.FreeBuffer(camera);
        m_manager.FreeBuffer(plain);
        // A manager does not record gralloc images, so this one goes back to the pool directly.
        m_pool.PutBufferToPool(gralloc.pAddr[0]);

        const auto nanos = [](auto duration) {
            return static_cast<unsigned long long>(std::chrono::nanoseconds(duration).count());
        };
        // Timestamps of the camera stack are ticks of its timer; a node reports in them.
        const unsigned long long ticks =
            ZYTUtil::QtimerNanoToQtimerTicks(nanos(std::chrono::steady_clock::now() - start));
        std::printf("frame %u\n", number);
        std::printf("  memory      %s in %llu us: DMA-BUF fd %d and %d, gralloc fd %d, plain\n",
                    number == 1 ? "allocated" : "reused from the pool", nanos(allocated - start) / 1000, camera.fd[0],
                    camera.fd[1], gralloc.fd[0]);
        std::printf("  off-screen  format 0x%x, %dx%d, pitch %d\n", offscreen.u32PixelArrayFormat, offscreen.i32Width,
                    offscreen.i32Height, offscreen.pi32Pitch[0]);
        std::printf("  dump        %s\n", frameDump.c_str());
        for (const ZYTRect& mark : marks) {
            std::printf("  face        %ux%u at column %u, row %u\n", mark.width, mark.height, mark.left, mark.top);
        }
        if (!markedDump.empty()) std::printf("  marked      %s\n", markedDump.c_str());
        std::printf("  took        %llu ticks, %llu us\n", ticks, ZYTUtil::QtimerTicksToQtimerNano(ticks) / 1000);
    }

    void PrintSetUp() const {
        const ZYTProductInfo product = ZYTUtil::GetProductInfo();
        std::printf("heap          %s\n", hostdevice::HeapName());
        std::printf("device        %u, region %u\n", product.device, product.region);
        std::printf("tuning        %s, thickness %u\n", m_tuning.path.empty() ? "built in" : m_tuning.path.c_str(),
                    m_tuning.thickness);
        std::printf("frame         %ux%u %s, %zu bytes\n", m_options.width, m_options.height,
                    ZYTBufferUtil::GetBufferFormatString(m_options.format).c_str(), FrameBytes(m_options));
        std::printf("strides       DMA-BUF %u, gralloc %u, plain %u bytes\n", m_cameraStride, m_grallocStride,
                    m_options.width);
    }

private:
    // Synchronised plane by plane: the operation that takes an image covers its first buffer only.
    template <typename Work>
    void BracketedAccess(const ZYTImageBuffer& image, CPUSyncType type, const Work& work) {
        for (unsigned int k = 0; k < image.numberOfPlanes; ++k) m_manager.StartCPUSync(image.fd[k], type);
        work();
        for (unsigned int k = 0; k < image.numberOfPlanes; ++k) m_manager.EndCPUSync(image.fd[k]);
    }

    std::string Dump(const ZYTImageBuffer& image, const std::string& name) const {
        std::string path = m_options.out + "/" + name + "_" + std::to_string(image.width) + "x" +
                           std::to_string(image.height) + "_" + ZYTBufferUtil::GetBufferFormatString(&image) + ".raw";
        if (!ZYTBufferUtil::ZYTBufferDump(&image, path.c_str())) throw BadInput{"cannot write " + path};
        // The dump itself ignores write errors, as on a full disk.
        struct stat status {};
        if (stat(path.c_str(), &status) != 0 || static_cast<size_t>(status.st_size) != FrameBytes(m_options)) {
            throw BadInput{"cannot write all of " + path};
        }
        return path;
    }

    const Options m_options;
    const uint32_t m_cameraStride;
    const uint32_t m_grallocStride;
    const Tuning m_tuning;
    const Faces m_faces;
    ZYTBufferPool m_pool;
    ZYTBufferManager m_manager{"SampleNode"};
};

// Runs the node on the signal task's thread when the camera raises the frame's number, and waits for it.
void RunOnSignal(SampleNode& node, unsigned int number, unsigned char* pixels) {
    const auto failure = std::make_shared<std::promise<std::string>>();
    WrapperTask task;
    task.m_task = [&node, number, pixels, failure] {
        try {
            node.Process(number, pixels);
            failure->set_value("");
        } catch (const BadInput& bad) {
            failure->set_value(bad.message);
        }
    };
    ZYTSignalTask::instance()->insert(number, std::move(task));
    ZYTSignalTask::instance()->signal(number);
    const std::string message = failure->get_future().get();
    if (!message.empty()) throw BadInput{message};
}

void PrintPool() {
    size_t count = 0;
    size_t bytes = 0;
    std::lock_guard<std::mutex> lock(ZYTBufferPool::m_freeBufferListLock);
    for (const auto& buffersBySize : ZYTBufferPool::m_freeBufferList) {
        for (const auto& [size, buffers] : buffersBySize) {
            count += buffers.size();
            bytes += size * buffers.size();
        }
    }
    size_t graphic = 0;
    for (const auto& [key, buffers] : ZYTBufferPool::m_freeGrallocBufferList) graphic += buffers.size();
    std::printf("pool          releases %zu buffers of %zu bytes and %zu of gralloc\n", count, bytes, graphic);
}

void PrintLeftovers() {
    const hostdevice::LiveResources live = hostdevice::CountLive();
    std::printf("left          %llu heap descriptors, %llu heap mappings, %llu graphic buffers\n",
                static_cast<unsigned long long>(live.heapDescriptors),
                static_cast<unsigned long long>(live.heapMappings),
                static_cast<unsigned long long>(live.graphicBuffers));
}

void PrintOfflineLog() {
    ZYTOfflineLog& log = ZYTOfflineLog::GetInstance();
    if (!zyt::LoadFlag(log.m_enable)) {
        std::printf("offline log   off (persist.vendor.camera.zyttools.offlinelog)\n");
        return;
    }
    // Its workers write behind the node's back; the first line may still be on its way.
    std::string file;
    for (int i = 0; i < 100 && file.empty(); ++i) {
        if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        std::lock_guard<std::mutex> lock(log.m_logFileListLock);
        if (!log.m_logFileList.empty()) file = log.m_logFileList.back();
    }
    std::printf("offline log   %s\n", file.empty() ? "on, but its directory cannot be written" : file.c_str());
}

void Run(const Options& options) {
    unsigned int size = 0;
    const FileData data = ReadFile(options.input, size);
    const size_t frameBytes = FrameBytes(options);
    if (size < frameBytes) {
        throw BadInput{options.input + " is too short: " + std::to_string(size) + " bytes, a frame has " +
                       std::to_string(frameBytes)};
    }
    auto* first = reinterpret_cast<unsigned char*>(data.get());
    auto* second = size >= 2 * frameBytes ? first + frameBytes : first;
    {
        SampleNode node(options);
        node.PrintSetUp();
        RunOnSignal(node, 1, first);
        RunOnSignal(node, 2, second);
        PrintPool();
    }
    PrintLeftovers();
    PrintOfflineLog();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    try {
        Run(Parse(argc, argv));
    } catch (const BadInput& bad) {
        std::fflush(stdout);  // in the order in which it happened, also in a log
        std::fprintf(stderr, "samplenode: %s\n", bad.message.c_str());
        return 2;
    }
    return 0;
}
