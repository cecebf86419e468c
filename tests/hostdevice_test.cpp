#include "hostdevice/hostdevice.h"

#include <BufferAllocator/BufferAllocator.h>
#include <android/log.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <hostdevice/files.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <ui/GraphicBuffer.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <thread>
#include <utility>

#include "support.h"

namespace {

using android::GraphicBuffer;
using android::sp;
using hostdevice::Fault;

constexpr int kImplementationDefined = 34;
constexpr uint64_t kUsage = 0x201ff;

sp<GraphicBuffer> MakeGraphicBuffer(uint32_t width, uint32_t height) {
    return new GraphicBuffer(width, height, kImplementationDefined, 1, kUsage);
}

void* MapShared(int fd, size_t size) { return mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0); }

std::string GetProperty(const char* key, const char* defaultValue) {
    char value[PROPERTY_VALUE_MAX];
    std::memset(value, 'x', sizeof value);
    const int length = property_get(key, value, defaultValue);
    EXPECT_EQ(std::strlen(value), static_cast<size_t>(length));
    return value;
}

class HostDeviceTest : public testing::Test {
protected:
    ~HostDeviceTest() override {
        hostdevice::ClearFaults();
        hostdevice::SetStrideAlignment(64);
        hostdevice::SetLogSink({});
    }

    BufferAllocator m_allocator;
};

TEST_F(HostDeviceTest, IntegerPropertiesFollowCPrefixRules) {
    const auto read = [](const std::vector<const char*>& values) {
        std::vector<int32_t> numbers;
        for (const char* value : values) {
            hostdevice::SetProperty("test.int", value);
            errno = 0;
            numbers.push_back(property_get_int32("test.int", 77));
            EXPECT_EQ(errno, 0) << value;
        }
        return numbers;
    };
    EXPECT_EQ(read({"3", "-2", "+5", "  4", "3abc", "0x10", "010", "2147483647", "-2147483648"}),
              (std::vector<int32_t>{3, -2, 5, 4, 3, 16, 8, INT32_MAX, INT32_MIN}));
    EXPECT_EQ(read({"2147483648", "-2147483649", "99999999999999999999", "abc", "-", ""}), std::vector<int32_t>(6, 77));
    EXPECT_EQ(property_get_int32("test.unset", -1), -1);
    EXPECT_EQ(property_get_int32(nullptr, 8), 8);
}

TEST_F(HostDeviceTest, PropertyValuesAreCutAndDefaulted) {
    const std::string longest(91, 'v');
    hostdevice::SetProperty("test.long", longest + "w");
    EXPECT_EQ(GetProperty("test.long", ""), longest);
    EXPECT_EQ(GetProperty("test.unset", (longest + "w").c_str()), longest);
    EXPECT_EQ(GetProperty("test.unset", nullptr), "");
    hostdevice::SetProperty("test.empty", "");
    EXPECT_EQ(GetProperty("test.empty", "default"), "default");

    EXPECT_EQ(property_set("test.set", longest.c_str()), 0);
    EXPECT_EQ(property_set("test.set", (longest + "w").c_str()), -1);
    EXPECT_EQ(GetProperty("test.set", ""), longest);
    EXPECT_EQ(property_set("test.set", nullptr), 0);
    EXPECT_EQ(GetProperty("test.set", "default"), "default");
    EXPECT_EQ(property_set("", "value"), -1);

    hostdevice::SetProperty("test.cleared", "value");
    hostdevice::ClearProperty("test.cleared");
    EXPECT_EQ(GetProperty("test.cleared", "default"), "default");
}

TEST_F(HostDeviceTest, PropertyFileIsReadBeforeTheFirstProperty) {
    const zyttest::TempDir dir;
    zyttest::WriteFile(
        dir / "prop",
        "# comment = 1\n\n  test.spaced \t=  a = b \r\ntest.kept=file\nnonsense\ntest.overridden=1\ntest.last=end");
    setenv("HOSTDEVICE_PROPERTIES", (dir / "prop").c_str(), 1);
    const auto check = [] {
        hostdevice::SetProperty("test.overridden", "2");
        const bool isRight = GetProperty("test.spaced", "") == "a = b" && GetProperty("test.kept", "") == "file" &&
                             GetProperty("# comment", "unset") == "unset" &&
                             property_get_int32("test.overridden", 0) == 2 && GetProperty("test.last", "") == "end";
        _exit(isRight ? 0 : 1);
    };
    EXPECT_EXIT(check(), testing::ExitedWithCode(0), "^hostdevice: [^\n]*:5: [^\n]*\n$");
    for (const char* unreadable : {"/nonexistent/properties", "/"}) {
        setenv("HOSTDEVICE_PROPERTIES", unreadable, 1);
        EXPECT_EXIT(_exit(property_get_int32("test.kept", 3)), testing::ExitedWithCode(3),
                    "^hostdevice: cannot read [^\n]*\n$");
    }
    unsetenv("HOSTDEVICE_PROPERTIES");
}

TEST_F(HostDeviceTest, FilesLieInAFolderOfTheUsers) {
    const zyttest::TempDir dir;
    const std::string log = "data/vendor/camera/offlinelog/";
    const std::string longest(210 - (dir / "/" + log).size(), 'x');
    zyttest::WriteFile(dir / "file", "");
    const struct {
        std::string data, state, home, expected, said;
    } kCases[] = {{dir / "a", dir / "b", dir / "c", dir / "a/" + log, ""},
                  {"/", "", "", "/" + log, ""},
                  {"", dir / "b", dir / "c", dir / "b/zyttools/" + log, ""},
                  {"", "relative", dir / "c", dir / "c/.local/state/zyttools/" + log, ""},
                  {"", "", "", "/dev/null/", "hostdevice: no offline log: neither [^\n]*\n"},
                  {dir / "file", "", "", "/dev/null/", "hostdevice: no offline log: [^\n]*Not a directory\n"},
                  {dir / longest, "", "", dir / longest + "/" + log, ""},
                  {dir / longest + "x", "", "", "/dev/null/", "hostdevice: no offline log: [^\n]*no room[^\n]*\n"}};
    for (const auto& c : kCases) {
        if (c.data == "/" && access("/data/vendor/camera", W_OK) != 0) continue;  // only on a device of its own
        const auto ask = [&c] {
            setenv("HOSTDEVICE_DATA", c.data.c_str(), 1);
            setenv("XDG_STATE_HOME", c.state.c_str(), 1);
            setenv("HOME", c.home.c_str(), 1);
            const std::string path = hostdevice::OfflineLogDir();
            const bool isUsable = c.said.empty() == (access(path.c_str(), W_OK) == 0);
            _exit(path == c.expected && hostdevice::OfflineLogDir() == path && isUsable ? 0 : 1);
        };
        EXPECT_EXIT(ask(), testing::ExitedWithCode(0), "^" + c.said + "$") << c.expected;
    }
}

// What is written to stderr meanwhile, one string a write call.
std::vector<std::string> StderrWrites(const std::function<void()>& body) {
    const int saved = dup(STDERR_FILENO);
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_DIRECT | O_CLOEXEC), 0);  // packet mode keeps the writes apart
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    body();
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::vector<std::string> writes;
    char packet[4096];
    for (ssize_t size; (size = read(ends[0], packet, sizeof packet)) > 0;) {
        writes.emplace_back(packet, static_cast<size_t>(size));
    }
    close(ends[0]);
    return writes;
}

std::string WithoutStamp(const std::string& line) {
    tm time{};
    const char* const milliseconds = strptime(line.c_str(), "%m-%d %H:%M:%S.", &time);
    if (milliseconds == nullptr || std::strspn(milliseconds, "0123456789") != 3) return "no stamp: " + line;
    return milliseconds + 3;
}

TEST_F(HostDeviceTest, LogLinesLookLikeThreadtime) {
    long tid = 0;
    const std::vector<std::string> writes = StderrWrites([&tid] {
        std::thread([&tid] {
            tid = syscall(SYS_gettid);
            __android_log_write(ANDROID_LOG_VERBOSE, "ZYT", "short tag");
            __android_log_write(ANDROID_LOG_ERROR, "LongerThanEight", "two\nlines\n");
        }).join();
    });
    ASSERT_EQ(writes.size(), 2u);

    const std::string ids = zyttest::Text(" %5d %5ld ", getpid(), tid);
    const std::string error = ids + "E LongerThanEight: ";
    const size_t secondLine = writes[1].find('\n') + 1;
    EXPECT_EQ(WithoutStamp(writes[0]), ids + "V ZYT     : short tag\n");
    EXPECT_EQ(WithoutStamp(writes[1].substr(0, secondLine)), error + "two\n");
    EXPECT_EQ(WithoutStamp(writes[1].substr(secondLine)), error + "lines\n");
}

TEST_F(HostDeviceTest, LogSinkTakesOneMessageAtATime) {
    int calls = 0;
    int overlaps = 0;
    std::atomic<bool> isInside{false};
    hostdevice::SetLogSink([&](int priority, const char* tag, const char* text) {
        if (isInside.exchange(true)) ++overlaps;
        std::this_thread::yield();
        if (priority == ANDROID_LOG_INFO && std::strcmp(tag, "tag") == 0 && std::strcmp(text, "text") == 0) ++calls;
        isInside = false;
    });
    const auto log = [] { __android_log_write(ANDROID_LOG_INFO, "tag", "text"); };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&log] {
            for (int message = 0; message < 500; ++message) log();
        });
    }
    for (std::thread& thread : threads) thread.join();
    hostdevice::SetLogSink({});
    EXPECT_EQ(StderrWrites(log).size(), 1u);
    EXPECT_EQ(calls, 4 * 500);
    EXPECT_EQ(overlaps, 0);
}

TEST_F(HostDeviceTest, DeviceServesLateDestructorsAtExit) {
    const auto logAtExit = [] {
        // Registered before the device is first used, so it runs after anything that the device would destroy.
        std::atexit([] { __android_log_write(ANDROID_LOG_ERROR, "late", GetProperty("test.late", "").c_str()); });
        hostdevice::SetProperty("test.late", "a value too long for the string object to hold in itself");
        hostdevice::SetLogSink({});
        std::exit(0);
    };
    EXPECT_EXIT(logAtExit(), testing::ExitedWithCode(0), "E late    : a value too long for .* in itself\n$");
}

TEST_F(HostDeviceTest, HeapMemoryIsSharedBetweenMappingsAndKeepsItsSize) {
    const bool isKernelHeapOpen = access("/dev/dma_heap/system", R_OK) == 0;
    EXPECT_EQ(hostdevice::UsesKernelHeap(), isKernelHeapOpen);
    EXPECT_STREQ(hostdevice::HeapName(), isKernelHeapOpen ? "/dev/dma_heap/system" : "memfd");

    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const int fd = m_allocator.AllocSystem(true, page + 1);
    ASSERT_GT(fd, STDERR_FILENO);
    EXPECT_EQ(lseek(fd, 0, SEEK_END), static_cast<off_t>(2 * page));
    EXPECT_EQ(ftruncate(fd, 0), -1);
    EXPECT_EQ(ftruncate(fd, static_cast<off_t>(4 * page)), -1);
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);

    auto* const first = static_cast<char*>(MapShared(fd, 2 * page));
    auto* const second = static_cast<char*>(MapShared(fd, 2 * page));
    ASSERT_NE(first, MAP_FAILED);
    ASSERT_NE(second, MAP_FAILED);
    EXPECT_EQ(second[page], 0);
    first[page] = 42;
    EXPECT_EQ(second[page], 42);
    EXPECT_EQ(munmap(first, 2 * page), 0);
    EXPECT_EQ(munmap(second, 2 * page), 0);
    EXPECT_EQ(close(fd), 0);

    EXPECT_EQ(m_allocator.AllocSystem(true, 0), -EINVAL);
    EXPECT_EQ(m_allocator.AllocSystem(true, SIZE_MAX), -ENOMEM);
}

TEST_F(HostDeviceTest, DescriptorsStayClearOfClosedStandardOnes) {
    const auto allocate = [] {
        for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) close(fd);
        const int heap = BufferAllocator().AllocSystem(true, 1);
        const sp<GraphicBuffer> buffer = MakeGraphicBuffer(1, 1);
        const bool areClosed = fcntl(STDIN_FILENO, F_GETFD) == -1 && fcntl(STDERR_FILENO, F_GETFD) == -1;
        _exit(areClosed && heap > STDERR_FILENO && buffer->handle->data[0] > STDERR_FILENO ? 0 : 1);
    };
    EXPECT_EXIT(allocate(), testing::ExitedWithCode(0), "");
}

TEST_F(HostDeviceTest, SyncAcceptsTheDevicesMemoryOnly) {
    const int heap = m_allocator.AllocSystem(true, 100);
    const sp<GraphicBuffer> buffer = MakeGraphicBuffer(16, 16);
    const int foreign = memfd_create("foreign", MFD_CLOEXEC);
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    const int closed = dup(null);
    close(closed);
    const std::pair<int, int> kCases[] = {
        {heap, 0}, {buffer->handle->data[0], 0}, {foreign, -ENOTTY}, {null, -ENOTTY}, {closed, -EBADF}, {-3, -EINVAL}};
    for (const auto& [fd, expected] : kCases) {
        SCOPED_TRACE(fd);
        const uint64_t before = hostdevice::SyncCount();
        EXPECT_EQ(m_allocator.CpuSyncStart(static_cast<unsigned>(fd), kSyncWrite), expected);
        hostdevice::SyncCall last = hostdevice::LastSync();
        EXPECT_TRUE(last.fd == fd && last.direction == 2 && last.isStart && last.result == expected);
        EXPECT_EQ(m_allocator.CpuSyncEnd(static_cast<unsigned>(fd)), expected);
        last = hostdevice::LastSync();
        EXPECT_TRUE(last.fd == fd && last.direction == 1 && !last.isStart && last.result == expected);
        EXPECT_EQ(hostdevice::SyncCount(), before + 2);
    }
    for (const int fd : {heap, foreign, null}) close(fd);
}

TEST_F(HostDeviceTest, GraphicRowsArePaddedAndMemoryHoldsTwoBytesAPixel) {
    const struct {
        uint32_t alignment, width, stride;
    } kCases[] = {{64, 1, 64}, {64, 64, 64}, {64, 65, 128}, {1024, 1000, 1024}, {48, 100, 144}, {0, 1001, 1001}};
    EXPECT_EQ(MakeGraphicBuffer(65, 1)->getStride(), 128u);
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.width);
        hostdevice::SetStrideAlignment(c.alignment);
        const sp<GraphicBuffer> buffer = MakeGraphicBuffer(c.width, 10);
        ASSERT_EQ(buffer->initCheck(), 0);
        EXPECT_EQ(buffer->getStride(), c.stride);
        EXPECT_GE(lseek(buffer->handle->data[0], 0, SEEK_END), off_t{c.stride} * 10 * 2);
        const ANativeWindowBuffer* const native = buffer->getNativeBuffer();
        EXPECT_EQ(native->width, static_cast<int>(c.width));
        EXPECT_EQ(native->height, 10);
        EXPECT_EQ(native->stride, static_cast<int>(c.stride));
        EXPECT_EQ(native->format, kImplementationDefined);
        EXPECT_EQ(native->usage, kUsage);
        EXPECT_EQ(native->handle, buffer->handle);
    }
    for (const auto& [width, height] : {std::pair(UINT32_MAX, 1u), {1u, UINT32_MAX}, {1u << 30, 1u << 30}}) {
        const sp<GraphicBuffer> tooLarge = MakeGraphicBuffer(width, height);
        EXPECT_EQ(tooLarge->initCheck(), -ENOMEM);
        EXPECT_EQ(tooLarge->handle, nullptr);
        EXPECT_EQ(tooLarge->getStride(), 0u);
    }
}

TEST_F(HostDeviceTest, StrongPointersDeleteWithTheLastReference) {
    const auto alive = [] { return hostdevice::CountLive().graphicBuffers; };
    sp<GraphicBuffer> pointer = MakeGraphicBuffer(1, 1);
    sp<android::RefBase> base = pointer;
    EXPECT_TRUE(base == pointer);
    sp<GraphicBuffer> moved = std::move(pointer);
    EXPECT_TRUE(pointer == nullptr);  // NOLINT(bugprone-use-after-move): an empty pointer is what a move leaves
    base = nullptr;
    EXPECT_EQ(alive(), 1u);
    sp<GraphicBuffer>& alias = moved;
    moved = alias;
    EXPECT_EQ(alive(), 1u);
    moved = MakeGraphicBuffer(2, 2);
    EXPECT_EQ(alive(), 1u);

    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([copy = moved] {
            for (int round = 0; round < 300000; ++round) sp<GraphicBuffer> another = copy;
        });
    }
    moved.clear();
    for (std::thread& thread : threads) thread.join();
    threads.clear();
    EXPECT_EQ(alive(), 0u);
}

// What each fault does is seen where the library meets it.
TEST_F(HostDeviceTest, FaultsFireOnceAtTheNthCall) {
    const int target = m_allocator.AllocSystem(true, 1);
    const auto sync = [&] { return m_allocator.CpuSyncStart(static_cast<unsigned>(target)) == -EIO; };
    hostdevice::FailNth(Fault::kSync, 3);
    for (int call = 0; call < 6; ++call) {
        EXPECT_EQ(hostdevice::FaultPending(Fault::kSync), call < 3);
        EXPECT_EQ(sync(), call == 2);
    }
    for (void (*disarm)() : {+[] { hostdevice::FailNth(Fault::kSync, 0); }, +[] { hostdevice::ClearFaults(); }}) {
        hostdevice::FailNth(Fault::kSync, 1);
        disarm();
        EXPECT_FALSE(sync());
    }
    close(target);

    const int standardInput = fcntl(STDIN_FILENO, F_GETFD);
    hostdevice::FailNth(Fault::kGraphicDescriptor, 1);
    EXPECT_EQ(MakeGraphicBuffer(8, 8)->initCheck(), 0);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), standardInput) << "a buffer with descriptor 0 closed it";
}

}  // namespace
