#include <gmock/gmock.h>
#include <hostdevice/hostdevice.h>

#include <algorithm>
#include <iostream>

#include "logging/zytlogsite.h"
#include "support.h"

using testing::ElementsAre;
using testing::IsEmpty;
using zyttest::LogCapture;
using zyttest::RunChild;

namespace {

constexpr const char* kLevelProperty = "persist.vendor.camera.zytloglevel";

void LogAtEachLevel() {
    ZYTLogUtil::LogE("e%d", 1);
    ZYTLogUtil::LogW("w%d", 2);
    ZYTLogUtil::LogD("d%d", 3);
    ZYTLogUtil::LogI("i%d", 4);
    ZYTLogUtil::LogV("v%d", 5);
}

ZYT_CHILD(PrintLevels) {
    ZYTNodeLogLevel = 4;  // too late: the levels were read when the library was loaded
    std::cout << ZYTLogUtil::m_level << ZYTLogUtil::m_previewLevel << ZYTLogUtil::m_captureLevel;
    return 0;
}

}  // namespace

TEST(LogUtil, LevelsOpenInTheOrderEWDIV) {
    LogCapture log;
    const std::vector<std::string> all = {"E e1", "W w2", "D d3", "I i4", "V v5"};
    for (int level = -2; level <= 6; ++level) {
        ZYTLogUtil::m_level = level;
        LogAtEachLevel();
        const auto count = static_cast<ptrdiff_t>(std::clamp(level, 0, 5));
        EXPECT_EQ(log.Take(), std::vector<std::string>(all.begin(), all.begin() + count)) << "level " << level;
    }
}

TEST(LogUtil, CutsAMessageToItsBuffer) {
    LogCapture log;
    ZYTLogUtil::LogE("%s", std::string(2000, 'x').c_str());
    EXPECT_THAT(log.Take(), ElementsAre("E " + std::string(1023, 'x')));
}

TEST(LogUtil, WritesUnderTheLibrarysTag) {
    std::string tag;
    hostdevice::SetLogSink([&tag](int, const char* lineTag, const char*) { tag = lineTag; });
    ZYTLogUtil::m_level = 1;
    ZYTLogUtil::LogE("message");
    hostdevice::SetLogSink({});
    EXPECT_EQ(tag, "ZYT");
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
    EXPECT_THAT(log.Take(), IsEmpty());
}

TEST(LogSite, NamesItsPlace) {
    LogCapture log;
    ZYT_LOG(W, "Name", "value %d", 7);
    ZYT_LOG_AT(I, &log, "plain");
    EXPECT_THAT(log.Take(),
                ElementsAre("W [Name] zytlogutil_test.cpp TestBody() value 7",
                            zyttest::Text("I zytlogutil_test.cpp TestBody() [%p] plain", static_cast<void*>(&log))));
    static_assert(*zyt::BaseName("plain.cpp") == 'p' && *zyt::BaseName("/a/b.cpp") == 'b');
}
