#include "file_storage.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "foundation/log.h"

namespace ntfs {

namespace {

// Moves `total` bytes with a pread/pwrite-like call, resuming after
// interruptions and partial transfers. Returns the bytes moved, or -1.
template <typename Transfer>
int64_t TransferAll(Transfer transfer, int64_t total) {
    int64_t moved = 0;
    while (moved < total) {
        const ssize_t step = transfer(moved, total - moved);
        if (step < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (step == 0) break;
        moved += step;
    }
    return moved;
}

}  // namespace

FileStorage::~FileStorage() {
    Close();
}

unsigned int FileStorage::Open(const std::string& path, bool readOnly, int64_t byteOffset) {
    Close();
    Descriptor = ::open(path.c_str(), readOnly ? O_RDONLY : O_RDWR);
    if (Descriptor < 0) {
        ErrorText = path + ": " + std::strerror(errno);
        if (errno == ENOENT) return ERROR_FILE_NOT_FOUND;
        if (errno == EACCES || errno == EPERM || errno == EROFS) return ERROR_ACCESS_DENIED;
        return ERROR_IO_DEVICE;
    }
    ReadOnly = readOnly;
    Offset = byteOffset;
    ErrorText.clear();
    return ERROR_SUCCESS;
}

void FileStorage::Close() {
    if (Descriptor >= 0) ::close(Descriptor);
    Descriptor = -1;
}

int64_t FileStorage::SectorCount() const {
    if (Descriptor < 0) return 0;
    const off_t end = ::lseek(Descriptor, 0, SEEK_END);
    if (end < 0 || end < Offset) return 0;
    return (static_cast<int64_t>(end) - Offset) / kSectorBytes;
}

unsigned int FileStorage::ReadSectors(void* buffer, int64_t* sector, int count, int* done,
                                      _STORAGE_NOTIFICATION_BLOCK*) {
    *done = 0;
    if (Descriptor < 0 || buffer == nullptr || *sector < 0 || count < 0) return ERROR_SECTOR_NOT_FOUND;
    const int64_t base = Offset + *sector * kSectorBytes;
    auto* bytes = static_cast<uint8_t*>(buffer);
    const int64_t moved = TransferAll(
        [&](int64_t at, int64_t size) { return ::pread(Descriptor, bytes + at, static_cast<size_t>(size), base + at); },
        static_cast<int64_t>(count) * kSectorBytes);
    if (moved < 0) {
        ErrorText = std::strerror(errno);
        return ERROR_IO_DEVICE;
    }
    *done = static_cast<int>(moved / kSectorBytes);
    return ERROR_SUCCESS;
}

unsigned int FileStorage::WriteSectors(void* buffer, int64_t* sector, int count, int* done,
                                       _STORAGE_NOTIFICATION_BLOCK*) {
    *done = 0;
    if (ReadOnly) return ERROR_WRITE_PROTECT;
    if (Descriptor < 0 || buffer == nullptr || *sector < 0 || count < 0) return ERROR_SECTOR_NOT_FOUND;
    const int64_t base = Offset + *sector * kSectorBytes;
    const auto* bytes = static_cast<const uint8_t*>(buffer);
    const int64_t moved = TransferAll(
        [&](int64_t at, int64_t size) {
            return ::pwrite(Descriptor, bytes + at, static_cast<size_t>(size), base + at);
        },
        static_cast<int64_t>(count) * kSectorBytes);
    if (moved < 0) {
        ErrorText = std::strerror(errno);
        return ERROR_IO_DEVICE;
    }
    *done = static_cast<int>(moved / kSectorBytes);
    return ERROR_SUCCESS;
}

}  // namespace ntfs
