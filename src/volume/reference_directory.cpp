// Shared access to directories by record number: a CDirectory already in
// memory (on the Directories chain or in its recover box) is handed out
// again, so there is one per directory. A new one is built over the
// directory's file record, which it holds from then on.
#include <cstdlib>
#include <new>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "foundation/platform.h"
#include "index/directory.h"
#include "index/index_entry.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

CDirectory* AsDirectory(CChainElement* element) {
    return static_cast<CDirectory*>(static_cast<CShareElement*>(element));
}

}  // namespace

int CNTFSVolume::DirectorySearchRoutine(CChainElement* element, void* parameter) {
    // The same key test as for file records, on the directory's record.
    CFullFileRecord* record = AsDirectory(element)->GetFileRecord();
    return record != nullptr && FileRecordSearchRoutine(static_cast<CShareElement*>(record), parameter);
}

unsigned int CNTFSVolume::ReferenceDirectory(int64_t number, const char16_t* path, CDirectory** directory) {
    if (CChainElement* found = Directories.SearchElement(&DirectorySearchRoutine, &number)) {
        CDirectory* cached = AsDirectory(found);
        cached->Reference();
        *directory = cached;
        return ERROR_SUCCESS;
    }
    CFullFileRecord* record = nullptr;
    unsigned int code = ReferenceFileRecord(number, &record);
    if (code != ERROR_SUCCESS) {
        LastError = code;
        return code;
    }
    if ((ReadU16(record->Image, kFileFlagsOffset) & kFileRecordIsDirectory) == 0) {
        record->Release();
        return ERROR_INVALID_PARAMETER;
    }
    auto* made = new (std::nothrow) CDirectory(record, this);
    if (made == nullptr) {
        record->Release();
        return ERROR_NOT_ENOUGH_MEMORY;
    }

    const int length = path != nullptr ? lstrlenW(path) : 0;
    made->Path = static_cast<char16_t*>(std::calloc(static_cast<size_t>(length) + 1, sizeof(char16_t)));
    if (made->Path != nullptr) {
        if (path != nullptr) lstrcpyW(made->Path, path);
        made->SectorsPerRecord = IndexRecordSectors;
        made->RecordSize = GetIndexRecordSize();
        made->VirtualClusterSize = VirtualClusterSize;
        record->LockShared();
        CAttribute* root = record->FindAttribute(AttributeIndexRoot, kIndexName, kIndexNameLength, 0);
        uint8_t* value = root != nullptr && root->IsResident() ? root->GetValue() : nullptr;
        record->UnlockShared();
        if (value != nullptr) {
            made->RootValue = value;
            LastError = ERROR_SUCCESS;
            *directory = made;
            return ERROR_SUCCESS;
        }
        LastError = ERROR_FILE_CORRUPT;
    } else {
        LastError = ERROR_NOT_ENOUGH_MEMORY;
    }

    // No user can hold the new directory yet: it goes, and with it the
    // record, which is destroyed rather than kept in the recover box unless
    // someone else still holds it.
    made->FileRecord = nullptr;
    if (record->GetReferenceCount() == 1) {
        delete record;
    } else {
        record->Release();
    }
    delete made;
    return LastError;
}

}  // namespace ntfs
