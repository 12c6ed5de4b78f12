// MemoryStorage: a volume image held in memory, for hosts and tests.
//
// Every request is checked: the sector range must lie inside the image and
// the buffer must not be null; a request outside gives ERROR_SECTOR_NOT_FOUND
// and transfers nothing. The image can be loaded from and saved to a file.
// Thread safety: concurrent transfers to disjoint sectors are safe; the
// library never resizes the image.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "volume/storage.h"

namespace ntfs {

class MemoryStorage : public CStorage {
public:
    static constexpr int kSectorBytes = 512;

    MemoryStorage() = default;
    explicit MemoryStorage(std::vector<uint8_t> image) : Image(std::move(image)) {}

    // Replaces the image by the file's bytes; 0 or ERROR_IO_DEVICE.
    unsigned int LoadFile(const std::string& path);
    // Writes the whole image to `path`; 0 or ERROR_IO_DEVICE.
    unsigned int SaveFile(const std::string& path) const;

    unsigned int ReadSectors(void* buffer, int64_t* sector, int count, int* done,
                             _STORAGE_NOTIFICATION_BLOCK* block) override;
    unsigned int WriteSectors(void* buffer, int64_t* sector, int count, int* done,
                              _STORAGE_NOTIFICATION_BLOCK* block) override;

    int64_t SectorCount() const { return static_cast<int64_t>(Image.size()) / kSectorBytes; }
    std::vector<uint8_t>& Bytes() { return Image; }
    const std::vector<uint8_t>& Bytes() const { return Image; }

private:
    bool InRange(const void* buffer, int64_t sector, int count) const;

    std::vector<uint8_t> Image;
};

}  // namespace ntfs
