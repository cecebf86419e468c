#include "utilities/zytutil.h"

#include <gmock/gmock.h>
#include <hostdevice/hostdevice.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <filesystem>
#include <iostream>
#include <thread>

#include "rules.h"
#include "support.h"

using testing::ElementsAre;
using testing::UnorderedElementsAre;
using zyttest::TempDir;
using zyttest::WriteFile;

namespace {

namespace fs = std::filesystem;

int32_t List(const std::string& dir, std::vector<std::string>& files, bool recursive) {
    return ZYTUtil::GetFileListInDir(dir.c_str(), files, recursive);
}

int32_t Search(const std::string& dir, const char* pattern, std::vector<std::string>& files, bool recursive) {
    return ZYTUtil::SearchFileByName(dir.c_str(), pattern, files, recursive);
}

ZYT_CHILD(PrintProduct) {
    ZYTProductInfo infos[4];
    std::vector<std::thread> threads;
    for (ZYTProductInfo& info : infos) threads.emplace_back([&info] { info = ZYTUtil::GetProductInfo(); });
    for (std::thread& thread : threads) thread.join();
    hostdevice::SetProperty("ro.product.device", "zad");  // too late
    const ZYTProductInfo later = ZYTUtil::GetProductInfo();
    for (const ZYTProductInfo& info : infos) {
        if (info.device != later.device || info.region != later.region) return 1;
    }
    std::cout << later.region << " " << later.device << " " << later.cameraConfigIsZero;
    return 0;
}

}  // namespace

TEST(FileList, FollowsADirectorysOwnOrderAndDescendsOnRequest) {
    TempDir dir;
    WriteFile(dir / "a", "");
    fs::create_directory(dir / "s");
    WriteFile(dir / "s/f", "");
    fs::create_directory(dir / "s/empty");
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    ASSERT_EQ(symlink("a", (dir / "link").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", (dir / "dangling").c_str()), 0);

    std::vector<std::string> files = {"kept"};
    EXPECT_EQ(List(dir.Path(), files, false), 0);
    EXPECT_EQ(files[0], "kept");
    files.erase(files.begin());
    EXPECT_THAT(files, UnorderedElementsAre(dir / "a", dir / "fifo", dir / "link"));

    files.clear();
    EXPECT_EQ(List(dir / "", files, true), 0);
    EXPECT_THAT(files, UnorderedElementsAre(dir / "/a", dir / "/fifo", dir / "/link", dir / "/s/f"));
    std::vector<std::string> inOrder;
    for (const auto& entry : fs::recursive_directory_iterator(dir.Path())) {
        if (!entry.is_directory() && fs::exists(entry))
            inOrder.push_back(dir / "" + entry.path().string().substr(dir.Path().size()));
    }
    EXPECT_EQ(files, inOrder);
}

TEST(FileList, FailsForWhatIsNoDirectoryAndKeepsWhatItFound) {
    TempDir dir;
    WriteFile(dir / "a", "");
    std::vector<std::string> files;
    EXPECT_EQ(List(dir / "a", files, true), 1);
    EXPECT_EQ(List(dir / "missing", files, true), 1);
    EXPECT_TRUE(files.empty());

    // A directory that is there but cannot be opened: descriptors have run out, but for one.
    fs::create_directory(dir / "s");
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const int next = dup(0);
    close(next);
    const rlimit tight = {static_cast<rlim_t>(next) + 1, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    const int32_t nested = List(dir.Path(), files, true);
    std::vector<std::string> found = {"kept"};
    const int32_t search = Search(dir.Path(), ".*", found, true);
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(nested, 1);
    EXPECT_LE(files.size(), 1u) << "a, if the directory yields it before s";
    EXPECT_EQ(search, 1);
    EXPECT_THAT(found, ElementsAre("kept"));
}

TEST(FileList, CutsLongPathsAndNeverListsADirectoryWithinItself) {
    TempDir dir;
    for (const char* name : {"zzzzzzzzzzzz", ".zz"}) fs::create_directory(dir / name);
    for (const char* name : {"xxxxxxxxxxxx", "zzzzzzzzzzzz/inner"}) WriteFile(dir / name, "");
    for (const size_t length : {2040u, 2044u, 2045u, 2046u}) {
        std::string spelled = dir.Path();
        spelled.resize(length, '/');
        const std::string longest = spelled + "/" + std::string(2045 - std::min<size_t>(length, 2045), 'x');
        if (length < 2045) WriteFile(longest, "");
        std::vector<std::string> files;
        EXPECT_EQ(List(spelled, files, true), 0);
        // The long name is cut to the short file's and found as that; everything else leads nowhere or back.
        EXPECT_EQ(files, std::vector<std::string>(length < 2045 ? 2 : 0, longest)) << length;
        if (length < 2045) fs::remove(longest);
    }
}

TEST(FileSearch, MatchesWholeBaseNames) {
    TempDir dir;
    fs::create_directory(dir / "a.txt.d");
    for (const char* name : {"a.txt", "abtxt", "xa.txt", "A.TXT", "a.txt.d/a.txt"}) WriteFile(dir / name, "");
    std::vector<std::string> files;
    EXPECT_EQ(Search(dir.Path(), "a.txt", files, false), 0);
    EXPECT_THAT(files, UnorderedElementsAre(dir / "a.txt", dir / "abtxt"));
    EXPECT_EQ(Search(dir.Path(), "a\\.txt", files, true), 0);
    EXPECT_EQ(files.size(), 4u) << "appended, duplicates included";
    EXPECT_EQ(Search(dir.Path(), "(x|A).*", files, true), 0);
    EXPECT_EQ(files.size(), 6u);
    EXPECT_EQ(Search(dir.Path(), "none", files, true), 0);
    EXPECT_EQ(ZYTUtil::SearchFileByName(nullptr, "a", files, true), 1);
    EXPECT_EQ(Search(dir.Path(), nullptr, files, true), 1);
    EXPECT_EQ(Search(dir / "a.txt", ".*", files, true), 1);
    EXPECT_EQ(files.size(), 6u);
}

TEST(FileSearch, EndsTheProcessOnAnIllFormedPatternWhateverIsCaught) {
    std::vector<std::string> files;
    EXPECT_ABORT({
        try {
            ZYTUtil::SearchFileByName("/proc/self/task", "cfg(", files, false);
        } catch (...) {
            std::_Exit(0);
        }
    });
}

TEST(FileName, IsCopiedWithItsTerminatorOnlyWhereItFitsAndASlashWasSeen) {
    struct Case {
        const char* path;
        unsigned int size;
        std::string written;
    };
    const Case cases[] = {{"/a/b/c.yuv", 64, {"c.yuv\0", 6}},
                          {"/a/b/c.yuv", 6, {"c.yuv\0", 6}},
                          {"/a/b/c.yuv", 3, "c.y"},
                          {"/a/b/", 64, {"\0", 1}},
                          {"name", 64, "name"},
                          {"name", 2, "na"},
                          {"", 64, ""},
                          {"/a", 0, ""}};
    for (const Case& c : cases) {
        std::string name(64, '#');
        ZYTUtil::GetFileNameFromFilePath(c.path, name.data(), c.size);
        EXPECT_EQ(name, c.written + std::string(64 - c.written.size(), '#')) << c.path << " " << c.size;
    }
}

TEST(FileData, ReadsWholeFiles) {
    TempDir dir;
    std::string content("line\r\n\0\xff", 8);
    WriteFile(dir / "file", content);
    unsigned int size = 77;
    char* data = ZYTUtil::ReadFileData((dir / "file").c_str(), size);
    ASSERT_EQ(size, 8u);
    EXPECT_EQ(std::string(data, size), content);
    ZYTUtil::FreeFileData(data);

    WriteFile(dir / "file", "");
    ZYTUtil::FreeFileData(ZYTUtil::ReadFileData((dir / "file").c_str(), size));
    EXPECT_EQ(size, 0u);
    fs::resize_file(dir / "file", (1ull << 32) + 3);  // a hole; only the length's low 32 bits count
    data = ZYTUtil::ReadFileData((dir / "file").c_str(), size);
    EXPECT_EQ(std::string(data, size), std::string(3, '\0'));
    ZYTUtil::FreeFileData(data);
    EXPECT_EQ(ZYTUtil::ReadFileData((dir / "missing").c_str(), size), nullptr);
    EXPECT_EQ(size, 0u);
    ZYTUtil::FreeFileData(nullptr);

    EXPECT_TRUE(ZYTUtil::IsFileExist((dir / "file").c_str()));
    EXPECT_TRUE(ZYTUtil::IsFileExist(dir.Path().c_str()));
    EXPECT_FALSE(ZYTUtil::IsFileExist((dir / "missing").c_str()));
    EXPECT_FALSE(ZYTUtil::IsFileExist(nullptr));
    ASSERT_EQ(symlink("missing", (dir / "dangling").c_str()), 0);
    EXPECT_FALSE(ZYTUtil::IsFileExist((dir / "dangling").c_str()));
}

TEST(LowerCase, KnowsAsciiOnly) { EXPECT_EQ(ZYTUtil::ToLowerCaseStr("AbC-Z9\xc3\x89@["), "abc-z9\xc3\x89@["); }

TEST(Product, IsReadOnceFromTheProperties) {
    const auto print = [](const char* region, const char* config, const char* device) {
        return zyttest::RunChild(
                   "PrintProduct",
                   {{"ro.vexo.build.region", region}, {"ro.boot.camera.config", config}, {"ro.product.device", device}})
            .output;
    };
    EXPECT_EQ(zyttest::RunChild("PrintProduct").output, "2 131 0");
    EXPECT_EQ(print("GLOBAL", "0", "kivo"), "1 8 1");
    EXPECT_EQ(print("global", "00", "kivo1"), "1 131 0");
    EXPECT_EQ(print("Global", "1", "KIVO"), "2 131 0");
    EXPECT_EQ(print("in", "", "seba"), "3 129 0");
    EXPECT_EQ(print("IN", "", "zad"), "3 130 0");
    EXPECT_EQ(print("cn", "", "fenraluk"), "2 20 0");
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
    // Beyond 2^53 the argument is rounded to a double first.
    EXPECT_EQ(ZYTUtil::QtimerNanoToQtimerTicks((1ull << 53) + 1), ZYTUtil::QtimerNanoToQtimerTicks(1ull << 53));

    const auto now = [] {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now().time_since_epoch());
    };
    const auto before = now().count();
    const int64_t read = ZYTUtil::GetCurMilliSecond();
    EXPECT_TRUE(before <= read && read <= now().count());
}

TEST(CropAndFaceMapping, FollowTheirRules) {
    for (uint64_t seed = 0; seed < 20000; ++seed) {
        zytrule::RandomChoices choices(seed);
        ASSERT_TRUE(zytrule::PlacesByRule(choices)) << "seed " << seed;
    }
    std::vector<ZYTRect> mapped;
    EXPECT_ABORT(ZYTUtil::MapFaceROIToImageBuffer({{0, 0, 1, 1}}, mapped, {0, 0xffffffffu, 2, 2}, {0, 0, 4, 4}));
    EXPECT_ABORT(ZYTUtil::MapFaceROIToImageBuffer({{0, 0, 1, 1}}, mapped, {0xffffffffu, 0, 2, 2}, {0, 0, 4, 4}));
}

TEST(FaceMapping, RoundsTheProductAndFusesOnlyTheOffset) {
    struct Case {
        ZYTRect face;
        ZYTRect crop;
        ZYTRect dst;
        uint32_t top;
        uint32_t left;
    };
    // Found by search. The first two come out one less or more when product and offset are fused, as compilers do
    // unless told otherwise; the last two when the offset is not.
    const Case cases[] = {{{3656, 0, 1, 1}, {0, 0, 14, 3868}, {0, 0, 3530, 3896}, 436137, 0},
                          {{143, 0, 1, 1}, {0, 0, 52, 312}, {0, 0, 3580, 2590}, 400, 0},
                          {{0, 1832, 1, 1}, {0, 0, 4735, 574}, {0, 0, 4538, 1476}, 0, 891},
                          {{0, 243, 1, 1}, {0, 0, 555, 36}, {0, 0, 2447, 660}, 0, 590}};
    for (const Case& c : cases) {
        std::vector<ZYTRect> mapped;
        ZYTUtil::MapFaceROIToImageBuffer({c.face}, mapped, c.crop, c.dst);
        ASSERT_EQ(mapped.size(), 1u);
        EXPECT_EQ(mapped[0].top, c.top);
        EXPECT_EQ(mapped[0].left, c.left);
    }
}

TEST(Drawing, FollowsTheRulePixelByPixel) {
    for (uint64_t seed = 0; seed < 20000; ++seed) {
        zytrule::RandomChoices choices(seed);
        ASSERT_TRUE(zytrule::DrawsByRule(choices)) << "seed " << seed;
    }
}

TEST(Drawing, EndsForAnImageWhoseRowsAllLieInOnePlace) {
    std::string row(30, '\0');
    ZYTImageBuffer image = zyttest::Image(ZYT_FORMAT_YUV420NV12, 30, 20, 0, 20);
    image.pAddr[0] = reinterpret_cast<unsigned char*>(row.data());
    ZYTUtil::DrawRect(&image, {0, 0, 29, 19}, 1);
    EXPECT_EQ(row, std::string(30, '\xff'));
}

TEST(Drawing, EndsTheProcessOnAnEmptyImageOrAFarEdge) {
    for (const int format : {0, 2, 11, -1}) {
        for (const auto& [width, height] : {std::pair{0u, 20u}, {30u, 0u}}) {
            ZYTImageBuffer image = zyttest::Image(format, width, height, 35, 20);
            EXPECT_ABORT(ZYTUtil::DrawRect(&image, {1, 1, 5, 5}, 3));
        }
        ZYTImageBuffer image = zyttest::Image(format, 30, 20, 35, 20);
        EXPECT_ABORT(ZYTUtil::DrawRect(&image, {0xffffffffu, 1, 5, 5}, 3));
    }
}
