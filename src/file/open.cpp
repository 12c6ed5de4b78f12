// Opening files: CreateFileA with the dispositions that open and truncate,
// the sharing test of OpenFile, and TruncateFile. Files are created by a
// later part of the library: until then a disposition that would create a
// file answers as for an absent one.
#include <cstdlib>
#include <new>

#include "data/bitmap_data.h"
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

namespace {

constexpr unsigned int kCreateNew = 1;
constexpr unsigned int kCreateAlways = 2;
constexpr unsigned int kOpenExisting = 3;
constexpr unsigned int kOpenAlways = 4;
constexpr unsigned int kTruncateExisting = 5;
constexpr unsigned int kFileAttributeDirectory = 0x10;

struct NameAndSkip {
    const char16_t* Name;
    int Skip;
};

}  // namespace

int CNTFSVolume::FileHandleFromFileNameSearchRoutine(CChainElement* element, void* parameter) {
    auto* block = static_cast<NameAndSkip*>(parameter);
    auto* handle = static_cast<CFileHandle*>(static_cast<CShareElement*>(element));
    if (handle->Path == nullptr || lstrcmpiW(handle->Path, block->Name) != 0) return 0;
    if (block->Skip == 0) return 1;
    --block->Skip;
    return 0;
}

CFileHandle* CNTFSVolume::GetFileHandleByFileName(const char16_t* name, int index) {
    NameAndSkip block{name, index};
    CChainElement* element = FileHandles.SearchElement(&FileHandleFromFileNameSearchRoutine, &block);
    return element != nullptr ? static_cast<CFileHandle*>(static_cast<CShareElement*>(element)) : nullptr;
}

int CNTFSVolume::IsValidPath(const char16_t* path) {
    const int length = lstrlenW(path);
    if (length == 0 || path[0] != u'\\' || path[length - 1] == u'\\') return 0;
    for (int i = 0; i < length; ++i) {
        if (path[i] == u'*' || path[i] == u'?') return 0;
    }
    return 1;
}

unsigned int CNTFSVolume::FreeAttributeClusters(CAttribute* attribute) {
    // Whatever the frees report, the attribute's clusters are given up: 0.
    if (attribute->IsResident() || ClusterBitmap == nullptr) return ERROR_SUCCESS;
    const int runListOffset = ReadU16(attribute->Header, kNonResidentRunListOffsetOffset);
    const int64_t clusters = ClusterBitmap->GetItemCount();
    // Two walks: the first proves that the list is whole and every run lies
    // inside the volume, the second frees. A run of a damaged list outside
    // the volume would give the bits of other clusters free, so a damaged
    // list frees nothing at all.
    for (int pass = 0; pass < 2; ++pass) {
        int64_t lcn = 0;
        for (int position = runListOffset;;) {
            _DATA_RUN run{};
            const int decoded = DecodeDataRun(attribute->Header, position, attribute->Size, &run);
            if (decoded < 0) return ERROR_FILE_CORRUPT;
            if (decoded == 0) break;
            position += run.Bytes;
            // A sparse run owns no clusters; freeing its length at the previous
            // run's place would free clusters of other files.
            if (run.OffsetBytes == 0) continue;
            if (run.Offset < -lcn || run.Offset > clusters - lcn) return ERROR_FILE_CORRUPT;
            lcn += run.Offset;
            if (run.Length <= 0) continue;
            if (run.Length > clusters - lcn) return ERROR_FILE_CORRUPT;
            if (pass == 1) {
                int64_t start = lcn;
                (void)FreeClusters(&start, static_cast<int>(run.Length));
            }
        }
    }
    return ERROR_SUCCESS;
}

unsigned int CNTFSVolume::TruncateFile(CFullFileRecord* record, uint32_t type, const char16_t* name,
                                       int nameLength) {
    // Several instances (an attribute list) need the attribute list rewritten
    // and emptied extension records given back when instances go; that is
    // not built yet, and removing them without it would leave the freed
    // clusters mapped on disk.
    if (record->FindAttribute(type, name, static_cast<unsigned int>(nameLength), 1) != nullptr) {
        return ERROR_NOT_SUPPORTED;
    }
    CAttribute* attribute = record->FindAttribute(type, name, static_cast<unsigned int>(nameLength), 0);
    if (attribute == nullptr) return ERROR_FILE_CORRUPT;
    const unsigned int code = FreeAttributeClusters(attribute);
    if (code != ERROR_SUCCESS) return code;
    CAttribute* resized = nullptr;
    (void)attribute->SetSize(nameLength * 2 + 24, &resized);
    attribute->SetResident(1);
    WriteU32(attribute->Header, kResidentValueLengthOffset, 0);
    attribute->Mark();
    record->MarkModified();
    return ERROR_SUCCESS;
}

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
