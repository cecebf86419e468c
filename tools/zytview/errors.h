#ifndef ZYTVIEW_ERRORS_H
#define ZYTVIEW_ERRORS_H

#include <stdexcept>

/// An invalid argument or input file. Reported as one line; the exit code is 2.
struct BadInput : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// A failed write. Reported as one line; the exit code is 1.
struct WriteError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

#endif  // ZYTVIEW_ERRORS_H
