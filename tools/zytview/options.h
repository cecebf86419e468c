#ifndef ZYTVIEW_OPTIONS_H
#define ZYTVIEW_OPTIONS_H

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "dump.h"
#include "levels.h"

/// The command line.
struct Options {
    std::vector<std::string> dumps;
    std::string png;              // empty: derived from the dump's name, or no picture
    std::set<std::string> given;  // names of all options
    Geometry geometry;
    uint32_t matrix = 0;  // 0 BT.601, 1 BT.709
    uint32_t range = 0;   // 0 full, 1 limited
    std::optional<uint32_t> bayer;
    WantedLevels levels;
    uint32_t curve = 0;    // 0 none, 1 sRGB
    Rect crop;             // the whole picture when the width is 0
    uint32_t scale = 0;    // the picture has 1/2^scale of the width and height
    Rect pixel;            // of size 1x1
    uint32_t profile = 0;  // 0 of rows, 1 of columns
    uint32_t tolerance = 0;
    std::string other;      // path of the dump to compare with
    std::string histogram;  // path of the PNG
    std::string npy;        // path of the array

    bool Has(const char* name) const { return given.count(name) > 0; }
    /// Returns true when the dump itself is shown, not numbers alone and no difference or profile.
    bool ShowsDump() const;
};

/// Parses the command line. --help and --version print their text and end the process, as do errors that getopt_long
/// reports. Throws BadInput and WriteError.
Options ParseOptions(int argc, char** argv);

/// Returns the geometry of a dump: from the options, otherwise from its name, otherwise from `another`. Throws BadInput
/// when it is incomplete or inconsistent.
Geometry Complete(const Options& options, const std::string& dump, const Geometry& another = {});

#endif  // ZYTVIEW_OPTIONS_H
