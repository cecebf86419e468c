// Runs the denoise node with each device fault at each call.
#include <hostdevice/hostdevice.h>

#include "nodekit/rawpixels.h"
#include "support.h"

using hostdevice::Fault;

int DenoiseMain(int argc, char** argv);  // the node's main(), renamed by the build

namespace {

constexpr uint32_t kPixels = 20 * 9;

int Denoise(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "denoise");
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    return DenoiseMain(static_cast<int>(argv.size()), argv.data());
}

// Returns a dump of samples that begin with `first`, each larger than the one before it by `step`.
std::string Ramp(ZYTFormat format, uint32_t first, uint32_t step) {
    uint16_t samples[kPixels];
    for (uint32_t i = 0; i < kPixels; ++i) samples[i] = static_cast<uint16_t>(first + i * step);
    std::string dump(static_cast<size_t>(zyt::LayoutOf(format).RowBytes(kPixels)), '\0');
    zyt::PackRow(format, samples, kPixels, reinterpret_cast<unsigned char*>(dump.data()));
    return dump;
}

}  // namespace

TEST(Denoise, AveragesOrSaysWhyAndLeaksNothing) {
    zyttest::TempDir dir;
    std::vector<std::string> frames;
    for (uint32_t i = 1; i <= 4; ++i) {
        frames.push_back(dir / std::to_string(i) + "_20x9_RawMipi10.raw");
        zyttest::WriteFile(frames.back(), Ramp(ZYT_FORMAT_RAWMIPI10, 100 * i, 1));
    }
    zyttest::LogCapture log;
    for (const Fault fault : {Fault::kHeapAllocation, Fault::kMapping, Fault::kSync}) {
        for (uint64_t n = 1; !hostdevice::FaultPending(fault); ++n) {
            SCOPED_TRACE(std::to_string(static_cast<int>(fault)) + " at " + std::to_string(n));
            zyttest::WriteFile(dir / "denoise_20x9_Raw16.raw", "");
            hostdevice::FailNth(fault, n);
            const bool isGood = Denoise({frames[0], frames[1], frames[2], frames[3], dir.Path()}) == 0;
            EXPECT_EQ(log.Transcript().find("E [denoise]") == std::string::npos, isGood) << "says why when it fails";
            EXPECT_TRUE(isGood || !hostdevice::FaultPending(fault)) << "nothing failed";
            EXPECT_THAT(hostdevice::CountLive(), testing::FieldsAre(0, 0, 0, 0, 0));
            if (!isGood) continue;
            EXPECT_EQ(zyttest::ReadFile(dir / "denoise_20x9_Raw16.raw"), Ramp(ZYT_FORMAT_RAW16, 16000, 64));
        }
        hostdevice::ClearFaults();
    }
    const std::string raw = dir / "all_8x2_Raw16.raw", nv12 = dir / "all_4x2_NV12.raw";
    zyttest::WriteFile(raw, std::string(32, '\xff'));
    zyttest::WriteFile(nv12, std::string(12, '\0'));
    EXPECT_EQ(Denoise({raw, raw, raw, raw, dir.Path()}), 0);
    EXPECT_EQ(zyttest::ReadFile(dir / "denoise_8x2_Raw16.raw"), std::string(32, '\xff')) << "nothing overflows";
    EXPECT_EQ(Denoise({nv12, nv12, nv12, nv12, dir.Path()}), 1) << "not raw";
    EXPECT_EQ(Denoise({raw, raw, raw, raw}), 2);
}
