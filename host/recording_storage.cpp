#include "recording_storage.h"

#include "foundation/log.h"

namespace ntfs {

unsigned int RecordingStorage::ReadSectors(void* buffer, int64_t* sector, int count, int* done,
                                           _STORAGE_NOTIFICATION_BLOCK* block) {
    const int64_t at = *sector;
    const unsigned int code = Inner->ReadSectors(buffer, sector, count, done, block);
    if (code != ERROR_SUCCESS || *done != count) Note(false, at, count, *done, code);
    return code;
}

unsigned int RecordingStorage::WriteSectors(void* buffer, int64_t* sector, int count, int* done,
                                            _STORAGE_NOTIFICATION_BLOCK* block) {
    const int64_t at = *sector;
    const unsigned int code = Inner->WriteSectors(buffer, sector, count, done, block);
    if (code == ERROR_WRITE_PROTECT) {
        ++RefusedCount;
    } else {
        ++WriteCount;
        if (code != ERROR_SUCCESS || *done != count) Note(true, at, count, *done, code);
    }
    return code;
}

void RecordingStorage::Note(bool write, int64_t sector, int count, int done, unsigned int code) {
    if (FailureCount++ == 0) First = Failure{write, sector, count, done, code};
}

std::string RecordingStorage::Describe(const Failure& failure) const {
    std::string text = failure.Write ? "write of " : "read of ";
    text += std::to_string(failure.Count) + " sectors at sector " + std::to_string(failure.Sector) + ": ";
    if (failure.Code == ERROR_SUCCESS) {
        text += "only " + std::to_string(failure.Done) + " moved (the image ends there)";
    } else {
        text += "the device answered code " + std::to_string(failure.Code);
    }
    return text;
}

}  // namespace ntfs
