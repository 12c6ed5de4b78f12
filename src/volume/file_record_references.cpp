// Shared access to file records by number: a record already in memory (on
// the FileRecords chain or in its recover box) is handed out again, so there
// is at most one CFullFileRecord per record number. Also the volume's
// cluster operations, which forward to the cluster bitmap.
#include <cstdlib>
#include <new>

#include "data/bitmap_data.h"
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
    const int64_t number = record->CFileRecord::Valid ? record->RecordNumber : -1;
    return number == *static_cast<int64_t*>(parameter);
}

int CNTFSVolume::FileHandleSearchRoutine(CChainElement* element, void* parameter) {
    return static_cast<void*>(element) == parameter;
}

int CNTFSVolume::FindHandleSearchRoutine(CChainElement* element, void* parameter) {
    return FileHandleSearchRoutine(element, parameter);
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

unsigned int CNTFSVolume::SearchSpareClusterAndAllocate(int wanted, int64_t* start, int* got,
                                                        int ignoreExclusions) {
    if (ClusterBitmap == nullptr) return ERROR_INTERNAL_ERROR;
    return ClusterBitmap->AllocateUnits(wanted, start, got, ignoreExclusions);
}

unsigned int CNTFSVolume::SearchSpareClusterAndAllocateWithLeastItemNumber(int wanted, int64_t* start,
                                                                            int* got, int least,
                                                                            int ignoreExclusions) {
    if (ClusterBitmap == nullptr) return ERROR_INTERNAL_ERROR;
    // Runs that were taken but are too short are held until a long enough
    // one is found, so the search does not find them again; then they go back.
    CPointerArray held;
    auto releaseHeld = [this, &held]() {
        for (int i = 0; i + 1 < held.GetCount(); i += 2) {
            int64_t heldStart = held.Get(i);
            (void)ClusterBitmap->FreeUnits(&heldStart, static_cast<uint32_t>(held.Get(i + 1)));
        }
    };
    for (;;) {
        const unsigned int code = ClusterBitmap->AllocateUnits(wanted, start, got, ignoreExclusions);
        if (code != ERROR_SUCCESS) {
            // No free run is long enough: searching again cannot change that.
            releaseHeld();
            return code;
        }
        if (*got >= least) {
            releaseHeld();
            return ERROR_SUCCESS;
        }
        held.InsertAfter(held.GetCount(), static_cast<intptr_t>(*start));
        held.InsertAfter(held.GetCount(), static_cast<intptr_t>(*got));
    }
}

unsigned int CNTFSVolume::FreeClusters(int64_t* start, int count) {
    if (ClusterBitmap == nullptr) return ERROR_INTERNAL_ERROR;
    return ClusterBitmap->FreeUnits(start, static_cast<uint32_t>(count));
}

}  // namespace ntfs
