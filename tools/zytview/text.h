#ifndef ZYTVIEW_TEXT_H
#define ZYTVIEW_TEXT_H

#include <cstdint>
#include <string>

/// printf into a string.
__attribute__((format(printf, 1, 2))) std::string Text(const char* format, ...);

/// For "%llu".
constexpr unsigned long long Long(uint64_t number) { return number; }

/// A JSON string.
std::string Quote(const std::string& text);

#endif  // ZYTVIEW_TEXT_H
