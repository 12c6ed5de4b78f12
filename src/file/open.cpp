// Opening files: CreateFileA with the dispositions that open and truncate,
// and the sharing test of OpenFile. Files are created by a later part of the
// library: until then a disposition that would create a file answers as for
// an absent one.
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

void* CNTFSVolume::CreateFileA(const char16_t* path, unsigned int attributes, unsigned int disposition,
                               unsigned int access) {
    if (path == nullptr || !IsValidPath(path) || (attributes & kFileAttributeDirectory) != 0) {
        LastError = ERROR_INVALID_PARAMETER;
        return nullptr;
    }
    CDirectory* directory = nullptr;
    if (GetParentDirectory(path, &directory) != ERROR_SUCCESS) return nullptr;
    auto* find = new (std::nothrow) CFindHandle(directory, this);
    directory->Release();
    if (find == nullptr) {
        LastError = ERROR_NOT_ENOUGH_MEMORY;
        return nullptr;
    }
    find->LockExclusive();
    const int length = lstrlenW(path);
    int slash = length - 1;
    while (slash > 0 && path[slash] != u'\\') --slash;
    const char16_t* leaf = path + slash + 1;
    if (!find->SetPattern(leaf)) {
        LastError = ERROR_NOT_ENOUGH_MEMORY;
        find->UnlockExclusive();
        delete find;
        return nullptr;
    }
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
                // Creating files is not built yet: as for an absent file.
                LastError = ERROR_FILE_NOT_FOUND;
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
