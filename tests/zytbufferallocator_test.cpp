#include "zytbuffermanager/zytbufferallocator.h"

#include <fcntl.h>
#include <hostdevice/hostdevice.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "support.h"

using hostdevice::CountLive;
using hostdevice::Fault;
using testing::FieldsAre;

namespace {

class Allocator : public testing::Test {
protected:
    android::sp<android::GraphicBuffer> AllocGraphic(unsigned int width, unsigned int height) {
        return m_allocator.AllocGraphicBuffer(width, height, HAL_PIXEL_FORMAT_RAW16, 0, &m_pBuf, m_fd);
    }

    ZYTBufferAllocator m_allocator;
    char* m_pBuf = nullptr;
    int m_fd = 77;
};

}  // namespace

TEST_F(Allocator, AllocatesMapsAndReleasesHeapMemory) {
    ASSERT_EQ(m_allocator.AllocDMABuffer(10000, &m_pBuf, m_fd), 0);
    EXPECT_TRUE(hostdevice::LastAllocationWasForCpu());
    char* again = m_allocator.MapFDToBufferPointer(m_fd, 10000);
    m_allocator.StartCPUSync(m_fd, CPU_SYNC_READ_WRITE);
    m_pBuf[9999] = 1;
    again[0] = 2;
    EXPECT_EQ(again[9999], 1);
    EXPECT_EQ(m_pBuf[0], 2);
    m_allocator.EndCPUSync(m_fd);
    munmap(again, 10000);
    EXPECT_EQ(m_allocator.DeallocDMABuffer(10000, m_pBuf, m_fd), 0);
    EXPECT_EQ(CountLive().heapDescriptors + CountLive().heapMappings, 0u);

    hostdevice::FailNth(Fault::kHeapAllocation, 1);
    m_fd = 77;
    EXPECT_EQ(m_allocator.AllocDMABuffer(4096, &m_pBuf, m_fd), -1);
    EXPECT_EQ(m_fd, -1) << "the heap's error";
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
    android::sp<android::GraphicBuffer> buffer = AllocGraphic(600, 10);
    m_allocator.StartCPUSync(m_fd, CPU_SYNC_WRITE);
    std::memset(m_pBuf, 1, 10240);
    m_allocator.EndCPUSync(m_fd);
    m_allocator.DeallocGraphicBuffer(buffer);
    EXPECT_EQ(CountLive().graphicBuffers, 1u) << "one reference of two was dropped";
    buffer.clear();
    EXPECT_EQ(CountLive().graphicBuffers, 0u);
    munmap(m_pBuf, 10240);
    EXPECT_EQ(CountLive().graphicMappings, 0u) << "it is no longer than that";
}

TEST_F(Allocator, ReadsAMissingGraphicDescriptorAsNone) {
    for (const Fault fault : {Fault::kGraphicBuffer, Fault::kGraphicDescriptor}) {
        hostdevice::FailNth(fault, 1);
        m_pBuf = reinterpret_cast<char*>(1);
        EXPECT_NE(AllocGraphic(640, 480).get(), nullptr);
        EXPECT_EQ(m_pBuf, nullptr);
        EXPECT_EQ(m_fd, 0);
    }
    hostdevice::FailNth(Fault::kGraphicDescriptor, 1);  // this buffer gets no memory
    hostdevice::SetStrideAlignment(1u << 16);
    EXPECT_ABORT("stride * height of a graphic buffer: 65536 * 65536 does not fit", AllocGraphic(1u << 16, 1u << 16));
}

TEST_F(Allocator, SynchronisesInTheAskedDirectionAndEndsInRead) {
    ASSERT_EQ(m_allocator.AllocDMABuffer(4096, &m_pBuf, m_fd), 0);
    constexpr int kRead = 1, kWrite = 2, kBoth = 3;  // DMA_BUF_SYNC_READ, WRITE and RW
    const std::pair<int, int> directions[] = {
        {CPU_SYNC_READ, kRead}, {CPU_SYNC_WRITE, kWrite}, {CPU_SYNC_READ_WRITE, kBoth}, {0, kBoth}, {-1, kBoth}};
    for (const auto& [type, direction] : directions) {
        EXPECT_EQ(m_allocator.StartCPUSync(m_fd, static_cast<CPUSyncType>(type)), 0);
        EXPECT_THAT(hostdevice::LastSync(), FieldsAre(m_fd, direction, true, 0));
        EXPECT_EQ(m_allocator.EndCPUSync(m_fd), 0);
        EXPECT_THAT(hostdevice::LastSync(), FieldsAre(m_fd, kRead, false, 0));
    }
    EXPECT_LT(m_allocator.StartCPUSync(0, CPU_SYNC_READ), 0);
    EXPECT_LT(m_allocator.EndCPUSync(0), 0);
    m_allocator.DeallocDMABuffer(4096, m_pBuf, m_fd);
}
