#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <unistd.h>

#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <vector>

#include "nodekit/cpuaccess.h"
#include "nodekit/image.h"
#include "nodekit/parallel.h"
#include "nodekit/rawpixels.h"

namespace {

constexpr uint32_t kWidth = 4000;
constexpr uint32_t kHeight = 3000;

ZYTImageBuffer Nv12() { return zyt::Describe(ZYT_FORMAT_YUV420NV12, kWidth, kHeight); }

template <ZYTBufferType kType>
void Image(benchmark::State& state) {
    ZYTBufferManager manager("Bench");
    const ZYTImageBuffer description = Nv12();
    for (auto _ : state) {
        zyt::Image image(manager, description, kType);
        if (!image) state.SkipWithError("no memory");
        benchmark::DoNotOptimize(image.Get());
    }
}

template <ZYTBufferType kType>
void ImagePeer(benchmark::State& state) {
    ZYTBufferManager manager("Bench");
    ZYTImageBuffer image = Nv12();
    for (auto _ : state) {
        if (!manager.AllocBuffer(image, kType)) state.SkipWithError("no memory");
        benchmark::DoNotOptimize(image);
        manager.FreeBuffer(image);
    }
}

// What a node must do itself for an accessible gralloc image: create a client, ask for the layout, map all of the
// memory.
void GrallocPeer(benchmark::State& state) {
    ZYTBufferManager manager("Bench");
    for (auto _ : state) {
        ZYTImageBuffer image = Nv12();
        ZYTBufferPool client;
        client.SetClientName("Bench");
        void* buffer =
            client.GetBufferFromPool(kWidth, kHeight, image.fd[0], &image.pNativeHandle, ZYT_BUFFER_TYPE_GRALLOC);
        if (buffer == nullptr) state.SkipWithError("no memory");
        android::sp<android::GraphicBuffer> graphic;
        {
            zyt::Lock lock(ZYTBufferPool::m_busyBufferListLock);
            graphic = ZYTBufferPool::m_busyGrallocBufferList.find(buffer)->second.graphicBuffer;
        }
        android_ycbcr planes{};
        if (graphic->lockYCbCr(3, &planes) != 0) state.SkipWithError("no layout");
        graphic->unlock();
        image.planeStride = static_cast<uint32_t>(planes.ystride);
        const auto length = static_cast<size_t>(lseek(image.fd[0], 0, SEEK_END));
        char* mapping = client.GetAllocator()->MapFDToBufferPointer(image.fd[0], length);
        image.pAddr[0] = reinterpret_cast<unsigned char*>(mapping);
        benchmark::DoNotOptimize(image);
        munmap(mapping, length);
        client.PutBufferToPool(buffer);
    }
}

void Access(benchmark::State& state) {
    ZYTBufferManager manager("Bench");
    const zyt::Image image(manager, zyt::Describe(ZYT_FORMAT_RAW16, 64, 64), ZYT_BUFFER_TYPE_DMABUF);
    for (auto _ : state) {
        zyt::CpuAccess access(CPU_SYNC_WRITE, "Bench", image);
        if (!access.Close()) state.SkipWithError("no access");
    }
}

void AccessPeer(benchmark::State& state) {
    ZYTBufferManager manager("Bench");
    const zyt::Image image(manager, zyt::Describe(ZYT_FORMAT_RAW16, 64, 64), ZYT_BUFFER_TYPE_DMABUF);
    BufferAllocator allocator;
    const auto fd = static_cast<unsigned int>(image->fd[0]);
    for (auto _ : state) {
        if (allocator.CpuSyncStart(fd, kSyncWrite) != 0 || allocator.CpuSyncEnd(fd, kSyncWrite) != 0) {
            state.SkipWithError("no access");
        }
    }
}

constexpr unsigned int kWorkers = 4;
constexpr uint32_t kBands = 8;

// Brightens the rows of a preview.
struct Preview {
    std::vector<unsigned char> pixels = std::vector<unsigned char>(size_t{640} * 480);

    void Brighten(uint32_t from, uint32_t to) {
        for (size_t i = size_t{from} * 640; i < size_t{to} * 640; ++i) {
            pixels[i] = static_cast<unsigned char>(pixels[i] + pixels[i] / 4 + 1);
        }
    }
};

void Rows(benchmark::State& state) {
    Preview preview;
    ZYTThreadPool pool;
    pool.Init(kWorkers);
    for (auto _ : state) {
        zyt::ParallelRows(
            pool, 480, [&](uint32_t from, uint32_t to) { preview.Brighten(from, to); }, kBands);
        benchmark::ClobberMemory();
    }
}

void RowsPeer(benchmark::State& state) {
    Preview preview;
    boost::asio::thread_pool pool(kWorkers);
    for (auto _ : state) {
        std::mutex lock;
        std::condition_variable isDone;
        uint32_t left = kBands;
        for (uint32_t i = 0; i < kBands; ++i) {
            boost::asio::post(pool, [&, i] {
                preview.Brighten(480 * i / kBands, 480 * (i + 1) / kBands);
                const std::lock_guard<std::mutex> guard(lock);
                if (--left == 0) isDone.notify_one();
            });
        }
        std::unique_lock<std::mutex> guard(lock);
        isDone.wait(guard, [&] { return left == 0; });
        benchmark::ClobberMemory();
    }
    pool.join();
}

constexpr size_t kRowBytes = size_t{kWidth} * 10 / 8;
constexpr size_t kPackedBytes = kRowBytes * kHeight;
constexpr size_t kSampleBytes = size_t{kWidth} * kHeight * 2;

// A raw image and its samples, on separate pages and written once before the measurement.
struct Raw {
    unsigned char* rows = Fresh(kPackedBytes);
    unsigned char* samples = Fresh(kSampleBytes);
    unsigned char* other = Fresh(kSampleBytes);

    static unsigned char* Fresh(size_t size) {
        auto* memory = static_cast<unsigned char*>(std::aligned_alloc(4096, (size + 4095) / 4096 * 4096));
        std::memset(memory, 1, size);
        return memory;
    }
    uint16_t* Samples(uint32_t y) { return reinterpret_cast<uint16_t*>(samples) + size_t{y} * kWidth; }
};

Raw& TheRaw() {
    static Raw raw;
    return raw;
}

template <bool kPacks>
void Convert(benchmark::State& state) {
    Raw& raw = TheRaw();
    for (auto _ : state) {
        for (uint32_t y = 0; y < kHeight; ++y) {
            unsigned char* row = raw.rows + y * kRowBytes;
            kPacks ? zyt::PackRow(ZYT_FORMAT_RAWMIPI10, raw.Samples(y), kWidth, row)
                   : zyt::UnpackRow(ZYT_FORMAT_RAWMIPI10, row, kWidth, raw.Samples(y));
        }
        benchmark::ClobberMemory();
    }
}

// Writes as many bytes as the subject.
template <size_t kBytes>
void Copy(benchmark::State& state) {
    Raw& raw = TheRaw();
    for (auto _ : state) {
        std::memcpy(raw.samples, raw.other, kBytes);
        benchmark::ClobberMemory();
    }
}

BENCHMARK_TEMPLATE(Image, ZYT_BUFFER_TYPE_MALLOC)->Name("kit_plain/ours");
BENCHMARK_TEMPLATE(ImagePeer, ZYT_BUFFER_TYPE_MALLOC)->Name("kit_plain/peer");
BENCHMARK_TEMPLATE(Image, ZYT_BUFFER_TYPE_DMABUF)->Name("kit_dmabuf/ours");
BENCHMARK_TEMPLATE(ImagePeer, ZYT_BUFFER_TYPE_DMABUF)->Name("kit_dmabuf/peer");
BENCHMARK_TEMPLATE(Image, ZYT_BUFFER_TYPE_GRALLOC)->Name("kit_gralloc/ours");
BENCHMARK(GrallocPeer)->Name("kit_gralloc/peer");
BENCHMARK(Access)->Name("kit_access/ours");
BENCHMARK(AccessPeer)->Name("kit_access/peer");
BENCHMARK(Rows)->Name("kit_rows/ours")->UseRealTime();
BENCHMARK(RowsPeer)->Name("kit_rows/peer")->UseRealTime();
BENCHMARK_TEMPLATE(Convert, false)->Name("kit_unpack/ours")->UseRealTime();
BENCHMARK_TEMPLATE(Copy, kSampleBytes)->Name("kit_unpack/peer")->UseRealTime();
BENCHMARK_TEMPLATE(Convert, true)->Name("kit_pack/ours")->UseRealTime();
BENCHMARK_TEMPLATE(Copy, kPackedBytes)->Name("kit_pack/peer")->UseRealTime();

}  // namespace
