// libFuzzer entry point of one fuzz target; NTFSKIT_FUZZ_DRIVER names the
// driver of fuzz/harness/drivers.h that it runs.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

#include "drivers.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The library traces every failure to standard output: a damaged volume
    // makes many lines, and libFuzzer reports on standard error.
    const int null = open("/dev/null", O_WRONLY);
    if (null >= 0) {
        dup2(null, STDOUT_FILENO);
        close(null);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ntfs::fuzz::NTFSKIT_FUZZ_DRIVER(data, size);
    return 0;
}
