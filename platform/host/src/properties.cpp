#include "cutils/properties.h"

#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "internal.h"

namespace {

std::string Trim(const std::string& text) {
    constexpr char kBlanks[] = " \t\r\n";
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

class PropertyStore {
public:
    // In the constructor, because other libraries read properties in their static initialisers.
    PropertyStore() {
        const char* const path = std::getenv("HOSTDEVICE_PROPERTIES");
        if (path == nullptr || *path == '\0') return;
        std::FILE* const file = std::fopen(path, "re");
        char* text = nullptr;
        size_t capacity = 0;
        for (int number = 1; file != nullptr && getline(&text, &capacity, file) >= 0; ++number) {
            const std::string line = Trim(text);
            if (line.empty() || line[0] == '#') continue;
            const size_t equals = line.find('=');
            if (equals == std::string::npos) {
                std::fprintf(stderr, "hostdevice: %s:%d: not key=value, ignored\n", path, number);
                continue;
            }
            m_values[Trim(line.substr(0, equals))] = Trim(line.substr(equals + 1));
        }
        std::free(text);
        // ferror: opening a directory succeeds, only reading it fails.
        if (file == nullptr || std::ferror(file)) {
            std::fprintf(stderr, "hostdevice: cannot read properties from %s: %s\n", path, std::strerror(errno));
        }
        if (file != nullptr) std::fclose(file);
    }

    std::string Get(const std::string& key) {
        const std::lock_guard<std::mutex> guard(m_lock);
        const auto found = m_values.find(key);
        return found != m_values.end() ? found->second : std::string();
    }

    void Set(const std::string& key, const std::string& value) {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_values[key] = value;
    }

private:
    std::mutex m_lock;
    std::map<std::string, std::string> m_values;
};

PropertyStore& Properties() { return hostdevice::Immortal<PropertyStore>(); }

// Like strtoimax with base 0, with the platform's binary prefix.
intmax_t ParseNumber(const char* text, char** end) {
    const char* const prefix = text + std::strspn(text, " \t\n\v\f\r");
    const char* const digits = prefix + std::strspn(prefix, "+-");
    const bool isBinary = digits[0] == '0' && std::tolower(digits[1]) == 'b' && (digits[2] == '0' || digits[2] == '1');
    if (digits - prefix > 1 || !isBinary) return std::strtoimax(text, end, 0);
    *end = const_cast<char*>(digits + 3);
    return std::strtoimax((std::string(prefix, digits) + (digits + 2)).c_str(), nullptr, 2);
}

intmax_t GetNumber(const char* key, intmax_t lowest, intmax_t highest, intmax_t defaultValue) {
    if (key == nullptr) return defaultValue;
    char text[PROPERTY_VALUE_MAX];
    property_get(key, text, nullptr);
    const int savedErrno = errno;
    char* end = text;
    errno = 0;
    const intmax_t number = ParseNumber(text, &end);
    const bool isNumber = end != text && errno != ERANGE && number >= lowest && number <= highest;
    errno = savedErrno;
    return isNumber ? number : defaultValue;
}

}  // namespace

int property_get(const char* key, char* value, const char* default_value) {
    if (key == nullptr) hostdevice::CrashOnNull("a property's key");
    std::string found = Properties().Get(key);
    if (found.empty() && default_value != nullptr) found = default_value;
    const size_t length = found.copy(value, PROPERTY_VALUE_MAX - 1);
    value[length] = '\0';
    return static_cast<int>(length);
}

int32_t property_get_int32(const char* key, int32_t default_value) {
    return static_cast<int32_t>(GetNumber(key, INT32_MIN, INT32_MAX, default_value));
}

int64_t property_get_int64(const char* key, int64_t default_value) {
    return GetNumber(key, INT64_MIN, INT64_MAX, default_value);
}

int8_t property_get_bool(const char* key, int8_t default_value) {
    if (key == nullptr) return default_value;
    char text[PROPERTY_VALUE_MAX];
    property_get(key, text, nullptr);
    for (const char* word : {"1", "y", "yes", "on", "true"}) {
        if (std::strcmp(text, word) == 0) return 1;
    }
    for (const char* word : {"0", "n", "no", "off", "false"}) {
        if (std::strcmp(text, word) == 0) return 0;
    }
    return default_value;
}

int property_set(const char* key, const char* value) {
    if (value == nullptr) value = "";
    if (key == nullptr || *key == '\0') return -1;
    const bool isReadOnly = std::strncmp(key, "ro.", 3) == 0;
    if (isReadOnly ? !Properties().Get(key).empty() : std::strlen(value) >= PROPERTY_VALUE_MAX) return -1;
    hostdevice::SetProperty(key, value);
    return 0;
}

namespace hostdevice {

void SetProperty(const std::string& key, const std::string& value) { Properties().Set(key, value); }

// On the platform an unset property reads as an empty value.
void ClearProperty(const std::string& key) { Properties().Set(key, {}); }

}  // namespace hostdevice
