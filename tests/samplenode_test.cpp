#include <algorithm>
#include <cstring>

#include "support.h"

using testing::HasSubstr;
using zyttest::ExpectRefusal;
using zyttest::ReadFile;
using zyttest::RunBuilt;
using zyttest::WriteFile;

TEST(SampleNode, DumpsTheFrameAsItCameAndThenItsFaces) {
    zyttest::TempDir dir;
    std::string frame(100 * 60 * 3 / 2, '\0');
    for (size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<char>(i % 200);
    WriteFile(dir / "frame", frame);
    WriteFile(dir / "faces", "# the second is outside\ncrop 0 0 1000 600\nface 100 200 300 200\nface 900 0 50 50\n");
    const auto result = RunBuilt("examples/samplenode " + (dir / "frame 100x60 ") + (dir / "node ") + (dir / "faces"));
    ASSERT_EQ(result.exitCode, 0) << result.output;
    EXPECT_THAT(result.output, testing::AllOf(HasSubstr("face        30x20 at column 20, row 10"),
                                              HasSubstr("0 heap descriptors, 0 heap mappings, 0 graphic buffers")));
    EXPECT_EQ(ReadFile(dir / "node-frame1_100x60_YUV420NV12.raw"), frame);
    EXPECT_EQ(ReadFile(dir / "node-frame2_100x60_YUV420NV12.raw"), frame);
    const std::string marked = ReadFile(dir / "node-faces1_100x60_YUV420NV12.raw");
    // An outline of 5 pixels around 31 by 21, and the point in the middle.
    EXPECT_EQ(std::count(marked.begin(), marked.end(), '\xff'), 35 * 25 - 25 * 15 + 1);
    EXPECT_EQ(marked[10 * 100 + 20] & marked[20 * 100 + 35], '\xff');
}

TEST(SampleNode, SaysWhatIsWrongInOneLine) {
    zyttest::TempDir dir;
    WriteFile(dir / "frame", std::string(9000, '\0'));
    const std::string command = "examples/samplenode " + (dir / "frame ");
    EXPECT_THAT(RunBuilt("examples/samplenode").output, HasSubstr("usage: samplenode FILE"));
    for (const char* size : {"100", "1x2", "2x1", "16386x2", "2x16386"}) {
        ExpectRefusal(command + size + " node", "no size from 2x2");
    }
    for (const auto& [arguments, reason] : {std::pair{"100x62 node", "is too short: 9000 bytes, a frame has 9300"},
                                            {"100x60 /none/node", "cannot write a dump"},
                                            {"100x60 node /none", "cannot find "},
                                            {"100x60 node /", "no regular file"}}) {
        ExpectRefusal(command + arguments, reason);
    }
    for (const char* text : {"crop 0 0 9 9 9", "crop 0 0 9", "crop 0 0 9 9x", "crop 0 0 9 -9", "crop 0 0 100000 9",
                             "faces 1 1 1 1", "face 1 1 1 1", "crop 0 0 9 9\ncrop 0 0 9 9"}) {
        WriteFile(dir / "faces", text);
        ExpectRefusal(command + "100x60 node " + (dir / "faces"), std::strchr(text, '\n') ? ": line 2" : ": line 1");
    }
}
