#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>

#include "support.h"

using testing::HasSubstr;
using testing::Not;
using zyttest::ReadFile;
using zyttest::TempDir;
using zyttest::WriteFile;

namespace {

class SampleNode : public testing::Test {
protected:
    static void ExpectRefusal(const std::string& arguments, const std::string& reason) {
        zyttest::ExpectRefusal("examples/samplenode " + arguments, reason);
    }

    void SetUp() override {
        for (size_t i = 0; i < m_frame.size(); ++i) m_frame[i] = static_cast<char>(i % 200);
        WriteFile(m_dir / "frame", m_frame);
        WriteFile(m_dir / "device.prop", "persist.vendor.camera.zytloglevel=0\n");
    }

    TempDir m_dir;
    std::string m_frame = std::string(100 * 60 * 3 / 2, '\0');
};

}  // namespace

TEST_F(SampleNode, DumpsTheFrameAsItCameAndThenItsFaces) {
    WriteFile(m_dir / "faces",
              "# one of two is in the crop\ncrop 0 0 1000 600\nface 100 200 300 200\nface 900 0 50 50\n");
    std::filesystem::create_directory(m_dir / "tuning");
    WriteFile(m_dir / "tuning/samplenode_131.tuning", "thickness=1\n");
    WriteFile(m_dir / "tuning/samplenode_default.tuning", "thickness=9\n");
    const zyttest::ChildResult result =
        zyttest::RunBuilt("examples/samplenode " + (m_dir / "frame 100x60 --out ") + m_dir.Path() +
                              " --name node --faces " + (m_dir / "faces --tuning ") + (m_dir / "tuning"),
                          {"HOSTDEVICE_PROPERTIES=" + (m_dir / "device.prop")});
    ASSERT_EQ(result.exitCode, 0) << result.output;
    for (const char* number : {"1", "2"}) {
        EXPECT_EQ(ReadFile(m_dir / "node-frame" + number + "_100x60_YUV420NV12.raw"), m_frame);
    }
    EXPECT_THAT(result.output, HasSubstr("samplenode_131.tuning, thickness 1"));
    EXPECT_THAT(result.output, HasSubstr("face        30x20 at column 20, row 10"));
    EXPECT_THAT(result.output, HasSubstr("0 heap descriptors, 0 heap mappings, 0 graphic buffers"));
    EXPECT_LT(result.output.find("allocated"), result.output.find("reused from the pool"));
    const std::string marked = ReadFile(m_dir / "node-faces1_100x60_YUV420NV12.raw");
    // The outline of 31 by 21 pixels and the point in the middle.
    EXPECT_EQ(std::count(marked.begin(), marked.end(), '\xff'), 2 * 31 + 2 * 19 + 1);
    EXPECT_EQ(marked[10 * 100 + 20], '\xff');
    EXPECT_EQ(marked[30 * 100 + 50], '\xff');
}

TEST_F(SampleNode, SaysWhatIsWrongInOneLine) {
    const std::string frame = m_dir / "frame";
    ExpectRefusal(m_dir / "missing 100x60", "cannot find ");
    ExpectRefusal(m_dir.Path() + " 100x60", "no regular file");
    ExpectRefusal(frame + " 100x61", "is too short: 9000 bytes, a frame has 9100");
    for (const char* size : {" 0x60", " 100x0", " 100", " 100x60x3", " -1x5", " 99999x1"}) {
        ExpectRefusal(frame + size, "is no size");
    }
    ExpectRefusal(frame + " 100x60 --format YUV_P010", "unknown format 'YUV_P010'");
    ExpectRefusal(frame + " 100x60 --out " + (m_dir / "missing"), "cannot write ");
    ExpectRefusal(frame + " 100x60 --tuning " + (m_dir / "missing"), "cannot list ");
    ExpectRefusal(frame + " 100x60 --faces " + frame, "is neither a crop nor a face");
    ExpectRefusal(frame + " 100x60 --fast yes", "unknown option --fast");
    ExpectRefusal(frame, "wants a file and a size");
    std::filesystem::create_symlink("/dev/full", m_dir / "full-frame1_100x60_YUV420NV12.raw");
    ExpectRefusal(frame + " 100x60 --name full --out " + m_dir.Path(), "cannot write all of ");
}
