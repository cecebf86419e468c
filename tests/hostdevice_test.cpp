#define LOG_TAG "Macros"
#define ATRACE_TAG ATRACE_TAG_CAMERA
#include "hostdevice/hostdevice.h"

#include <BufferAllocator/BufferAllocator.h>
#include <cutils/properties.h>
#include <fcntl.h>
#include <hostdevice/files.h>
#include <log/log.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <ui/GraphicBuffer.h>
#include <unistd.h>
#include <utils/Trace.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <regex>
#include <thread>
#include <utility>

#include "support.h"

namespace {

using android::GraphicBuffer;
using android::sp;
using testing::ElementsAre;
using zyttest::ExpectExit;

sp<GraphicBuffer> MakeGraphicBuffer(uint32_t width, uint32_t height) {
    return new GraphicBuffer(width, height, HAL_PIXEL_FORMAT_IMPLEMENTATION_DEFINED, 1, 0);
}

std::string GetProperty(const char* key, const char* defaultValue) {
    char value[PROPERTY_VALUE_MAX];
    std::memset(value, 'x', sizeof value);
    const int length = property_get(key, value, defaultValue);
    EXPECT_EQ(std::strlen(value), static_cast<size_t>(length));
    return value;
}

TEST(HostDeviceTest, PropertiesAreReadAsNumbersAndSwitches) {
    const auto read = [](auto function, const std::vector<const char*>& values) {
        std::vector<int64_t> numbers;
        for (const char* value : values) {
            hostdevice::SetProperty("test.int", value);
            numbers.push_back(function("test.int", 77));
        }
        return numbers;
    };
    errno = 0;
    EXPECT_THAT(read(property_get_int32, {"3", " -2a", "+0x10", "010", " -0b101", "0b2", "2147483647", "-2147483648"}),
                ElementsAre(3, -2, 16, 8, -5, 0, INT32_MAX, INT32_MIN));
    EXPECT_THAT(read(property_get_int32, {"2147483648", "-2147483649", "abc", "+-0b1", ""}), testing::Each(77));
    EXPECT_THAT(read(property_get_int64, {"9223372036854775807", "9223372036854775808"}), ElementsAre(INT64_MAX, 77));
    EXPECT_EQ(errno, 0) << "as before";
    EXPECT_THAT(read(property_get_bool, {"1", "yes", "0", "off", "TRUE", ""}), ElementsAre(1, 1, 0, 0, 77, 77));
    EXPECT_EQ(property_get_int32(nullptr, 8), 8);
    EXPECT_EQ(property_get_bool(nullptr, 1), 1);
}

TEST(HostDeviceTest, PropertyValuesAreCutAndDefaulted) {
    const std::string longest(91, 'v');
    EXPECT_EQ(GetProperty("test.unset", (longest + "w").c_str()), longest);
    EXPECT_EQ(GetProperty("test.unset", nullptr), "");
    EXPECT_EQ(property_set("test.set", longest.c_str()), 0);
    EXPECT_EQ(property_set("test.set", (longest + "w").c_str()), -1);
    EXPECT_EQ(GetProperty("test.set", ""), longest);
    EXPECT_EQ(property_set("test.set", nullptr), 0);
    EXPECT_EQ(GetProperty("test.set", "default"), "default");
    EXPECT_EQ(property_set("ro.test", (longest + "w").c_str()), 0) << "of any length";
    EXPECT_EQ(property_set("ro.test", "second"), -1) << "set once";
    EXPECT_EQ(GetProperty("ro.test", ""), longest);
    EXPECT_ABORT("hostdevice: a property's key is null", GetProperty(nullptr, ""));
}

TEST(HostDeviceTest, PropertyFileIsReadBeforeTheFirstProperty) {
    const zyttest::TempDir dir;
    zyttest::WriteFile(dir / "prop",
                       "# comment = 1\n\n  test.spaced \t=  a = b \r\nnonsense\n"
                       "test.overridden=1\ntest.last=end");
    setenv("HOSTDEVICE_PROPERTIES", (dir / "prop").c_str(), 1);
    ExpectExit(0, "^hostdevice: [^\n]*:4: [^\n]*\n$", [] {
        hostdevice::SetProperty("test.overridden", "2");
        EXPECT_EQ(GetProperty("test.spaced", ""), "a = b");
        EXPECT_EQ(GetProperty("# comment", "unset"), "unset");
        EXPECT_EQ(GetProperty("test.overridden", ""), "2");
        EXPECT_EQ(GetProperty("test.last", ""), "end");
    });
    for (const char* unreadable : {"/nonexistent/properties", "/"}) {
        setenv("HOSTDEVICE_PROPERTIES", unreadable, 1);
        ExpectExit(0, "^hostdevice: cannot read [^\n]*\n$", [] { EXPECT_EQ(property_get_int32("test.unset", 3), 3); });
    }
    unsetenv("HOSTDEVICE_PROPERTIES");
}

TEST(HostDeviceTest, FilesLieInAFolderOfTheUsers) {
    const zyttest::TempDir dir;
    const std::string log = "data/vendor/camera/offlinelog/";
    const std::string longest(210 - (dir / "/" + log).size(), 'x');
    zyttest::WriteFile(dir / "file", "");
    const struct {
        std::string data, state, home, expected, said;
    } kCases[] = {{dir / "a", dir / "b", dir / "c", dir / "a/" + log, ""},
                  {"", dir / "b", dir / "c", dir / "b/zyttools/" + log, ""},
                  {"relative", "", "", dir / "relative/" + log, ""},
                  {"", "relative", dir / "c", dir / "c/.local/state/zyttools/" + log, ""},
                  {"", "", "", "/dev/null/", "hostdevice: no offline log: neither [^\n]*\n"},
                  {dir / "file", "", "", "/dev/null/", "hostdevice: no offline log: [^\n]*Not a directory\n"},
                  {dir / longest, "", "", dir / longest + "/" + log, ""},
                  {dir / longest + "x", "", "", "/dev/null/", "hostdevice: no offline log: [^\n]*no room[^\n]*\n"}};
    for (const auto& c : kCases) {
        ExpectExit(0, "^" + c.said + "$", [&] {
            setenv("HOSTDEVICE_DATA", c.data.c_str(), 1);
            setenv("XDG_STATE_HOME", c.state.c_str(), 1);
            setenv("HOME", c.home.c_str(), 1);
            EXPECT_EQ(chdir(dir.Path().c_str()), 0);
            EXPECT_EQ(hostdevice::OfflineLogDir(), c.expected);
            EXPECT_EQ(access(c.expected.c_str(), W_OK) == 0, c.said.empty());
        });
    }
}

TEST(HostDeviceTest, LogLinesLookLikeThreadtime) {
    testing::internal::CaptureStderr();
    std::thread([] {
        hostdevice::SetProperty("test.tid", std::to_string(syscall(SYS_gettid)));
        __android_log_write(ANDROID_LOG_VERBOSE, "ZYT", "short tag");
        __android_log_write(ANDROID_LOG_ERROR, "LongerThanEight", "two\nlines\n");
    }).join();
    const std::string stamp = "[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}" +
                              zyttest::Text(" %5d %5d ", getpid(), property_get_int32("test.tid", 0));
    const std::string error = stamp + "E LongerThanEight: ";
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::MatchesRegex(stamp + "V ZYT     : short tag\n" + error + "two\n" + error + "lines\n"));
}

TEST(HostDeviceTest, LogIsFilteredFormattedAndFatalAsOnADevice) {
    std::vector<std::string> lines;
    hostdevice::SetLogSink([&lines](int, const char*, const char* text) { lines.push_back(text); });
    const struct {
        const char *property, *value;
        int lowest;  // priority that is written; 8 for none
    } kSteps[] = {{"log.tag", "W", 5},          {"persist.log.tag", "i", 4},
                  {"log.tag.Filtered", "E", 6}, {"persist.log.tag.Filtered", "?", 6},
                  {"log.tag.Other", "V", 6},    {"persist.log.tag.Filtered", "V", 2},
                  {"log.tag.Filtered", "S", 2}, {"persist.log.tag.Filtered", "S", 8}};
    for (const auto& step : kSteps) {
        hostdevice::SetProperty(step.property, step.value);
        for (int priority = ANDROID_LOG_VERBOSE; priority <= ANDROID_LOG_FATAL; ++priority) {
            lines.clear();
            __android_log_print(priority, "Filtered", "%d", priority);
            EXPECT_EQ(lines.size(), priority >= step.lowest ? 1u : 0u) << step.property << " " << priority;
        }
    }
    lines.clear();
    int evaluated = 0;
    __android_log_buf_write(LOG_ID_SYSTEM, ANDROID_LOG_ERROR, "tag", "text");
    ALOGV("%d", ++evaluated);
    ALOGW_IF(false, "%d", ++evaluated);
    ALOGE_IF(true, "%d", 1);
    ALOGI("plain");
    ALOGI("%s", std::string(2000, 'x').c_str());
    ALOG_ASSERT(evaluated == 1, "%d", 2);
    LOG_ALWAYS_FATAL_IF(evaluated != 0);
    EXPECT_THAT(lines, ElementsAre("text", "1", "plain", std::string(1023, 'x')));
    hostdevice::SetLogSink({});
    EXPECT_ABORT("hostdevice: a log message is null", __android_log_write(ANDROID_LOG_INFO, "tag", nullptr));
    EXPECT_ABORT("F Macros  : Assertion failed: 1 + 1 == 2\n", LOG_ALWAYS_FATAL_IF(1 + 1 == 2));
    EXPECT_ABORT("F Macros  : 42\n", LOG_ALWAYS_FATAL_IF(true, "%d", 42));
    EXPECT_ABORT("F Macros  : text\n", LOG_ALWAYS_FATAL("text"));
}

TEST(HostDeviceTest, LogSinkIsCalledWithoutALockAndNoMoreOnceItIsReplaced) {
    // Two threads are inside the sink, which logs itself. They leave at different times; none is inside in the end.
    std::atomic<int> entered{0}, left{0};
    const auto log = [](const char* text) { __android_log_write(ANDROID_LOG_INFO, "tag", text); };
    hostdevice::SetLogSink([&](int, const char* tag, const char* text) {
        EXPECT_STREQ(tag, "tag");
        const int order = ++entered;
        if (*text == 'o') log("inner");
        while (entered < 4) std::this_thread::yield();
        usleep(1000u << order);
        ++left;
    });
    std::thread threads[] = {std::thread(log, "outer"), std::thread(log, "outer")};
    while (entered < 4) std::this_thread::yield();
    hostdevice::SetLogSink([](int, const char*, const char*) { hostdevice::SetLogSink({}); });
    EXPECT_EQ(left, 4);
    log("waits for no call of its own thread");
    for (std::thread& thread : threads) thread.join();
}

TEST(HostDeviceTest, HeapMemoryIsWholePagesAndKeepsItsSize) {
    EXPECT_STREQ(hostdevice::HeapName(), access("/dev/dma_heap/system", R_OK) == 0 ? "/dev/dma_heap/system" : "memfd");
    BufferAllocator heap;
    const off_t page = sysconf(_SC_PAGESIZE);
    const int fd = heap.Alloc("system", static_cast<size_t>(page) + 1);
    EXPECT_EQ(lseek(fd, 0, SEEK_END), 2 * page);
    EXPECT_EQ(ftruncate(fd, 0), -1);
    EXPECT_EQ(ftruncate(fd, 4 * page), -1);
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    close(fd);
    for (const auto& [size, error] : {std::pair<size_t, int>{0, EINVAL}, {SIZE_MAX, ENOMEM}}) {
        EXPECT_EQ(heap.AllocSystem(true, size), -1);
        EXPECT_EQ(errno, error);
    }
    EXPECT_EQ(heap.Alloc("reserved", 1), -1);
}

TEST(HostDeviceTest, DescriptorsStayClearOfStandardOnes) {
    ExpectExit(0, "", [] {
        hostdevice::FailNth(hostdevice::Fault::kGraphicDescriptor, 1);
        EXPECT_EQ(MakeGraphicBuffer(8, 8)->initCheck(), 0);
        EXPECT_NE(fcntl(STDIN_FILENO, F_GETFD), -1);
        // The last one that was closed is the one that the system would give next.
        for (int fd = STDERR_FILENO; fd >= STDIN_FILENO; --fd) {
            close(fd);
            EXPECT_GT(BufferAllocator().AllocSystem(true, 1), STDERR_FILENO);
            EXPECT_GT(MakeGraphicBuffer(1, 1)->handle->data[0], STDERR_FILENO);
            EXPECT_EQ(fcntl(fd, F_GETFD), -1);
        }
    });
}

TEST(HostDeviceTest, SyncAcceptsTheDevicesMemoryOnly) {
    BufferAllocator allocator;
    const sp<GraphicBuffer> buffer = MakeGraphicBuffer(16, 16);
    const std::pair<int, int> kCases[] = {{allocator.AllocSystem(true, 100), 0},
                                          {buffer->handle->data[0], 0},
                                          {memfd_create("foreign", MFD_CLOEXEC), ENOTTY},
                                          {9999, EBADF},
                                          {-3, EBADF}};
    for (const auto& [fd, error] : kCases) {
        errno = 0;
        EXPECT_EQ(allocator.CpuSyncStart(static_cast<unsigned>(fd), kSyncWrite), error == 0 ? 0 : -1) << fd;
        EXPECT_EQ(errno, error) << fd;
        EXPECT_EQ(allocator.CpuSyncEnd(static_cast<unsigned>(fd), kSyncWrite), error == 0 ? 0 : -1) << fd;
    }
}

TEST(HostDeviceTest, GraphicMemoryHasPaddedRowsAndIsLargeEnough) {
    const struct {
        uint32_t strideAlignment, heightAlignment, width, height, stride, lumaRows;
    } kCases[] = {{64, 32, 65, 33, 128, 64},   {48, 48, 100, 100, 144, 144}, {0, 0, 1001, 101, 1001, 101},
                  {64, 32, 1000, 1, 1024, 32}, {64, 32, 9, 0, 64, 32},       {64, 32, 0, 9, 64, 32}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.width);
        hostdevice::SetStrideAlignment(c.strideAlignment);
        hostdevice::SetHeightAlignment(c.heightAlignment);
        const sp<GraphicBuffer> buffer = MakeGraphicBuffer(c.width, c.height);
        EXPECT_EQ(buffer->getStride(), c.stride);
        EXPECT_EQ(buffer->getNativeBuffer()->width, static_cast<int>(c.width));
        const off_t used = off_t{c.stride} * std::max(c.height * 2, c.lumaRows + (c.lumaRows + 1) / 2);
        EXPECT_GE(lseek(buffer->handle->data[0], 0, SEEK_END), used);
        android_ycbcr planes{};
        ASSERT_EQ(buffer->lockYCbCr(0x33, &planes), 0);
        auto* const chroma = static_cast<char*>(planes.y) + size_t{c.stride} * c.lumaRows;
        EXPECT_THAT(planes, testing::FieldsAre(testing::_, chroma, chroma + 1, c.stride, c.stride, 2, testing::_));
        std::memset(planes.y, 1, static_cast<size_t>(used));
        EXPECT_EQ(buffer->lockYCbCr(0x33, &planes), -EBUSY);
        EXPECT_EQ(buffer->unlock(), 0);
        EXPECT_EQ(buffer->unlock(), -EINVAL);
        EXPECT_EQ(buffer->lockYCbCr(0, &planes), -EINVAL);
        EXPECT_EQ(buffer->lockYCbCr(0x33, nullptr), -EINVAL);
    }
    android_ycbcr planes{};
    const sp<GraphicBuffer> raw = new GraphicBuffer(8, 8, HAL_PIXEL_FORMAT_RAW16, 1, 0);
    EXPECT_EQ(raw->lockYCbCr(0x33, &planes), -EINVAL);
    for (const auto& [width, height] : {std::pair(UINT32_MAX, 1u), {1u, UINT32_MAX}, {1u << 30, 1u << 30}}) {
        const sp<GraphicBuffer> tooLarge = MakeGraphicBuffer(width, height);
        EXPECT_EQ(tooLarge->initCheck(), -ENOMEM) << width;
        EXPECT_EQ(tooLarge->handle, nullptr) << width;
        EXPECT_EQ(tooLarge->getStride(), 0u) << width;
    }
}

#ifdef HOSTDEVICE_CUTILS_TRACE_H
TEST(HostDeviceTest, LoggableIsWhatThePropertyOrTheDefaultLetsThrough) {
    EXPECT_EQ(__android_log_is_loggable(ANDROID_LOG_DEBUG, "Tag", ANDROID_LOG_INFO), 0);
    EXPECT_EQ(__android_log_is_loggable(ANDROID_LOG_INFO, "Tag", ANDROID_LOG_INFO), 1);
    hostdevice::SetProperty("log.tag.Tag", "W");
    EXPECT_EQ(__android_log_is_loggable(ANDROID_LOG_WARN, "Tag", ANDROID_LOG_SILENT), 1);
}

ZYT_CHILD(Traces) {
    const auto work = [] {
        ATRACE_NAME("a \"name\"");
        ATRACE_INT64("counter", -5000000000);
    };
    ATRACE_ASYNC_BEGIN((std::string(127, 'x') + "y").c_str(), -7);
    ATRACE_ASYNC_END(std::string(127, 'x').c_str(), -7);
    std::thread([work] { pthread_setname_np(pthread_self(), "worker"), work(); }).join();
    if (fork() == 0) work(), std::abort();
    return wait(nullptr) > 0 ? 0 : 1;
}

TEST(HostDeviceTest, TraceEventsAreLinesOfAFile) {
    const zyttest::TempDir dir;
    zyttest::WriteFile(dir / "trace", "replaced");
    for (const char* name : {"trace", "trace-%p"}) {
        setenv("HOSTDEVICE_TRACE", (dir / name).c_str(), 1);
        EXPECT_EQ(zyttest::RunChild("Traces").exitCode, 0);
    }
    setenv("HOSTDEVICE_TRACE", (dir / "no/file").c_str(), 1);
    EXPECT_THAT(zyttest::RunChild("Traces").output, testing::StartsWith("hostdevice: no trace: "));
    unsetenv("HOSTDEVICE_TRACE");
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir.Path())) {
        names.push_back(entry.path().filename());
        const std::regex varying(R"("ts":[0-9.]+,"pid":[0-9]+,"tid":[0-9]+)"), longest("\"x{127}\"");
        const std::string events = std::regex_replace(zyttest::ReadFile(entry.path()), varying, "*");
        EXPECT_EQ(std::regex_replace(events, longest, "LONGEST"), R"([
{"ph":"M",*,"name":"process_name","args":{"name":"hostdevice_test"}},
{"ph":"M",*,"name":"thread_name","args":{"name":"hostdevice_test"}},
{"ph":"b",*,"name":LONGEST,"cat":LONGEST,"id2":{"local":"-7"}},
{"ph":"e",*,"name":LONGEST,"cat":LONGEST,"id2":{"local":"-7"}},
{"ph":"M",*,"name":"process_name","args":{"name":"hostdevice_test"}},
{"ph":"M",*,"name":"thread_name","args":{"name":"worker"}},
{"ph":"B",*,"name":"a \u0022name\u0022"},
{"ph":"C",*,"name":"counter","args":{"value":-5000000000}},
{"ph":"E",*},
{"ph":"M",*,"name":"process_name","args":{"name":"hostdevice_test"}},
{"ph":"M",*,"name":"thread_name","args":{"name":"hostdevice_test"}},
{"ph":"B",*,"name":"a \u0022name\u0022"},
{"ph":"C",*,"name":"counter","args":{"value":-5000000000}},
{"ph":"E",*},
)");
    }
    EXPECT_THAT(names, testing::UnorderedElementsAre("trace", testing::MatchesRegex("trace-[0-9]+")));
}
#endif

struct Counted : android::RefBase {
    int firsts = 0;
    void onFirstRef() override { ++firsts; }
};

TEST(HostDeviceTest, StrongPointersDeleteWithTheLastReference) {
#ifdef HOSTDEVICE_UTILS_STRONGPOINTER_H
    static_assert(!std::is_constructible_v<sp<Counted>, sp<android::RefBase>>);
    EXPECT_EQ(sp<Counted>::make()->firsts, 1);
#endif
    EXPECT_EQ(sp<Counted>(new Counted)->firsts, 1);
    const auto alive = [] { return hostdevice::CountLive().graphicBuffers; };
    sp<GraphicBuffer> pointer = MakeGraphicBuffer(1, 1), moved = std::move(pointer);
    EXPECT_TRUE(pointer == nullptr);  // NOLINT(bugprone-use-after-move): moved-from pointers are null
    sp<android::RefBase> base = moved;
    EXPECT_TRUE(base == moved);
    moved = MakeGraphicBuffer(2, 2);
    EXPECT_EQ(alive(), 2u);
    base = nullptr;
    EXPECT_EQ(alive(), 1u);
    moved.clear();
    EXPECT_EQ(alive(), 0u);
}

}  // namespace
