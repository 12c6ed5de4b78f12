#include "support/fault_storage.h"

#include <algorithm>
#include <cstring>

namespace ntfs::test {

void FaultStorage::Heal() {
    FailRead = {};
    FailWrite = {};
    BadSector = {};
    Torn = {};
    PowerCut = {};
    ShortReadLimit = -1;
    WriteProtect = 0;
}

void FaultStorage::ClearLogs() {
    Reads_.clear();
    Writes_.clear();
}

unsigned int FaultStorage::ReadSectors(void* buffer, int64_t* sector, int count, int* done,
                                       _STORAGE_NOTIFICATION_BLOCK* block) {
    *done = 0;
    ++ReadCalls;
    Reads_.push_back({*sector, count});
    if (PowerIsOff()) return PowerCut.code;
    if (ReadCalls == FailRead.nth) return FailRead.code;
    if (BadSector.sector >= *sector && BadSector.sector < *sector + count) return BadSector.code;
    const int asked = ShortReadLimit >= 0 ? std::min(count, ShortReadLimit) : count;
    const unsigned int result = Inner->ReadSectors(buffer, sector, asked, done, block);
    if (result == 0) ReadSectorTotal += *done;
    return result;
}

unsigned int FaultStorage::WriteSectors(void* buffer, int64_t* sector, int count, int* done,
                                        _STORAGE_NOTIFICATION_BLOCK* block) {
    *done = 0;
    ++WriteCalls;
    if (PowerIsOff()) return PowerCut.code;
    if (WriteProtect != 0) return WriteProtect;
    if (WriteCalls == FailWrite.nth) return FailWrite.code;
    int landing = count;
    unsigned int tornCode = 0;
    if (WriteCalls == Torn.nth) {
        landing = std::min(count, Torn.landed);
        tornCode = Torn.code;
    }
    unsigned int result = 0;
    if (landing > 0) result = Inner->WriteSectors(buffer, sector, landing, done, block);
    if (result == 0 && *done > 0) {
        const auto* bytes = static_cast<const uint8_t*>(buffer);
        Writes_.push_back({*sector, std::vector<uint8_t>(bytes, bytes + static_cast<size_t>(*done) * kSectorBytes)});
        WriteSectorTotal += *done;
        ++LandedWrites;
    }
    if (result == 0 && tornCode != 0) return tornCode;
    return result;
}

void FaultStorage::Replay(const std::vector<WriteEntry>& log, size_t count, std::vector<uint8_t>* image) {
    for (size_t i = 0; i < count && i < log.size(); ++i) {
        const WriteEntry& entry = log[i];
        const size_t start = static_cast<size_t>(entry.sector) * kSectorBytes;
        if (start >= image->size()) continue;
        const size_t size = std::min(entry.bytes.size(), image->size() - start);
        std::memcpy(image->data() + start, entry.bytes.data(), size);
    }
}

}  // namespace ntfs::test
