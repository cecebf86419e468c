#include "zytbuffermanager/zytbufferpool.h"

#include <fcntl.h>
#include <hostdevice/hostdevice.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>

#include "support.h"

using hostdevice::CountLive;
using hostdevice::Fault;
using zyttest::LogCapture;

namespace {

class Pool : public testing::Test {
protected:
    Pool() { m_pool->SetClientName("A"); }

    void TearDown() override {
        hostdevice::ClearFaults();
        ZYTBufferPool::m_busyGrallocBufferList.clear();  // the pool does not release these
        m_pool.reset();
        EXPECT_EQ(ZYTBufferPool::m_bufferPoolClientNum, 0u);
        EXPECT_EQ(CountLive().heapDescriptors + CountLive().heapMappings + CountLive().graphicBuffers, 0u);
    }

    void* Get(unsigned int size, int type = ZYT_BUFFER_TYPE_DMABUF) {
        return m_pool->GetBufferFromPool(size, m_fd, static_cast<ZYTBufferType>(type));
    }
    void* Get(unsigned int width, unsigned int height, int type) {
        return m_pool->GetBufferFromPool(width, height, m_fd, &m_handle, static_cast<ZYTBufferType>(type));
    }
    void* GetGralloc(unsigned int width, unsigned int height) { return Get(width, height, ZYT_BUFFER_TYPE_GRALLOC); }

    void Put(const std::vector<void*>& buffers) {
        for (void* pBuf : buffers) m_pool->PutBufferToPool(pBuf);
    }

    // Returns the last lines after eleven buffers of one kind were returned.
    std::string PutEleven(const std::function<void*()>& get) {
        std::vector<void*> buffers(11);
        std::generate(buffers.begin(), buffers.end(), get);
        Put({buffers.begin(), buffers.begin() + 10});
        m_log.Take();
        Put({buffers.back()});
        return m_log.Transcript();
    }

    LogCapture m_log;
    std::unique_ptr<ZYTBufferPool> m_pool = std::make_unique<ZYTBufferPool>();
    int m_fd = 77;
    void* m_handle = &m_fd;
};

}  // namespace

TEST_F(Pool, ReusesTheLastReturnedBufferOfExactlyThatSize) {
    void* const a = Get(4096);
    void* const b = Get(4096);
    Put({a, b});
    m_log.Take();
    Put({b, nullptr});
    Get(4096);
    void* const smaller = Get(4095);
    EXPECT_EQ(m_fd, ZYTBufferPool::m_busyBufferList.at(smaller).fd);
    Get(4096);
    EXPECT_EQ(m_log.Transcript(), R"(
V [BufferPool-A] PutBufferToPool() Put buffer to pool: @1
W [BufferPool-A] PutBufferToPool() Wrong buffer pointer: @1
W [BufferPool-A] PutBufferToPool() Put NULL buffer to pool!
I [BufferPool-A] GetBufferFromPool() Get buffer type: 1, size: 4096, pBuf: @1. Free buf num this size: 1
I [BufferPool-A] AllocBuffer() Alloc buffer success: type: 1, size: 4095, pBuf: @2
I [BufferPool-A] GetBufferFromPool() Get buffer type: 1, size: 4095, pBuf: @2. Free buf num this size: 0
I [BufferPool-A] GetBufferFromPool() Get buffer type: 1, size: 4096, pBuf: @3. Free buf num this size: 0)");
    void* const plain = Get(64, 64, ZYT_BUFFER_TYPE_MALLOC);
    std::memset(plain, 1, 4096);
    EXPECT_EQ(m_fd, 0);
    EXPECT_EQ(m_handle, &m_fd);
    Put({plain});
    EXPECT_EQ(Get(4096, ZYT_BUFFER_TYPE_MALLOC), plain) << "a plain buffer is one of its geometry's area";
}

TEST_F(Pool, ReusesGrallocBuffersByGeometry) {
    void* const a = GetGralloc(64, 48);
    EXPECT_EQ(static_cast<native_handle_t*>(m_handle)->data[0], m_fd);
    const android::GraphicBuffer& made = *ZYTBufferPool::m_busyGrallocBufferList.at(a).graphicBuffer;
    EXPECT_EQ(made.getWidth(), 64u);
    EXPECT_EQ(made.getHeight(), 48u);
    EXPECT_EQ(made.getLayerCount(), 1u);
    EXPECT_EQ(made.getPixelFormat(), 34);
    EXPECT_EQ(made.getUsage(), 0x201ffu);
    void* const b = GetGralloc(64, 48);
    Put({a});
    m_log.Take();
    Put({b});
    m_pool->GetBufferFromPool(64, 48, m_fd, nullptr, ZYT_BUFFER_TYPE_GRALLOC);
    GetGralloc(48, 64);
    EXPECT_EQ(m_log.Transcript(), R"(
V [BufferPool-A] PutBufferToPool() Put buffer to pool: @1
I [BufferPool-A] PutBufferToPool() Put gralloc buffer to pool success: pBuf: @1, width: 64, height: 48, fd: #1, type: 2
I [BufferPool-A] GetBufferFromPool() Get buffer type: 2, width: 64, height: 48, pBuf: @1. Free buf num this size: 1
I [BufferPool-A] GetBufferFromPool() Get buffer type: 2, width: 48, height: 64, pBuf: @2. Free buf num this size: 0)");
    EXPECT_LT((ZYTGrallocBufferKey{1, 9}), (ZYTGrallocBufferKey{2, 0}));
    EXPECT_LT((ZYTGrallocBufferKey{2, 0}), (ZYTGrallocBufferKey{2, 1}));
    EXPECT_FALSE((ZYTGrallocBufferKey{2, 0}) < (ZYTGrallocBufferKey{1, 9}));
}

TEST_F(Pool, RefusesSizesAndTypesItDoesNotHandOut) {
    const auto expectRefusal = [this](const void* pBuf) {
        EXPECT_EQ(pBuf, nullptr);
        EXPECT_EQ(std::exchange(m_fd, 77), 0);
        EXPECT_EQ(m_log.Transcript(), "\nD [BufferPool-A] GetBufferFromPool() Invalid args, get buffer failed!");
    };
    expectRefusal(Get(0));
    for (const int type : {2, 3, -1}) expectRefusal(Get(16, type));
    for (const int type : {3, -1}) expectRefusal(Get(640, 480, type));
    expectRefusal(GetGralloc(0, 480));
    expectRefusal(Get(640, 0, ZYT_BUFFER_TYPE_DMABUF));
    EXPECT_EQ(m_handle, &m_fd) << "no refusal touches the handle";

    EXPECT_EQ(m_pool->AllocBuffer(1, 1, 1, static_cast<ZYTBufferType>(5)), nullptr);
    m_pool->ReleaseBuffer(ZYTBufferPoolBufferInfo{ZYT_BUFFER_TYPE_GRALLOC, &m_fd, m_fd, 4});
    EXPECT_EQ(m_log.Transcript(), R"(
E [BufferPool-A] AllocBuffer() Unsupport alloc buffer type: 5!
E [BufferPool-A] ReleaseBuffer() Unsupport release buffer type: 2!)");
    for (const auto& list : ZYTBufferPool::m_freeBufferList) EXPECT_TRUE(list.empty());
    EXPECT_ABORT("width * height: 65536 * 65536 does not fit in 32 bits", GetGralloc(65536, 65536));
    EXPECT_ABORT("2147483648 * 2", Get(1u << 31, 2, 9)) << "before any other check";
}

TEST_F(Pool, MakesTheKeyOfASizeAfterTheAttemptEvenOfAFailedOne) {
    size_t keys = 0;
    LogCapture log([&keys](const std::string& line) {
        if (line.find("Alloc buffer") != std::string::npos) keys += ZYTBufferPool::m_freeBufferList[1].size();
    });
    hostdevice::FailNth(Fault::kHeapAllocation, 1);
    EXPECT_EQ(Get(77), nullptr);
    EXPECT_EQ(std::exchange(m_fd, 77), 0);
    EXPECT_EQ(keys, 0u);
    EXPECT_EQ(ZYTBufferPool::m_freeBufferList[1].count(77), 1u);
    hostdevice::FailNth(Fault::kGraphicBuffer, 1);
    EXPECT_EQ(GetGralloc(32, 24), nullptr);
    EXPECT_EQ(m_fd, 0);
    EXPECT_EQ(ZYTBufferPool::m_freeGrallocBufferList.count({32, 24}), 1u);
    EXPECT_EQ(log.Transcript("E "), R"(
E [BufferPool-A] AllocBuffer() Alloc buffer failed! Type: 1, size: 77
E [BufferPool-A] GetBufferFromPool() Get buffer type: 1, size: 77 failed!
E [BufferPool-A] GetBufferFromPool() Get buffer type: 2, width: 32, height: 24, size: 768 failed!)");
}

TEST_F(Pool, KeepsTenFreeBuffersOfASize) {
    EXPECT_EQ(PutEleven([this] { return Get(4096); }), R"(
V [BufferPool-A] PutBufferToPool() Put buffer to pool: @1
I [BufferPool-A] PutBufferToPool() Buffer num this size is more than threshold, release buffer, )"
                                                       R"(pBuf: @1, size: 4096, fd: #1, type: 1, 
I [BufferPool-A] ReleaseBuffer() Release buffer: @1)");
    EXPECT_EQ(PutEleven([this] { return GetGralloc(64, 64); }), R"(
V [BufferPool-A] PutBufferToPool() Put buffer to pool: @1
I [BufferPool-A] PutBufferToPool() Gralloc buffer num this size is more than threshold, release buffer, )"
                                                                R"(pBuf: @1, width: 64, height: 64, fd: #1, type: 2, 
I [BufferPool-A] ReleaseBuffer() Release buffer: @1)");
    EXPECT_THAT(CountLive(), testing::FieldsAre(10, 10, 10, testing::_, testing::_));
}

TEST_F(Pool, HoldsTheLockOfOneListAtATime) {
    // Runs a step that gets stuck at one list's lock, and expects it to have emptied the other list and let go of it.
    const auto expectEmptied = [](std::mutex& lock, const auto& buffers, std::mutex& stuckAt, const auto& step) {
        std::unique_lock<std::mutex> stuck(stuckAt);
        std::thread thread(step);
        EXPECT_TRUE(zyttest::WaitUntil([&] {
            const std::unique_lock<std::mutex> guard(lock, std::try_to_lock);
            return guard && buffers.empty();
        }));
        stuck.unlock();
        thread.join();
    };
    const auto expectOneLock = [&](int type, const auto& free, const auto& busy) {
        std::mutex &freeLock = ZYTBufferPool::m_freeBufferListLock, &busyLock = ZYTBufferPool::m_busyBufferListLock;
        void* pBuf = nullptr;
        expectEmptied(freeLock, free, busyLock, [&] { pBuf = Get(64, 48, type); });
        expectEmptied(busyLock, busy, freeLock, [&] { Put({pBuf}); });
    };
    Put({Get(64, 48, ZYT_BUFFER_TYPE_MALLOC), GetGralloc(64, 48)});
    expectOneLock(ZYT_BUFFER_TYPE_MALLOC, ZYTBufferPool::m_freeBufferList[0].at(64 * 48),
                  ZYTBufferPool::m_busyBufferList);
    expectOneLock(ZYT_BUFFER_TYPE_GRALLOC, ZYTBufferPool::m_freeGrallocBufferList.at({64, 48}),
                  ZYTBufferPool::m_busyGrallocBufferList);
}

TEST_F(Pool, ReleasesEverythingWithItsLastClient) {
    m_log.Take();
    { ZYTBufferPool other; }
    EXPECT_EQ(m_log.Transcript(), "") << "one client of two leaves in silence";

    void* const freed[] = {Get(100, ZYT_BUFFER_TYPE_MALLOC), GetGralloc(16, 16)};
    void* const busyGralloc[] = {GetGralloc(32, 16), GetGralloc(32, 16)};
    Get(4096);
    Put({freed[0], freed[1]});
    m_log.Take();
    const uint64_t graphicMappings = CountLive().graphicMappings;
    m_pool.reset();
    EXPECT_EQ(m_log.Transcript(), R"(
D [BufferPool-A] ~ZYTBufferPool() All client disconnect, release buffer in pool
W [BufferPool-A] ~ZYTBufferPool() All client disconnect, but there are 3 busy buffer in list:
W [BufferPool-A] ~ZYTBufferPool()    busy buffer[0]: pBuf: @1, size: 4096, fd, #1, type: 1
W [BufferPool-A] ~ZYTBufferPool()    busy buffer[1]: pBuf: @2, width: 32, height: 16, fd, #2, type: 2
W [BufferPool-A] ~ZYTBufferPool()    busy buffer[2]: pBuf: @3, width: 32, height: 16, fd, #3, type: 2
V [BufferPool-A] PutBufferToPool() Put buffer to pool: @1
I [BufferPool-A] PutBufferToPool() Put buffer to pool success: pBuf: @1, size: 4096, fd: #1, type: 1
I [BufferPool-A] ReleaseBuffer() Release buffer: @4
I [BufferPool-A] ~ZYTBufferPool() Buffer released: pBuf: @4, size: 100, fd: 0, type: 0
I [BufferPool-A] ReleaseBuffer() Release buffer: @1
I [BufferPool-A] ~ZYTBufferPool() Buffer released: pBuf: @1, size: 4096, fd: #1, type: 1
I [BufferPool-A] ReleaseBuffer() Release buffer: @5
I [BufferPool-A] ~ZYTBufferPool() Buffer released: pBuf: @5, width: 16, height: 16, fd: #4, type: 2)");
    EXPECT_EQ(CountLive().graphicBuffers, 2u) << "those that are out stay";
    EXPECT_EQ(CountLive().graphicMappings, graphicMappings) << "gralloc mappings are never undone";

    m_pool = std::make_unique<ZYTBufferPool>();
    void* const plain = Get(64);
    ZYTBufferPool::m_freeBufferList[1].clear();  // like after a release of the pool
    m_log.Take();
    Put({busyGralloc[0], plain});
    EXPECT_EQ(m_log.Transcript(), R"(
V [BufferPool-UnknowBufferManager] PutBufferToPool() Put buffer to pool: @1
E [BufferPool-UnknowBufferManager] PutBufferToPool() Wrong gralloc buffer when put buffer to pool, )"
                                  R"(pBuf: @1, width: 32, height: 16, fd: #1, type: 2, release it!
I [BufferPool-UnknowBufferManager] ReleaseBuffer() Release buffer: @1
V [BufferPool-UnknowBufferManager] PutBufferToPool() Put buffer to pool: @2
E [BufferPool-UnknowBufferManager] PutBufferToPool() Wrong buffer size when put buffer to pool, )"
                                  R"(pBuf: @2, size: 64, fd: #2, type: 1, release it!
I [BufferPool-UnknowBufferManager] ReleaseBuffer() Release buffer: @2)");
    EXPECT_EQ(CountLive().graphicBuffers, 1u);
}

TEST_F(Pool, ClosesEvenDescriptor0) {
    ASSERT_EQ(dup2(STDERR_FILENO, 0), 0);
    m_pool->ReleaseBuffer(ZYTBufferPoolBufferInfo{ZYT_BUFFER_TYPE_DMABUF, nullptr, 0, 4096});
    EXPECT_EQ(fcntl(0, F_GETFD), -1);
    dup2(STDERR_FILENO, 0);
    m_pool->ReleaseBuffer(ZYTBufferPoolBufferInfo{ZYT_BUFFER_TYPE_DMABUF, nullptr, -1, 4096});
}

TEST_F(Pool, NamedClientsNeverRegister) {
    Put({Get(4096)});
    {
        ZYTBufferPool registered;
        EXPECT_EQ(ZYTBufferPool::m_bufferPoolClientNum, 2u);
        ZYTBufferPool named("B");
        EXPECT_EQ(ZYTBufferPool::m_bufferPoolClientNum, 2u);
        EXPECT_EQ(CountLive().heapMappings, 1u) << "others are registered: the pool stays";
        ++ZYTBufferPool::m_bufferPoolClientNum;  // the destructor decrements it nevertheless
    }
    EXPECT_EQ(ZYTBufferPool::m_bufferPoolClientNum, 1u);
    EXPECT_ABORT("clients of the buffer pool: 4294967295 + 1 ", {
        ZYTBufferPool::m_bufferPoolClientNum = 0xffffffffu;
        ZYTBufferPool pool;
    });

    m_pool.reset();
    ZYTBufferPool::m_freeBufferList[0][123];
    m_log.Take();
    EXPECT_ABORT("clients of the buffer pool: 0 - 1 ", {
        ZYTBufferPool named("B");
        // The temporary client was the last one and released the pool, keys included.
        if (!ZYTBufferPool::m_freeBufferList[0].empty() || m_log.Take().size() != 1) std::_Exit(1);
    }) << "the named one was never counted";
    m_pool = std::make_unique<ZYTBufferPool>();
}
