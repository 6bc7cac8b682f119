// libFuzzer's entry into one target; KQ71_FUZZ_BODY names its body.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    return KQ71_FUZZ_BODY(data, size);
}
