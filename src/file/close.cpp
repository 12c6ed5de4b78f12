// Closing a file: the handle's size and times go into the record, the record
// is written, and the copies of the sizes and times in the file's index
// entries are refreshed in place. A handle opened for delete-on-close deletes
// its file instead.
#include <cstring>

#include "file/file_handle.h"
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

// The bytes of the key refreshed from the $FILE_NAME value: the four times,
// both sizes, the flags and the word behind them.
constexpr int kRefreshFrom = 0x08;
constexpr int kRefreshTo = 0x40;

bool ValueHolds(CAttribute* attribute, int offset, int bytes) {
    return attribute->IsResident() && attribute->BodyFits() && attribute->GetDataSize() >= offset + bytes;
}

void StoreSizes(CAttribute* name, int64_t allocated, int64_t real) {
    StoreValue64(name, kFileNameAllocatedSizeOffset, allocated);
    StoreValue64(name, kFileNameRealSizeOffset, real);
}

}  // namespace

unsigned int CFileHandle::UpdateIndexEntries(int64_t* accessTime, int64_t* writeTime) {
    CFullFileRecord* record = FileRecord;
    for (unsigned int index = 0;; ++index) {
        CAttribute* name = record->FindAttribute(AttributeFileName, nullptr, 0, index);
        if (name == nullptr) break;
        StoreSizes(name, AllocatedSize, DataSize);
    }
    // The times, then the base record and its modified extension records.
    int64_t changed = 0;
    unsigned int code = Volume->WriteChangedRecord(record, accessTime, writeTime, &changed);
    if (code != ERROR_SUCCESS) return code;

    FindHandle->LockExclusive();
    for (unsigned int index = 0; code == ERROR_SUCCESS; ++index) {
        CAttribute* name = record->FindAttribute(AttributeFileName, nullptr, 0, index);
        if (name == nullptr) break;
        StoreSizes(name, AllocatedSize, DataSize);
        if (!ValueHolds(name, kFileNameUnitsOffset, 0)) continue;
        const int units = ReadU8(name->GetValue(), kFileNameLengthOffset);
        if (!ValueHolds(name, kFileNameUnitsOffset, 2 * units)) continue;
        char16_t text[256];
        for (int i = 0; i < units; ++i) text[i] = ReadU16(name->GetValue(), kFileNameUnitsOffset + 2 * i);
        text[units] = 0;
        if (!FindHandle->SetPattern(text)) {
            code = ERROR_NOT_ENOUGH_MEMORY;
            break;
        }
        const uint8_t* entry = nullptr;
        code = FindHandle->FindFirst(&entry);
        if (code != ERROR_SUCCESS) break;
        CIndexEntry* item = FindHandle->CursorItem();
        if (item == nullptr) {
            code = ERROR_FILE_NOT_FOUND;
            break;
        }
        std::memcpy(item->Entry + kEntryKeyOffset + kRefreshFrom, name->GetValue() + kRefreshFrom,
                    kRefreshTo - kRefreshFrom);
        CBPlusTreeNode* node = item->GetNode();
        node->MarkModified();
        code = FindHandle->GetDirectory()->FlushNode(node);
    }
    FindHandle->UnlockExclusive();
    return code;
}

int CNTFSVolume::CloseFileHandle(void* handle) {
    CFileHandle* file = LookUpFileHandle(handle);
    if (file == nullptr) {
        LastError = ERROR_INVALID_HANDLE;
        return 0;
    }
    // Each step's code decides by itself; LastError, which every thread of the
    // volume shares, only receives it.
    unsigned int code = ERROR_SUCCESS;
    if (file->AccessMode & kAccessDeleteOnClose) {
        code = file->DeleteFile();
        LastError = code;
        file->Deleted = code == ERROR_SUCCESS ? 1 : 0;
    } else if (file->FileRecord->RemovedFromVolume) {
        // Deviation for safety: another handle deleted the file, and its
        // number may already be a new file's. Nothing of the old image is
        // written; the close answers as it would with no name left to
        // refresh.
        LastError = code;
    } else {
        CFullFileRecord* record = file->FileRecord;
        record->LockExclusive();
        if (CAttribute* data = record->FindAttribute(AttributeData, nullptr, 0, 0)) {
            if (data->IsResident()) {
                WriteU32(data->Header, kResidentValueLengthOffset, static_cast<uint32_t>(file->DataSize));
            } else {
                WriteU64(data->Header, kNonResidentDataSizeOffset, static_cast<uint64_t>(file->DataSize));
                WriteU64(data->Header, kNonResidentInitializedSizeOffset, static_cast<uint64_t>(file->DataSize));
            }
            data->Mark();
        }
        record->MarkModified();
        record->UnlockExclusive();

        _LARGE_INTEGER accessTime{};
        _LARGE_INTEGER writeTime{};
        SystemTimeToFileTime(&file->LastReadTime, &accessTime);
        SystemTimeToFileTime(&file->LastWriteTime, &writeTime);

        record->LockExclusive();
        int64_t changed = 0;
        code = WriteChangedRecord(record, nullptr, nullptr, &changed);
        if (code == ERROR_SUCCESS) {
            code = file->UpdateIndexEntries(&accessTime.QuadPart, &writeTime.QuadPart);
            LastError = code;
            file->Modified = 0;
            record->ClearModified();
        }
        record->UnlockExclusive();
    }
    file->Release();
    return code == ERROR_SUCCESS ? 1 : 0;
}

}  // namespace ntfs
