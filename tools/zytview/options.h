#ifndef ZYTVIEW_OPTIONS_H
#define ZYTVIEW_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

#include "dump.h"
#include "levels.h"

/// The command line.
struct Options {
    std::vector<std::string> dumps;
    std::string png;  // empty: derived from the dump's name, or no picture
    Geometry geometry;
    bool isBt709 = false;
    bool isLimitedRange = false;
    bool hasYuvOption = false;
    std::optional<uint32_t> bayer;
    WantedLevels levels;
    bool hasWhite = false;
    Rect crop;  // the whole picture when the width is 0
    uint32_t divisor = 1;
    bool wantsStatistics = false;
    bool wantsJson = false;
    std::optional<Rect> pixel;  // of size 1x1
    std::string other;          // path of the dump to compare with
    std::string histogram;      // path of the PNG

    /// Returns true when an option replaces the picture.
    bool AsksForNumbers() const { return wantsStatistics || pixel || !other.empty() || !histogram.empty(); }
};

/// Parses the command line. --help, --version and errors that getopt_long reports end the process. Throws BadInput.
Options ParseOptions(int argc, char** argv);

/// Returns the geometry of a dump: from the options, otherwise from its name, otherwise from `another`. Throws BadInput
/// when it is incomplete or inconsistent.
Geometry Complete(const Options& options, const std::string& dump, const Geometry& another = {});

/// Returns true when the path has a PNG's name or is a device, a pipe or the standard output.
bool IsPngName(const std::string& path);

#endif  // ZYTVIEW_OPTIONS_H
