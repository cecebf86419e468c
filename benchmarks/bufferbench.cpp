#include <BufferAllocator/BufferAllocator.h>
#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <unistd.h>

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "zytbuffermanager/zytbuffermanager.h"

namespace {

constexpr uint32_t kPageSize = 4096;

// The minimum for taking and returning a buffer: the pool's containers under the pool's locks and nothing else. A busy
// record keeps a pointer to its queue, so that a return needs no second look-up in the free lists.
class BarePool {
public:
    explicit BarePool(uint32_t sizes) : m_memory(sizes) {
        for (uint32_t i = 0; i < sizes; ++i) {
            Queue& queue = m_free[(i + 1) * kPageSize];
            queue.push_back({&m_memory[i], 0, (i + 1) * kPageSize, &queue});
        }
    }

    void* Take(uint32_t size) {
        std::unique_lock<std::mutex> freeLock(m_freeLock);
        Queue& queue = m_free[size];
        const Buffer buffer = queue.back();
        queue.pop_back();
        freeLock.unlock();
        const std::lock_guard<std::mutex> busyLock(m_busyLock);
        m_busy.emplace(buffer.address, buffer);
        return buffer.address;
    }

    void Return(void* address) {
        std::unique_lock<std::mutex> busyLock(m_busyLock);
        const auto busy = m_busy.find(address);
        const Buffer buffer = busy->second;
        m_busy.erase(busy);
        busyLock.unlock();
        const std::lock_guard<std::mutex> freeLock(m_freeLock);
        buffer.queue->push_back(buffer);
    }

private:
    struct Buffer;
    using Queue = std::deque<Buffer>;
    struct Buffer {
        void* address;
        int fd;
        uint32_t size;
        Queue* queue;
    };

    std::vector<char> m_memory;
    std::mutex m_freeLock;
    std::map<uint32_t, Queue> m_free;
    std::mutex m_busyLock;
    std::map<void*, Buffer> m_busy;
};

// The only client during a benchmark, so that its destructor empties the pool for the next one.
class Pool {
public:
    explicit Pool(uint32_t sizes) {
        std::vector<void*> buffers;
        int fd = 0;
        for (uint32_t i = 1; i <= sizes; ++i) {
            buffers.push_back(m_client.GetBufferFromPool(i * kPageSize, fd, ZYT_BUFFER_TYPE_MALLOC));
        }
        for (void* buffer : buffers) m_client.PutBufferToPool(buffer);
    }

    void* Take(uint32_t size) {
        int fd = 0;
        return m_client.GetBufferFromPool(size, fd, ZYT_BUFFER_TYPE_MALLOC);
    }

    void Return(void* address) { m_client.PutBufferToPool(address); }

private:
    ZYTBufferPool m_client;
};

// Each thread has its own size.
template <typename P>
std::unique_ptr<P> g_pool;

template <typename P>
void MakePool(const benchmark::State& state) {
    g_pool<P> = std::make_unique<P>(static_cast<uint32_t>(state.threads()));
}

template <typename P>
void DropPool(const benchmark::State&) {
    g_pool<P>.reset();
}

template <typename P>
void TakeAndReturn(benchmark::State& state) {
    const uint32_t size = (static_cast<uint32_t>(state.thread_index()) + 1) * kPageSize;
    for (auto _ : state) {
        void* buffer = g_pool<P>->Take(size);
        benchmark::DoNotOptimize(buffer);
        g_pool<P>->Return(buffer);
    }
}

void ManagerTakeAndFree(benchmark::State& state) {
    ZYTBufferManager manager("Bench");
    const auto width = static_cast<uint32_t>(state.range(0));
    const auto height = static_cast<uint32_t>(state.range(1));
    ZYTImageBuffer image{ZYT_FORMAT_YUV420NV12, width, height, width, height, 0, {}, {}, nullptr};
    if (!manager.AllocBuffer(image, ZYT_BUFFER_TYPE_DMABUF)) state.SkipWithError("no memory");
    manager.FreeBuffer(image);
    for (auto _ : state) {
        manager.AllocBuffer(image, ZYT_BUFFER_TYPE_DMABUF);
        benchmark::DoNotOptimize(image);
        manager.FreeBuffer(image);
    }
}

void FreshAllocation(benchmark::State& state) {
    BufferAllocator heap;
    const auto size = static_cast<size_t>(state.range(0) * state.range(1) * 3 / 2);
    for (auto _ : state) {
        const int fd = heap.AllocSystem(true, size, 0, 0);
        void* mapping = fd < 0 ? MAP_FAILED : mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (mapping == MAP_FAILED) return state.SkipWithError("no memory");
        auto* bytes = static_cast<volatile char*>(mapping);
        for (size_t offset = 0; offset < size; offset += kPageSize) bytes[offset] = 1;
        munmap(mapping, size);
        close(fd);
    }
}

template <typename P>
void OwnSizes(benchmark::internal::Benchmark* benchmark) {
    benchmark->Setup(MakePool<P>)->Teardown(DropPool<P>)->UseRealTime();
    for (int threads : {1, 2, 4, 8}) benchmark->Threads(threads);
}

BENCHMARK_TEMPLATE(TakeAndReturn, Pool)->Name("pool/ours")->Apply(OwnSizes<Pool>);
BENCHMARK_TEMPLATE(TakeAndReturn, BarePool)->Name("pool/peer")->Apply(OwnSizes<BarePool>);

BENCHMARK(ManagerTakeAndFree)->Name("manager/ours")->Args({4000, 3000});
BENCHMARK(FreshAllocation)->Name("manager/peer")->Args({4000, 3000});

}  // namespace
