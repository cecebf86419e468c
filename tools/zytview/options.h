#ifndef ZYTVIEW_OPTIONS_H
#define ZYTVIEW_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

#include "dump.h"
#include "levels.h"

/// What the command line asks for.
struct Options {
    std::vector<std::string> dumps;
    std::string png;  // empty where it follows from the dump's name, or is not wanted
    Geometry geometry;
    bool isBt709 = false;
    bool isLimitedRange = false;
    bool hasYuvOption = false;
    std::optional<uint32_t> bayer;
    WantedLevels levels;
    bool hasWhite = false;
    Rect crop;  // the whole picture while it has no width
    uint32_t divisor = 1;
    bool wantsStatistics = false;
    bool wantsJson = false;
    std::optional<Rect> pixel;  // a size of 1x1
    std::string other;          // what --diff compares with
    std::string histogram;      // a PNG's name

    /// Whether something is asked for instead of a picture.
    bool AsksForNumbers() const { return wantsStatistics || pixel || !other.empty() || !histogram.empty(); }
};

/// Reads the command line; --help and --version, and what getopt_long reports, end the process. Throws BadInput.
Options ParseOptions(int argc, char** argv);

/// What a dump's name tells of its geometry, where no option has told it; what neither tells is that of another. Throws
/// BadInput for what is missing or does not go together.
Geometry Complete(const Options& options, const std::string& dump, const Geometry& another = {});

/// Whether a path is one of a PNG: such a name, or a device, a pipe or the standard output.
bool IsPngName(const std::string& path);

#endif  // ZYTVIEW_OPTIONS_H
