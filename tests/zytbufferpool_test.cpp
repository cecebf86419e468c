#include "zytbuffermanager/zytbufferpool.h"

#include <gmock/gmock.h>
#include <hostdevice/hostdevice.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "support.h"

using hostdevice::CountLive;
using hostdevice::Fault;
using testing::ElementsAre;
using testing::IsEmpty;
using zyttest::LogCapture;

namespace {

constexpr const char* kSource = "[BufferPool-NodeA] zytbufferpool.cpp";
constexpr zyttest::LinesOf InAlloc = {kSource, "AllocBuffer"};
constexpr zyttest::LinesOf InGet = {kSource, "GetBufferFromPool"};
constexpr zyttest::LinesOf InPut = {kSource, "PutBufferToPool"};
constexpr zyttest::LinesOf InRelease = {kSource, "ReleaseBuffer"};
constexpr zyttest::LinesOf InDestructor = {kSource, "~ZYTBufferPool"};

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
        const hostdevice::LiveResources live = CountLive();
        EXPECT_EQ(live.heapDescriptors, 0u);
        EXPECT_EQ(live.heapMappings, 0u);
        EXPECT_EQ(live.graphicBuffers, 0u);
    }

    void* Get(unsigned int size, int type = ZYT_BUFFER_TYPE_DMABUF) {
        return m_pool->GetBufferFromPool(size, m_fd, static_cast<ZYTBufferType>(type));
    }

    void* Get(unsigned int width, unsigned int height, int type) {
        return m_pool->GetBufferFromPool(width, height, m_fd, &m_handle, static_cast<ZYTBufferType>(type));
    }

    void* GetGralloc(unsigned int width, unsigned int height) { return Get(width, height, ZYT_BUFFER_TYPE_GRALLOC); }

    // What the return of a buffer that is out says after its first line.
    std::vector<std::string> Put(void* pBuf) {
        m_log.Take();
        m_pool->PutBufferToPool(pBuf);
        std::vector<std::string> lines = m_log.Take();
        EXPECT_EQ(lines.front(), InPut('V', "Put buffer to pool: %p", pBuf));
        lines.erase(lines.begin());
        return lines;
    }

    LogCapture m_log;
    const uint64_t m_graphicMappingsBefore = CountLive().graphicMappings;
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
                ElementsAre(InAlloc('I', "Alloc buffer success: type: 1, size: 4096, pBuf: %p", a),
                            InGet('I', "Get buffer type: 1, size: 4096, pBuf: %p. Free buf num this size: 0", a)));
    void* b = Get(4096);
    const int fdB = m_fd;
    EXPECT_THAT(Put(a),
                ElementsAre(InPut('I', "Put buffer to pool success: pBuf: %p, size: 4096, fd: %d, type: 1", a, fdA)));
    Put(b);
    EXPECT_EQ(Get(4096), b);
    EXPECT_EQ(m_fd, fdB);
    EXPECT_EQ(Get(4096), a);
    EXPECT_NE(Get(4095), a) << "sizes match exactly or not at all";
    void* plain = Get(64, 64, ZYT_BUFFER_TYPE_MALLOC);
    std::memset(plain, 1, 4096);
    EXPECT_EQ(m_fd, 0);
    EXPECT_EQ(m_handle, &m_fd);
    Put(plain);
    EXPECT_EQ(Get(4096, ZYT_BUFFER_TYPE_MALLOC), plain) << "a plain buffer is one of its geometry's area";
    for (void* pBuf : {a, b, plain}) Put(pBuf);
}

TEST_F(Pool, RefusesSizesAndTypesItDoesNotHandOut) {
    const auto expectRefusal = [this](const void* pBuf) {
        EXPECT_EQ(pBuf, nullptr);
        EXPECT_EQ(std::exchange(m_fd, 77), 0);
        EXPECT_THAT(m_log.Take(), ElementsAre(InGet('D', "Invalid args, get buffer failed!")));
    };
    expectRefusal(Get(0));
    for (const int type : {2, 3, -1}) expectRefusal(Get(16, type));
    for (const int type : {3, -1}) expectRefusal(Get(640, 480, type));
    expectRefusal(GetGralloc(0, 480));
    expectRefusal(Get(640, 0, ZYT_BUFFER_TYPE_DMABUF));
    EXPECT_EQ(m_handle, &m_fd) << "no refusal touches the handle";

    std::lock_guard<std::mutex> lock(ZYTBufferPool::m_freeBufferListLock);
    EXPECT_EQ(m_pool->AllocBuffer(1, 1, 1, static_cast<ZYTBufferType>(5)), nullptr);
    m_pool->ReleaseBuffer(ZYTBufferPoolBufferInfo{ZYT_BUFFER_TYPE_GRALLOC, &m_fd, m_fd, 4});
    EXPECT_THAT(m_log.Take(), ElementsAre(InAlloc('E', "Unsupport alloc buffer type: 5!"),
                                          InRelease('E', "Unsupport release buffer type: 2!")));
    for (const auto& list : ZYTBufferPool::m_freeBufferList) EXPECT_TRUE(list.empty());
}

TEST_F(Pool, KeepsTheKeyOfAFailedSizeAndTriesAgain) {
    hostdevice::FailNth(Fault::kHeapAllocation, 1);
    EXPECT_EQ(Get(77), nullptr);
    EXPECT_EQ(m_fd, 0);
    EXPECT_THAT(m_log.Take(), ElementsAre(InAlloc('E', "Alloc buffer failed! Type: 1, size: 77"),
                                          InGet('E', "Get buffer type: 1, size: 77 failed!")));
    EXPECT_EQ(ZYTBufferPool::m_freeBufferList[1].count(77), 1u);
    void* pBuf = Get(77);
    EXPECT_NE(pBuf, nullptr);
    Put(pBuf);
}

TEST_F(Pool, HandsOutGrallocBuffersByGeometry) {
    void* pBuf = GetGralloc(640, 480);
    ASSERT_NE(pBuf, nullptr);
    ASSERT_NE(m_handle, &m_fd);
    EXPECT_EQ(static_cast<native_handle_t*>(m_handle)->data[0], m_fd);
    EXPECT_THAT(m_log.Take(),
                ElementsAre(InGet(
                    'I', "Get buffer type: 2, width: 640, height: 480, pBuf: %p. Free buf num this size: 0", pBuf)));
    const android::GraphicBuffer& made = *ZYTBufferPool::m_busyGrallocBufferList.at(pBuf).graphicBuffer;
    EXPECT_EQ(made.getPixelFormat(), 34);
    EXPECT_EQ(made.getUsage(), 0x201ffu);
    const int fd = m_fd;
    EXPECT_NE(GetGralloc(480, 640), pBuf);
    EXPECT_THAT(
        Put(pBuf),
        ElementsAre(InPut('I', "Put gralloc buffer to pool success: pBuf: %p, width: 640, height: 480, fd: %d, type: 2",
                          pBuf, fd)));
    EXPECT_EQ(m_pool->GetBufferFromPool(640, 480, m_fd, nullptr, ZYT_BUFFER_TYPE_GRALLOC), pBuf);
    m_log.Take();

    hostdevice::FailNth(Fault::kGraphicBuffer, 1);
    EXPECT_EQ(GetGralloc(320, 240), nullptr);
    EXPECT_EQ(m_fd, 0);
    EXPECT_THAT(m_log.Take(),
                ElementsAre(InGet('E', "Get buffer type: 2, width: 320, height: 240, size: 76800 failed!")));
    EXPECT_EQ(ZYTBufferPool::m_freeGrallocBufferList.count({320, 240}), 1u);
    const bool widthComesFirst = ZYTGrallocBufferKey{1, 9} < ZYTGrallocBufferKey{2, 0};
    EXPECT_TRUE(widthComesFirst && ZYTGrallocBufferKey({2, 0}) < ZYTGrallocBufferKey({2, 1}));
}

TEST_F(Pool, EndsTheProcessWhenAnAreaOrTheClientCountOverflows) {
    EXPECT_ABORT(GetGralloc(65536, 65536));
    EXPECT_ABORT(Get(1u << 31, 2, 9)) << "before any other check";
    EXPECT_ABORT({
        ZYTBufferPool::m_bufferPoolClientNum = 0xffffffffu;
        ZYTBufferPool pool;
    });
}

TEST_F(Pool, RefusesWhatIsNotOut) {
    m_pool->PutBufferToPool(nullptr);
    EXPECT_THAT(m_log.Take(), ElementsAre(InPut('W', "Put NULL buffer to pool!")));
    void* pBuf = Get(4096);
    Put(pBuf);
    EXPECT_THAT(Put(pBuf), ElementsAre(InPut('W', "Wrong buffer pointer: %p", pBuf)));
}

TEST_F(Pool, KeepsTenFreeBuffersOfASize) {
    std::vector<void*> buffers(11);
    for (void*& pBuf : buffers) pBuf = Get(4096);
    for (size_t i = 0; i < 10; ++i) Put(buffers[i]);
    EXPECT_EQ(CountLive().heapMappings, 11u);
    EXPECT_THAT(
        Put(buffers[10]),
        ElementsAre(
            InPut(
                'I',
                "Buffer num this size is more than threshold, release buffer, pBuf: %p, size: 4096, fd: %d, type: 1, ",
                buffers[10], m_fd),
            InRelease('I', "Release buffer: %p", buffers[10])));
    EXPECT_EQ(CountLive().heapMappings, 10u);
    EXPECT_EQ(CountLive().heapDescriptors, 10u);

    for (void*& pBuf : buffers) pBuf = GetGralloc(64, 64);
    for (size_t i = 0; i < 10; ++i) Put(buffers[i]);
    EXPECT_THAT(Put(buffers[10]), ElementsAre(InPut('I',
                                                    "Gralloc buffer num this size is more than threshold, release "
                                                    "buffer, pBuf: %p, width: 64, height: 64, fd: %d, type: 2, ",
                                                    buffers[10], m_fd),
                                              InRelease('I', "Release buffer: %p", buffers[10])));
    EXPECT_EQ(CountLive().graphicBuffers, 10u);
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
    Put(freed);
    Put(freeGralloc);
    m_pool.reset();
    const std::vector<std::string> lines = {
        InDestructor('D', "All client disconnect, release buffer in pool"),
        InDestructor('W', "All client disconnect, but there are 2 busy buffer in list:"),
        InDestructor('W', "   busy buffer[0]: pBuf: %p, size: 4096, fd, %d, type: 1", busy, busyFd),
        InDestructor('W', "   busy buffer[1]: pBuf: %p, width: 32, height: 16, fd, %d, type: 2", busyGralloc, m_fd),
        InPut('V', "Put buffer to pool: %p", busy),
        InPut('I', "Put buffer to pool success: pBuf: %p, size: 4096, fd: %d, type: 1", busy, busyFd),
        InRelease('I', "Release buffer: %p", freed),
        InDestructor('I', "Buffer released: pBuf: %p, size: 100, fd: 0, type: 0", freed),
        InRelease('I', "Release buffer: %p", busy),
        InDestructor('I', "Buffer released: pBuf: %p, size: 4096, fd: %d, type: 1", busy, busyFd),
        InRelease('I', "Release buffer: %p", freeGralloc),
        InDestructor('I', "Buffer released: pBuf: %p, width: 16, height: 16, fd: %d, type: 2", freeGralloc,
                     freeGrallocFd)};
    EXPECT_EQ(m_log.Take(), lines);
    EXPECT_EQ(CountLive().heapMappings, 0u);
    EXPECT_EQ(CountLive().graphicBuffers, 1u) << "the one that is out stays";
    EXPECT_EQ(CountLive().graphicMappings, m_graphicMappingsBefore + 2) << "gralloc mappings are never undone";

    m_pool = std::make_unique<ZYTBufferPool>();
    m_pool->SetClientName("NodeA");
    EXPECT_THAT(Put(busyGralloc), ElementsAre(InPut('E',
                                                    "Wrong gralloc buffer when put buffer to pool, pBuf: %p, width: "
                                                    "32, height: 16, fd: %d, type: 2, release it!",
                                                    busyGralloc, m_fd),
                                              InRelease('I', "Release buffer: %p", busyGralloc)));
    EXPECT_EQ(CountLive().graphicBuffers, 0u);
}

TEST_F(Pool, ReleasesABufferWhosePoolIsGone) {
    void* pBuf = Get(4096);
    {
        std::lock_guard<std::mutex> lock(ZYTBufferPool::m_freeBufferListLock);
        ZYTBufferPool::m_freeBufferList[1].clear();  // as a release of the pool leaves it
    }
    EXPECT_THAT(
        Put(pBuf),
        ElementsAre(
            InPut('E', "Wrong buffer size when put buffer to pool, pBuf: %p, size: 4096, fd: %d, type: 1, release it!",
                  pBuf, m_fd),
            InRelease('I', "Release buffer: %p", pBuf)));
}

TEST_F(Pool, NamedClientsNeverRegister) {
    void* pBuf = Get(4096);
    m_pool->PutBufferToPool(pBuf);
    {
        ZYTBufferPool registered;
        EXPECT_EQ(Clients(), 2u);
        ZYTBufferPool named("NodeB");
        EXPECT_EQ(Clients(), 2u);
        EXPECT_EQ(CountLive().heapMappings, 1u) << "others are registered: the pool stays";
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
    EXPECT_ABORT({
        ZYTBufferPool named("NodeB");
        // The passing client was the last one to leave, and left the key of no size.
        if (!ZYTBufferPool::m_freeBufferList[0].empty() || m_log.Take().size() != 1) std::_Exit(1);
    });
    m_pool = std::make_unique<ZYTBufferPool>();
}
