#include "zytbuffermanager/zytbuffermanager.h"

#include <gmock/gmock.h>
#include <hostdevice/hostdevice.h>

#include <algorithm>
#include <cstring>
#include <optional>

#include "logging/zytlogutil.h"
#include "support.h"

using hostdevice::Fault;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using zyttest::Image;
using zyttest::LogCapture;
using zyttest::Text;

namespace {

constexpr const char* kSource = "[NodeA] zytbuffermanager.cpp";
constexpr zyttest::LinesOf InAlloc = {kSource, "AllocBuffer"};
constexpr zyttest::LinesOf InFree = {kSource, "FreeBuffer"};
constexpr zyttest::LinesOf InSize = {kSource, "GetImgBufferSize"};
constexpr zyttest::LinesOf InStart = {kSource, "StartCPUSync"};
constexpr zyttest::LinesOf InEnd = {kSource, "EndCPUSync"};
constexpr zyttest::LinesOf InDestructor = {kSource, "~ZYTBufferManager"};

ZYTImageBuffer Nv12() { return Image(ZYT_FORMAT_YUV420NV12, 1920, 1080, 1920, 1088); }

bool AreSame(const ZYTImageBuffer& a, const ZYTImageBuffer& b) { return std::memcmp(&a, &b, sizeof(a)) == 0; }

class Manager : public testing::Test {
protected:
    Manager() : m_manager(std::in_place, "NodeA") { m_log.Take(); }
    void TearDown() override { hostdevice::ClearFaults(); }

    // The manager's own lines; those of its pool have a test of their own.
    std::vector<std::string> Take() {
        std::vector<std::string> lines = m_log.Take();
        lines.erase(std::remove_if(lines.begin(), lines.end(),
                                   [](const std::string& line) { return line.find("[NodeA]") == std::string::npos; }),
                    lines.end());
        return lines;
    }

    LogCapture m_log;
    std::optional<ZYTBufferManager> m_manager;
    void* m_pBuf = nullptr;
    int m_fd = 77;
};

ZYT_CHILD(StaticManagerAtExit) {
    ZYTLogUtil::m_level = 5;
    static ZYTBufferManager manager("Static");
    void* pBuf = nullptr;
    int fd = 0;
    return manager.AllocBuffer(4096, &pBuf, fd, ZYT_BUFFER_TYPE_DMABUF) ? 0 : 1;
}

}  // namespace

TEST_F(Manager, TakesAndFreesBuffersBySize) {
    EXPECT_TRUE(m_manager->AllocBuffer(4096, &m_pBuf, m_fd, ZYT_BUFFER_TYPE_DMABUF));
    EXPECT_GT(m_fd, 0);
    EXPECT_THAT(Take(), ElementsAre(InAlloc('I', "Alloc buffer success, get buffer from pool: %p", m_pBuf)));
    ZYTBufferManager other("NodeB");
    m_log.Take();
    EXPECT_FALSE(other.FreeBuffer(m_pBuf));
    EXPECT_THAT(m_log.Take(),
                ElementsAre(Text("W [NodeB] zytbuffermanager.cpp FreeBuffer() Free buffer failed, this buffer not "
                                 "alloced by this buffer manager, pBuf: %p, buffer manager name: NodeB",
                                 m_pBuf)));
    EXPECT_TRUE(m_manager->FreeBuffer(m_pBuf));
    EXPECT_THAT(Take(), ElementsAre(InFree('D', "Free buffer: %p", m_pBuf)));
    EXPECT_TRUE(ZYTBufferPool::m_busyBufferList.empty()) << "it is back in the pool";
    EXPECT_FALSE(m_manager->FreeBuffer(m_pBuf));
    EXPECT_FALSE(m_manager->FreeBuffer(nullptr));
    EXPECT_EQ(Take().back(), InFree('W', "Free buffer is NULL!"));
}

TEST_F(Manager, SaysWhyNoBufferCameOfIt) {
    m_pBuf = &m_fd;
    EXPECT_FALSE(m_manager->AllocBuffer(0, &m_pBuf, m_fd, ZYT_BUFFER_TYPE_MALLOC));
    EXPECT_FALSE(m_manager->AllocBuffer(16, nullptr, m_fd, ZYT_BUFFER_TYPE_MALLOC));
    EXPECT_EQ(m_pBuf, &m_fd);
    EXPECT_EQ(m_fd, 77);
    const std::string invalid = InAlloc('D', "Alloc buffer invaild args");
    EXPECT_THAT(Take(), ElementsAre(invalid, invalid));

    const std::string failed = InAlloc('E', "Alloc buffer failed, get buffer from pool is NULL!");
    for (const int type : {2, 3, -1}) {
        m_pBuf = &m_fd;
        m_fd = 77;
        EXPECT_FALSE(m_manager->AllocBuffer(16, &m_pBuf, m_fd, static_cast<ZYTBufferType>(type)));
        EXPECT_EQ(m_pBuf, nullptr);
        EXPECT_EQ(m_fd, 0);
        EXPECT_THAT(m_log.Take(), ElementsAre(failed)) << "the pool is not asked";
    }
    hostdevice::FailNth(Fault::kHeapAllocation, 1);
    EXPECT_FALSE(m_manager->AllocBuffer(16, &m_pBuf, m_fd, ZYT_BUFFER_TYPE_DMABUF));
    EXPECT_THAT(Take(), ElementsAre(failed));
}

TEST_F(Manager, RefusesAnAddressItHoldsAlready) {
    // Two buffers whose mapping failed share the address of the failure.
    for (int i = 0; i < 2; ++i) {
        hostdevice::FailNth(Fault::kMapping, 1);
        EXPECT_EQ(m_manager->AllocBuffer(4096, &m_pBuf, m_fd, ZYT_BUFFER_TYPE_DMABUF), i == 0);
    }
    EXPECT_EQ(m_pBuf, nullptr);
    EXPECT_EQ(m_fd, 0);
    EXPECT_EQ(Take().back(), InAlloc('E', "Get repetitive buffer from buffer pool: %p", static_cast<void*>(nullptr)));
}

TEST_F(Manager, TakesOneBufferAPlane) {
    ZYTImageBuffer image = Nv12();
    image.numberOfPlanes = 4;
    image.pAddr[3] = reinterpret_cast<unsigned char*>(1);
    image.pNativeHandle = this;
    ASSERT_TRUE(m_manager->AllocBuffer(image, ZYT_BUFFER_TYPE_DMABUF));
    EXPECT_EQ(image.numberOfPlanes, 2u);
    EXPECT_EQ(image.pAddr[3], nullptr);
    EXPECT_EQ(image.pNativeHandle, nullptr);
    EXPECT_GT(image.fd[1], image.fd[0]);
    void* const none = nullptr;
    EXPECT_EQ(Take().back(), InAlloc('D',
                                     "Alloc buffer success: type: 1, format: 0, width: 1920, height: 1080, "
                                     "planeStride: 1920, sliceHeight: 1088, numberOfPlanes: 2, Addr0: %p, Addr1: %p, "
                                     "Addr2: %p, Addr3: %p, pNativeHandle: %p, fd0: %d, fd1: %d, fd2: 0, fd3: 0",
                                     static_cast<void*>(image.pAddr[0]), static_cast<void*>(image.pAddr[1]), none, none,
                                     none, image.fd[0], image.fd[1]));
    for (const auto& [plane, size] : {std::pair(0, 2088960), {1, 1044480}}) {
        m_manager->StartCPUSync(image.fd[plane], CPU_SYNC_WRITE);
        std::memset(image.pAddr[plane], 1, static_cast<size_t>(size));
        m_manager->EndCPUSync(image.fd[plane]);
    }
    EXPECT_TRUE(m_manager->FreeBuffer(image));
    Take();

    ZYTImageBuffer raw = Image(ZYT_FORMAT_RAWMIPI10, 100, 10, 128, 10);
    ASSERT_TRUE(m_manager->AllocBuffer(raw, ZYT_BUFFER_TYPE_MALLOC));
    EXPECT_EQ(raw.numberOfPlanes, 1u);
    EXPECT_EQ(raw.fd[0], 0);
    EXPECT_TRUE(m_manager->FreeBuffer(raw));
    Take();
    m_manager.reset();
    EXPECT_THAT(Take(), IsEmpty()) << "nothing was left behind";
}

TEST_F(Manager, TellsThePlanesOfEachFormat) {
    struct Case {
        int format;
        ZYTBufferType type;
        unsigned int capacity;
        unsigned int count;
        std::vector<unsigned int> sizes;
    };
    const Case cases[] = {
        {ZYT_FORMAT_YUV420NV12, ZYT_BUFFER_TYPE_MALLOC, 4, 2, {33, 16, 9, 9}},
        {ZYT_FORMAT_YUV420NV21, ZYT_BUFFER_TYPE_DMABUF, 2, 2, {33, 16, 9, 9}},
        {ZYT_FORMAT_YUV420NV12, ZYT_BUFFER_TYPE_GRALLOC, 1, 1, {33, 16, 9, 9}},
        {ZYT_FORMAT_YUV420NV12, ZYT_BUFFER_TYPE_MALLOC, 1, 0, {0, 9, 9, 9}},
        {ZYT_FORMAT_YUV420NV21, ZYT_BUFFER_TYPE_GRALLOC, 0, 0, {9, 9, 9, 9}},
        {ZYT_FORMAT_RAWMIPI14, ZYT_BUFFER_TYPE_GRALLOC, 1, 1, {33, 9, 9, 9}},
        {ZYT_FORMAT_RAW16, ZYT_BUFFER_TYPE_MALLOC, 0, 0, {9, 9, 9, 9}},
        {ZYT_FORMAT_YUV_P010, ZYT_BUFFER_TYPE_MALLOC, 4, 7, {9, 9, 9, 9}},
        {ZYT_FORMAT_Y16, ZYT_BUFFER_TYPE_MALLOC, 4, 7, {9, 9, 9, 9}},
        {11, ZYT_BUFFER_TYPE_MALLOC, 4, 7, {9, 9, 9, 9}},
        {-1, ZYT_BUFFER_TYPE_MALLOC, 4, 7, {9, 9, 9, 9}},
    };
    for (const Case& c : cases) {
        unsigned int count = 7;
        std::vector<unsigned int> sizes(4, 9);
        const ZYTImageBuffer image = Image(c.format, 10, 3, 11, 3);
        m_manager->GetImgBufferSize(image, count, sizes.data(), c.capacity, c.type);
        EXPECT_EQ(count, c.count) << c.format << " capacity " << c.capacity;
        EXPECT_EQ(sizes, c.sizes) << c.format << " capacity " << c.capacity;
        std::vector<std::string> lines;
        if (c.count == 7) {
            lines = {InSize('D', "Get img buffer size fail, unsupport format: %d", c.format)};
        }
        EXPECT_EQ(Take(), lines);
    }
    const ZYTImageBuffer huge = Image(ZYT_FORMAT_RAW16, 1, 1, 65536, 65536);
    unsigned int count = 0;
    unsigned int sizes[4];
    EXPECT_ABORT(m_manager->GetImgBufferSize(huge, count, sizes, 4, ZYT_BUFFER_TYPE_MALLOC));
}

TEST_F(Manager, LeavesTheRecordOfARefusedImageAlone) {
    for (uint32_t ZYTImageBuffer::*field : {&ZYTImageBuffer::width, &ZYTImageBuffer::height,
                                            &ZYTImageBuffer::planeStride, &ZYTImageBuffer::sliceHeight}) {
        ZYTImageBuffer image = Nv12();
        image.numberOfPlanes = 3;
        image.*field = 0;
        const ZYTImageBuffer before = image;
        EXPECT_FALSE(m_manager->AllocBuffer(image, ZYT_BUFFER_TYPE_MALLOC));
        EXPECT_TRUE(AreSame(image, before));
        EXPECT_THAT(m_log.Take(), ElementsAre(InAlloc('D', "Alloc buffer fail, invalid size args")));
    }
    ZYTImageBuffer p010 = Image(ZYT_FORMAT_YUV_P010, 64, 64, 128, 64);
    p010.numberOfPlanes = 3;
    EXPECT_FALSE(m_manager->AllocBuffer(p010, ZYT_BUFFER_TYPE_MALLOC));
    EXPECT_EQ(p010.numberOfPlanes, 3u);
    EXPECT_THAT(m_log.Take(), ElementsAre(InSize('D', "Get img buffer size fail, unsupport format: 5"),
                                          InAlloc('E', "Alloc buffer fail, get buffer size fail")));

    for (const int type : {3, -1}) {
        ZYTImageBuffer image = Nv12(), emptied = image;
        emptied.numberOfPlanes = 2;
        image.pAddr[0] = reinterpret_cast<unsigned char*>(1);
        image.fd[2] = 5;
        image.pNativeHandle = this;
        EXPECT_FALSE(m_manager->AllocBuffer(image, static_cast<ZYTBufferType>(type)));
        EXPECT_TRUE(AreSame(image, emptied));
        EXPECT_THAT(m_log.Take(), ElementsAre(InAlloc('E', "Alloc buffer fail, unsupport type: %d", type)));
    }
}

TEST_F(Manager, KeepsTheFirstPlaneWhenTheSecondFails) {
    ZYTImageBuffer image = Nv12();
    hostdevice::FailNth(Fault::kHeapAllocation, 2);
    EXPECT_FALSE(m_manager->AllocBuffer(image, ZYT_BUFFER_TYPE_DMABUF));
    EXPECT_EQ(image.numberOfPlanes, 0u);
    const std::string nothing = InFree('W', "Free buffer is NULL!");
    const std::vector<std::string> lines = Take();
    EXPECT_THAT(lines, ElementsAre(testing::_, InAlloc('E', "Alloc buffer failed, get buffer from pool is NULL!"),
                                   InAlloc('E', "Alloc buffer fail, can not alloc new buf: size: 1044480, type: 1"),
                                   nothing, nothing));
    m_manager.reset();
    const std::string address = lines[0].substr(lines[0].rfind(' ') + 1);
    const char* const left = "1 buffer not free when buffer manager destroy, release them forcibly";
    EXPECT_THAT(Take(), ElementsAre(InDestructor('W', "%s", left),
                                    InDestructor('W', "  release buffer forcibly: %s", address.c_str())));
    EXPECT_EQ(hostdevice::CountLive().heapMappings, 0u);
}

TEST_F(Manager, NeverRecordsGrallocImages) {
    ZYTImageBuffer image = Image(ZYT_FORMAT_YUV420NV12, 640, 480, 640, 480);
    image.pAddr[1] = reinterpret_cast<unsigned char*>(1);
    ASSERT_TRUE(m_manager->AllocBuffer(image, ZYT_BUFFER_TYPE_GRALLOC));
    EXPECT_EQ(image.numberOfPlanes, 1u);
    EXPECT_EQ(image.pAddr[1], nullptr);
    EXPECT_GT(image.fd[0], 0);
    EXPECT_EQ(static_cast<native_handle_t*>(image.pNativeHandle)->data[0], image.fd[0]);
    Take();
    EXPECT_TRUE(m_manager->FreeBuffer(image));
    EXPECT_THAT(Take(), ElementsAre(HasSubstr("W [NodeA] zytbuffermanager.cpp FreeBuffer() Free buffer failed, this")));

    hostdevice::FailNth(Fault::kGraphicBuffer, 1);
    ZYTImageBuffer none = Image(ZYT_FORMAT_RAW16, 320, 240, 640, 240);
    EXPECT_TRUE(m_manager->AllocBuffer(none, ZYT_BUFFER_TYPE_GRALLOC)) << "a buffer that cannot be had still succeeds";
    EXPECT_TRUE(none.pAddr[0] == nullptr && none.fd[0] == 0 && none.pNativeHandle == nullptr);
    Take();
    m_manager.reset();
    EXPECT_THAT(Take(), IsEmpty());
}

TEST_F(Manager, EndsTheProcessOnAFifthPlane) {
    ZYTImageBuffer image{};
    image.numberOfPlanes = 4;
    EXPECT_TRUE(m_manager->FreeBuffer(image));
    EXPECT_EQ(Take().size(), 4u);
    image.numberOfPlanes = 5;
    EXPECT_ABORT(m_manager->FreeBuffer(image));
}

TEST_F(Manager, SynchronisesTheFirstPlaneOnly) {
    ZYTImageBuffer image = Nv12();
    EXPECT_TRUE(m_manager->StartCPUSync(image, CPU_SYNC_READ));
    EXPECT_TRUE(m_manager->EndCPUSync(image));
    ASSERT_TRUE(m_manager->AllocBuffer(image, ZYT_BUFFER_TYPE_DMABUF));
    Take();
    const uint64_t before = hostdevice::SyncCount();
    EXPECT_FALSE(m_manager->StartCPUSync(image, CPU_SYNC_WRITE));
    EXPECT_EQ(hostdevice::LastSync().fd, image.fd[0]);
    EXPECT_EQ(hostdevice::LastSync().result, 0) << "false although it was done";
    EXPECT_FALSE(m_manager->EndCPUSync(image));
    EXPECT_EQ(hostdevice::SyncCount(), before + 2);
    EXPECT_THAT(Take(), ElementsAre(InStart('I', "Start CPU Sync Buffer, fd: %d, sync type: 2, result: 0", image.fd[0]),
                                    InEnd('I', "End CPU Sync Buffer, fd: %d, result: 0", image.fd[0])));
    EXPECT_TRUE(m_manager->StartCPUSync(image.fd[1], static_cast<CPUSyncType>(9)));
    EXPECT_TRUE(m_manager->EndCPUSync(image.fd[1]));
    EXPECT_TRUE(m_manager->StartCPUSync(image.fd[1], CPU_SYNC_READ));
    hostdevice::FailNth(Fault::kSync, 1);
    EXPECT_FALSE(m_manager->EndCPUSync(image.fd[1]));
    hostdevice::FailNth(Fault::kSync, 1);
    EXPECT_FALSE(m_manager->StartCPUSync(image.fd[1], CPU_SYNC_READ));
    EXPECT_THAT(Take(), Contains(HasSubstr("sync type: 9")));
    m_manager->FreeBuffer(image);
}

TEST_F(Manager, TagsItsLinesAndItsPoolsWithItsName) {
    m_manager->SetManagerName("Renamed");
    m_manager->AllocBuffer(64, &m_pBuf, m_fd, ZYT_BUFFER_TYPE_MALLOC);
    m_manager->FreeBuffer(m_pBuf);
    for (const std::string& line : m_log.Take()) {
        EXPECT_TRUE(line.find("[Renamed] ") == 2 || line.find("[BufferPool-Renamed] ") == 2) << line;
    }
    ZYTBufferManager unnamed;
    unnamed.FreeBuffer(nullptr);
    EXPECT_THAT(m_log.Take(), ElementsAre(HasSubstr("W [UnknowBufferManager] ")));
}

TEST(ManagerAtExit, ReturnsWhatAStaticManagerHolds) {
    const zyttest::ChildResult child = zyttest::RunChild("StaticManagerAtExit");
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_THAT(child.output, HasSubstr("1 buffer not free when buffer manager destroy, release them forcibly"));
    EXPECT_THAT(child.output, HasSubstr("Buffer released: pBuf: "));
    EXPECT_THAT(child.output, Not(HasSubstr("busy buffer")));
}
