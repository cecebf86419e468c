// Listing and searching a small tree that the input describes, against a lister made of the standard library's parts.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <regex>
#include <vector>

#include "fuzzsupport.h"
#include "utilities/zytutil.h"

namespace fs = std::filesystem;

namespace {

// False when dir or a directory below it cannot be listed.
bool ListByRule(const std::string& dir, bool recursive, std::vector<std::string>& files) {
    std::error_code error;
    for (fs::directory_iterator entry(dir, error), end; !error && entry != end; entry.increment(error)) {
        const std::string whole = dir + "/" + entry->path().filename().string();
        const std::string path = whole.substr(0, 2046);
        std::error_code missing;
        const fs::file_status status = fs::status(path, missing);
        if (missing || !fs::exists(status)) continue;
        if (!fs::is_directory(status)) {
            files.push_back(path);
        } else if (recursive && (path == whole || !fs::equivalent(path, dir))) {
            if (!ListByRule(path, true, files)) return false;
        }
    }
    return !error;
}

// Names stay so short, and patterns so simple, that a backtracking matcher comes to an end.
std::string Name(FuzzedDataProvider& data) {
    std::string name = UpToNul(data.ConsumeRandomLengthString(10));
    std::replace(name.begin(), name.end(), '/', '_');
    return name.empty() || name == "." || name == ".." ? name + "x" : name;
}

// An ill-formed pattern ends the process by design.
bool Compile(const std::string& pattern, std::regex& expression) {
    const auto repeats = [](char c) { return std::strchr("*+?{", c) != nullptr; };
    if (std::count_if(pattern.begin(), pattern.end(), repeats) > 2) return false;
    try {
        expression = pattern;
    } catch (const std::regex_error&) {
        return false;
    }
    return true;
}

// A directory of the tree that is made on the way.
std::string BuildTree(FuzzedDataProvider& data, const std::string& base) {
    std::vector<std::string> directories = {base};
    bool hasLink = false;
    for (int i = 0; i < 12 && data.remaining_bytes() > 0; ++i) {
        const std::string path = data.PickValueInArray({base, directories.back()}) + "/" + Name(data);
        const int kind = data.ConsumeIntegralInRange(0, 7);
        if (kind < 3) {
            if (mkdir(path.c_str(), 0700) == 0) directories.push_back(path);
        } else if (kind == 3 && !hasLink) {
            // One at most: with two cycles the paths through them are beyond counting.
            const std::string target = data.PickValueInArray<std::string>({".", "..", "missing", Name(data)});
            hasLink = symlink(target.c_str(), path.c_str()) == 0;
        } else {
            mknod(path.c_str(), (kind == 4 ? S_IFIFO : S_IFREG) | 0600, 0);
        }
    }
    return data.PickValueInArray({base, directories.back()});
}

// Whether the library lists, and where there is an expression also searches, as expected. Lists are appended to.
bool Agrees(const std::string& dir, bool recursive, const std::string& pattern, const std::regex* expression) {
    std::vector<std::string> expected = {"kept"}, files = expected, matching = expected, found = expected;
    const int32_t result = ListByRule(dir, recursive, expected) ? 0 : 1;
    if (ZYTUtil::GetFileListInDir(dir.c_str(), files, recursive) != result || files != expected) return false;
    if (expression == nullptr) return true;
    for (size_t i = 1; result == 0 && i < expected.size(); ++i) {
        const std::string name = fs::path(expected[i]).filename().string();
        if (std::regex_match(name, *expression)) matching.push_back(expected[i]);
    }
    return ZYTUtil::SearchFileByName(dir.c_str(), pattern.c_str(), found, recursive) == result && found == matching;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    const std::string pattern = UpToNul(data.ConsumeRandomLengthString(24));
    const bool recursive = data.ConsumeBool();
    const std::string base = Scratch("tree");
    fs::remove_all(base);
    fs::create_directory(base);
    std::string dir = BuildTree(data, base);
    // As it is, or something below it, or spelled so long that paths are cut.
    const int spelling = data.ConsumeIntegralInRange(0, 4);
    if (spelling == 0) dir += "/" + Name(data);
    if (spelling == 1) dir += "/";
    if (spelling == 2) dir.resize(data.ConsumeIntegralInRange<size_t>(2000, 2060), '/');

    std::regex compiled;
    const std::regex* expression = Compile(pattern, compiled) ? &compiled : nullptr;
    // While anybody mounts a file system, the kernel counts links twice and gives up early on those that lead back into
    // the tree: what differs has to differ again.
    const auto agrees = [&] { return Agrees(dir, recursive, pattern, expression); };
    FUZZ_CHECK(agrees() || agrees() || agrees());
    return 0;
}
