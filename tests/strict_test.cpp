// Strict mode of the emulated device. Each case runs in a forked process.
#include <BufferAllocator/BufferAllocator.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <ui/GraphicBuffer.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <thread>
#include <utility>

#include "hostdevice/hostdevice.h"
#include "support.h"

namespace {

std::function<void()> g_beforeProtection;

}  // namespace

// In the place of the C library's, for the device's library too.
extern "C" int mprotect(void* start, size_t size, int protection) noexcept {
    if (const auto before = std::exchange(g_beforeProtection, nullptr)) before();
    return static_cast<int>(syscall(SYS_mprotect, start, size, protection));
}

namespace {

using android::GraphicBuffer;
using zyttest::Call;

constexpr size_t kPage = 4096;
constexpr size_t kSize = 5000;  // the second page has a tail

// Heap memory in strict mode, with two descriptors, a mapping for writing and one for reading only.
struct Heap {
    Heap() {
        hostdevice::SetStrict(true, true);
        fd = allocator.AllocSystem(true, kSize);
        copy = dup(fd);
        readOnly = Map(kSize, PROT_READ).pixels;
        Map(kSize);
    }
    Heap& Start(SyncType type) { return allocator.CpuSyncStart(static_cast<unsigned>(copy), type), *this; }
    Heap& End() { return allocator.CpuSyncEnd(static_cast<unsigned>(fd)), *this; }
    Heap& Read(size_t at = 0) { return Touch(pixels[at]), *this; }
    Heap& ReadOther(size_t at = 0) { return Touch(readOnly[at]), *this; }
    Heap& Write(size_t at = 0) { return pixels[at] = 1, *this; }
    Heap& Fill(size_t size) { return std::memset(const_cast<char*>(pixels), 7, size), *this; }
    // The functions above go to the new mapping from now on.
    Heap& Map(size_t size, int protection = PROT_READ | PROT_WRITE, off_t offset = 0) {
        pixels = static_cast<char*>(mmap(nullptr, size, protection, MAP_SHARED, fd, offset));
        return *this;
    }
    Heap& Unmap(volatile char* at, size_t size) { return munmap(const_cast<char*>(at), size), *this; }
    Heap& Close(int& descriptor) { return close(std::exchange(descriptor, -1)), *this; }
    Heap& FailSync() { return hostdevice::FailNth(hostdevice::Fault::kSync, 1), *this; }
    Heap& OpenNoMore() {
        const rlimit none = {};
        return setrlimit(RLIMIT_NOFILE, &none), *this;
    }
    static void Touch(char pixel) { asm volatile("" : : "r"(pixel)); }

    BufferAllocator allocator;
    int fd, copy;
    volatile char *pixels, *readOnly;
};

using Steps = void (*)(Heap& heap);

// Expects that a process that takes the steps in strict mode says that and exits with that status.
void ExpectExit(int status, const std::string& said, Steps steps) {
    zyttest::ExpectExit(status, said, [steps] {
        Heap heap;
        steps(heap);
    });
}

TEST(StrictDeathTest, EndsTheProcessAtTheMistake) {
    const std::pair<Steps, const char*> kCases[] = {
        {[](Heap& heap) { heap.Read(4097); },
         "read at offset 4097 of descriptor [0-9]+ \\(5000 bytes\\): no access was ever opened; thread [0-9]+ "},
        {[](Heap& heap) { heap.Start(kSyncRead).Start(kSyncRead).Read().Write(); }, "write at .* 2 open for reading;"},
        {[](Heap& heap) { heap.Start(kSyncWrite).Write().ReadOther().End().ReadOther(1); },
         "read at offset 1 of .* the last access to it was closed"},
        {[](Heap& heap) { heap.Start(kSyncWrite).End().Start(kSyncRead).Write(); }, "write at .* 1 open for reading"},
        {[](Heap& heap) { heap.Map(904, PROT_READ, kPage).Read(7); }, "read at offset 4103 of .* no access"},
        {[](Heap& heap) { heap.Start(kSyncRead).Map(kSize).Read().Write(); }, "write at .* 1 open for reading"},
        {[](Heap& heap) { heap.Start(kSyncWrite).Map(kSize, PROT_READ).Write(); }, "write at .* 1 open for writing"},
        {[](Heap& heap) { heap.Start(kSyncRead).ReadOther(2 * kPage + 9); },
         "read at offset 8201, behind the end of a mapping, of descriptor .* 1 open for reading"},
        {[](Heap& heap) { heap.Start(kSyncWrite).Map(kPage).Write(kPage); }, "write at offset 4096, behind"},
        {[](Heap& heap) { heap.Start(kSyncWrite).Fill(kSize + 3).Start(kSyncRead).End().End(); },
         "3 bytes written behind the 5000 of descriptor [0-9]+; thread"},
        {[](Heap&) {
             void* pixels = nullptr;
             const android::sp<GraphicBuffer> graphic = new GraphicBuffer(10, 40, HAL_PIXEL_FORMAT_RAW16, 1, 0);
             graphic->lock(0x33, &pixels);
             std::memset(pixels, 7, 64 * (64 + 32) + 2);  // rows of 64 bytes, the luma's padded to 64
             graphic->unlock();
         },
         "2 bytes written behind the 6144 of descriptor"},
        {[](Heap& heap) { heap.Start(kSyncRead).End().End(); }, "end of an access that was not opened, to .* closed"},
        {[](Heap& heap) {
             heap.Start(kSyncWrite).Unmap(heap.pixels, kSize).Unmap(heap.readOnly, kSize);
             heap.Close(heap.fd).Close(heap.copy);
         },
         "release of .* 1 open for writing"},
        {[](Heap& heap) { heap.Start(kSyncRead).Start(kSyncWrite).Close(heap.fd).Close(heap.copy).Write(); },
         "exit with an access to .* 2 open for reading and"},
        {[](Heap& heap) { heap.FailSync().Start(kSyncRead).Start(kSyncRead).FailSync().End().Read(); },
         "read at .* the last access to it was closed"},
        {[](Heap& heap) { heap.OpenNoMore().Start(kSyncWrite).Write(); },
         "cannot read /proc/self/maps to protect descriptor"}};
    for (const auto& [steps, said] : kCases) ExpectExit(-1, std::string("^hostdevice: ") + said, steps);
}

TEST(StrictDeathTest, LeavesCorrectAccessesAlone) {
    ExpectExit(0, "^$", [](Heap& heap) {
        heap.Start(kSyncRead).Start(kSyncWrite).End().Fill(kSize).End().Start(kSyncRead).ReadOther().End();
        FailNth(Call::kNew, 1);
        heap.Start(kSyncRead).End();
        EXPECT_TRUE(FaultPending(Call::kNew)) << "a known buffer costs no memory";
        FailNth(Call::kNew, 0);
        // Released part by part, and the last descriptor ends the access.
        heap.Start(kSyncWrite).Close(heap.fd).Unmap(heap.readOnly, kSize).Unmap(heap.pixels, kPage);
        heap.Write(kPage).Unmap(heap.pixels + kPage, kPage);
        heap.fd = heap.copy;
        heap.End();
        hostdevice::FailNth(hostdevice::Fault::kMapping, 1);
        heap.fd = heap.copy = heap.allocator.AllocSystem(true, kSize);
        heap.Map(kSize, PROT_READ);
        if (heap.pixels != MAP_FAILED) heap.Start(kSyncReadWrite).Read().End();  // older kernels map no sealed memory
    });
}

TEST(StrictDeathTest, KeepsErrnoAndTakesTheGuardPageAlong) {
    ExpectExit(0, "^$", [](Heap& heap) {
        char* const behind = const_cast<char*>(heap.pixels) + 2 * kPage;
        EXPECT_EQ(msync(behind, kPage, MS_ASYNC), 0) << "mapped";
        heap.Start(kSyncWrite).Unmap(heap.pixels, kSize);
        EXPECT_EQ(msync(behind, kPage, MS_ASYNC), -1) << "not mapped";
        heap.OpenNoMore();
        EXPECT_EQ(munmap(behind + 1, kPage), -1);
        EXPECT_EQ(errno, EINVAL) << "not what the list of mappings failed with";
        std::_Exit(testing::Test::HasFailure() ? 1 : 0);
    });
}

TEST(StrictDeathTest, ForgetsTheGuardPageWithTheMapping) {
    ExpectExit(0, "^$", [](Heap& heap) {
        for (const bool isUnmapped : {true, false}) {
            void* const place = const_cast<char*>(heap.Map(kSize).pixels);
            constexpr int kFlags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED;
            if (isUnmapped) {
                heap.Unmap(heap.pixels, kSize);
                syscall(SYS_mmap, place, 3 * kPage, PROT_READ | PROT_WRITE, kFlags, -1, 0L);
            } else {
                mmap(place, 3 * kPage, PROT_READ | PROT_WRITE, kFlags, -1, 0);
            }
            heap.Unmap(heap.pixels, 2 * kPage).Write(2 * kPage);
        }
    });
}

TEST(StrictDeathTest, AForkedChildInheritsAccesses) {
    ExpectExit(0, "^hostdevice: exit with an access to [^\n]*\n$", [](Heap& heap) {
        int status = 0;
        heap.Start(kSyncWrite);
        if (fork() == 0) heap.Write(), std::exit(0);
        EXPECT_GT(wait(&status), 0);
        EXPECT_EQ(status, 0);
        if (fork() == 0) heap.End().Start(kSyncRead), std::exit(0);
        EXPECT_GT(wait(&status), 0);
        EXPECT_EQ(WEXITSTATUS(status), 1) << "the child's own access";
        heap.End();
    });
}

volatile int g_faults = 0;

TEST(StrictDeathTest, PassesOtherFaultsToThePreviousHandler) {
    if (hostdevice::IsStrict()) GTEST_SKIP() << "the previous handler was there before this test";
    struct sigaction action {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = [](int, siginfo_t* info, void*) {
        g_faults = g_faults + 1;
        errno = 5;
        if (info->si_code > 0) mprotect(info->si_addr, kPage, PROT_READ | PROT_WRITE);  // repeats the instruction
    };
    sigaction(SIGSEGV, &action, nullptr);
    ExpectExit(0, "^hostdevice: read at offset 0 of [^\n]*\n$", [](Heap& heap) {
        errno = 77;
        raise(SIGSEGV);
        EXPECT_EQ(errno, 77);
        heap.pixels = static_cast<char*>(mmap(nullptr, kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        heap.Write();
        EXPECT_EQ(g_faults, 2);
        heap.ReadOther();  // reported, then handled too
        EXPECT_EQ(g_faults, 3);
    });
    signal(SIGSEGV, SIG_DFL);
    ExpectExit(-1, "^$", [](Heap&) { raise(SIGSEGV); });
}

TEST(StrictDeathTest, LetsAHandlerOfSigabrtUseTheDevice) {
    ExpectExit(3, "^hostdevice: end of an access that was not opened", [](Heap& heap) {
        static Heap* const inHandler = &heap;
        signal(SIGABRT, [](int) { inHandler->Start(kSyncRead).Read(), _exit(3); });
        heap.Start(kSyncRead).End().End();
    });
}

// A start that has read the list of mappings must not protect what takes the place of one of them meanwhile.
TEST(StrictDeathTest, UnmapsNothingWhileAStartProtectsMemory) {
    ExpectExit(0, "^$", [](Heap& heap) {
        std::thread unmapper;
        g_beforeProtection = [&] {
            unmapper = std::thread([&] { heap.Unmap(heap.readOnly, kSize); });
            usleep(50000);
            EXPECT_EQ(msync(const_cast<char*>(heap.readOnly), kSize, MS_ASYNC), 0) << "still mapped";
        };
        heap.Start(kSyncRead);
        unmapper.join();
        heap.End();
    });
}

TEST(StrictDeathTest, RefusesLongMappingsAndHasThePhonesStack) {
    ExpectExit(0, "^$", [](Heap& heap) {
        EXPECT_EQ(heap.Map(2 * kPage + 1).pixels, MAP_FAILED);
        EXPECT_EQ(heap.Map(kPage + 1, PROT_READ, kPage).pixels, MAP_FAILED);
        pthread_attr_t attributes;
        size_t stack = 0;
        pthread_getattr_default_np(&attributes);
        pthread_attr_getstacksize(&attributes, &stack);
        EXPECT_THAT(stack, testing::AnyOf(1015808u, 4 * 1015808u)) << "the larger under a sanitizer";
    });
}

ZYT_CHILD(TouchesMemory) {
    const int fd = BufferAllocator().AllocSystem(true, kPage);
    *static_cast<volatile char*>(mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0)) = 1;
    return 0;
}

TEST(StrictDeathTest, IsTurnedOnByTheEnvironment) {
    const std::pair<const char*, const char*> kCases[] = {
        {"1", "hostdevice: strict mode\nhostdevice: write at"}, {"quiet", "hostdevice: write at"}, {"0", ""}, {"", ""}};
    for (const auto& [setting, said] : kCases) {
        setenv("HOSTDEVICE_STRICT", setting, 1);
        const zyttest::ChildResult child = zyttest::RunChild("TouchesMemory");
        EXPECT_EQ(child.exitCode == 0, *said == '\0') << setting;
        EXPECT_THAT(child.output, testing::StartsWith(said)) << setting;
    }
}

}  // namespace
