#include "mount/volume_fs.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <vector>

#include "mount/errno_map.h"
#include "ntfs_time.h"

namespace ntfs::mount {

namespace {

// Growth by truncate or by a write past the end goes through zero-filled
// writes of at most this many bytes.
constexpr size_t kZeroChunk = 1 << 16;
// The root directory has no entry of its own; its inode is its record.
constexpr ino_t kRootRecord = 5;

struct timespec FromFileTime(const uint32_t time[2]) {
    return UnixTime(static_cast<int64_t>((static_cast<uint64_t>(time[1]) << 32) | time[0]));
}

void RootStat(struct stat* attributes) {
    std::memset(attributes, 0, sizeof(*attributes));
    attributes->st_mode = S_IFDIR | 0755;
    attributes->st_nlink = 2;
    attributes->st_ino = kRootRecord;
}

}  // namespace

void ToStat(const _FIND_FILE_DATA& data, struct stat* attributes) {
    std::memset(attributes, 0, sizeof(*attributes));
    const bool directory = (data.FileAttributes & kFileAttributeDirectory) != 0;
    const bool readOnly = (data.FileAttributes & kFileAttributeReadOnly) != 0;
    if (directory) {
        attributes->st_mode = S_IFDIR | 0755;
        attributes->st_nlink = 2;
    } else {
        attributes->st_mode = S_IFREG | (readOnly ? 0444 : 0644);
        attributes->st_nlink = 1;
        attributes->st_size = static_cast<off_t>((static_cast<uint64_t>(data.FileSizeHigh) << 32) | data.FileSizeLow);
        attributes->st_blocks = (attributes->st_size + 511) / 512;
    }
    if (data.FileRecordNumber >= 0) attributes->st_ino = static_cast<ino_t>(data.FileRecordNumber);
    attributes->st_mtim = FromFileTime(data.LastWriteTime);
    attributes->st_atim = FromFileTime(data.LastAccessTime);
    attributes->st_ctim = FromFileTime(data.CreationTime);
}

VolumeFs::VolumeFs(CNTFSVolume* volume, bool readOnly) : volume_(volume), readOnly_(readOnly) {}

VolumeFs::~VolumeFs() {
    Unmount();
}

int VolumeFs::Errno() const {
    const int error = ErrnoFromCode(volume_->GetLastError());
    // A call that failed without naming why still failed.
    return error == 0 ? -EIO : -error;
}

VolumeFs::OpenFile* VolumeFs::Find(uint64_t handle) {
    const auto found = files_.find(handle);
    return found == files_.end() ? nullptr : &found->second;
}

uint64_t VolumeFs::Remember(void* handle, const std::u16string& path, bool writable) {
    OpenFile file;
    file.handle = handle;
    file.path = path;
    file.writable = writable;
    if (readCheck_) file.verdict = readCheck_(volume_, path);
    const uint64_t number = nextHandle_++;
    files_.emplace(number, std::move(file));
    return number;
}

int VolumeFs::Seek(void* handle, uint64_t position) {
    unsigned int low = static_cast<unsigned int>(position);
    int high = static_cast<int>(position >> 32);
    const unsigned int code = volume_->SetFilePointer(handle, &low, &high, kFileBegin);
    if (code != ERROR_SUCCESS) return -ErrnoFromCode(code);
    return 0;
}

int VolumeFs::FileSize(void* handle, uint64_t* size) {
    unsigned int low = 0;
    unsigned int high = 0;
    if (!volume_->GetFileSize(handle, &low, &high)) return Errno();
    *size = (static_cast<uint64_t>(high) << 32) | low;
    return 0;
}

// Ends the file at `size`: a shorter file by a zero-byte write at that
// position, a longer one by writing zeros from its end (the file pointer
// never goes past the end, so a file grows only by writing).
int VolumeFs::Resize(void* handle, uint64_t size) {
    uint64_t current = 0;
    int result = FileSize(handle, &current);
    if (result != 0) return result;
    if (size <= current) {
        result = Seek(handle, size);
        if (result != 0) return result;
        int done = 0;
        return volume_->WriteFile(handle, "", 0, &done) ? 0 : Errno();
    }
    result = Seek(handle, current);
    if (result != 0) return result;
    static const std::vector<char> zeros(kZeroChunk, 0);
    while (current < size) {
        const int piece = static_cast<int>(std::min<uint64_t>(kZeroChunk, size - current));
        int done = 0;
        if (!volume_->WriteFile(handle, zeros.data(), piece, &done)) return Errno();
        if (done != piece) return Errno();
        current += static_cast<uint64_t>(piece);
    }
    return 0;
}

bool VolumeFs::Look(const std::u16string& path, _FIND_FILE_DATA* data) {
    void* find = volume_->FindFirstFileA(path.c_str(), data);
    if (find == nullptr) return false;
    volume_->CloseFindHandle(find);
    return true;
}

bool VolumeFs::IsDirectory(const std::u16string& path) {
    _FIND_FILE_DATA data{};
    return Look(path, &data) && (data.FileAttributes & kFileAttributeDirectory) != 0;
}

int VolumeFs::GetAttr(const std::u16string& path, struct stat* attributes) {
    std::lock_guard<std::mutex> hold(lock_);
    if (path == u"\\") {
        RootStat(attributes);
        return 0;
    }
    _FIND_FILE_DATA data{};
    if (!Look(path, &data)) return Errno();
    ToStat(data, attributes);
    return 0;
}

int VolumeFs::ReadDir(const std::u16string& path, const DirFiller& filler) {
    std::lock_guard<std::mutex> hold(lock_);
    const std::u16string pattern = path == u"\\" ? u"\\*" : path + u"\\*";
    _FIND_FILE_DATA data{};
    void* find = volume_->FindFirstFileA(pattern.c_str(), &data);
    if (find == nullptr) {
        // An empty directory has nothing to find; a missing one is an error.
        if (volume_->GetLastError() != ERROR_FILE_NOT_FOUND) return Errno();
        if (path == u"\\") return 0;
        if (!Look(path, &data)) return Errno();
        return (data.FileAttributes & kFileAttributeDirectory) != 0 ? 0 : -ENOTDIR;
    }
    struct stat attributes {};
    bool more = true;
    do {
        ToStat(data, &attributes);
        more = filler(data.FileName, attributes);
    } while (more && volume_->FindNextFileA(find, &data));
    const unsigned int code = more ? volume_->GetLastError() : ERROR_SUCCESS;
    volume_->CloseFindHandle(find);
    return code == ERROR_SUCCESS || code == ERROR_FILE_NOT_FOUND ? 0 : -ErrnoFromCode(code);
}

int VolumeFs::StatFs(struct statvfs* space) {
    std::lock_guard<std::mutex> hold(lock_);
    _VOLUME_SPACE counts{};
    const unsigned int code = volume_->GetVolumeSpace(&counts);
    if (code != ERROR_SUCCESS) return -ErrnoFromCode(code);
    std::memset(space, 0, sizeof(*space));
    space->f_bsize = static_cast<unsigned long>(volume_->GetClusterSize());
    space->f_frsize = space->f_bsize;
    space->f_blocks = static_cast<fsblkcnt_t>(counts.Clusters);
    space->f_bfree = static_cast<fsblkcnt_t>(counts.FreeClusters);
    space->f_bavail = space->f_bfree;
    space->f_files = static_cast<fsfilcnt_t>(counts.Records);
    space->f_ffree = static_cast<fsfilcnt_t>(counts.FreeRecords);
    space->f_favail = space->f_ffree;
    space->f_namemax = 255;
    if (readOnly_) space->f_flag |= ST_RDONLY;
    return 0;
}

int VolumeFs::Open(const std::u16string& path, int flags, uint64_t* handle) {
    std::lock_guard<std::mutex> hold(lock_);
    const bool writable = (flags & O_ACCMODE) != O_RDONLY;
    if (writable && readOnly_) return -EROFS;
    // POSIX has no sharing modes: every open shares with every other.
    const unsigned int access = kAccessRead | (writable ? kAccessWrite : 0) | kAccessShareMask;
    void* file = volume_->CreateFileA(path.c_str(), 0, kOpenExisting, access);
    if (file == nullptr) return Errno();
    if ((flags & O_TRUNC) != 0 && writable) {
        const int result = Resize(file, 0);
        if (result != 0) {
            volume_->CloseFileHandle(file);
            return result;
        }
    }
    *handle = Remember(file, path, writable);
    return 0;
}

int VolumeFs::Create(const std::u16string& path, int flags, uint64_t* handle) {
    std::lock_guard<std::mutex> hold(lock_);
    if (readOnly_) return -EROFS;
    const unsigned int disposition = (flags & O_EXCL) != 0 ? kCreateNew : kOpenAlways;
    void* file = volume_->CreateFileA(path.c_str(), kFileAttributeArchive, disposition,
                                      kAccessRead | kAccessWrite | kAccessShareMask);
    if (file == nullptr) return Errno();
    if ((flags & O_TRUNC) != 0) {
        const int result = Resize(file, 0);
        if (result != 0) {
            volume_->CloseFileHandle(file);
            return result;
        }
    }
    *handle = Remember(file, path, true);
    return 0;
}

int VolumeFs::Read(uint64_t handle, char* buffer, size_t size, off_t offset) {
    std::lock_guard<std::mutex> hold(lock_);
    OpenFile* file = Find(handle);
    if (file == nullptr) return -EBADF;
    if (!file->verdict.refusal.empty()) return Refuse(*file, file->verdict.refusal);
    if (offset < 0) return -EINVAL;
    uint64_t end = 0;
    int result = FileSize(file->handle, &end);
    if (result != 0) return result;
    if (static_cast<uint64_t>(offset) >= end) return 0;
    result = Seek(file->handle, static_cast<uint64_t>(offset));
    if (result != 0) return result;
    size = std::min<size_t>(size, INT_MAX);
    const uint64_t failuresBefore = deviceFailures_ ? deviceFailures_() : 0;
    size_t total = 0;
    while (total < size) {
        int done = 0;
        const int want = static_cast<int>(size - total);
        if (!volume_->ReadFile(file->handle, buffer + total, want, &done)) return Errno();
        if (done <= 0) break;
        total += static_cast<size_t>(done);
    }
    if (deviceFailures_ && deviceFailures_() != failuresBefore) {
        return Refuse(*file, "the device failed during the read, which the volume passes over");
    }
    const uint64_t first = static_cast<uint64_t>(offset);
    for (uint64_t at = std::max(first, file->verdict.zerosFrom); at < first + total; ++at) {
        if (buffer[at - first] != 0) {
            return Refuse(*file, "bytes behind the initialized size are not zeros, as the file reads on disk");
        }
    }
    return static_cast<int>(total);
}

int VolumeFs::Refuse(const OpenFile& file, const std::string& reason) {
    // The library would deliver bytes that are not the file's: no program
    // gets them.
    if (refusalLog_) refusalLog_(file.path, reason);
    return -EIO;
}

int VolumeFs::Write(uint64_t handle, const char* buffer, size_t size, off_t offset) {
    std::lock_guard<std::mutex> hold(lock_);
    if (readOnly_) return -EROFS;
    OpenFile* file = Find(handle);
    if (file == nullptr) return -EBADF;
    if (!file->writable) return -EBADF;
    if (offset < 0) return -EINVAL;
    if (size == 0) return 0;  // a zero-byte WriteFile would end the file
    uint64_t end = 0;
    int result = FileSize(file->handle, &end);
    if (result != 0) return result;
    if (static_cast<uint64_t>(offset) > end) {
        result = Resize(file->handle, static_cast<uint64_t>(offset));
        if (result != 0) return result;
    }
    result = Seek(file->handle, static_cast<uint64_t>(offset));
    if (result != 0) return result;
    const int want = static_cast<int>(std::min<size_t>(size, INT_MAX));
    int done = 0;
    if (!volume_->WriteFile(file->handle, buffer, want, &done)) return Errno();
    if (done != want) return done > 0 ? done : Errno();
    return done;
}

int VolumeFs::Truncate(const std::u16string& path, const uint64_t* handle, off_t size) {
    std::lock_guard<std::mutex> hold(lock_);
    if (readOnly_) return -EROFS;
    if (size < 0) return -EINVAL;
    if (handle != nullptr) {
        OpenFile* file = Find(*handle);
        if (file == nullptr) return -EBADF;
        if (!file->writable) return -EBADF;
        return Resize(file->handle, static_cast<uint64_t>(size));
    }
    void* file = volume_->CreateFileA(path.c_str(), 0, kOpenExisting, kAccessRead | kAccessWrite | kAccessShareMask);
    if (file == nullptr) return Errno();
    int result = Resize(file, static_cast<uint64_t>(size));
    if (!volume_->CloseFileHandle(file) && result == 0) result = Errno();
    return result;
}

int VolumeFs::Release(uint64_t handle) {
    std::lock_guard<std::mutex> hold(lock_);
    OpenFile* file = Find(handle);
    if (file == nullptr) return -EBADF;
    void* volumeHandle = file->handle;
    files_.erase(handle);
    // The size and times reach the record at close.
    return volume_->CloseFileHandle(volumeHandle) ? 0 : Errno();
}

int VolumeFs::MakeDirectory(const std::u16string& path) {
    std::lock_guard<std::mutex> hold(lock_);
    if (readOnly_) return -EROFS;
    return volume_->CreateDirectoryA(path.c_str(), kFileAttributeDirectory) ? 0 : Errno();
}

int VolumeFs::Unlink(const std::u16string& path) {
    std::lock_guard<std::mutex> hold(lock_);
    if (readOnly_) return -EROFS;
    // A file goes when its handle with the delete bit closes.
    void* file = volume_->CreateFileA(path.c_str(), 0, kOpenExisting, kAccessDeleteOnClose);
    if (file == nullptr) {
        const int error = Errno();
        return IsDirectory(path) ? -EISDIR : error;
    }
    return volume_->CloseFileHandle(file) ? 0 : Errno();
}

int VolumeFs::RemoveDirectory(const std::u16string& path) {
    std::lock_guard<std::mutex> hold(lock_);
    if (readOnly_) return -EROFS;
    return volume_->RemoveDirectoryA(path.c_str()) ? 0 : Errno();
}

int VolumeFs::Rename(const std::u16string& from, const std::u16string& to, bool noReplace) {
    std::lock_guard<std::mutex> hold(lock_);
    if (readOnly_) return -EROFS;
    // The volume renames inside one directory only; a program such as mv
    // then copies and deletes.
    if (ParentPath(from) != ParentPath(to)) return -EXDEV;
    _FIND_FILE_DATA source{};
    if (!Look(from, &source)) return Errno();
    _FIND_FILE_DATA data{};
    // A new case of the same name finds the file itself, which stays.
    if (Look(to, &data) && data.FileRecordNumber != source.FileRecordNumber) {
        if (noReplace) return -EEXIST;
        if ((data.FileAttributes & kFileAttributeDirectory) != 0) return -EISDIR;
        // rename(2) replaces the target. The volume refuses an existing
        // name, so the old target goes first: not atomic, as it cannot be.
        void* target = volume_->CreateFileA(to.c_str(), 0, kOpenExisting, kAccessDeleteOnClose);
        if (target == nullptr) return Errno();
        if (!volume_->CloseFileHandle(target)) return Errno();
    }
    const std::u16string leaf = LeafOf(to);
    return volume_->RenameFile(from.c_str(), leaf.c_str()) ? 0 : Errno();
}

unsigned int VolumeFs::Unmount() {
    std::lock_guard<std::mutex> hold(lock_);
    if (!mounted_) return ERROR_SUCCESS;
    mounted_ = false;
    unsigned int code = ERROR_SUCCESS;
    for (auto& entry : files_) {
        if (!volume_->CloseFileHandle(entry.second.handle) && code == ERROR_SUCCESS) code = volume_->GetLastError();
    }
    files_.clear();
    // Umount answers 1 whatever its flushes gave; the last error tells.
    volume_->Umount();
    const unsigned int unmounted = volume_->GetLastError();
    return code != ERROR_SUCCESS ? code : (readOnly_ ? ERROR_SUCCESS : unmounted);
}

}  // namespace ntfs::mount
