#include "fuzzsupport.h"
#include "rules.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    FUZZ_CHECK(zytrule::DrawsByRule(data));
    return 0;
}
