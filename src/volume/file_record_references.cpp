// Shared access to file records by number: a record already in memory (on
// the FileRecords chain or in its recover box) is handed out again, so there
// is at most one CFullFileRecord per record number.
#include <cstdlib>
#include <new>

#include "foundation/log.h"
#include "record/full_file_record.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

CFullFileRecord* AsFullFileRecord(CChainElement* element) {
    return static_cast<CFullFileRecord*>(static_cast<CShareElement*>(element));
}

}  // namespace

int CNTFSVolume::FileRecordSearchRoutine(CChainElement* element, void* parameter) {
    CFullFileRecord* record = AsFullFileRecord(element);
    // A record deleted while others held it is no longer that of its number.
    const int64_t number = record->CFileRecord::Valid && !record->RemovedFromVolume ? record->RecordNumber : -1;
    return number == *static_cast<int64_t*>(parameter);
}

unsigned int CNTFSVolume::ReferenceFileRecord(int64_t number, CFullFileRecord** record) {
    if (CChainElement* found = FileRecords.SearchElement(&FileRecordSearchRoutine, &number)) {
        CFullFileRecord* cached = AsFullFileRecord(found);
        cached->Reference();
        *record = cached;
        return ERROR_SUCCESS;
    }
    const int recordSize = GetFileRecordSize();
    void* buffer = std::malloc(static_cast<size_t>(recordSize > 0 ? recordSize : 1));
    if (buffer == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    const unsigned int read = ReadFileRecord(&number, buffer);
    LastError = read;
    if (read != ERROR_SUCCESS) {
        std::free(buffer);
        return read;
    }
    auto* loaded = new (std::nothrow) CFullFileRecord(number, buffer, this);
    if (loaded == nullptr) {
        std::free(buffer);
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    if (!loaded->IsValid()) {
        // A record that could not be built for lack of memory is no damage
        // of the disk; one that never took the buffer leaves it here.
        const bool memory = loaded->CFileRecord::MemoryShortfalls != 0;
        if (loaded->CFileRecord::Image == nullptr) std::free(buffer);
        delete loaded;
        return memory ? ERROR_NOT_ENOUGH_MEMORY : ERROR_FILE_CORRUPT;
    }
    const unsigned int code = loaded->LoadExtensionRecords();
    if (code != ERROR_SUCCESS) {
        delete loaded;
        *record = nullptr;
        return code;
    }
    *record = loaded;
    return ERROR_SUCCESS;
}

}  // namespace ntfs
