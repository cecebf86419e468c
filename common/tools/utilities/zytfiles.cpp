#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>

#include "utilities/zytutil.h"

namespace {

constexpr size_t kPathSize = 2048;

// Closes a stream that may be null. A listing makes one closedir call even when its directory could not be opened:
// tools that trace the C library's calls pair that call with the listing. C libraries return an error for a null
// stream. Some declare the parameter as never null, so a compiler that saw the call would drop the test for null before
// it. The volatile pointer hides the call.
int (*volatile g_closeDirectory)(DIR*) = closedir;

bool IsSameDirectory(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace

int32_t ZYTUtil::GetFileListInDir(const char* dir, std::vector<std::string>& files, bool recursive) noexcept {
    char path[kPathSize] = {};
    struct stat dirStat {};
    DIR* stream = nullptr;
    if (stat(dir, &dirStat) == 0 && S_ISDIR(dirStat.st_mode)) stream = opendir(dir);
    if (stream == nullptr) {
        g_closeDirectory(stream);
        return 1;
    }
    int32_t result = 0;
    while (const dirent* entry = readdir(stream)) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
        const int length = std::snprintf(path, sizeof(path) - 1, "%s/%s", dir, entry->d_name);
        struct stat pathStat {};
        if (stat(path, &pathStat) != 0) continue;
        if (!S_ISDIR(pathStat.st_mode)) {
            files.emplace_back(path);
            continue;
        }
        if (!recursive) continue;
        // A path that was cut can name dir itself, which would be listed without end.
        const bool isCut = length < 0 || static_cast<size_t>(length) >= sizeof(path) - 1;
        if (isCut && IsSameDirectory(pathStat, dirStat)) continue;
        if (GetFileListInDir(path, files, true) != 0) {
            result = 1;
            break;
        }
    }
    g_closeDirectory(stream);
    return result;
}

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

void ZYTUtil::GetFileNameFromFilePath(const char* path, char* name, unsigned int size) {
    const size_t length = std::strlen(path);
    if (const char* slash = std::strrchr(path, '/')) {
        const auto index = static_cast<size_t>(slash - path);
        std::memcpy(name, slash + 1, std::min<size_t>(length - index, size));
    } else {
        std::memcpy(name, path, std::min<size_t>(length, size));
    }
}

std::string ZYTUtil::ToLowerCaseStr(const char* str) {
    std::string lower(str);
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 0x20);
    }
    return lower;
}

char* ZYTUtil::ReadFileData(const char* path, unsigned int& size) {
    std::ifstream file(path, std::ios::in | std::ios::binary);
    if (!file.is_open()) {
        size = 0;
        return nullptr;
    }
    file.seekg(0, std::ios::end);
    const auto length = static_cast<uint32_t>(static_cast<std::streamoff>(file.tellg()));
    file.seekg(0, std::ios::beg);
    char* data = static_cast<char*>(std::malloc(length));
    if (data != nullptr) file.read(data, static_cast<std::streamsize>(length));
    size = length;
    return data;
}

void ZYTUtil::FreeFileData(char* data) { std::free(data); }

bool ZYTUtil::IsFileExist(const char* path) {
    struct stat pathStat {};
    return path != nullptr && stat(path, &pathStat) == 0;
}
