// Making directories.
// Not built yet: answers ERROR_NOT_SUPPORTED (boolean forms: 0 with
// LastError set) until its subsystem lands.
#include "foundation/log.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

int CNTFSVolume::CreateDirectoryA(const char16_t*, unsigned int) {
    LastError = ERROR_NOT_SUPPORTED;
    return 0;
}

}  // namespace ntfs
