#ifndef ZYTVIEW_OPTIONS_H
#define ZYTVIEW_OPTIONS_H

#include <set>
#include <string>
#include <vector>

#include "picture.h"

/// The command line.
struct Options {
    std::vector<std::string> dumps;
    std::string png;              // empty: derived from the dump's name, or no picture
    std::set<std::string> given;  // names of all options
    Geometry geometry;
    Look look;
    Rect crop;               // the whole picture when the width is 0
    uint32_t scale = 0;      // the picture has 1/2^scale of the width and height
    Rect pixel;              // of size 1x1
    bool ofColumns = false;  // the profile
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
