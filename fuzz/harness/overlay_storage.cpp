#include "overlay_storage.h"

#include <algorithm>
#include <cstring>

#include "foundation/log.h"

namespace ntfs::fuzz {

bool OverlayStorage::InRange(const void* buffer, const int64_t* sector, int count) const {
    return buffer != nullptr && sector != nullptr && count >= 0 && *sector >= 0 && *sector <= SectorCount() &&
           count <= SectorCount() - *sector;
}

const uint8_t* OverlayStorage::SectorData(int64_t sector) const {
    const auto changed = Changed.find(sector);
    if (changed != Changed.end()) return changed->second.data();
    return Base->data() + sector * kSectorBytes;
}

OverlayStorage::Sector& OverlayStorage::ChangedSector(int64_t sector) {
    auto [slot, added] = Changed.try_emplace(sector);
    if (added) std::memcpy(slot->second.data(), Base->data() + sector * kSectorBytes, kSectorBytes);
    return slot->second;
}

unsigned int OverlayStorage::ReadSectors(void* buffer, int64_t* sector, int count, int* done,
                                         _STORAGE_NOTIFICATION_BLOCK*) {
    if (done != nullptr) *done = 0;
    if (!InRange(buffer, sector, count)) return ERROR_SECTOR_NOT_FOUND;
    auto* out = static_cast<uint8_t*>(buffer);
    for (int i = 0; i < count; ++i) std::memcpy(out + i * kSectorBytes, SectorData(*sector + i), kSectorBytes);
    if (done != nullptr) *done = count;
    return ERROR_SUCCESS;
}

unsigned int OverlayStorage::WriteSectors(void* buffer, int64_t* sector, int count, int* done,
                                          _STORAGE_NOTIFICATION_BLOCK*) {
    if (done != nullptr) *done = 0;
    if (!InRange(buffer, sector, count)) return ERROR_SECTOR_NOT_FOUND;
    const auto* in = static_cast<const uint8_t*>(buffer);
    for (int i = 0; i < count; ++i) std::memcpy(ChangedSector(*sector + i).data(), in + i * kSectorBytes, kSectorBytes);
    if (done != nullptr) *done = count;
    return ERROR_SUCCESS;
}

void OverlayStorage::ReadBytes(int64_t offset, void* out, size_t bytes) const {
    auto* to = static_cast<uint8_t*>(out);
    while (bytes > 0) {
        const int64_t sector = offset / kSectorBytes;
        const size_t within = static_cast<size_t>(offset % kSectorBytes);
        const size_t take = std::min(bytes, static_cast<size_t>(kSectorBytes) - within);
        std::memcpy(to, SectorData(sector) + within, take);
        to += take;
        offset += static_cast<int64_t>(take);
        bytes -= take;
    }
}

void OverlayStorage::WriteBytes(int64_t offset, const void* in, size_t bytes) {
    const auto* from = static_cast<const uint8_t*>(in);
    while (bytes > 0) {
        const int64_t sector = offset / kSectorBytes;
        const size_t within = static_cast<size_t>(offset % kSectorBytes);
        const size_t take = std::min(bytes, static_cast<size_t>(kSectorBytes) - within);
        std::memcpy(ChangedSector(sector).data() + within, from, take);
        from += take;
        offset += static_cast<int64_t>(take);
        bytes -= take;
    }
}

}  // namespace ntfs::fuzz
