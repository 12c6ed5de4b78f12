// OverlayStorage: a fixture image shared read-only by every fuzz run, with
// the run's own changes (damage and the library's writes) kept sector by
// sector on top of it. Each run starts from the clean image at the cost of
// its changed sectors, not of a whole copy.
//
// Requests follow MemoryStorage: the sector range must lie inside the image
// and the buffer must not be null, else ERROR_SECTOR_NOT_FOUND and nothing
// moves.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "volume/storage.h"

namespace ntfs::fuzz {

class OverlayStorage : public CStorage {
public:
    static constexpr int kSectorBytes = 512;

    // `base` is borrowed and must outlive this object.
    explicit OverlayStorage(const std::vector<uint8_t>* base) : Base(base) {}

    unsigned int ReadSectors(void* buffer, int64_t* sector, int count, int* done,
                             _STORAGE_NOTIFICATION_BLOCK* block) override;
    unsigned int WriteSectors(void* buffer, int64_t* sector, int count, int* done,
                              _STORAGE_NOTIFICATION_BLOCK* block) override;

    // Byte access for the damage pass. REQUIRES: the range lies in the image.
    void ReadBytes(int64_t offset, void* out, size_t bytes) const;
    void WriteBytes(int64_t offset, const void* in, size_t bytes);

    int64_t SectorCount() const { return static_cast<int64_t>(Base->size()) / kSectorBytes; }
    int64_t Size() const { return static_cast<int64_t>(Base->size()); }

private:
    using Sector = std::array<uint8_t, kSectorBytes>;
    bool InRange(const void* buffer, const int64_t* sector, int count) const;
    const uint8_t* SectorData(int64_t sector) const;
    Sector& ChangedSector(int64_t sector);

    const std::vector<uint8_t>* Base;
    std::unordered_map<int64_t, Sector> Changed;
};

}  // namespace ntfs::fuzz
