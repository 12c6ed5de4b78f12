// CVolume: the file-system-neutral face of the library.
//
// A host creates a volume over its CStorage with CreateFileSystemObject (see
// volume/ntfs_volume.h), calls Mount, uses the file operations from any
// thread, calls Umount and deletes the object. Boolean operations return 1 or
// 0 (handles: non-null or null) and leave the failure code in LastError, read
// by GetLastError. Every path is a NUL-terminated string of 16-bit units that
// starts with a backslash, despite the trailing A of some names.
//
// The volume borrows the storage and never frees it. It has no lock of its
// own.
#pragma once

#include <cstdint>

#include "volume/find_data.h"
#include "volume/storage.h"

namespace ntfs {

class CVolume {
public:
    explicit CVolume(CStorage* storage);
    // Member-by-member copies that share every pointer; never used by the
    // library, and a copy is not a working second volume.
    CVolume(const CVolume&) = default;
    CVolume& operator=(const CVolume&) = default;
    virtual ~CVolume() = default;

    virtual int Mount() = 0;
    virtual int Umount() = 0;
    virtual void* FindFirstFileA(const char16_t* path, _FIND_FILE_DATA* data) = 0;
    virtual int FindNextFileA(void* handle, _FIND_FILE_DATA* data) = 0;
    virtual int CloseFindHandle(void* handle) = 0;
    virtual void* CreateFileA(const char16_t* path, unsigned int attributes,
                              unsigned int disposition, unsigned int access) = 0;
    virtual int ReadFile(void* handle, void* buffer, int size, int* done) = 0;
    virtual int WriteFile(void* handle, const void* buffer, int size, int* done) = 0;
    virtual int CloseFileHandle(void* handle) = 0;
    virtual int RenameFile(const char16_t* from, const char16_t* to) = 0;
    virtual unsigned int SetFilePointer(void* handle, unsigned int* low, int* high,
                                        unsigned int method) = 0;
    virtual int CreateDirectoryA(const char16_t* path, unsigned int attributes) = 0;
    virtual int RemoveDirectoryA(const char16_t* path) = 0;
    virtual int GetSectorSize() = 0;

    int IsMounted() const { return Mounted; }
    unsigned int GetLastError() const { return LastError; }

protected:
    // Forward to the storage unchanged; virtual so that a derived volume can
    // intercept sector traffic.
    virtual unsigned int ReadSector(void* buffer, int64_t* sector, int count, int* done,
                                    _STORAGE_NOTIFICATION_BLOCK* block);
    virtual unsigned int WriteSector(void* buffer, int64_t* sector, int count, int* done,
                                     _STORAGE_NOTIFICATION_BLOCK* block);

    int Mounted;
    CStorage* Storage;
    int ClusterSize;
    unsigned int LastError;
};

}  // namespace ntfs
