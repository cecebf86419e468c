#include "zytbuffermanager/zytbufferallocator.h"

#include <fcntl.h>
#include <hostdevice/hostdevice.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "support.h"

using hostdevice::Fault;

namespace {

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
    ASSERT_GT(m_fd, 0);
    char* again = m_allocator.MapFDToBufferPointer(m_fd, 10000);
    m_allocator.StartCPUSync(m_fd, CPU_SYNC_WRITE);
    std::memset(m_pBuf, 0x5a, 10000);
    EXPECT_EQ(std::memcmp(again, m_pBuf, 10000), 0) << "both map the same memory";
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
    int fd = dup(STDERR_FILENO);
    const int number = fd;
    EXPECT_EQ(m_allocator.DeallocDMABuffer(4096, nullptr, fd), 0);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(fcntl(number, F_GETFD), -1);

    fd = -7;
    EXPECT_EQ(m_allocator.DeallocDMABuffer(4096, nullptr, fd), -7);
    void* mapping = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_EQ(m_allocator.DeallocDMABuffer(4096, static_cast<char*>(mapping), fd), -7);
    EXPECT_EQ(msync(mapping, 4096, MS_ASYNC), -1) << "unmapped all the same";
    EXPECT_EQ(m_allocator.MapFDToBufferPointer(fd, 4096), MAP_FAILED) << "only 0 is no descriptor";
}

TEST_F(Allocator, MapsTheStrideOfAGraphicBuffer) {
    hostdevice::SetStrideAlignment(1024);
    android::sp<android::GraphicBuffer> buffer = m_allocator.AllocGraphicBuffer(600, 10, 34, 0x201ff, &m_pBuf, m_fd);
    EXPECT_EQ(buffer->getStride(), 1024u);
    EXPECT_EQ(buffer->getPixelFormat(), 34);
    EXPECT_EQ(buffer->getUsage(), 0x201ffu);
    EXPECT_EQ(m_fd, buffer->getNativeBuffer()->handle->data[0]);
    m_allocator.StartCPUSync(m_fd, CPU_SYNC_WRITE);
    std::memset(m_pBuf, 1, 10240);
    m_allocator.EndCPUSync(m_fd);

    m_allocator.DeallocGraphicBuffer(buffer);
    EXPECT_EQ(hostdevice::CountLive().graphicBuffers, 1u) << "one reference of two was dropped";
    EXPECT_EQ(hostdevice::CountLive().graphicDescriptors, 1u);
    buffer.clear();
    EXPECT_EQ(hostdevice::CountLive().graphicBuffers, 0u);
    EXPECT_EQ(hostdevice::CountLive().graphicMappings, 1u) << "the mapping outlives the buffer";
    munmap(m_pBuf, 10240);
}

TEST_F(Allocator, ReadsAMissingGraphicDescriptorAsNone) {
    for (const Fault fault : {Fault::kGraphicBuffer, Fault::kGraphicDescriptor}) {
        hostdevice::FailNth(fault, 1);
        m_pBuf = reinterpret_cast<char*>(1);
        EXPECT_NE(m_allocator.AllocGraphicBuffer(640, 480, 34, 0, &m_pBuf, m_fd).get(), nullptr);
        EXPECT_EQ(m_pBuf, nullptr);
        EXPECT_EQ(m_fd, 0);
    }
    hostdevice::FailNth(Fault::kMapping, 1);
    m_allocator.AllocGraphicBuffer(640, 480, 34, 0, &m_pBuf, m_fd);
    EXPECT_EQ(m_pBuf, MAP_FAILED);

    hostdevice::FailNth(Fault::kGraphicDescriptor, 1);  // no memory is wanted for this one
    hostdevice::SetStrideAlignment(1u << 16);
    EXPECT_ABORT(m_allocator.AllocGraphicBuffer(1u << 16, 1u << 16, 34, 0, &m_pBuf, m_fd)) << "its length overflows";
}

TEST_F(Allocator, SynchronisesInTheAskedDirectionAndEndsInRead) {
    ASSERT_EQ(m_allocator.AllocDMABuffer(4096, &m_pBuf, m_fd), 0);
    const std::pair<int, int> cases[] = {{1, 1}, {2, 2}, {3, 3}, {0, 3}, {7, 3}, {-1, 3}};
    for (const auto& [type, direction] : cases) {
        EXPECT_EQ(m_allocator.StartCPUSync(m_fd, static_cast<CPUSyncType>(type)), 0);
        EXPECT_EQ(hostdevice::LastSync().direction, direction) << type;
        EXPECT_TRUE(hostdevice::LastSync().isStart);
        EXPECT_EQ(m_allocator.EndCPUSync(m_fd), 0);
        EXPECT_EQ(hostdevice::LastSync().direction, 1) << type;
        EXPECT_FALSE(hostdevice::LastSync().isStart);
    }
    hostdevice::FailNth(Fault::kSync, 1);
    EXPECT_EQ(m_allocator.StartCPUSync(m_fd, CPU_SYNC_READ), -1);
    EXPECT_LT(m_allocator.StartCPUSync(0, CPU_SYNC_READ), 0);
    EXPECT_LT(m_allocator.EndCPUSync(0), 0);
    m_allocator.DeallocDMABuffer(4096, m_pBuf, m_fd);
}
