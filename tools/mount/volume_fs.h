// VolumeFs: the POSIX face of a mounted volume, as a FUSE file system needs
// it. Every operation takes volume paths ("\dir\name"), goes through the
// library's public file interface only, and answers 0 or a negative errno
// (read and write answer the byte count). It knows nothing of libfuse, so it
// can be driven directly by tests; tools/mount/fuse_glue.cpp hands the
// kernel's requests to it.
//
// Concurrency: the volume has no lock of its own (its cluster bitmap and
// sector scratch buffer are shared by all calls), so every operation here
// runs under one mutex. FUSE may call from several threads; they queue.
#pragma once

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>

#include "ntfskit.h"

namespace ntfs::mount {

// Receives one directory entry with its attributes; returns false to stop.
using DirFiller = std::function<bool(const std::u16string& name, const struct stat& attributes)>;

// Reports a read refused because the bytes would be wrong: the file's
// volume path and the reason, for the mount's log.
using ReadRefusal = std::function<void(const std::u16string& path, const std::string& reason)>;

// Decides, for a file just opened, whether the library's read would hand out
// bytes that differ from the file on disk; returns the reason, or "" when
// the file reads true. Reads of a file with a reason answer EIO.
using ReadCheck = std::function<std::string(CNTFSVolume* volume, const std::u16string& path)>;

class VolumeFs {
public:
    // Borrows a mounted volume. `readOnly` refuses every change with EROFS.
    VolumeFs(CNTFSVolume* volume, bool readOnly);
    VolumeFs(const VolumeFs&) = delete;
    VolumeFs& operator=(const VolumeFs&) = delete;
    ~VolumeFs();

    void SetReadCheck(ReadCheck check) { readCheck_ = std::move(check); }
    void SetRefusalLog(ReadRefusal log) { refusalLog_ = std::move(log); }

    int GetAttr(const std::u16string& path, struct stat* attributes);
    int ReadDir(const std::u16string& path, const DirFiller& filler);
    int StatFs(struct statvfs* space);

    // Open files: `*handle` receives a number for Read, Write, Truncate and
    // Release. `flags` are open(2)'s.
    int Open(const std::u16string& path, int flags, uint64_t* handle);
    int Create(const std::u16string& path, int flags, uint64_t* handle);
    int Read(uint64_t handle, char* buffer, size_t size, off_t offset);
    int Write(uint64_t handle, const char* buffer, size_t size, off_t offset);
    // Truncate by open handle, or by path when `handle` is null.
    int Truncate(const std::u16string& path, const uint64_t* handle, off_t size);
    int Release(uint64_t handle);

    int MakeDirectory(const std::u16string& path);
    int Unlink(const std::u16string& path);
    int RemoveDirectory(const std::u16string& path);
    // A rename inside one directory; another directory answers EXDEV.
    // `noReplace` is RENAME_NOREPLACE; without it an existing file at `to`
    // is deleted first.
    int Rename(const std::u16string& from, const std::u16string& to, bool noReplace);

    // Closes what is still open and unmounts the volume. 0, or the code of
    // the failed write-back.
    unsigned int Unmount();

private:
    struct OpenFile {
        void* handle = nullptr;
        std::u16string path;
        std::string refusal;  // why reads would be wrong; "" when they are true
        bool writable = false;
    };

    int Errno() const;
    // Looks a path up; false leaves the code in the volume's last error.
    bool Look(const std::u16string& path, _FIND_FILE_DATA* data);
    bool IsDirectory(const std::u16string& path);
    OpenFile* Find(uint64_t handle);
    int Seek(void* handle, uint64_t position);
    int FileSize(void* handle, uint64_t* size);
    int Resize(void* handle, uint64_t size);
    uint64_t Remember(void* handle, const std::u16string& path, bool writable);

    CNTFSVolume* volume_;
    bool readOnly_;
    bool mounted_ = true;
    std::mutex lock_;
    uint64_t nextHandle_ = 1;
    std::unordered_map<uint64_t, OpenFile> files_;
    ReadCheck readCheck_;
    ReadRefusal refusalLog_;
};

// The attributes of one enumeration record as stat(2) gives them.
void ToStat(const _FIND_FILE_DATA& data, struct stat* attributes);
// The directory part of a volume path ("\" for a file in the root).
std::u16string ParentOf(const std::u16string& path);
// The last component of a volume path.
std::u16string LeafOf(const std::u16string& path);

}  // namespace ntfs::mount
