#ifndef ZYTVIEW_TEXT_H
#define ZYTVIEW_TEXT_H

#include <cstdint>
#include <string>

/// Returns the text of a printf format.
__attribute__((format(printf, 1, 2))) std::string Text(const char* format, ...);

/// Converts a number for "%llu".
constexpr unsigned long long Long(uint64_t number) { return number; }

/// Returns text as a JSON string.
std::string Quote(const std::string& text);

#endif  // ZYTVIEW_TEXT_H
