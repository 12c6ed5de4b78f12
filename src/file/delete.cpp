// Deleting files at close, and removing directories.
// Not built yet: answers ERROR_NOT_SUPPORTED (boolean forms: 0 with
// LastError set) until its subsystem lands.
#include "foundation/log.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

unsigned int CNTFSVolume::DeleteFile(CFileHandle*) {
    return ERROR_NOT_SUPPORTED;
}

int CNTFSVolume::RemoveDirectoryA(const char16_t*) {
    LastError = ERROR_NOT_SUPPORTED;
    return 0;
}

}  // namespace ntfs
