// Whole-file reading: files of any content, empty, behind links, missing, and longer than 32 bits can count.
#include <unistd.h>

#include <fstream>
#include <vector>

#include "fuzzsupport.h"
#include "utilities/zytutil.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    const bool isMissing = data.ConsumeIntegralInRange(0, 15) == 0;
    const bool isLink = data.ConsumeBool();
    const uint64_t wraps = data.ConsumeBool() ? 0 : data.ConsumeIntegralInRange<uint64_t>(0, 3);
    const size_t length = data.ConsumeIntegralInRange<size_t>(0, 40000);  // across several of a stream's buffers
    const std::vector<uint8_t> unit = data.ConsumeRemainingBytes<uint8_t>();
    std::string content(length, '\0');
    for (size_t i = 0; i < length && !unit.empty(); ++i)
        content[i] = static_cast<char>(unit[i % unit.size()] ^ (i >> 8));

    const std::string file = Scratch("file"), link = Scratch("link");
    unlink(file.c_str());
    unlink(link.c_str());
    if (!isMissing) {
        std::ofstream(file, std::ios::binary) << content;
        // What lies beyond is a hole; only the length's low 32 bits count.
        FUZZ_CHECK(truncate(file.c_str(), static_cast<off_t>((wraps << 32) + length)) == 0);
    }
    if (isLink) FUZZ_CHECK(symlink("file", link.c_str()) == 0);
    const std::string& path = isLink ? link : file;

    unsigned int count = 0xdeadbeef;
    char* block = ZYTUtil::ReadFileData(path.c_str(), count);
    FUZZ_CHECK(ZYTUtil::IsFileExist(path.c_str()) == !isMissing);
    FUZZ_CHECK((block == nullptr) == isMissing);
    FUZZ_CHECK(count == (isMissing ? 0 : length));
    if (block != nullptr) FUZZ_CHECK(std::string(block, count) == content);
    ZYTUtil::FreeFileData(block);
    return 0;
}
