// CVolume: the file-system-neutral face of the library, and the values its
// operations take.
//
// A host creates a volume over its CStorage with CreateFileSystemObject (see
// volume/ntfs_volume.h), calls Mount, uses the file operations from any
// thread, calls Umount and deletes the object. Boolean operations return 1 or
// 0 (handles: non-null or null) and leave the failure code in LastError, read
// by GetLastError; the codes are named in foundation/log.h, and a code of the
// device passes through unchanged. Every path is a NUL-terminated string of
// 16-bit units that starts with a backslash, despite the trailing A of some
// names.
//
// The volume borrows the storage and never frees it. It has no lock of its
// own: the cluster bitmap and the sector scratch buffer are shared, so a host
// that calls in from several threads must not let two changes run at once.
#pragma once

#include <cstdint>

#include "volume/find_data.h"
#include "volume/storage.h"

namespace ntfs {

// Dispositions of CreateFileA (the values of the Win32 call of that name).
constexpr unsigned int kCreateNew = 1;         // exists: fails with 80; absent: created
constexpr unsigned int kCreateAlways = 2;      // exists: truncated; absent: created
constexpr unsigned int kOpenExisting = 3;      // exists: opened; absent: fails with 2
constexpr unsigned int kOpenAlways = 4;        // exists: opened; absent: created
constexpr unsigned int kTruncateExisting = 5;  // exists: truncated; absent: fails with 2

// Access bits of CreateFileA.
constexpr unsigned int kAccessRead = 0x01;           // ReadFile allowed
constexpr unsigned int kAccessWrite = 0x02;          // WriteFile allowed
constexpr unsigned int kAccessDeleteOnClose = 0x04;  // the file goes at CloseFileHandle
// Sharing: a second open of a path that is open needs at least one of these
// bits in common with every handle already open on it, else it fails with 5.
constexpr unsigned int kAccessShareRead = 0x08;
constexpr unsigned int kAccessShareWrite = 0x10;
constexpr unsigned int kAccessShareMask = kAccessShareRead | kAccessShareWrite;

// Move methods of SetFilePointer.
constexpr unsigned int kFileBegin = 0;
constexpr unsigned int kFileCurrent = 1;
constexpr unsigned int kFileEnd = 2;

// File attribute bits: _FIND_FILE_DATA::FileAttributes, and what CreateFileA
// and CreateDirectoryA store for a new file (the on-disk flags).
constexpr uint32_t kFileAttributeReadOnly = 0x0001;
constexpr uint32_t kFileAttributeHidden = 0x0002;
constexpr uint32_t kFileAttributeSystem = 0x0004;
constexpr uint32_t kFileAttributeDirectory = 0x0010;
constexpr uint32_t kFileAttributeArchive = 0x0020;
constexpr uint32_t kFileAttributeNormal = 0x0080;
constexpr uint32_t kFileAttributeSparse = 0x0200;
constexpr uint32_t kFileAttributeCompressed = 0x0800;

class CVolume {
public:
    explicit CVolume(CStorage* storage);
    // Member-by-member copies that share every pointer; never used by the
    // library, and a copy is not a working second volume.
    CVolume(const CVolume&) = default;
    CVolume& operator=(const CVolume&) = default;
    virtual ~CVolume() = default;

    // Reads the boot sector (or its backup), $MFT (or its mirror), and the
    // system records; sets up the bitmaps. 1, or 0 with LastError (1005: not
    // a volume this library handles; a device code). Writes nothing.
    virtual int Mount() = 0;
    // Closes every open handle (writing what they changed), then writes the
    // cached bitmap units and stamps $MFT and $Bitmap. 1, or 0 with LastError.
    // The object is then only good for destruction.
    virtual int Umount() = 0;

    // Enumeration. `path` names a directory followed by a pattern
    // (u"\\docs\\*", u"\\docs\\*.txt") or one name. FindFirstFileA fills
    // `data` with the first match and returns the find handle, or null with
    // LastError (2: nothing matches or the directory is absent). FindNextFileA
    // fills the next match: 1, or 0 with LastError (2 at the end; 6 for an
    // unknown handle). Records 0 to 11 are never listed. CloseFindHandle: 1,
    // or 0 with 6. Nothing is written.
    virtual void* FindFirstFileA(const char16_t* path, _FIND_FILE_DATA* data) = 0;
    virtual int FindNextFileA(void* handle, _FIND_FILE_DATA* data) = 0;
    virtual int CloseFindHandle(void* handle) = 0;

    // Opens (and with kCreateAlways or kTruncateExisting empties) the file at
    // `path`: `attributes` for a new file (kFileAttributeDirectory is refused
    // with 87), `disposition` one of kCreateNew ... kTruncateExisting,
    // `access` a sum of kAccess* bits. The handle, or null with LastError
    // (87 bad path; 2 absent; 5 sharing; 80 exists; a device code). A
    // truncation reaches the disk before the call returns.
    virtual void* CreateFileA(const char16_t* path, unsigned int attributes, unsigned int disposition,
                              unsigned int access) = 0;
    // Reads up to `size` bytes at the file pointer into `buffer` and moves
    // the pointer; `*done` gets the count (0 at the end of the file). 1, or 0
    // with LastError (6 unknown handle; 5 no read access; 87 negative size).
    virtual int ReadFile(void* handle, void* buffer, int size, int* done) = 0;
    // Writes `size` bytes at the file pointer, growing the file at its end;
    // `*done` gets the count. A `size` of 0 ends the file at the pointer.
    // Data of a non-resident file reaches the device during the call; data
    // small enough to stay in the file record, and the new size and times,
    // reach the disk at CloseFileHandle. 1, or 0 with LastError (6; 5 no
    // write access; 87 negative size or a file beyond 2^63; 39 no space).
    // A 1 with `*done` short of `size` means the transfer failed: LastError
    // tells why.
    virtual int WriteFile(void* handle, const void* buffer, int size, int* done) = 0;
    // Writes the handle's size and times into the file record and the file's
    // index entries, deletes the file when opened with kAccessDeleteOnClose,
    // and ends the handle. 1, or 0 with LastError (6; a device code).
    virtual int CloseFileHandle(void* handle) = 0;
    // Renames a file inside its directory. 1, or 0 with LastError.
    virtual int RenameFile(const char16_t* from, const char16_t* to) = 0;
    // Moves the file pointer by the signed 64-bit distance `*high:*low` from
    // kFileBegin, kFileCurrent or kFileEnd, and stores the new position back
    // in `*low` and `*high`. Returns the failure code itself (0 on success;
    // 6; 87 bad method); the pointer never goes past the end of the file.
    virtual unsigned int SetFilePointer(void* handle, unsigned int* low, int* high, unsigned int method) = 0;
    // Makes the directory `path` in an existing parent. 1, or 0 with
    // LastError (80 exists; 2 no parent).
    virtual int CreateDirectoryA(const char16_t* path, unsigned int attributes) = 0;
    // Removes the empty directory `path`. 1, or 0 with LastError (5 in use;
    // 145 not empty; 2 absent).
    virtual int RemoveDirectoryA(const char16_t* path) = 0;
    // The boot sector's bytes per sector.
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
