// Opening files: CreateFileA with its dispositions (open, truncate, create)
// and the sharing test of OpenFile.
#include <cstdlib>
#include <new>

#include "file/file_handle.h"
#include "file/find_handle.h"
#include "foundation/endian.h"
#include "foundation/log.h"
#include "foundation/platform.h"
#include "index/directory.h"
#include "index/index_entry.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "record/run_list.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

void* CNTFSVolume::OpenFile(CFindHandle* find, const char16_t* path, unsigned int accessMode) {
    for (int skip = 0;; ++skip) {
        CFileHandle* open = GetFileHandleByFileName(path, skip);
        if (open == nullptr) break;
        if ((open->AccessMode & accessMode & kAccessShareMask) == 0) {
            find->UnlockExclusive();
            find->Release();
            LastError = ERROR_ACCESS_DENIED;
            return nullptr;
        }
    }
    if (find->Revalidate() == ERROR_SUCCESS &&
        (ReadU32(find->GetCurrentEntry(), kEntryFileFlagsOffset) & kFileNameIsDirectory) != 0) {
        find->UnlockExclusive();
        find->Release();
        LastError = ERROR_ACCESS_DENIED;
        return nullptr;
    }
    auto* handle = new (std::nothrow) CFileHandle(find, this, accessMode);
    if (handle == nullptr) {
        find->UnlockExclusive();
        find->Release();
        LastError = ERROR_NOT_ENOUGH_MEMORY;
        return nullptr;
    }
    find->UnlockExclusive();
    find->LockShared();
    LastError = handle->Initialize(path);
    find->UnlockShared();
    if (LastError != ERROR_SUCCESS) {
        handle->Release();
        return nullptr;
    }
    return static_cast<CShareElement*>(handle);
}

bool CNTFSVolume::CreateNewFile(CFindHandle* find, const char16_t* leaf, unsigned int attributes) {
    CFullFileRecord* record = nullptr;
    unsigned int code = CreateEmptyFileRecord(leaf, 1, attributes, find->GetDirectory(), &record);
    if (code != ERROR_SUCCESS) {
        LastError = code;
        return false;
    }
    const uint8_t* entry = nullptr;
    code = find->FindFirst(&entry);
    if (code != ERROR_SUCCESS) {
        LastError = code;
        LogMessage("%%#^&(%%#!!Can't find new created file!!!!!!!!!\n");
        record->Release();
        return false;
    }
    find->KeepEntry(entry);
    // Only the side effects count: the file's own reference as the parent
    // fills in no name.
    _FIND_FILE_DATA data{};
    const uint64_t own = (static_cast<uint64_t>(record->RecordNumber) & kFileReferenceNumberMask) |
                         (static_cast<uint64_t>(ReadU16(record->Image, kFileSequenceNumberOffset)) << 48);
    find->FillFindData(&own, record, &data, entry);
    int64_t changed = 0;
    code = WriteChangedRecord(record, nullptr, nullptr, &changed);
    record->Release();
    LastError = code;
    return code == ERROR_SUCCESS;
}

CFindHandle* CNTFSVolume::SearchParentForLeaf(const char16_t* path) {
    CDirectory* directory = nullptr;
    if (GetParentDirectory(path, &directory) != ERROR_SUCCESS) return nullptr;
    auto* find = new (std::nothrow) CFindHandle(directory, this);
    directory->Release();
    if (find == nullptr) {
        LastError = ERROR_NOT_ENOUGH_MEMORY;
        return nullptr;
    }
    find->LockExclusive();
    if (!find->SetPattern(LeafOfPath(path))) {
        LastError = ERROR_NOT_ENOUGH_MEMORY;
        find->UnlockExclusive();
        delete find;
        return nullptr;
    }
    return find;
}

void* CNTFSVolume::CreateFileA(const char16_t* path, unsigned int attributes, unsigned int disposition,
                               unsigned int access) {
    if (path == nullptr || !IsValidPath(path) || (attributes & kFileAttributeDirectory) != 0) {
        LastError = ERROR_INVALID_PARAMETER;
        return nullptr;
    }
    const char16_t* leaf = LeafOfPath(path);
    CFindHandle* find = SearchParentForLeaf(path);
    if (find == nullptr) return nullptr;
    const uint8_t* entry = nullptr;
    LastError = find->FindFirst(&entry);
    if (LastError == ERROR_SUCCESS) {
        if ((ReadU32(entry, kEntryFileFlagsOffset) & kFileNameIsDirectory) != 0) {
            LastError = ERROR_INVALID_PARAMETER;
            find->UnlockExclusive();
            delete find;
            return nullptr;
        }
        find->KeepEntry(entry);
    }
    const bool exists = LastError == ERROR_SUCCESS;
    if (LastError != ERROR_SUCCESS && LastError != ERROR_FILE_NOT_FOUND) {
        find->UnlockExclusive();
        delete find;
        return nullptr;
    }
    switch (disposition) {
        case kCreateNew:
            if (exists) {
                LastError = ERROR_FILE_EXISTS;
                break;
            }
            [[fallthrough]];
        case kCreateAlways:
        case kOpenAlways:
            if (!exists) {
                if (CreateNewFile(find, leaf, attributes)) return OpenFile(find, path, access);
                break;
            }
            if (disposition == kOpenAlways) return OpenFile(find, path, access);
            [[fallthrough]];
        case kTruncateExisting:
            if (!exists) break;
            {
                CFullFileRecord* record = nullptr;
                LastError = ReferenceFileRecord(EntryReferencedRecord(entry), &record);
                if (LastError != ERROR_SUCCESS) break;
                _FIND_FILE_DATA data{};
                const uint64_t parent = ReadU64(entry, kEntryParentOffset);
                find->FillFindData(&parent, record, &data, entry);
                LastError = TruncateFile(record, AttributeData, nullptr, 0);
                record->Release();
                if (LastError != ERROR_SUCCESS) break;
                return OpenFile(find, path, access);
            }
        case kOpenExisting:
            if (!exists) break;
            return OpenFile(find, path, access);
        default:
            // Kept as it stands: the lock stays held and the find object is the
            // (useless) result.
            return static_cast<CShareElement*>(find);
    }
    find->UnlockExclusive();
    find->Release();
    return nullptr;
}

}  // namespace ntfs
