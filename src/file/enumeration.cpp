// The volume's enumeration interface: FindFirstFileA, FindNextFileA and
// CloseFindHandle. Every path is resolved from the root directory, record 5,
// one component at a time, through the $I30 index of each directory. Records
// 0 to 11, the volume's own files, are hidden in the last component.
#include <cstdlib>
#include <cstring>
#include <new>

#include "file/find_handle.h"
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

constexpr int kMaxComponentUnits = 256;

CFindHandle* AsFindHandle(CChainElement* element) {
    return static_cast<CFindHandle*>(static_cast<CShareElement*>(element));
}

}  // namespace

// References the record of `entry`, fills `data` for it and lets it go.
static unsigned int DeliverEntry(CNTFSVolume* volume, CFindHandle* find, const uint8_t* entry, _FIND_FILE_DATA* data) {
    CFullFileRecord* record = nullptr;
    const unsigned int code = volume->ReferenceFileRecord(EntryReferencedRecord(entry), &record);
    if (code != ERROR_SUCCESS) return code;
    const uint64_t parent = ReadU64(entry, kEntryParentOffset);
    record->LockShared();
    find->FillFindData(&parent, record, data, entry);
    record->UnlockShared();
    record->Release();
    return ERROR_SUCCESS;
}

void* CNTFSVolume::FindFirstFileA(const char16_t* path, _FIND_FILE_DATA* data) {
    if (path == nullptr || path[0] != u'\\') {
        LastError = ERROR_INVALID_PARAMETER;
        return nullptr;
    }
    const int length = lstrlenW(path);
    auto* folded = static_cast<char16_t*>(std::malloc((static_cast<size_t>(length) + 1) * sizeof(char16_t)));
    if (folded == nullptr) {
        LastError = ERROR_NOT_ENOUGH_MEMORY;
        return nullptr;
    }
    for (int i = 0; i <= length; ++i) {
        folded[i] = FoldUnit(path[i]);
    }
    int64_t directoryNumber = kRootDirectoryRecord;
    int position = 1;
    int separator = 0;  // the backslash in front of the component
    for (;;) {
        char16_t component[kMaxComponentUnits];
        int units = 0;
        while (position + units < length && folded[position + units] != u'\\') {
            if (units == kMaxComponentUnits - 1) {
                // A component this long names nothing on a volume.
                std::free(folded);
                LastError = ERROR_INVALID_PARAMETER;
                return nullptr;
            }
            component[units] = folded[position + units];
            ++units;
        }
        component[units] = 0;
        const bool last = position + units >= length;

        const char16_t saved = folded[separator + 1];
        folded[separator + 1] = 0;
        CDirectory* directory = nullptr;
        LastError = ReferenceDirectory(directoryNumber, folded, &directory);
        folded[separator + 1] = saved;
        if (LastError != ERROR_SUCCESS) {
            std::free(folded);
            return nullptr;
        }
        auto* find = new (std::nothrow) CFindHandle(directory, this);
        directory->Release();
        if (find == nullptr) {
            std::free(folded);
            LastError = ERROR_NOT_ENOUGH_MEMORY;
            return nullptr;
        }
        find->LockShared();
        const uint8_t* entry = nullptr;
        if (!find->SetPattern(component)) {
            LastError = ERROR_NOT_ENOUGH_MEMORY;
        } else {
            LastError = find->FindFirst(&entry);
        }
        if (LastError == ERROR_SUCCESS && !last) {
            directoryNumber = EntryReferencedRecord(entry);
            if ((ReadU32(entry, kEntryFileFlagsOffset) & kFileNameIsDirectory) == 0) LastError = ERROR_FILE_NOT_FOUND;
            find->UnlockShared();
            delete find;
            if (LastError != ERROR_SUCCESS) {
                std::free(folded);
                return nullptr;
            }
            separator = position + units;
            position = separator + 1;
            continue;
        }
        while (LastError == ERROR_SUCCESS && EntryReferencedRecord(entry) < kFirstUserRecord) {
            LastError = find->FindNext(&entry);
        }
        if (LastError == ERROR_SUCCESS) LastError = DeliverEntry(this, find, entry, data);
        find->UnlockShared();
        std::free(folded);
        if (LastError != ERROR_SUCCESS) {
            delete find;
            return nullptr;
        }
        return static_cast<CShareElement*>(find);
    }
}

int CNTFSVolume::FindNextFileA(void* handle, _FIND_FILE_DATA* data) {
    CChainElement* element = FindHandles.SearchElement(&FindHandleSearchRoutine, handle);
    if (element == nullptr) {
        LastError = ERROR_INVALID_HANDLE;
        return 0;
    }
    CFindHandle* find = AsFindHandle(element);
    find->LockShared();
    const uint8_t* entry = nullptr;
    LastError = find->FindNext(&entry);
    if (LastError != ERROR_SUCCESS) {
        find->UnlockShared();
        return 0;
    }
    while (EntryReferencedRecord(entry) < kFirstUserRecord) {
        LastError = find->FindNext(&entry);
        if (LastError != ERROR_SUCCESS) {
            // Here the handle goes away with the failure.
            find->UnlockShared();
            delete find;
            return 0;
        }
    }
    LastError = DeliverEntry(this, find, entry, data);
    find->UnlockShared();
    return LastError == ERROR_SUCCESS ? 1 : 0;
}

int CNTFSVolume::CloseFindHandle(void* handle) {
    LastError = ERROR_SUCCESS;
    CChainElement* element = FindHandles.SearchElement(&FindHandleSearchRoutine, handle);
    if (element == nullptr) {
        LastError = ERROR_INVALID_HANDLE;
        return 0;
    }
    AsFindHandle(element)->Release();
    return 1;
}

}  // namespace ntfs
