#include "hostdevice/files.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include "internal.h"

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

struct OfflineLogDirectory {
    std::string path = kNowhere;

    OfflineLogDirectory() {
        const fs::path folder = DataFolder();
        const std::string directory = (folder / "data/vendor/camera/offlinelog/").string();
        std::error_code error;
        if (folder.empty()) {
            std::fprintf(stderr, "hostdevice: no offline log: neither HOSTDEVICE_DATA nor HOME is set\n");
        } else if (directory.size() > kLongestDirectory) {
            std::fprintf(stderr, "hostdevice: no offline log: %s leaves no room for a file's name\n",
                         directory.c_str());
        } else if (fs::create_directories(directory, error); error) {
            std::fprintf(stderr, "hostdevice: no offline log: %s: %s\n", directory.c_str(), error.message().c_str());
        } else {
            path = directory;
        }
    }
};

}  // namespace

const char* OfflineLogDir() { return Immortal<OfflineLogDirectory>().path.c_str(); }

}  // namespace hostdevice
