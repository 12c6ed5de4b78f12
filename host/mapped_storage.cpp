#include "mapped_storage.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "foundation/log.h"

namespace ntfs {

MappedStorage::~MappedStorage() {
    Close();
}

unsigned int MappedStorage::Open(const std::string& path) {
    Close();
    const int descriptor = ::open(path.c_str(), O_RDONLY);
    if (descriptor < 0) {
        ErrorText = path + ": " + std::strerror(errno);
        if (errno == ENOENT) return ERROR_FILE_NOT_FOUND;
        if (errno == EACCES || errno == EPERM) return ERROR_ACCESS_DENIED;
        return ERROR_IO_DEVICE;
    }
    struct stat status {};
    if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size <= 0) {
        ErrorText = path + ": not a regular file that can be mapped";
        ::close(descriptor);
        return ERROR_IO_DEVICE;
    }
    void* map = ::mmap(nullptr, static_cast<size_t>(status.st_size), PROT_READ, MAP_SHARED, descriptor, 0);
    ::close(descriptor);
    if (map == MAP_FAILED) {
        ErrorText = path + ": " + std::strerror(errno);
        return ERROR_IO_DEVICE;
    }
    Map = static_cast<const uint8_t*>(map);
    Size = static_cast<uint64_t>(status.st_size);
    ErrorText.clear();
    return ERROR_SUCCESS;
}

void MappedStorage::Close() {
    if (Map != nullptr) ::munmap(const_cast<uint8_t*>(Map), static_cast<size_t>(Size));
    Map = nullptr;
    Size = 0;
}

void MappedStorage::ReleaseTouched(uint64_t bytes) {
    TouchedBytes += bytes;
    if (TouchedBytes < kResidentBudget) return;
    // The whole map: a fault maps the pages around the one touched too, so
    // what is mapped reaches beyond what was read.
    ::madvise(const_cast<uint8_t*>(Map), static_cast<size_t>(Size), MADV_DONTNEED);
    TouchedBytes = 0;
}

unsigned int MappedStorage::ReadSectors(void* buffer, int64_t* sector, int count, int* done,
                                        _STORAGE_NOTIFICATION_BLOCK*) {
    *done = 0;
    if (Map == nullptr || buffer == nullptr || *sector < 0 || count < 0) return ERROR_SECTOR_NOT_FOUND;
    if (static_cast<uint64_t>(*sector) >= Size / kSectorBytes) return ERROR_SUCCESS;
    const uint64_t start = static_cast<uint64_t>(*sector) * kSectorBytes;
    uint64_t bytes = static_cast<uint64_t>(count) * kSectorBytes;
    if (bytes > Size - start) bytes = Size - start;
    std::memcpy(buffer, Map + start, static_cast<size_t>(bytes));
    ReleaseTouched(bytes);
    *done = static_cast<int>(bytes / kSectorBytes);
    return ERROR_SUCCESS;
}

unsigned int MappedStorage::WriteSectors(void*, int64_t*, int, int* done, _STORAGE_NOTIFICATION_BLOCK*) {
    *done = 0;
    return ERROR_WRITE_PROTECT;
}

}  // namespace ntfs
