// Runs the denoise node with each device fault at each call.
#include <gtest/gtest.h>
#include <hostdevice/hostdevice.h>

#include <algorithm>

#include "nodekit/rawpixels.h"
#include "support.h"

using hostdevice::Fault;

int DenoiseMain(int argc, char** argv);  // the node's main(), renamed by the build

TEST(Denoise, AveragesOrSaysWhyAndLeaksNothing) {
    constexpr size_t kWidth = 20, kHeight = 9;
    zyttest::TempDir dir;
    std::string words[6] = {"denoise"};
    char* argv[6] = {words[0].data()};
    for (uint16_t frame = 1; frame <= 4; ++frame) {
        std::string dump(kWidth * 10 / 8 * kHeight, '\0');
        for (uint32_t y = 0; y < kHeight; ++y) {
            const std::vector<uint16_t> samples(kWidth, static_cast<uint16_t>(100 * frame + y));
            zyt::PackRow(ZYT_FORMAT_RAWMIPI10, samples.data(), kWidth,
                         reinterpret_cast<unsigned char*>(&dump[y * kWidth * 10 / 8]));
        }
        words[frame] = dir / "frame" + std::to_string(frame) + "_20x9_RawMipi10.raw";
        zyttest::WriteFile(words[frame], dump);
        argv[frame] = words[frame].data();
    }
    words[5] = dir.Path();
    argv[5] = words[5].data();
    const std::string output = dir / "denoise_20x9_Raw16.raw";

    zyttest::LogCapture log;
    for (const Fault fault :
         {Fault::kHeapAllocation, Fault::kGraphicBuffer, Fault::kGraphicDescriptor, Fault::kMapping, Fault::kSync}) {
        for (uint64_t n = 1; !hostdevice::FaultPending(fault); ++n) {
            SCOPED_TRACE(std::to_string(static_cast<int>(fault)) + " at " + std::to_string(n));
            zyttest::WriteFile(output, "");
            log.Take();
            hostdevice::FailNth(fault, n);
            const int result = DenoiseMain(6, argv);
            const std::vector<std::string> lines = log.Take();
            const auto isReason = [](const std::string& line) { return line.rfind("E [denoise]", 0) == 0; };
            EXPECT_EQ(std::any_of(lines.begin(), lines.end(), isReason), result != 0) << "says why when it fails";
            if (hostdevice::FaultPending(fault)) {
                EXPECT_EQ(result, 0) << "nothing failed";
            }
            const std::string dump = zyttest::ReadFile(output);
            if (result == 0) {
                ASSERT_EQ(dump.size(), kWidth * kHeight * 2);
                for (size_t i = 0; i < kWidth * kHeight; ++i) {
                    const size_t sample =
                        static_cast<unsigned char>(dump[2 * i]) + static_cast<unsigned char>(dump[2 * i + 1]) * 256u;
                    ASSERT_EQ(sample, (1000 + 4 * (i / kWidth)) * 16);
                }
            }
            const hostdevice::LiveResources live = hostdevice::CountLive();
            EXPECT_EQ(live.heapDescriptors + live.heapMappings + live.graphicBuffers, 0u);
        }
        hostdevice::ClearFaults();
    }
    std::swap(argv[4], argv[5]);
    EXPECT_EQ(DenoiseMain(6, argv), 1) << "a directory is no frame";
    words[4] = dir / "all_8x2_Raw16.raw";
    zyttest::WriteFile(words[4], std::string(32, '\xff'));
    for (int i = 1; i <= 4; ++i) argv[i] = words[4].data();
    argv[5] = words[5].data();
    EXPECT_EQ(DenoiseMain(6, argv), 0);
    EXPECT_EQ(zyttest::ReadFile(dir / "denoise_8x2_Raw16.raw"), std::string(32, '\xff')) << "nothing overflows";
    words[4] = dir / "all_4x2_NV12.raw";
    zyttest::WriteFile(words[4], std::string(12, '\0'));
    for (int i = 1; i <= 4; ++i) argv[i] = words[4].data();
    EXPECT_EQ(DenoiseMain(6, argv), 1) << "not raw";
    EXPECT_EQ(DenoiseMain(5, argv), 2);
}
