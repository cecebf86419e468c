#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>

#include "support.h"

using testing::HasSubstr;
using zyttest::WriteFile;

namespace {

class SampleNode : public testing::Test {
protected:
    void SetUp() override {
        for (size_t i = 0; i < m_frame.size(); ++i) m_frame[i] = static_cast<char>(i % 200);
        WriteFile(m_frameFile, m_frame);
    }
    void ExpectRefusal(const std::string& arguments, const std::string& reason) {
        zyttest::ExpectRefusal("examples/samplenode " + m_frameFile + " " + arguments, reason);
    }

    zyttest::TempDir m_dir;
    std::string m_frame = std::string(100 * 60 * 3 / 2, '\0');
    const std::string m_frameFile = m_dir / "frame";
};

}  // namespace

TEST_F(SampleNode, DumpsTheFrameAsItCameAndThenItsFaces) {
    WriteFile(m_dir / "faces",
              "# one of two is in the crop\ncrop 0 0 1000 600\nface 100 200 300 200\nface 900 0 50 50\n");
    const auto result =
        zyttest::RunBuilt("examples/samplenode " + m_frameFile + " 100x60 " + (m_dir / "node ") + (m_dir / "faces"));
    ASSERT_EQ(result.exitCode, 0) << result.output;
    for (const char* number : {"1", "2"}) {
        EXPECT_EQ(zyttest::ReadFile(m_dir / "node-frame" + number + "_100x60_YUV420NV12.raw"), m_frame);
    }
    for (const char* part :
         {"face        30x20 at column 20, row 10", "0 heap descriptors, 0 heap mappings, 0 graphic buffers"}) {
        EXPECT_THAT(result.output, HasSubstr(part));
    }
    const std::string marked = zyttest::ReadFile(m_dir / "node-faces1_100x60_YUV420NV12.raw");
    // An outline of 5 pixels around 31 by 21, and the point in the middle.
    EXPECT_EQ(std::count(marked.begin(), marked.end(), '\xff'), 35 * 25 - 25 * 15 + 1);
    EXPECT_EQ(marked[10 * 100 + 20] & marked[20 * 100 + 35], '\xff');
}

TEST_F(SampleNode, SaysWhatIsWrongInOneLine) {
    EXPECT_THAT(zyttest::RunBuilt("examples/samplenode").output, HasSubstr("usage: samplenode FILE"));
    for (const char* size : {"1x1", "0x60", "100", "100x60x3", "-1x5", "99998x2"})
        ExpectRefusal(std::string(size) + " node", "no size from 2x2");
    for (const auto& [arguments, reason] : {std::pair{"100x62 node", "is too short: 9000 bytes, a frame has 9300"},
                                            {"100x60 /none/node", "cannot write a dump"},
                                            {"100x60 node /none", "cannot find "},
                                            {"100x60 node /", "no regular file"}}) {
        ExpectRefusal(arguments, reason);
    }
    for (const char* text : {"crop 0 0 9 9 9", "crop 0 0 9", "crop 0 0 9 9x", "crop 0 0 9 -9", "crop 0 0 100000 9",
                             "faces 1 1 1 1", "face 1 1 1 1", "crop 0 0 9 9\ncrop 0 0 9 9"}) {
        WriteFile(m_dir / "faces", text);
        ExpectRefusal("100x60 node " + (m_dir / "faces"), std::string(": line ") + (std::strchr(text, 10) ? "2" : "1"));
    }
}
