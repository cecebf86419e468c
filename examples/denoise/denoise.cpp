// A node that averages four raw frames on worker threads, which halves the noise and adds two bits per pixel.
// usage: denoise FRAME FRAME FRAME FRAME DIRECTORY, each frame a dump such as night1_4000x3000_RawMipi10.raw

#include <nodekit/cpuaccess.h>
#include <nodekit/dumpfile.h>
#include <nodekit/image.h>
#include <nodekit/parallel.h>
#include <nodekit/rawpixels.h>

#include <array>
#include <vector>

namespace {

constexpr const char* kName = "denoise";
constexpr ZYTBufferType kMemory = ZYT_BUFFER_TYPE_DMABUF;

class DenoiseNode {
public:
    using Frames = std::array<zyt::Image, 4>;

    DenoiseNode() { m_workers.Init(4); }

    zyt::Image Load(const char* path) { return zyt::LoadDump(m_manager, path, kMemory, kName); }

    // Returns the mean of the frames as 16-bit raw, or an empty image on failure.
    zyt::Image Process(const Frames& frames) {
        const ZYTImageBuffer& first = *frames[0];
        for (const zyt::Image& frame : frames) {
            if (frame && frame->format == first.format && frame->width == first.width && frame->height == first.height)
                continue;
            ZYT_LOG(E, kName, "The frames are not alike");
            return {};
        }
        zyt::Image mean(m_manager, zyt::Describe(ZYT_FORMAT_RAW16, first.width, first.height), kMemory, kName);
        zyt::CpuAccess read(m_manager, CPU_SYNC_READ, frames[0], frames[1], frames[2], frames[3]);
        zyt::CpuAccess write(m_manager, CPU_SYNC_WRITE, mean);
        if (!mean || !read || !write) return {};
        zyt::ParallelRows(m_workers, first.height, [&](uint32_t from, uint32_t to) {
            std::vector<uint16_t> row(first.width), sum(first.width);
            for (uint32_t y = from; y < to; ++y) {
                std::fill(sum.begin(), sum.end(), uint16_t{0});
                for (const zyt::Image& frame : frames) {
                    zyt::UnpackRow(*frame, y, row.data());
                    for (uint32_t x = 0; x < first.width; ++x) sum[x] = static_cast<uint16_t>(sum[x] + row[x] * 16);
                }
                zyt::PackRow(*mean, y, sum.data());
            }
        });
        return read.Close() && write.Close() ? std::move(mean) : zyt::Image();
    }

    bool Write(const zyt::Image& image, const std::string& directory) {
        zyt::CpuAccess access(m_manager, CPU_SYNC_READ, image);
        const std::string path = directory + "/" + zyt::DumpName(*image, kName);
        return access && zyt::WriteDump(*image, path, kName) && access.Close();
    }

private:
    ZYTBufferManager m_manager{kName};
    ZYTThreadPool m_workers;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) return std::fputs("usage: denoise FRAME FRAME FRAME FRAME DIRECTORY\n", stderr), 2;
    DenoiseNode node;
    const DenoiseNode::Frames frames{node.Load(argv[1]), node.Load(argv[2]), node.Load(argv[3]), node.Load(argv[4])};
    const zyt::Image mean = node.Process(frames);
    return mean && node.Write(mean, argv[5]) ? 0 : 1;
}
