#include "text.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

namespace {

// Returns the length of the UTF-8 character that text begins with, 0 when there is none.
size_t CharacterLength(std::string_view text) {
    constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};  // a longer form of a smaller number is invalid
    const auto lead = static_cast<unsigned char>(text[0]);
    const size_t length = lead < 0x80 ? 1 : lead >> 5 == 6 ? 2 : lead >> 4 == 14 ? 3 : lead >> 3 == 30 ? 4 : 0;
    if (length < 2 || length > text.size()) return length == 1 ? 1 : 0;
    uint32_t code = lead & (0x7fu >> length);
    for (const char c : text.substr(1, length - 1)) {
        if ((c & 0xc0) != 0x80) return 0;
        code = code << 6 | (c & 0x3f);
    }
    const bool isSurrogate = code >= 0xd800 && code <= 0xdfff;
    return code < kLeast[length] || code > 0x10ffff || isSurrogate ? 0 : length;
}

}  // namespace

std::string Text(const char* format, ...) {
    char* text = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    if (length < 0) throw std::bad_alloc();
    std::string copy = text;
    std::free(text);
    return copy;
}

std::string Quote(const std::string& text) {
    std::string quoted = "\"";
    for (size_t i = 0; i < text.size();) {
        const size_t length = CharacterLength(std::string_view(text).substr(i));
        if (length == 1 && static_cast<unsigned char>(text[i]) < ' ') {
            quoted += Text("\\u%04x", static_cast<unsigned>(text[i]));
        } else {
            if (text[i] == '"' || text[i] == '\\') quoted += '\\';
            quoted += length == 0 ? "\uFFFD" : text.substr(i, length);
        }
        i += length == 0 ? 1 : length;
    }
    return quoted + '"';
}

void Print(FILE* stream, const std::string& text) {
    if (std::fputs(text.c_str(), stream) >= 0 && std::fflush(stream) == 0) return;
    throw WriteError(std::string("cannot write the standard ") + (stream == stdout ? "output: " : "error: ") +
                     std::strerror(errno));
}

Cell NumberCell(const char* title, int width, const char* key, uint64_t number) {
    return {title, width, std::to_string(number), key, std::to_string(number)};
}

Cell RealCell(const char* title, int width, int decimals, const char* key, double number) {
    return {title, width, Text("%.*f", decimals, number), key, std::to_string(number)};
}

std::string Table(const std::vector<std::string>& names, const std::vector<std::vector<Cell>>& channels) {
    std::string header = "channel ";
    std::string lines;
    for (size_t i = 0; i < names.size(); ++i) {
        lines += Text("%-8s", names[i].c_str());
        for (const Cell& cell : channels[i]) {
            if (cell.title == nullptr) continue;
            if (i == 0) header += Text("%*s", cell.width, cell.title);
            lines += Text("%*s", cell.width, cell.text.c_str());
        }
        lines += '\n';
    }
    return header + "\n" + lines;
}

std::string Json(const std::vector<std::string>& names, const std::vector<std::vector<Cell>>& channels) {
    std::string json;
    for (size_t i = 0; i < names.size(); ++i) {
        json += (i == 0 ? "{" : "}, ") + Quote(names[i]);
        for (const Cell& cell : channels[i]) {
            json += (&cell == channels[i].data() ? ": {" : ", ") + Quote(cell.key) + ": " + cell.json;
        }
    }
    return json + "}}";
}
