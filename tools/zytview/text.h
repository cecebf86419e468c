#ifndef ZYTVIEW_TEXT_H
#define ZYTVIEW_TEXT_H

#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

/// An invalid argument or input file. Reported as one line; the exit code is 2.
struct BadInput : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// A failed write. Reported as one line; the exit code is 1, or 2 with --diff.
struct WriteError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Returns the text of a printf format.
__attribute__((format(printf, 1, 2))) std::string Text(const char* format, ...);

/// Returns text as a JSON string. What is not UTF-8 becomes U+FFFD.
std::string Quote(const std::string& text);

/// Writes text to stdout or stderr at once. Throws WriteError.
void Print(FILE* stream, const std::string& text);

/// A number of a channel, for tables and for JSON.
struct Cell {
    const char* title;  // column of the table; null when it is in JSON only
    int width;
    std::string text;
    const char* key;  // member of the JSON object
    std::string json;
};

/// Returns the cell of a number, whose text in tables is the same as in JSON or has so many decimals.
Cell NumberCell(const char* title, int width, const char* key, uint64_t number);
Cell RealCell(const char* title, int width, int decimals, const char* key, double number);

/// Returns a header line and one line per channel. REQUIRES: as many names as channels, at least one.
std::string Table(const std::vector<std::string>& names, const std::vector<std::vector<Cell>>& channels);

/// Returns a JSON object with a member for each channel.
std::string Json(const std::vector<std::string>& names, const std::vector<std::vector<Cell>>& channels);

#endif  // ZYTVIEW_TEXT_H
