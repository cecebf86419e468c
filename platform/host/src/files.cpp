#include "hostdevice/files.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace hostdevice {
namespace {

namespace fs = std::filesystem;

// Clients append a file name to the directory in a 256-byte buffer.
constexpr size_t kLongestDirectory = 255 - sizeof("ZYTOfflineLog_YYYY-MM-DD--hh-mm-ss-uuuuuu.txt") + 1;

// Not a directory, even for root.
constexpr char kNowhere[] = "/dev/null/";

// Returns an empty path when the variable is unset or empty.
fs::path FromEnvironment(const char* variable, const char* below) {
    const char* value = std::getenv(variable);
    return value != nullptr && *value != '\0' ? fs::path(value) / below : fs::path();
}

fs::path DataFolder() {
    // Absolute, so that a change of the working directory does not move the device's files.
    if (fs::path folder = FromEnvironment("HOSTDEVICE_DATA", ""); !folder.empty()) return fs::absolute(folder);
    if (fs::path folder = FromEnvironment("XDG_STATE_HOME", "zyttools"); folder.is_absolute()) return folder;
    return FromEnvironment("HOME", ".local/state/zyttools");
}

std::string CreateOfflineLogDirectory() {
    const fs::path folder = DataFolder();
    std::string directory = (folder / "data/vendor/camera/offlinelog/").string(), reason;
    std::error_code error;
    if (folder.empty()) {
        reason = "neither HOSTDEVICE_DATA nor HOME is set";
    } else if (directory.size() > kLongestDirectory) {
        reason = directory + " leaves no room for a file's name";
    } else if (fs::create_directories(directory, error); error) {
        reason = directory + ": " + error.message();
    } else {
        return directory;
    }
    std::fprintf(stderr, "hostdevice: no offline log: %s\n", reason.c_str());
    return kNowhere;
}

}  // namespace

const char* OfflineLogDir() {
    static const auto* const directory = new std::string(CreateOfflineLogDirectory());
    return directory->c_str();
}

}  // namespace hostdevice
