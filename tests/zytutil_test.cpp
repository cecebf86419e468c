#include "utilities/zytutil.h"

#include <hostdevice/hostdevice.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <filesystem>
#include <sstream>
#include <thread>

#include "rules.h"
#include "support.h"

using testing::ElementsAre;
using zyttest::TempDir;
using zyttest::Text;
using zyttest::WriteFile;

TEST(Files, AreListedSearchedNamedAndReadByTheirRules) {
    const TempDir dir;
    EXPECT_TRUE(zytrule::Holds(zytrule::ListsByRule, 300, dir.Path()));
    EXPECT_TRUE(zytrule::Holds(zytrule::NamesByRule, 2000, dir.Path()));
    EXPECT_TRUE(zytrule::Holds(zytrule::ReadsByRule, 100, dir.Path()));
    std::vector<std::string> files;
    EXPECT_EQ(ZYTUtil::SearchFileByName(nullptr, "a", files, true), 1);
    EXPECT_EQ(ZYTUtil::SearchFileByName(dir.Path().c_str(), nullptr, files, true), 1);
    EXPECT_FALSE(ZYTUtil::IsFileExist(nullptr));
    ZYTUtil::FreeFileData(nullptr);
    EXPECT_ABORT("terminat", ZYTUtil::SearchFileByName("/proc/self/task", "cfg(", files, false));
}

TEST(Files, InADirectoryThatCannotBeOpenedEndTheListing) {
    const TempDir dir;
    for (int i = 0; i < 20; ++i) {
        WriteFile(dir / Text("file%d", i), "");
        std::filesystem::create_directory(dir / Text("directory%d", i));
    }
    std::vector<std::string> files, found = {"kept"}, beforeTheFirstDirectory;
    for (const auto& entry : std::filesystem::directory_iterator(dir.Path())) {
        if (entry.is_directory()) break;
        beforeTheFirstDirectory.push_back(entry.path());
    }
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const int next = dup(STDERR_FILENO);
    close(next);
    const rlimit tight = {static_cast<rlim_t>(next) + 1, limit.rlim_max};  // allows one more descriptor
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    EXPECT_EQ(ZYTUtil::GetFileListInDir(dir.Path().c_str(), files, true), 1);
    EXPECT_EQ(ZYTUtil::SearchFileByName(dir.Path().c_str(), ".*", found, true), 1);
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(files, beforeTheFirstDirectory);
    EXPECT_THAT(found, ElementsAre("kept"));
}

TEST(Files, AreFoundByWhatBothCxxLibrariesTake) {
    TempDir dir;
    WriteFile(dir / "cam_8.bin", "");
    std::vector<std::string> files;
    std::istringstream common(
        R"~(cam.8.* c?a+m*_8.bin c{1}a{1,}m{1,2}.*? [a-c]am_[^9][.]bin [[:alpha:]]{3}_[[:digit:]].+?
        (x|cam)_8.* (?:x|cam)_.* (?=c)(?!d).* ^cam_8\.bin$ \w+_\d\W\S\D.*|\s cam\b.*|.*\bbin (.).*\Bn(|\1)
        \x63\u0061m_8.* cam_8[^\]\}\-\/]bin)~");
    for (std::string pattern; common >> pattern;) {
        files.clear();
        EXPECT_EQ(ZYTUtil::SearchFileByName(dir.Path().c_str(), pattern.c_str(), files, false), 0);
        EXPECT_EQ(files.size(), 1u) << pattern;
    }
}

TEST(Files, AreListedToTheDepthThatTheHeaderSays) {
    TempDir dir;
    std::string path = dir.Path();
    for (int level = 1; level < 400; ++level) path += "/d";
    std::filesystem::create_directories(path);
    WriteFile(path + "/file", "");
    std::vector<std::string> files;
    std::thread([&] { EXPECT_EQ(ZYTUtil::GetFileListInDir(dir.Path().c_str(), files, true), 0); }).join();
    EXPECT_THAT(files, ElementsAre(path + "/file"));
}

TEST(Product, IsReadOnceFromTheProperties) {
    const auto read = [](const char* region, const char* config, const char* device) {
        hostdevice::SetProperty("ro.vexo.build.region", region);
        hostdevice::SetProperty("ro.boot.camera.config", config);
        hostdevice::SetProperty("ro.product.device", device);
        const ZYTProductInfo info = ZYTUtil::GetProductInfo();
        return Text("%u %u %u", info.region, info.device, info.cameraConfigIsZero);
    };
    const auto readAnew = [&read](auto... values) {
        ZYTUtil::m_isProductInfoInit = false;
        return read(values...);
    };
    EXPECT_EQ(read("in", "", "seba"), "3 129 0");
    EXPECT_EQ(read("GLOBAL", "0", "kivo"), "3 129 0") << "read once";
    EXPECT_EQ(readAnew("GLOBAL", "0", "kivo"), "1 8 1");
    EXPECT_EQ(readAnew("global", "00", "kivo1"), "1 131 0");
    EXPECT_EQ(readAnew("Global", "1", "KIVO"), "2 131 0");
    EXPECT_EQ(readAnew("IN", "", "zad"), "3 130 0");
    EXPECT_EQ(readAnew("", "", ""), "2 131 0");
    const char* const devices[] = {"kivo",  "datu",   "lembrova", "ovanel",  "tressim",  "gavrilot", "plesk",
                                   "ziroa", "brisko", "yoma",     "caskeln", "drovatin", "fenraluk"};
    uint32_t number = 8;
    for (const char* device : devices) EXPECT_EQ(readAnew("cn", "", device), Text("2 %u 0", number++));
}

TEST(Clock, ConvertsBetweenNanosecondsAndTicks) {
    using Numbers = std::vector<unsigned long long>;
    const unsigned long long max = ULLONG_MAX;
    Numbers ticks = {0, 1, 52, 53, 1000, 1000000, 1000000000, max};
    for (unsigned long long& number : ticks) number = ZYTUtil::QtimerNanoToQtimerTicks(number);
    EXPECT_EQ(ticks, (Numbers{0, 0, 0, 1, 19, 19200, 19200000, 354177486215223391}));
    Numbers nanos = {0, 1, 12, 19, 192, 19200000, max, 354177486215223296};
    for (unsigned long long& number : nanos) number = ZYTUtil::QtimerTicksToQtimerNano(number);
    EXPECT_EQ(nanos, (Numbers{0, 52, 625, 989, 10000, 1000000000, max, 18446744073709546666ull}));
    // Above 2^53 the argument is first rounded to a double.
    EXPECT_EQ(ZYTUtil::QtimerNanoToQtimerTicks((1ull << 53) + 1), ZYTUtil::QtimerNanoToQtimerTicks(1ull << 53));

    const auto now = [] { return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::milliseconds(1); };
    const int64_t before = now(), read = ZYTUtil::GetCurMilliSecond();
    EXPECT_LE(before, read);
    EXPECT_LE(read, now());
}

TEST(CropAndFaceMapping, FollowTheirRules) {
    EXPECT_TRUE(zytrule::Holds(zytrule::PlacesByRule, 20000, ""));
    EXPECT_EQ(ZYTUtil::TranslateCropInfo({0, 0, 1u << 31, 2}, 2, 2, 1, 1).width, 1u) << "2^32 as a float";
    constexpr uint32_t kFar = 0xffffffff;
    const ZYTRect square = {0, 0, 4, 4}, wide = {0, kFar, 2, 2}, high = {kFar, 0, 2, 2};
    std::vector<ZYTRect> mapped;
    ZYTUtil::MapFaceROIToImageBuffer({}, mapped, wide, square);
    ZYTUtil::MapFaceROIToImageBuffer({{0, 5, kFar, 1}, {5, 0, 1, kFar}, {1, 5, 1, kFar}}, mapped, square, {});
    EXPECT_TRUE(mapped.empty()) << "what starts outside has no far edge to check";
    const auto map = [&](const ZYTRect& face, const ZYTRect& crop) {
        ZYTUtil::MapFaceROIToImageBuffer({face}, mapped, crop, square);
    };
    EXPECT_ABORT("right edge of the crop: 4294967295 + 2 ", map({}, wide));
    EXPECT_ABORT("bottom edge of the crop: 4294967295 + 2 ", map({}, high));
    EXPECT_ABORT("far edge of a face: 1 + 4294967295 ", map({0, 1, kFar, 1}, square));
}

TEST(Drawing, FollowsTheRulePixelByPixel) { EXPECT_TRUE(zytrule::Holds(zytrule::DrawsByRule, 20000, "")); }

TEST(Drawing, EndsTheProcessWhereAnEdgeOrARowIsOutOfReach) {
    for (const int format : {0, 11}) {
        ZYTImageBuffer image = zyttest::Image(format, 0, 20, 35, 20);
        EXPECT_ABORT("last row or column of an image: 0 - 1 ", ZYTUtil::DrawRect(&image, {1, 1, 5, 5}, 3));
        image = zyttest::Image(format, 30, 0, 35, 20);
        EXPECT_ABORT("last row or column of an image: 0 - 1 ", ZYTUtil::DrawRect(&image, {1, 1, 5, 5}, 3));
        image.height = 20;
        EXPECT_ABORT("far edge of a rectangle: 4294967295 + 5 ", ZYTUtil::DrawRect(&image, {0xffffffffu, 1, 5, 5}, 3));
    }
    ZYTImageBuffer image = zyttest::Image(ZYT_FORMAT_YUV420NV12, 10, 70000, 65536, 70000);
    EXPECT_ABORT("planeStride * row: 65536 * 65536 ", ZYTUtil::DrawPointer(&image, 0, 65536));
    EXPECT_ABORT("planeStride * row: 65536 * 65540 ", ZYTUtil::DrawRect(&image, {65530, 1, 5, 10}, 20));
    // An outline without a column or row in the image needs no row addresses, so nothing overflows.
    ZYTUtil::DrawRect(&image, {65536, 20, 5, 5}, 1);
    ZYTUtil::DrawRect(&image, {70001, 2, 5, 5}, 1);
}
