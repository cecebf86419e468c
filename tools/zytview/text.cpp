#include "text.h"

#include <cstdarg>
#include <cstdio>

std::string Text(const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return text;
}

std::string Quote(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        if (static_cast<unsigned char>(c) < ' ') {
            quoted += Text("\\u%04x", static_cast<unsigned>(c));
        } else {
            if (c == '"' || c == '\\') quoted += '\\';
            quoted += c;
        }
    }
    return quoted + '"';
}
