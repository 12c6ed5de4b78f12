// Operations of the volume interface whose subsystems are not built yet.
// Each answers ERROR_NOT_SUPPORTED (boolean forms: 0 or null with LastError
// set) so hosts and tests compile against the final header; an operation
// leaves this file when its subsystem lands.
#include "foundation/log.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

void* CNTFSVolume::FindFirstFileA(const char16_t*, _FIND_FILE_DATA*) {
    LastError = ERROR_NOT_SUPPORTED;
    return nullptr;
}

int CNTFSVolume::FindNextFileA(void*, _FIND_FILE_DATA*) {
    LastError = ERROR_NOT_SUPPORTED;
    return 0;
}

int CNTFSVolume::CloseFindHandle(void*) {
    LastError = ERROR_NOT_SUPPORTED;
    return 0;
}

void* CNTFSVolume::CreateFileA(const char16_t*, unsigned int, unsigned int, unsigned int) {
    LastError = ERROR_NOT_SUPPORTED;
    return nullptr;
}

int CNTFSVolume::ReadFile(void*, void*, int, int*) {
    LastError = ERROR_NOT_SUPPORTED;
    return 0;
}

int CNTFSVolume::WriteFile(void*, const void*, int, int*) {
    LastError = ERROR_NOT_SUPPORTED;
    return 0;
}

int CNTFSVolume::CloseFileHandle(void*) {
    LastError = ERROR_NOT_SUPPORTED;
    return 0;
}

int CNTFSVolume::RenameFile(const char16_t*, const char16_t*) {
    LastError = ERROR_NOT_SUPPORTED;
    return 0;
}

unsigned int CNTFSVolume::SetFilePointer(void*, unsigned int*, int*, unsigned int) {
    return LastError = ERROR_NOT_SUPPORTED;
}

int CNTFSVolume::CreateDirectoryA(const char16_t*, unsigned int) {
    LastError = ERROR_NOT_SUPPORTED;
    return 0;
}

int CNTFSVolume::RemoveDirectoryA(const char16_t*) {
    LastError = ERROR_NOT_SUPPORTED;
    return 0;
}

int CNTFSVolume::GetFileSize(void*, unsigned int*, unsigned int*) {
    LastError = ERROR_NOT_SUPPORTED;
    return 0;
}

unsigned int CNTFSVolume::DeleteFileRecordFromMFT(int64_t) { return ERROR_NOT_SUPPORTED; }

}  // namespace ntfs
