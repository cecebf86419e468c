#include "logging/zytlogutil.h"

#include <hostdevice/hostdevice.h>

#include <algorithm>
#include <iostream>

#include "logging/zytlogsite.h"
#include "support.h"

#define I imaginary  // as in <complex.h>; log sites must compile nevertheless, also with -pedantic

using testing::ElementsAre;
using zyttest::LogCapture;
using zyttest::RunChild;

namespace {

constexpr const char* kLevelProperty = "persist.vendor.camera.zytloglevel";

ZYT_CHILD(PrintLevels) {
    ZYTNodeLogLevel = 4;  // too late: the levels are read when the library is loaded
    std::cout << ZYTLogUtil::m_level << ZYTLogUtil::m_previewLevel << ZYTLogUtil::m_captureLevel;
    return 0;
}

}  // namespace

TEST(LogUtil, LevelsOpenInTheOrderEWDIV) {
    LogCapture log;
    const std::vector<std::string> all = {"E e1", "W w2", "D d3", "I i4", "V v5"};
    for (int level = -2; level <= 6; ++level) {
        ZYTLogUtil::m_level = level;
        ZYTLogUtil::LogE("e%d", 1);
        ZYTLogUtil::LogW("w%d", 2);
        ZYTLogUtil::LogD("d%d", 3);
        ZYTLogUtil::LogI("i%d", 4);
        ZYTLogUtil::LogV("v%d", 5);
        EXPECT_EQ(log.Take(), std::vector<std::string>(all.begin(), all.begin() + std::clamp(level, 0, 5)));
    }
}

TEST(LogUtil, CutsAMessageAndWritesItUnderTheLibrarysTag) {
    std::string written;
    hostdevice::SetLogSink([&written](int, const char* tag, const char* text) { written += tag + std::string(text); });
    ZYTLogUtil::m_level = 1;
    ZYTLogUtil::LogE("%s", std::string(2000, 'x').c_str());
    hostdevice::SetLogSink({});
    EXPECT_EQ(written, "ZYT" + std::string(1023, 'x'));
}

TEST(LogUtil, ReadsAllThreeLevelsWhenTheLibraryIsLoaded) {
    EXPECT_EQ(RunChild("PrintLevels").output, "111");
    EXPECT_EQ(RunChild("PrintLevels", {{kLevelProperty, "5"}}).output, "555");
    EXPECT_EQ(RunChild("PrintLevels", {{kLevelProperty, "-2"}}).output, "-2-2-2");
    EXPECT_EQ(RunChild("PrintLevels", {{kLevelProperty, "verbose"}}).output, "111");
}

TEST(LogSite, EvaluatesItsArgumentsOncePerLogEvenWhenBothAreOff) {
    LogCapture log;
    int evaluations = 0;
    ZYTLogUtil::m_level = 0;
    ZYT_LOG(E, "name", "%d", ++evaluations);
    EXPECT_EQ(evaluations, 2);
    EXPECT_THAT(log.Take(), ElementsAre());
}

TEST(LogSite, NamesItsPlace) {
    LogCapture log;
    const int line = __LINE__;
    ZYT_LOG(W, "Name", "value %d of %d", 7, 8);
    ZYT_LOG_AT(I, &log, "plain");
    EXPECT_THAT(log.Take(),
                ElementsAre(zyttest::Text("W [Name] zytlogutil_test.cpp:%d TestBody() value 7 of 8", line + 1),
                            zyttest::Text("I zytlogutil_test.cpp:%d TestBody() [%p] plain", line + 2,
                                          static_cast<void*>(&log))));
    static_assert(*zyt::BaseName("plain.cpp") == 'p' && *zyt::BaseName("/a/b.cpp") == 'b');
}
