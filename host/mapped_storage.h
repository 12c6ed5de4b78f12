// MappedStorage: a volume in an image file, read-only, through a memory map
// of the whole file. Reads are copies out of the map; every write fails with
// ERROR_WRITE_PROTECT. A read past the end of the file is short (done <
// count, result 0), as with FileStorage.
//
// For read-only work on image files: no system call per transfer. The pages
// a read touches count as the process's memory while they stay mapped, so
// once reads have moved kResidentBudget bytes the mapped pages are let go
// (the file's pages stay in the page cache). Block
// devices and files that cannot be mapped are refused at Open, and the host
// falls back to FileStorage. The storage owns its map. Thread safety: reads
// only, so concurrent transfers are safe.
#pragma once

#include <cstdint>
#include <string>

#include "volume/storage.h"

namespace ntfs {

class MappedStorage : public CStorage {
public:
    static constexpr int kSectorBytes = 512;
    static constexpr uint64_t kResidentBudget = 1u << 20;

    MappedStorage() = default;
    ~MappedStorage() override;
    MappedStorage(const MappedStorage&) = delete;
    MappedStorage& operator=(const MappedStorage&) = delete;

    // Maps `path` (a regular, non-empty file); 0, or ERROR_FILE_NOT_FOUND /
    // ERROR_ACCESS_DENIED / ERROR_IO_DEVICE with a description in
    // LastErrorText().
    unsigned int Open(const std::string& path);
    void Close();

    unsigned int ReadSectors(void* buffer, int64_t* sector, int count, int* done,
                             _STORAGE_NOTIFICATION_BLOCK* block) override;
    unsigned int WriteSectors(void* buffer, int64_t* sector, int count, int* done,
                              _STORAGE_NOTIFICATION_BLOCK* block) override;

    int64_t SectorCount() const { return static_cast<int64_t>(Size) / kSectorBytes; }
    const std::string& LastErrorText() const { return ErrorText; }

private:
    // Notes a read of `bytes` and lets the mapped pages go when the reads
    // since the last time have reached the budget.
    void ReleaseTouched(uint64_t bytes);

    const uint8_t* Map = nullptr;
    uint64_t Size = 0;
    // Bytes read since the last release.
    uint64_t TouchedBytes = 0;
    std::string ErrorText;
};

}  // namespace ntfs
