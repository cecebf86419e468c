#ifndef ZYTVIEW_ERRORS_H
#define ZYTVIEW_ERRORS_H

#include <stdexcept>

/// A mistake in what the user gave: shown as one line, exit code 2.
struct BadInput : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// What could not be written: shown as one line, exit code 1.
struct WriteError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

#endif  // ZYTVIEW_ERRORS_H
