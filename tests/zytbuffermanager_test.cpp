#include "zytbuffermanager/zytbuffermanager.h"

#include <hostdevice/hostdevice.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>

#include "support.h"

using hostdevice::Fault;
using zyttest::Image;
using zyttest::LogCapture;

namespace {

ZYTImageBuffer Nv12() { return Image(ZYT_FORMAT_YUV420NV12, 64, 30, 64, 32); }

bool AreSame(const ZYTImageBuffer& a, const ZYTImageBuffer& b) { return std::memcmp(&a, &b, sizeof(a)) == 0; }

class Manager : public testing::Test {
protected:
    Manager() : m_manager(std::in_place, "A") { m_log.Take(); }
    void TearDown() override { hostdevice::ClearFaults(); }

    bool Alloc(unsigned int size, int type) {
        return m_manager->AllocBuffer(size, &m_pBuf, m_fd, static_cast<ZYTBufferType>(type));
    }

    LogCapture m_log;
    std::optional<ZYTBufferManager> m_manager;
    void* m_pBuf = nullptr;
    int m_fd = 77;
};

}  // namespace

TEST_F(Manager, TakesAndFreesBuffersBySize) {
    ZYTBufferManager other;
    EXPECT_TRUE(Alloc(4096, ZYT_BUFFER_TYPE_DMABUF));
    EXPECT_EQ(m_fd, ZYTBufferPool::m_busyBufferList.at(m_pBuf).fd);
    EXPECT_FALSE(other.FreeBuffer(m_pBuf));
    EXPECT_TRUE(m_manager->FreeBuffer(m_pBuf));
    EXPECT_FALSE(m_manager->FreeBuffer(m_pBuf));
    EXPECT_FALSE(m_manager->FreeBuffer(nullptr));
    EXPECT_EQ(m_log.Transcript(), R"(
I [BufferPool-A] AllocBuffer() Alloc buffer success: type: 1, size: 4096, pBuf: @1
I [BufferPool-A] GetBufferFromPool() Get buffer type: 1, size: 4096, pBuf: @1. Free buf num this size: 0
I [A] AllocBuffer() Alloc buffer success, get buffer from pool: @1
W [UnknowBufferManager] FreeBuffer() Free buffer failed, this buffer not alloced by this buffer manager, )"
                                  R"(pBuf: @1, buffer manager name: UnknowBufferManager
V [BufferPool-A] PutBufferToPool() Put buffer to pool: @1
I [BufferPool-A] PutBufferToPool() Put buffer to pool success: pBuf: @1, size: 4096, fd: #1, type: 1
D [A] FreeBuffer() Free buffer: @1
W [A] FreeBuffer() Free buffer failed, this buffer not alloced by this buffer manager, pBuf: @1, )"
                                  R"(buffer manager name: A
W [A] FreeBuffer() Free buffer is NULL!)");
    ZYTImageBuffer image{};
    image.numberOfPlanes = 4;
    EXPECT_TRUE(m_manager->FreeBuffer(image));
    EXPECT_EQ(m_log.Take().size(), 4u) << "one line a plane";
    image.numberOfPlanes = 5;
    EXPECT_ABORT("an image has 5 planes", m_manager->FreeBuffer(image));
}

TEST_F(Manager, SaysWhyNoBufferCameOfIt) {
    m_pBuf = &m_fd;
    EXPECT_FALSE(Alloc(0, ZYT_BUFFER_TYPE_MALLOC));
    EXPECT_FALSE(m_manager->AllocBuffer(16, nullptr, m_fd, ZYT_BUFFER_TYPE_MALLOC));
    EXPECT_EQ(m_pBuf, &m_fd);
    EXPECT_EQ(m_fd, 77);
    for (const int type : {2, -1}) {
        EXPECT_FALSE(Alloc(16, type));
        EXPECT_EQ(std::exchange(m_pBuf, &m_fd), nullptr);
        EXPECT_EQ(std::exchange(m_fd, 77), 0);
    }
    // Two buffers with a failed mapping have the same address, MAP_FAILED.
    for (int i = 0; i < 2; ++i) {
        hostdevice::FailNth(Fault::kMapping, 1);
        EXPECT_EQ(Alloc(4096, ZYT_BUFFER_TYPE_DMABUF), i == 0);
    }
    EXPECT_EQ(m_pBuf, nullptr);
    EXPECT_EQ(m_fd, 0);
    EXPECT_EQ(m_log.Transcript(" [A] "), R"(
D [A] AllocBuffer() Alloc buffer invaild args
D [A] AllocBuffer() Alloc buffer invaild args
E [A] AllocBuffer() Alloc buffer failed, get buffer from pool is NULL!
E [A] AllocBuffer() Alloc buffer failed, get buffer from pool is NULL!
I [A] AllocBuffer() Alloc buffer success, get buffer from pool: @1
E [A] AllocBuffer() Get repetitive buffer from buffer pool: (nil))");
}

TEST_F(Manager, TakesOneBufferAPlane) {
    ZYTImageBuffer image = Nv12();
    image.numberOfPlanes = 4;
    image.pAddr[3] = reinterpret_cast<unsigned char*>(1);
    image.pNativeHandle = this;
    ASSERT_TRUE(m_manager->AllocBuffer(image, ZYT_BUFFER_TYPE_DMABUF));
    EXPECT_GT(image.fd[1], image.fd[0]);
    EXPECT_EQ(m_log.Transcript(" [A] "), R"(
I [A] AllocBuffer() Alloc buffer success, get buffer from pool: @1
I [A] AllocBuffer() Alloc buffer success, get buffer from pool: @2
D [A] AllocBuffer() Alloc buffer success: type: 1, format: 0, width: 64, height: 30, planeStride: 64, )"
                                         R"(sliceHeight: 32, numberOfPlanes: 2, Addr0: @1, Addr1: @2, Addr2: (nil), )"
                                         R"(Addr3: (nil), pNativeHandle: (nil), fd0: #1, fd1: #2, fd2: 0, fd3: 0)");
    EXPECT_EQ(ZYTBufferPool::m_busyBufferList.at(image.pAddr[0]).size, 2048u);
    EXPECT_EQ(ZYTBufferPool::m_busyBufferList.at(image.pAddr[1]).size, 1024u);
    EXPECT_TRUE(m_manager->FreeBuffer(image));
    m_log.Take();
    m_manager.reset();
    EXPECT_EQ(m_log.Transcript(" [A] "), "") << "nothing was left behind";
}

TEST_F(Manager, KeepsDescriptorsOutOfPlainImages) {
    ZYTBufferPool::m_freeBufferList[0][2048].push_back({ZYT_BUFFER_TYPE_MALLOC, std::malloc(2048), 9, 2048});
    ZYTImageBuffer image = Nv12(), raw = Image(ZYT_FORMAT_RAWMIPI10, 100, 10, 128, 10);
    ASSERT_TRUE(m_manager->AllocBuffer(image, ZYT_BUFFER_TYPE_MALLOC));
    EXPECT_EQ(image.fd[0], 0) << "whatever the pool's record says";
    ASSERT_TRUE(m_manager->AllocBuffer(raw, ZYT_BUFFER_TYPE_MALLOC));
    EXPECT_EQ(raw.numberOfPlanes, 1u);
    m_manager->FreeBuffer(image);
    EXPECT_EQ(ZYTBufferPool::m_busyBufferList.size(), 1u) << "the other's";
}

TEST_F(Manager, TellsThePlanesOfEachFormat) {
    const struct {
        int format;
        ZYTBufferType type;
        unsigned int capacity;
        unsigned int count;
        std::vector<unsigned int> sizes;
    } cases[] = {
        {ZYT_FORMAT_YUV420NV12, ZYT_BUFFER_TYPE_MALLOC, 4, 2, {33, 16, 9, 9}},
        {ZYT_FORMAT_YUV420NV21, ZYT_BUFFER_TYPE_DMABUF, 2, 2, {33, 16, 9, 9}},
        {ZYT_FORMAT_YUV420NV12, ZYT_BUFFER_TYPE_GRALLOC, 1, 1, {33, 16, 9, 9}},
        {ZYT_FORMAT_YUV420NV12, ZYT_BUFFER_TYPE_MALLOC, 1, 0, {0, 9, 9, 9}},
        {ZYT_FORMAT_RAWMIPI14, ZYT_BUFFER_TYPE_GRALLOC, 1, 1, {33, 9, 9, 9}},
        {ZYT_FORMAT_RAW16, ZYT_BUFFER_TYPE_MALLOC, 0, 0, {9, 9, 9, 9}},
        {ZYT_FORMAT_YUV_P010, ZYT_BUFFER_TYPE_MALLOC, 4, 7, {9, 9, 9, 9}},
        {ZYT_FORMAT_Y16, ZYT_BUFFER_TYPE_MALLOC, 4, 7, {9, 9, 9, 9}},
        {-1, ZYT_BUFFER_TYPE_MALLOC, 4, 7, {9, 9, 9, 9}},
    };
    for (const auto& c : cases) {
        unsigned int count = 7;
        std::vector<unsigned int> sizes(4, 9);
        m_manager->GetImgBufferSize(Image(c.format, 10, 3, 11, 3), count, sizes.data(), c.capacity, c.type);
        EXPECT_EQ(count, c.count) << c.format << " capacity " << c.capacity;
        EXPECT_EQ(sizes, c.sizes) << c.format << " capacity " << c.capacity;
    }
    EXPECT_EQ(m_log.Transcript(" [A] "), R"(
D [A] GetImgBufferSize() Get img buffer size fail, unsupport format: 5
D [A] GetImgBufferSize() Get img buffer size fail, unsupport format: 6
D [A] GetImgBufferSize() Get img buffer size fail, unsupport format: -1)");
    unsigned int count = 0, sizes[4];
    EXPECT_ABORT("planeStride * sliceHeight: 65536 * 65536 ",
                 m_manager->GetImgBufferSize(Image(ZYT_FORMAT_RAW16, 1, 1, 65536, 65536), count, sizes, 4,
                                             ZYT_BUFFER_TYPE_MALLOC));
}

TEST_F(Manager, LeavesTheRecordOfARefusedImageAlone) {
    ZYTImageBuffer images[5];
    std::fill(std::begin(images), std::end(images), Nv12());
    images[0].width = images[1].height = images[2].planeStride = images[3].sliceHeight = 0;
    images[4].format = ZYT_FORMAT_YUV_P010;
    for (ZYTImageBuffer& image : images) {
        image.numberOfPlanes = 3;
        const ZYTImageBuffer before = image;
        EXPECT_FALSE(m_manager->AllocBuffer(image, ZYT_BUFFER_TYPE_MALLOC));
        EXPECT_TRUE(AreSame(image, before));
    }
    // But not when only the type is wrong.
    ZYTImageBuffer image = Nv12(), emptied = image;
    emptied.numberOfPlanes = 2;
    image.pAddr[0] = reinterpret_cast<unsigned char*>(1);
    image.fd[2] = 5;
    image.pNativeHandle = this;
    EXPECT_FALSE(m_manager->AllocBuffer(image, static_cast<ZYTBufferType>(3)));
    EXPECT_TRUE(AreSame(image, emptied));
    const std::string refused = "\nD [A] AllocBuffer() Alloc buffer fail, invalid size args";
    EXPECT_EQ(m_log.Transcript(" [A] "), refused + refused + refused + refused + R"(
D [A] GetImgBufferSize() Get img buffer size fail, unsupport format: 5
E [A] AllocBuffer() Alloc buffer fail, get buffer size fail
E [A] AllocBuffer() Alloc buffer fail, unsupport type: 3)");
}

TEST_F(Manager, KeepsTheFirstPlaneWhenTheSecondFails) {
    ZYTImageBuffer image = Nv12();
    hostdevice::FailNth(Fault::kHeapAllocation, 2);
    EXPECT_FALSE(m_manager->AllocBuffer(image, ZYT_BUFFER_TYPE_DMABUF));
    EXPECT_EQ(image.numberOfPlanes, 0u);
    m_manager.reset();
    EXPECT_EQ(m_log.Transcript(" [A] "), R"(
I [A] AllocBuffer() Alloc buffer success, get buffer from pool: @1
E [A] AllocBuffer() Alloc buffer failed, get buffer from pool is NULL!
E [A] AllocBuffer() Alloc buffer fail, can not alloc new buf: size: 1024, type: 1
W [A] FreeBuffer() Free buffer is NULL!
W [A] FreeBuffer() Free buffer is NULL!
W [A] ~ZYTBufferManager() 1 buffer not free when buffer manager destroy, release them forcibly
W [A] ~ZYTBufferManager()   release buffer forcibly: @1)");
    EXPECT_EQ(hostdevice::CountLive().heapMappings, 0u);
}

TEST_F(Manager, NeverRecordsGrallocImages) {
    ZYTImageBuffer image = Nv12();
    image.pAddr[1] = reinterpret_cast<unsigned char*>(1);
    ASSERT_TRUE(m_manager->AllocBuffer(image, ZYT_BUFFER_TYPE_GRALLOC));
    EXPECT_EQ(image.numberOfPlanes, 1u);
    EXPECT_EQ(image.pAddr[1], nullptr);
    EXPECT_GT(image.fd[0], 0);
    EXPECT_EQ(static_cast<native_handle_t*>(image.pNativeHandle)->data[0], image.fd[0]);
    EXPECT_EQ(ZYTBufferPool::m_busyGrallocBufferList.at(image.pAddr[0]).width, 64u);
    EXPECT_EQ(ZYTBufferPool::m_busyGrallocBufferList.at(image.pAddr[0]).height, 30u);
    EXPECT_TRUE(m_manager->FreeBuffer(image));
    EXPECT_EQ(ZYTBufferPool::m_busyGrallocBufferList.size(), 1u);

    hostdevice::FailNth(Fault::kGraphicBuffer, 1);
    ZYTImageBuffer none = Image(ZYT_FORMAT_RAW16, 320, 240, 640, 240), expected = none;
    EXPECT_TRUE(m_manager->AllocBuffer(none, ZYT_BUFFER_TYPE_GRALLOC)) << "a buffer that cannot be had still succeeds";
    expected.numberOfPlanes = 1;
    EXPECT_TRUE(AreSame(none, expected));
    m_log.Take();
    m_manager.reset();
    EXPECT_EQ(m_log.Transcript(" [A] "), "");
}

TEST_F(Manager, SynchronisesTheFirstPlaneOnly) {
    ZYTImageBuffer image = Nv12();
    EXPECT_TRUE(m_manager->StartCPUSync(image, CPU_SYNC_READ));
    EXPECT_TRUE(m_manager->EndCPUSync(image));
    ASSERT_TRUE(m_manager->AllocBuffer(image, ZYT_BUFFER_TYPE_DMABUF));
    m_log.Take();
    const uint64_t before = hostdevice::SyncCount();
    EXPECT_FALSE(m_manager->StartCPUSync(image, CPU_SYNC_WRITE));
    EXPECT_THAT(hostdevice::LastSync(), testing::FieldsAre(image.fd[0], 2, true, 0)) << "false although it was done";
    EXPECT_FALSE(m_manager->EndCPUSync(image));
    EXPECT_EQ(hostdevice::SyncCount(), before + 2);
    EXPECT_TRUE(m_manager->StartCPUSync(image.fd[1], static_cast<CPUSyncType>(9)));
    EXPECT_TRUE(m_manager->EndCPUSync(image.fd[1]));
    hostdevice::FailNth(Fault::kSync, 1);
    EXPECT_FALSE(m_manager->StartCPUSync(image.fd[1], CPU_SYNC_READ));
    EXPECT_TRUE(m_manager->StartCPUSync(image.fd[1], CPU_SYNC_READ));
    hostdevice::FailNth(Fault::kSync, 1);
    EXPECT_FALSE(m_manager->EndCPUSync(image.fd[1]));
    EXPECT_EQ(m_log.Transcript(" [A] "), R"(
I [A] StartCPUSync() Start CPU Sync Buffer, fd: #1, sync type: 2, result: 0
I [A] EndCPUSync() End CPU Sync Buffer, fd: #1, result: 0
I [A] StartCPUSync() Start CPU Sync Buffer, fd: #2, sync type: 9, result: 0
I [A] EndCPUSync() End CPU Sync Buffer, fd: #2, result: 0
I [A] StartCPUSync() Start CPU Sync Buffer, fd: #2, sync type: 1, result: -1
I [A] StartCPUSync() Start CPU Sync Buffer, fd: #2, sync type: 1, result: 0
I [A] EndCPUSync() End CPU Sync Buffer, fd: #2, result: -1)");
    m_manager->FreeBuffer(image);
}

// A log sink may rename the manager during the operation that logs.
TEST_F(Manager, RenamedAtEachLineTagsTheVeryNextOne) {
    std::string name;
    int count = 0, stale = 0;
    ZYTBufferManager& manager = *m_manager;
    const auto rename = [&] { manager.SetManagerName(name = std::string(40, 'x') + std::to_string(++count)); };
    LogCapture log([&](const std::string& line) {
        if (line.find(name + "] ") == std::string::npos) ++stale;
        rename();
    });
    rename();
    ZYTImageBuffer image = Nv12(), unknown = Image(-1, 1, 1, 1, 1);
    manager.AllocBuffer(image, ZYT_BUFFER_TYPE_DMABUF);
    manager.AllocBuffer(unknown, ZYT_BUFFER_TYPE_DMABUF);
    manager.FreeBuffer(image);
    manager.FreeBuffer(image);
    manager.AllocBuffer(4096, &m_pBuf, m_fd, ZYT_BUFFER_TYPE_DMABUF);
    ZYTBufferPool::m_freeBufferList[1].erase(4096);
    m_manager.reset();
    EXPECT_EQ(stale, 0);
    EXPECT_GT(count, 25);
}

TEST_F(Manager, WithANamePassesThroughAnUnnamedOne) {
    EXPECT_ABORT("4294967295 + 1 ", {
        ZYTBufferPool::m_bufferPoolClientNum = 0xfffffffeu;  // room for one more client
        const ZYTBufferManager named("B");
    });
}
