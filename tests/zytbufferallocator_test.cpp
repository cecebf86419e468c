#include "zytbuffermanager/zytbufferallocator.h"

#include <fcntl.h>
#include <hostdevice/hostdevice.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "support.h"

using hostdevice::Fault;

namespace {

constexpr int kFormat = 34;  // implementation-defined
constexpr unsigned int kUsage = 0x201ff;

class Allocator : public testing::Test {
protected:
    void TearDown() override { hostdevice::ClearFaults(); }

    ZYTBufferAllocator m_allocator;
    char* m_pBuf = nullptr;
    int m_fd = 77;
};

}  // namespace

TEST_F(Allocator, AllocatesMapsAndReleasesHeapMemory) {
    ASSERT_EQ(m_allocator.AllocDMABuffer(10000, &m_pBuf, m_fd), 0);
    EXPECT_TRUE(hostdevice::LastAllocationWasForCpu());
    ASSERT_GT(m_fd, 0);
    char* again = m_allocator.MapFDToBufferPointer(m_fd, 10000);
    m_allocator.StartCPUSync(m_fd, CPU_SYNC_READ_WRITE);
    std::memset(m_pBuf, 0x5a, 10000);
    EXPECT_EQ(std::memcmp(again, m_pBuf, 10000), 0) << "both map the same memory";
    *again = 1;
    EXPECT_EQ(*m_pBuf, 1);
    m_allocator.EndCPUSync(m_fd);
    munmap(again, 10000);
    EXPECT_EQ(m_allocator.DeallocDMABuffer(10000, m_pBuf, m_fd), 0);
    EXPECT_EQ(m_fd, -1);
    EXPECT_EQ(hostdevice::CountLive().heapDescriptors, 0u);
    EXPECT_EQ(hostdevice::CountLive().heapMappings, 0u);
}

TEST_F(Allocator, LeavesTheHeapsErrorInTheDescriptorButPassesAFailedMappingOnAsSuccess) {
    hostdevice::FailNth(Fault::kHeapAllocation, 1);
    EXPECT_EQ(m_allocator.AllocDMABuffer(4096, &m_pBuf, m_fd), -1);
    EXPECT_EQ(m_fd, -1);
    EXPECT_EQ(m_pBuf, nullptr);
    hostdevice::FailNth(Fault::kMapping, 1);
    EXPECT_EQ(m_allocator.AllocDMABuffer(4096, &m_pBuf, m_fd), 0);
    EXPECT_EQ(m_pBuf, MAP_FAILED);
    EXPECT_EQ(m_allocator.DeallocDMABuffer(4096, m_pBuf, m_fd), 0);
    EXPECT_EQ(hostdevice::CountLive().heapDescriptors, 0u);
}

TEST_F(Allocator, ReleasesWhatItIsGiven) {
    for (const int number : {0, dup(STDERR_FILENO)}) {
        ASSERT_EQ(dup2(STDERR_FILENO, number), number);
        int fd = number;
        EXPECT_EQ(m_allocator.DeallocDMABuffer(4096, nullptr, fd), 0);
        EXPECT_EQ(fd, -1);
        EXPECT_EQ(fcntl(number, F_GETFD), -1);
    }
    dup2(STDERR_FILENO, 0);
    int fd = -7;
    void* mapping = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_EQ(m_allocator.DeallocDMABuffer(4096, static_cast<char*>(mapping), fd), -7);
    EXPECT_EQ(msync(mapping, 4096, MS_ASYNC), -1) << "unmapped all the same";
    EXPECT_EQ(m_allocator.MapFDToBufferPointer(fd, 4096), MAP_FAILED) << "only 0 is no descriptor";
}

TEST_F(Allocator, MapsTheStrideOfAGraphicBuffer) {
    hostdevice::SetStrideAlignment(1024);
    android::sp<android::GraphicBuffer> buffer =
        m_allocator.AllocGraphicBuffer(600, 10, kFormat, kUsage, &m_pBuf, m_fd);
    EXPECT_EQ(buffer->getStride(), 1024u);
    EXPECT_EQ(buffer->getPixelFormat(), kFormat);
    EXPECT_EQ(buffer->getUsage(), kUsage);
    EXPECT_EQ(m_fd, buffer->getNativeBuffer()->handle->data[0]);
    m_allocator.StartCPUSync(m_fd, CPU_SYNC_WRITE);
    std::memset(m_pBuf, 1, 10240);
    m_allocator.EndCPUSync(m_fd);

    m_allocator.DeallocGraphicBuffer(buffer);
    EXPECT_EQ(hostdevice::CountLive().graphicBuffers, 1u) << "one reference of two was dropped";
    buffer.clear();
    EXPECT_EQ(hostdevice::CountLive().graphicBuffers, 0u);
    EXPECT_EQ(hostdevice::CountLive().graphicMappings, 1u) << "the mapping outlives the buffer";
    munmap(m_pBuf, 10240);
    EXPECT_EQ(hostdevice::CountLive().graphicMappings, 0u) << "it is no longer than that";
}

TEST_F(Allocator, ReadsAMissingGraphicDescriptorAsNone) {
    for (const Fault fault : {Fault::kGraphicBuffer, Fault::kGraphicDescriptor}) {
        hostdevice::FailNth(fault, 1);
        m_pBuf = reinterpret_cast<char*>(1);
        EXPECT_NE(m_allocator.AllocGraphicBuffer(640, 480, kFormat, 0, &m_pBuf, m_fd).get(), nullptr);
        EXPECT_EQ(m_pBuf, nullptr);
        EXPECT_EQ(m_fd, 0);
    }
    hostdevice::FailNth(Fault::kMapping, 1);
    m_allocator.AllocGraphicBuffer(640, 480, kFormat, 0, &m_pBuf, m_fd);
    EXPECT_EQ(m_pBuf, MAP_FAILED);

    hostdevice::FailNth(Fault::kGraphicDescriptor, 1);  // this buffer gets no memory
    hostdevice::SetStrideAlignment(1u << 16);
    EXPECT_ABORT("stride * height of a graphic buffer: 65536 * 65536 does not fit",
                 m_allocator.AllocGraphicBuffer(1u << 16, 1u << 16, kFormat, 0, &m_pBuf, m_fd));
}

TEST_F(Allocator, SynchronisesInTheAskedDirectionAndEndsInRead) {
    ASSERT_EQ(m_allocator.AllocDMABuffer(4096, &m_pBuf, m_fd), 0);
    constexpr int kRead = 1, kWrite = 2, kBoth = 3;  // DMA_BUF_SYNC_READ, WRITE and RW
    const std::pair<int, int> directions[] = {
        {CPU_SYNC_READ, kRead}, {CPU_SYNC_WRITE, kWrite}, {CPU_SYNC_READ_WRITE, kBoth}, {0, kBoth}, {-1, kBoth}};
    for (const auto& [type, direction] : directions) {
        EXPECT_EQ(m_allocator.StartCPUSync(m_fd, static_cast<CPUSyncType>(type)), 0);
        EXPECT_TRUE(hostdevice::LastSync().isStart);
        EXPECT_EQ(hostdevice::LastSync().direction, direction) << type;
        EXPECT_EQ(m_allocator.EndCPUSync(m_fd), 0);
        EXPECT_FALSE(hostdevice::LastSync().isStart);
        EXPECT_EQ(hostdevice::LastSync().direction, kRead) << type;
    }
    hostdevice::FailNth(Fault::kSync, 1);
    EXPECT_EQ(m_allocator.StartCPUSync(m_fd, CPU_SYNC_READ), -1);
    EXPECT_LT(m_allocator.StartCPUSync(0, CPU_SYNC_READ), 0);
    EXPECT_LT(m_allocator.EndCPUSync(0), 0);
    m_allocator.DeallocDMABuffer(4096, m_pBuf, m_fd);
}
