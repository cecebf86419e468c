// A node that averages four raw frames on worker threads, which halves the noise, and scales the mean to 16 bits.
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
        const zyt::FormatLayout& layout = zyt::LayoutOf(first.format);
        for (const zyt::Image& frame : frames) {
            if (!frame) return {};
            if (layout.kind == zyt::FormatKind::kRaw && frame->format == first.format && frame->width == first.width &&
                frame->height == first.height)
                continue;
            ZYT_LOG(E, kName, "The frames are not raw or not alike");
            return {};
        }
        zyt::Image mean(m_manager, zyt::Describe(ZYT_FORMAT_RAW16, first.width, first.height), kMemory, kName);
        zyt::CpuAccess read(CPU_SYNC_READ, kName, frames), write(CPU_SYNC_WRITE, kName, mean);
        if (!mean || !read || !write) return {};
        zyt::ParallelRows(m_workers, first.height, [&](uint32_t from, uint32_t to) {
            std::vector<uint16_t> row(first.width);
            for (uint32_t y = from; y < to; ++y) {
                std::vector<uint32_t> sum(first.width);
                for (const zyt::Image& frame : frames) {
                    zyt::UnpackRow(*frame, y, row.data());
                    for (uint32_t x = 0; x < first.width; ++x) sum[x] += row[x];
                }
                for (uint32_t x = 0; x < first.width; ++x) {
                    row[x] = static_cast<uint16_t>((sum[x] << (16 - layout.bits)) / frames.size());
                }
                zyt::PackRow(*mean, y, row.data());
            }
        });
        return read.Close() && write.Close() ? std::move(mean) : zyt::Image();
    }

    bool Write(const zyt::Image& image, const std::string& directory) {
        zyt::CpuAccess access(CPU_SYNC_READ, kName, image);
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
