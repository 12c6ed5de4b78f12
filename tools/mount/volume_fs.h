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
#include "volume_path.h"

namespace ntfs::mount {

// Receives one directory entry with its attributes; returns false to stop.
using DirFiller = std::function<bool(const std::u16string& name, const struct stat& attributes)>;

// Reports a read refused because the bytes would be wrong: the file's
// volume path and the reason, for the mount's log.
using ReadRefusal = std::function<void(const std::u16string& path, const std::string& reason)>;

// What a file just opened needs when it is read, so that no byte a program
// gets differs from the file on disk.
struct ReadVerdict {
    // Why the library's read of this file hands out other bytes than the
    // file holds; every read of it answers EIO. "" when it reads true.
    std::string refusal;
    // Bytes from here on lie behind the initialized size: on disk they read
    // as zeros, the library hands out the clusters as they are. A read that
    // gets anything but zeros there answers EIO.
    uint64_t zerosFrom = UINT64_MAX;
};
using ReadCheck = std::function<ReadVerdict(CNTFSVolume* volume, const std::u16string& path)>;
// Counts the device failures seen so far. The library drops a failed read
// inside a unit and goes on; a read during which this count rises answers
// EIO instead.
using DeviceFailures = std::function<uint64_t()>;

class VolumeFs {
public:
    // Borrows a mounted volume. `readOnly` refuses every change with EROFS.
    VolumeFs(CNTFSVolume* volume, bool readOnly);
    VolumeFs(const VolumeFs&) = delete;
    VolumeFs& operator=(const VolumeFs&) = delete;
    ~VolumeFs();

    void SetReadCheck(ReadCheck check) { readCheck_ = std::move(check); }
    void SetRefusalLog(ReadRefusal log) { refusalLog_ = std::move(log); }
    void SetDeviceFailures(DeviceFailures count) { deviceFailures_ = std::move(count); }

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
        ReadVerdict verdict;
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
    // Logs why a read of `file` answers EIO; returns -EIO.
    int Refuse(const OpenFile& file, const std::string& reason);

    CNTFSVolume* volume_;
    bool readOnly_;
    bool mounted_ = true;
    std::mutex lock_;
    uint64_t nextHandle_ = 1;
    std::unordered_map<uint64_t, OpenFile> files_;
    ReadCheck readCheck_;
    ReadRefusal refusalLog_;
    DeviceFailures deviceFailures_;
};

// The attributes of one enumeration record as stat(2) gives them.
void ToStat(const _FIND_FILE_DATA& data, struct stat* attributes);

}  // namespace ntfs::mount
