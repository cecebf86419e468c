// Base names and lower case, over exactly-sized strings of any bytes.
#include <cstring>
#include <memory>

#include "fuzzsupport.h"
#include "utilities/zytutil.h"

namespace {

// What is to be written, with the terminator where it is copied.
std::string ExpectedName(const std::string& path, uint32_t capacity) {
    std::string name;
    bool hasSlash = false;
    for (const char c : path) {
        name.push_back(c);
        if (c == '/') name.clear();
        if (c == '/') hasSlash = true;
    }
    if (hasSlash) name.push_back('\0');
    return name.substr(0, capacity);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    uint32_t capacity = data.ConsumeIntegral<uint32_t>();
    const bool isSmall = data.ConsumeBool();
    const std::string text = UpToNul(data.ConsumeRemainingBytesAsString());
    if (isSmall) capacity %= static_cast<uint32_t>(text.size()) + 3;
    const std::unique_ptr<char[]> path(new char[text.size() + 1]);
    std::memcpy(path.get(), text.c_str(), text.size() + 1);

    // A canary on each side, the second one within the capacity; the memory ends with it even if the capacity is huge.
    const std::string expected = ExpectedName(text, capacity);
    const std::string before(16, '\xa5'), after(std::min<size_t>(16, capacity - expected.size()), '\x5a');
    const std::string block = before + expected + after;
    const std::unique_ptr<char[]> name(new char[block.size()]);
    std::memcpy(name.get(), block.data(), block.size());
    for (size_t i = 0; i < expected.size(); ++i) name[before.size() + i] = static_cast<char>(~expected[i]);
    ZYTUtil::GetFileNameFromFilePath(path.get(), name.get() + before.size(), capacity);
    FUZZ_CHECK(std::string(name.get(), block.size()) == block);

    static const std::string kUpper = "ABCDEFGHIJKLMNOPQRSTUVWXYZ", kLower = "abcdefghijklmnopqrstuvwxyz";
    const std::string lower = ZYTUtil::ToLowerCaseStr(path.get());
    FUZZ_CHECK(lower.size() == text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        const size_t letter = kUpper.find(text[i]);
        FUZZ_CHECK(lower[i] == (letter != std::string::npos ? kLower[letter] : text[i]));
    }
    return 0;
}
