#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <libyuv.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "nodekit/image.h"
#include "zytbuffermanager/zytbufferutil.h"

namespace {

constexpr size_t kPageSize = 4096;
constexpr char kDumpPath[] = ZYT_BENCH_SCRATCH "dump.raw";

// Subject and peer use the same pages, because an image's address affects the speed of a copy more than the code does.
// Page-aligned like the mappings of images, and written once before the measurement.
unsigned char* Arena(int index) {
    constexpr size_t kSize = 160u << 20;
    static unsigned char* const arenas[] = {static_cast<unsigned char*>(std::aligned_alloc(kPageSize, kSize)),
                                            static_cast<unsigned char*>(std::aligned_alloc(kPageSize, kSize))};
    static const bool isTouched = [] {
        for (unsigned char* arena : arenas) std::memset(arena, 1, kSize);
        return true;
    }();
    benchmark::DoNotOptimize(isTouched);
    return arenas[index];
}

struct Image : ZYTImageBuffer {
    Image(int arena, ZYTFormat pixelFormat, const benchmark::State& state, uint32_t alignment)
        : ZYTImageBuffer(zyt::Describe(pixelFormat, static_cast<uint32_t>(state.range(0)),
                                       static_cast<uint32_t>(state.range(1)), alignment)) {
        numberOfPlanes = 2;
        pAddr[0] = Arena(arena);
        pAddr[1] = pAddr[0] + size_t{planeStride} * sliceHeight;
    }

    uint32_t RowBytes() const { return format == ZYT_FORMAT_YUV_P010 ? width * 2 : width; }
    size_t Bytes() const { return size_t{RowBytes()} * (height + height / 2); }
};

template <ZYTFormat kFormat>
void Copy(benchmark::State& state) {
    const Image src(0, kFormat, state, 64);
    Image dst(1, kFormat, state, 512);
    for (auto _ : state) {
        ZYTBufferUtil::ZYTBufferCopy(&dst, &src);
        benchmark::ClobberMemory();
    }
}

template <ZYTFormat kFormat>
void CopyPeer(benchmark::State& state) {
    const Image src(0, kFormat, state, 64);
    const Image dst(1, kFormat, state, 512);
    const auto height = static_cast<int>(src.height);
    for (auto _ : state) {
        for (int plane = 0; plane < 2; ++plane) {
            libyuv::CopyPlane(src.pAddr[plane], static_cast<int>(src.planeStride), dst.pAddr[plane],
                              static_cast<int>(dst.planeStride), static_cast<int>(src.RowBytes()),
                              plane == 0 ? height : height / 2);
        }
        benchmark::ClobberMemory();
    }
}

// Makes each dump a new file. File systems flush a file that is truncated and closed, which would measure the disk.
void RemoveDump(benchmark::State& state) {
    state.PauseTiming();
    unlink(kDumpPath);
    state.ResumeTiming();
}

void Dump(benchmark::State& state) {
    const Image image(0, ZYT_FORMAT_YUV420NV12, state, 64);
    for (auto _ : state) {
        if (!ZYTBufferUtil::ZYTBufferDump(&image, kDumpPath)) state.SkipWithError("cannot open the file");
        RemoveDump(state);
    }
}

void DumpPeer(benchmark::State& state) {
    const Image image(0, ZYT_FORMAT_YUV420NV12, state, 64);
    for (auto _ : state) {
        const int fd = open(kDumpPath, O_RDWR | O_CREAT | O_TRUNC, 0666);
        if (write(fd, image.pAddr[0], image.Bytes()) != static_cast<ssize_t>(image.Bytes())) {
            state.SkipWithError("cannot write the file");
        }
        close(fd);
        RemoveDump(state);
    }
}

void ImageSizes(benchmark::internal::Benchmark* benchmark) {
    benchmark->Args({1920, 1080})->Args({4000, 3000})->UseRealTime();
}

BENCHMARK_TEMPLATE(Copy, ZYT_FORMAT_YUV420NV12)->Name("copy_nv12/ours")->Apply(ImageSizes);
BENCHMARK_TEMPLATE(CopyPeer, ZYT_FORMAT_YUV420NV12)->Name("copy_nv12/peer")->Apply(ImageSizes);
BENCHMARK_TEMPLATE(Copy, ZYT_FORMAT_YUV_P010)->Name("copy_p010/ours")->Apply(ImageSizes);
BENCHMARK_TEMPLATE(CopyPeer, ZYT_FORMAT_YUV_P010)->Name("copy_p010/peer")->Apply(ImageSizes);
BENCHMARK(Dump)->Name("dump/ours")->Apply(ImageSizes);
BENCHMARK(DumpPeer)->Name("dump/peer")->Apply(ImageSizes);

}  // namespace
