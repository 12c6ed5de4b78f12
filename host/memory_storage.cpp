#include "memory_storage.h"

#include <cstdio>
#include <cstring>

#include "foundation/log.h"

namespace ntfs {

unsigned int MemoryStorage::LoadFile(const std::string& path) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) return ERROR_IO_DEVICE;
    std::vector<uint8_t> bytes;
    uint8_t chunk[1 << 16];
    size_t got;
    while ((got = std::fread(chunk, 1, sizeof(chunk), file)) > 0) {
        bytes.insert(bytes.end(), chunk, chunk + got);
    }
    const bool failed = std::ferror(file) != 0;
    std::fclose(file);
    if (failed) return ERROR_IO_DEVICE;
    Image = std::move(bytes);
    return ERROR_SUCCESS;
}

unsigned int MemoryStorage::SaveFile(const std::string& path) const {
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) return ERROR_IO_DEVICE;
    const bool written = std::fwrite(Image.data(), 1, Image.size(), file) == Image.size();
    const bool closed = std::fclose(file) == 0;
    return written && closed ? ERROR_SUCCESS : ERROR_IO_DEVICE;
}

bool MemoryStorage::InRange(const void* buffer, int64_t sector, int count) const {
    return buffer != nullptr && sector >= 0 && count >= 0 && sector <= SectorCount() && count <= SectorCount() - sector;
}

unsigned int MemoryStorage::ReadSectors(void* buffer, int64_t* sector, int count, int* done,
                                        _STORAGE_NOTIFICATION_BLOCK*) {
    *done = 0;
    if (!InRange(buffer, *sector, count)) return ERROR_SECTOR_NOT_FOUND;
    std::memcpy(buffer, Image.data() + *sector * kSectorBytes, static_cast<size_t>(count) * kSectorBytes);
    *done = count;
    return ERROR_SUCCESS;
}

unsigned int MemoryStorage::WriteSectors(void* buffer, int64_t* sector, int count, int* done,
                                         _STORAGE_NOTIFICATION_BLOCK*) {
    *done = 0;
    if (!InRange(buffer, *sector, count)) return ERROR_SECTOR_NOT_FOUND;
    std::memcpy(Image.data() + *sector * kSectorBytes, buffer, static_cast<size_t>(count) * kSectorBytes);
    *done = count;
    return ERROR_SUCCESS;
}

}  // namespace ntfs
