#include "zytbuffermanager/zytbufferpool.h"

#include <gmock/gmock.h>
#include <hostdevice/hostdevice.h>
#include <sys/mman.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "support.h"

using hostdevice::Fault;
using testing::ElementsAre;
using testing::IsEmpty;
using zyttest::LogCapture;
using zyttest::Text;

namespace {

constexpr const char* kPrefix = "[BufferPool-NodeA] zytbufferpool.cpp ";

std::string Line(char level, const std::string& rest) { return std::string(1, level) + " " + kPrefix + rest; }

uint32_t Clients() {
    std::lock_guard<std::mutex> lock(ZYTBufferPool::m_bufferPoolClientNumLock);
    return ZYTBufferPool::m_bufferPoolClientNum;
}

class Pool : public testing::Test {
protected:
    Pool() { m_pool->SetClientName("NodeA"); }

    void TearDown() override {
        hostdevice::ClearFaults();
        {
            std::lock_guard<std::mutex> lock(ZYTBufferPool::m_busyBufferListLock);
            ZYTBufferPool::m_busyGrallocBufferList.clear();  // as their consumers let go of them
        }
        m_pool.reset();
        EXPECT_EQ(Clients(), 0u);
        const hostdevice::LiveResources live = hostdevice::CountLive();
        EXPECT_EQ(live.heapDescriptors, 0u);
        EXPECT_EQ(live.heapMappings, 0u);
        EXPECT_EQ(live.graphicBuffers, 0u);
    }

    void* Get(unsigned int size, ZYTBufferType type = ZYT_BUFFER_TYPE_DMABUF) {
        return m_pool->GetBufferFromPool(size, m_fd, type);
    }

    void* GetGralloc(unsigned int width, unsigned int height) {
        return m_pool->GetBufferFromPool(width, height, m_fd, &m_handle, ZYT_BUFFER_TYPE_GRALLOC);
    }

    LogCapture m_log;
    const uint64_t m_graphicMappingsBefore = hostdevice::CountLive().graphicMappings;
    std::unique_ptr<ZYTBufferPool> m_pool = std::make_unique<ZYTBufferPool>();
    int m_fd = 77;
    void* m_handle = &m_fd;
};

}  // namespace

TEST_F(Pool, MakesABufferOnDemandAndReusesTheLastReturned) {
    void* a = Get(4096);
    ASSERT_NE(a, nullptr);
    const int fdA = m_fd;
    EXPECT_GT(fdA, 0);
    EXPECT_THAT(m_log.Take(),
                ElementsAre(Line('I', Text("AllocBuffer() Alloc buffer success: type: 1, size: 4096, pBuf: %p", a)),
                            Line('I', Text("GetBufferFromPool() Get buffer type: 1, size: 4096, pBuf: %p. Free buf num "
                                           "this size: 0",
                                           a))));
    void* b = Get(4096);
    const int fdB = m_fd;
    m_log.Take();
    m_pool->PutBufferToPool(a);
    EXPECT_THAT(
        m_log.Take(),
        ElementsAre(Line('V', Text("PutBufferToPool() Put buffer to pool: %p", a)),
                    Line('I', Text("PutBufferToPool() Put buffer to pool success: pBuf: %p, size: 4096, fd: %d, "
                                   "type: 1",
                                   a, fdA))));
    m_pool->PutBufferToPool(b);
    EXPECT_EQ(Get(4096), b);
    EXPECT_EQ(m_fd, fdB);
    EXPECT_EQ(Get(4096), a);
    m_log.Take();
    EXPECT_NE(Get(4095), a) << "sizes match exactly or not at all";
    void* plain = Get(4096, ZYT_BUFFER_TYPE_MALLOC);
    EXPECT_EQ(m_fd, 0);
    std::memset(plain, 1, 4096);
    for (void* pBuf : {a, b, plain}) m_pool->PutBufferToPool(pBuf);
}

TEST_F(Pool, RefusesSizesAndTypesItDoesNotHandOut) {
    const std::string refused = Line('D', "GetBufferFromPool() Invalid args, get buffer failed!");
    EXPECT_EQ(Get(0), nullptr);
    EXPECT_EQ(m_fd, 0);
    for (const int type : {2, 3, -1}) EXPECT_EQ(Get(16, static_cast<ZYTBufferType>(type)), nullptr);
    EXPECT_THAT(m_log.Take(), ElementsAre(refused, refused, refused, refused));

    for (const int type : {3, -1}) {
        m_fd = 77;
        EXPECT_EQ(m_pool->GetBufferFromPool(640, 480, m_fd, &m_handle, static_cast<ZYTBufferType>(type)), nullptr);
        EXPECT_EQ(m_fd, 0);
    }
    EXPECT_EQ(GetGralloc(0, 480), nullptr);
    EXPECT_EQ(m_pool->GetBufferFromPool(640, 0, m_fd, &m_handle, ZYT_BUFFER_TYPE_DMABUF), nullptr);
    EXPECT_EQ(m_handle, &m_fd) << "no refusal touches the handle";
    EXPECT_THAT(m_log.Take(), ElementsAre(refused, refused, refused, refused));

    std::lock_guard<std::mutex> lock(ZYTBufferPool::m_freeBufferListLock);
    EXPECT_EQ(m_pool->AllocBuffer(1, 1, 1, static_cast<ZYTBufferType>(5)), nullptr);
    EXPECT_THAT(m_log.Take(), ElementsAre(Line('E', "AllocBuffer() Unsupport alloc buffer type: 5!")));
    for (const auto& list : ZYTBufferPool::m_freeBufferList) EXPECT_TRUE(list.empty());
}

TEST_F(Pool, TakesAPlainBufferOfAGeometrysArea) {
    void* pBuf = m_pool->GetBufferFromPool(64, 32, m_fd, &m_handle, ZYT_BUFFER_TYPE_MALLOC);
    EXPECT_EQ(m_handle, &m_fd);
    m_pool->PutBufferToPool(pBuf);
    EXPECT_EQ(Get(2048, ZYT_BUFFER_TYPE_MALLOC), pBuf);
    m_pool->PutBufferToPool(pBuf);
}

TEST_F(Pool, KeepsTheKeyOfAFailedSizeAndTriesAgain) {
    hostdevice::FailNth(Fault::kHeapAllocation, 1);
    EXPECT_EQ(Get(77), nullptr);
    EXPECT_EQ(m_fd, 0);
    EXPECT_THAT(m_log.Take(), ElementsAre(Line('E', "AllocBuffer() Alloc buffer failed! Type: 1, size: 77"),
                                          Line('E', "GetBufferFromPool() Get buffer type: 1, size: 77 failed!")));
    EXPECT_EQ(ZYTBufferPool::m_freeBufferList[1].count(77), 1u);
    void* pBuf = Get(77);
    EXPECT_NE(pBuf, nullptr);
    m_pool->PutBufferToPool(pBuf);
}

TEST_F(Pool, CountsAFailedMappingAsABuffer) {
    hostdevice::FailNth(Fault::kMapping, 1);
    void* pBuf = Get(4096);
    EXPECT_EQ(pBuf, MAP_FAILED);
    EXPECT_GT(m_fd, 0);
    m_pool->PutBufferToPool(pBuf);
}

TEST_F(Pool, HandsOutGrallocBuffersByGeometry) {
    void* pBuf = GetGralloc(640, 480);
    ASSERT_NE(pBuf, nullptr);
    ASSERT_NE(m_handle, &m_fd);
    EXPECT_EQ(static_cast<native_handle_t*>(m_handle)->data[0], m_fd);
    EXPECT_THAT(m_log.Take(), ElementsAre(Line('I', Text("GetBufferFromPool() Get buffer type: 2, width: 640, height: "
                                                         "480, pBuf: %p. Free buf num this size: 0",
                                                         pBuf))));
    const int fd = m_fd;
    EXPECT_NE(GetGralloc(480, 640), pBuf);
    m_log.Take();
    m_pool->PutBufferToPool(pBuf);
    EXPECT_EQ(m_log.Take()[1], Line('I', Text("PutBufferToPool() Put gralloc buffer to pool success: pBuf: %p, width: "
                                              "640, height: 480, fd: %d, type: 2",
                                              pBuf, fd)));
    EXPECT_EQ(m_pool->GetBufferFromPool(640, 480, m_fd, nullptr, ZYT_BUFFER_TYPE_GRALLOC), pBuf);
    m_log.Take();

    hostdevice::FailNth(Fault::kGraphicBuffer, 1);
    EXPECT_EQ(GetGralloc(320, 240), nullptr);
    EXPECT_EQ(m_fd, 0);
    EXPECT_THAT(m_log.Take(), ElementsAre(Line('E',
                                               "GetBufferFromPool() Get buffer type: 2, width: 320, height: 240, "
                                               "size: 76800 failed!")));
    EXPECT_EQ(ZYTBufferPool::m_freeGrallocBufferList.count({320, 240}), 1u);
    const bool widthComesFirst = ZYTGrallocBufferKey{1, 9} < ZYTGrallocBufferKey{2, 0};
    EXPECT_TRUE(widthComesFirst && ZYTGrallocBufferKey({2, 0}) < ZYTGrallocBufferKey({2, 1}));
}

TEST_F(Pool, EndsTheProcessWhenAnAreaOverflows) {
    EXPECT_EXIT(GetGralloc(65536, 65536), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(m_pool->GetBufferFromPool(1u << 31, 2, m_fd, nullptr, static_cast<ZYTBufferType>(9)),
                testing::KilledBySignal(SIGABRT), "")
        << "before any other check";
}

TEST_F(Pool, RefusesWhatIsNotOut) {
    m_pool->PutBufferToPool(nullptr);
    EXPECT_THAT(m_log.Take(), ElementsAre(Line('W', "PutBufferToPool() Put NULL buffer to pool!")));
    void* pBuf = Get(4096);
    m_pool->PutBufferToPool(pBuf);
    m_log.Take();
    m_pool->PutBufferToPool(pBuf);
    EXPECT_THAT(m_log.Take(), ElementsAre(Line('V', Text("PutBufferToPool() Put buffer to pool: %p", pBuf)),
                                          Line('W', Text("PutBufferToPool() Wrong buffer pointer: %p", pBuf))));
}

TEST_F(Pool, KeepsTenFreeBuffersOfASize) {
    std::vector<void*> buffers(11);
    for (void*& pBuf : buffers) pBuf = Get(4096);
    for (size_t i = 0; i < 10; ++i) m_pool->PutBufferToPool(buffers[i]);
    EXPECT_EQ(hostdevice::CountLive().heapMappings, 11u);
    m_log.Take();
    m_pool->PutBufferToPool(buffers[10]);
    EXPECT_THAT(m_log.Take(),
                ElementsAre(Line('V', Text("PutBufferToPool() Put buffer to pool: %p", buffers[10])),
                            Line('I', Text("PutBufferToPool() Buffer num this size is more than threshold, release "
                                           "buffer, pBuf: %p, size: 4096, fd: %d, type: 1, ",
                                           buffers[10], m_fd)),
                            Line('I', Text("ReleaseBuffer() Release buffer: %p", buffers[10]))));
    EXPECT_EQ(hostdevice::CountLive().heapMappings, 10u);
    EXPECT_EQ(hostdevice::CountLive().heapDescriptors, 10u);

    for (void*& pBuf : buffers) pBuf = GetGralloc(64, 64);
    for (size_t i = 0; i < 10; ++i) m_pool->PutBufferToPool(buffers[i]);
    m_log.Take();
    m_pool->PutBufferToPool(buffers[10]);
    EXPECT_EQ(m_log.Take()[1], Line('I', Text("PutBufferToPool() Gralloc buffer num this size is more than threshold, "
                                              "release buffer, pBuf: %p, width: 64, height: 64, fd: %d, type: 2, ",
                                              buffers[10], m_fd)));
    EXPECT_EQ(hostdevice::CountLive().graphicBuffers, 10u);
}

TEST_F(Pool, ReleasesEverythingWithItsLastClient) {
    { ZYTBufferPool other; }
    EXPECT_THAT(m_log.Take(), IsEmpty()) << "one client of two goes in silence";

    void* freed = Get(100, ZYT_BUFFER_TYPE_MALLOC);
    void* busy = Get(4096);
    const int busyFd = m_fd;
    void* freeGralloc = GetGralloc(16, 16);
    const int freeGrallocFd = m_fd;
    void* busyGralloc = GetGralloc(32, 16);
    m_pool->PutBufferToPool(freed);
    m_pool->PutBufferToPool(freeGralloc);
    m_log.Take();
    m_pool.reset();
    const std::string destructor = "~ZYTBufferPool() ";
    EXPECT_THAT(
        m_log.Take(),
        ElementsAre(
            Line('D', destructor + "All client disconnect, release buffer in pool"),
            Line('W', destructor + "All client disconnect, but there are 2 busy buffer in list:"),
            Line('W', destructor + Text("   busy buffer[0]: pBuf: %p, size: 4096, fd, %d, type: 1", busy, busyFd)),
            Line('W', destructor + Text("   busy buffer[1]: pBuf: %p, width: 32, height: 16, fd, %d, type: 2",
                                        busyGralloc, m_fd)),
            Line('V', Text("PutBufferToPool() Put buffer to pool: %p", busy)),
            Line('I', Text("PutBufferToPool() Put buffer to pool success: pBuf: %p, size: 4096, fd: %d, type: 1", busy,
                           busyFd)),
            Line('I', Text("ReleaseBuffer() Release buffer: %p", freed)),
            Line('I', destructor + Text("Buffer released: pBuf: %p, size: 100, fd: 0, type: 0", freed)),
            Line('I', Text("ReleaseBuffer() Release buffer: %p", busy)),
            Line('I', destructor + Text("Buffer released: pBuf: %p, size: 4096, fd: %d, type: 1", busy, busyFd)),
            Line('I', Text("ReleaseBuffer() Release buffer: %p", freeGralloc)),
            Line('I', destructor + Text("Buffer released: pBuf: %p, width: 16, height: 16, fd: %d, type: 2",
                                        freeGralloc, freeGrallocFd))));
    EXPECT_EQ(hostdevice::CountLive().heapMappings, 0u);
    EXPECT_EQ(hostdevice::CountLive().graphicBuffers, 1u) << "the one that is out stays";
    EXPECT_EQ(hostdevice::CountLive().graphicMappings, m_graphicMappingsBefore + 2)
        << "gralloc mappings are never undone";

    m_pool = std::make_unique<ZYTBufferPool>();
    m_pool->SetClientName("NodeA");
    m_pool->PutBufferToPool(busyGralloc);
    EXPECT_THAT(m_log.Take(),
                ElementsAre(Line('V', Text("PutBufferToPool() Put buffer to pool: %p", busyGralloc)),
                            Line('E', Text("PutBufferToPool() Wrong gralloc buffer when put buffer to pool, pBuf: %p, "
                                           "width: 32, height: 16, fd: %d, type: 2, release it!",
                                           busyGralloc, m_fd)),
                            Line('I', Text("ReleaseBuffer() Release buffer: %p", busyGralloc))));
    EXPECT_EQ(hostdevice::CountLive().graphicBuffers, 0u);
}

TEST_F(Pool, ReleasesABufferWhosePoolIsGone) {
    void* pBuf = Get(4096);
    {
        std::lock_guard<std::mutex> lock(ZYTBufferPool::m_freeBufferListLock);
        ZYTBufferPool::m_freeBufferList[1].clear();  // as a release of the pool leaves it
    }
    m_log.Take();
    m_pool->PutBufferToPool(pBuf);
    EXPECT_THAT(m_log.Take(),
                ElementsAre(Line('V', Text("PutBufferToPool() Put buffer to pool: %p", pBuf)),
                            Line('E', Text("PutBufferToPool() Wrong buffer size when put buffer to pool, pBuf: %p, "
                                           "size: 4096, fd: %d, type: 1, release it!",
                                           pBuf, m_fd)),
                            Line('I', Text("ReleaseBuffer() Release buffer: %p", pBuf))));
}

TEST_F(Pool, ReportsRecordsItCannotRelease) {
    m_pool->ReleaseBuffer(ZYTBufferPoolBufferInfo{ZYT_BUFFER_TYPE_GRALLOC, &m_fd, m_fd, 4});
    EXPECT_THAT(m_log.Take(), ElementsAre(Line('E', "ReleaseBuffer() Unsupport release buffer type: 2!")));
}

TEST_F(Pool, NamedClientsNeverRegister) {
    void* pBuf = Get(4096);
    m_pool->PutBufferToPool(pBuf);
    {
        ZYTBufferPool registered;
        EXPECT_EQ(Clients(), 2u);
        ZYTBufferPool named("NodeB");
        EXPECT_EQ(Clients(), 2u);
        EXPECT_EQ(hostdevice::CountLive().heapMappings, 1u) << "others are registered: the pool stays";
        // It unregisters all the same: the count it takes away has to come from somebody.
        std::lock_guard<std::mutex> lock(ZYTBufferPool::m_bufferPoolClientNumLock);
        ++ZYTBufferPool::m_bufferPoolClientNum;
    }
    EXPECT_EQ(Clients(), 1u);
}

TEST_F(Pool, ANamedClientThatComesFirstEmptiesThePoolAndCannotLeave) {
    m_pool.reset();
    ZYTBufferPool::m_freeBufferList[0][123];
    m_log.Take();
    EXPECT_EXIT(
        {
            ZYTBufferPool named("NodeB");
            // The passing client was the last one to leave, and left the key of no size.
            if (!ZYTBufferPool::m_freeBufferList[0].empty() || m_log.Take().size() != 1) std::_Exit(1);
        },
        testing::KilledBySignal(SIGABRT), "");
    m_pool = std::make_unique<ZYTBufferPool>();
}

TEST_F(Pool, EndsTheProcessWhenTheClientCountOverflows) {
    EXPECT_EXIT(
        {
            ZYTBufferPool::m_bufferPoolClientNum = 0xffffffffu;
            ZYTBufferPool pool;
        },
        testing::KilledBySignal(SIGABRT), "");
}

TEST_F(Pool, ServesManyThreadsWithoutSharingABuffer) {
    std::vector<std::thread> threads;
    std::atomic<bool> isShared{false};
    for (unsigned char t = 1; t <= 8; ++t) {
        threads.emplace_back([t, &isShared] {
            ZYTBufferPool pool;
            for (unsigned int i = 0; i < 300; ++i) {
                int fd = 0;
                auto* pBuf = static_cast<unsigned char*>(
                    pool.GetBufferFromPool(1024 + i % 3, fd, static_cast<ZYTBufferType>(i % 2)));
                std::memset(pBuf, t, 1024);
                std::this_thread::yield();
                if (pBuf[0] != t || pBuf[1023] != t) isShared = true;
                pool.PutBufferToPool(pBuf);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_FALSE(isShared);
}
