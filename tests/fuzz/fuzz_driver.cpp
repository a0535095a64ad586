// The libFuzzer entry points every target shares: the routines' console lines kept out of the
// fuzzer's output, then the target's own property check.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    if (!std::freopen("/dev/null", "w", stdout)) std::abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    return fuzz::one({reinterpret_cast<const char *>(data), size});
}
