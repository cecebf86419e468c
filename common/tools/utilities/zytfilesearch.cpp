// Apart from the other utilities and built for size: the templates behind a regular expression are more than half of
// the library's code, and what they are waited for is the disk.

#include <regex>

#include "utilities/zytutil.h"

namespace {

constexpr size_t kPathSize = 2048;

}  // namespace

int32_t ZYTUtil::SearchFileByName(const char* dir, const char* pattern, std::vector<std::string>& files,
                                  bool recursive) noexcept {
    if (dir == nullptr || pattern == nullptr) return 1;
    std::vector<std::string> listed;
    if (GetFileListInDir(dir, listed, recursive) != 0) return 1;
    const std::regex expression(pattern);
    char name[kPathSize] = {};
    for (const std::string& path : listed) {
        GetFileNameFromFilePath(path.c_str(), name, sizeof(name));
        if (std::regex_match(name, expression)) files.push_back(path);
    }
    return 0;
}
