// Operations of the volume interface whose subsystems are not built yet.
// Each answers ERROR_NOT_SUPPORTED (boolean forms: 0 or null with LastError
// set) so hosts and tests compile against the final header; an operation
// leaves this file when its subsystem lands.
#include "foundation/log.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

int CNTFSVolume::RenameFile(const char16_t*, const char16_t*) {
    LastError = ERROR_NOT_SUPPORTED;
    return 0;
}

int CNTFSVolume::CreateDirectoryA(const char16_t*, unsigned int) {
    LastError = ERROR_NOT_SUPPORTED;
    return 0;
}

int CNTFSVolume::RemoveDirectoryA(const char16_t*) {
    LastError = ERROR_NOT_SUPPORTED;
    return 0;
}

unsigned int CNTFSVolume::DeleteFileRecordFromMFT(int64_t) { return ERROR_NOT_SUPPORTED; }

// Deleting files arrives with file record allocation.
unsigned int CNTFSVolume::DeleteFile(CFileHandle*) { return ERROR_NOT_SUPPORTED; }

}  // namespace ntfs
