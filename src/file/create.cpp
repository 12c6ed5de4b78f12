// Making files and directories: CreateEmptyFileRecord, the one place where a
// file comes into being, and CreateDirectoryA.
//
// A new file has $STANDARD_INFORMATION, one or two $FILE_NAMEs and an empty
// resident $DATA; a new directory has an $INDEX_ROOT "$I30" holding only its
// end entry in place of $DATA. No security descriptor is written (security
// id 0). The names enter the parent's index before the new record is written:
// the caller writes it, after the index change is on the disk.
#include <cstring>
#include <new>

#include "file/find_handle.h"
#include "file/short_file_name_list.h"
#include "foundation/endian.h"
#include "foundation/log.h"
#include "foundation/platform.h"
#include "index/directory.h"
#include "index/index_entry.h"
#include "index/index_root.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

constexpr int kLongestNewName = 254;

constexpr int kStandardAttributeBytes = 96;
constexpr int kStandardValueBytes = 72;
constexpr int kStandardFlagsOffset = 0x20;
constexpr int kEmptyDataBytes = 24;
constexpr int kIndexRootAttributeBytes = 80;
constexpr int kIndexRootValueOffset = 32;
constexpr int kIndexRootValueBytes = 48;
// The end entry of an empty root: 16 bytes, flags "last".
constexpr int kEmptyRootEntryBytes = 16;
constexpr uint32_t kCollationFileName = 1;

constexpr uint8_t kNamespaceWin32 = 1;
constexpr uint8_t kNamespaceBoth = 3;

// The template of a name: an index entry's header and key up to the first
// unit of the name.
constexpr int kNameTemplateBytes = kEntryNameOffset + 8;

const char16_t kIndexName[] = u"$I30";

// 0 when `name` may be the name of a new file, else ERROR_INVALID_PARAMETER:
// a name of dots only (the dots stay part of a name that has more), a
// forbidden unit, or more than 254 units.
unsigned int CheckNewName(CNTFSVolume* volume, const char16_t* name) {
    const int length = lstrlenW(name);
    int end = length;
    while (end > 0 && name[end - 1] == u'.') --end;
    if (end == 0) return ERROR_INVALID_PARAMETER;
    if (!volume->IsValidFileName(name)) return ERROR_INVALID_PARAMETER;
    if (length > kLongestNewName) return ERROR_INVALID_PARAMETER;
    return ERROR_SUCCESS;
}

CAttribute* NewResidentAttribute(int bytes, const char16_t* name, uint32_t type, int valueOffset, const void* value,
                                 int valueBytes) {
    auto* attribute = new (std::nothrow) CAttribute(bytes, 1, name);
    if (attribute == nullptr) return nullptr;
    if (!attribute->Valid) {
        delete attribute;
        return nullptr;
    }
    WriteU32(attribute->Header, kAttributeTypeOffset, type);
    WriteU16(attribute->Header, kAttributeFlagsOffset, 0);
    WriteU16(attribute->Header, kResidentValueOffsetOffset, static_cast<uint16_t>(valueOffset));
    if (!attribute->SetValue(value, valueBytes)) {
        delete attribute;
        return nullptr;
    }
    return attribute;
}

CAttribute* StandardInformationTemplate(int64_t now, uint32_t attributes) {
    uint8_t value[kStandardValueBytes] = {};
    WriteU64(value, kStandardCreationTimeOffset, static_cast<uint64_t>(now));
    WriteU64(value, kStandardWriteTimeOffset, static_cast<uint64_t>(now));
    WriteU64(value, kStandardChangeTimeOffset, static_cast<uint64_t>(now));
    WriteU64(value, kStandardAccessTimeOffset, static_cast<uint64_t>(now));
    WriteU32(value, kStandardFlagsOffset, attributes & ~kFileAttributeDirectory);
    return NewResidentAttribute(kStandardAttributeBytes, nullptr, AttributeStandardInformation, kResidentHeaderSize,
                                value, kStandardValueBytes);
}

CAttribute* IndexRootTemplate(CNTFSVolume* volume) {
    uint8_t value[kIndexRootValueBytes] = {};
    const int recordSize = volume->GetIndexRecordSize();
    const int clusterSize = volume->GetClusterSize();
    const int unit = recordSize > clusterSize ? clusterSize : volume->GetVirtualClusterSize();
    WriteU32(value, kRootIndexedTypeOffset, AttributeFileName);
    WriteU32(value, kRootCollationRuleOffset, kCollationFileName);
    WriteU32(value, kRootRecordSizeOffset, static_cast<uint32_t>(recordSize));
    WriteU32(value, kRootClustersPerRecordOffset, static_cast<uint32_t>(recordSize / unit));
    WriteU32(value, kRootFirstEntryOffset, kRootEntriesOffset - kRootNodeHeaderOffset);
    WriteU32(value, kRootBytesInUseOffset, kRootEntriesOffset - kRootNodeHeaderOffset + kEmptyRootEntryBytes);
    WriteU32(value, kRootBytesAllocatedOffset, kRootEntriesOffset - kRootNodeHeaderOffset + kEmptyRootEntryBytes);
    WriteU32(value, kRootFlagsOffset, 0);
    WriteU16(value, kRootEntriesOffset + kEntryLengthOffset, kEmptyRootEntryBytes);
    WriteU32(value, kRootEntriesOffset + kEntryFlagsOffset, kEntryIsLast);
    return NewResidentAttribute(kIndexRootAttributeBytes, kIndexName, AttributeIndexRoot, kIndexRootValueOffset,
                                value, kIndexRootValueBytes);
}

CAttribute* EmptyDataTemplate() {
    return NewResidentAttribute(kEmptyDataBytes, nullptr, AttributeData, kResidentHeaderSize, nullptr, 0);
}

int64_t Now(CNTFSVolume* volume) {
    _SYSTEMTIME now{};
    GetSystemTime(&now);
    _LARGE_INTEGER time{};
    volume->SystemTimeToFileTime(&now, &time);
    return time.QuadPart;
}

}  // namespace

void CNTFSVolume::DiscardNewRecord(CFullFileRecord* record) {
    // Deviation for safety: the record goes back with the extension records
    // a name may have taken, and the object is destroyed rather than kept
    // in the recover box, where the next taker of the number would find the
    // attributes of the file that failed.
    (void)record->ReleaseExtensionRecords();
    if (record->GetReferenceCount() == 1) {
        delete record;
    } else {
        record->RemovedFromVolume = 1;
        record->Release();
    }
}

unsigned int CNTFSVolume::CreateEmptyFileRecord(const char16_t* name, int nameSpace, unsigned int attributes,
                                                CDirectory* directory, CFullFileRecord** record) {
    *record = nullptr;
    unsigned int code = CheckNewName(this, name);
    if (code != ERROR_SUCCESS) return LastError = code;
    const bool isDirectory = (attributes & kFileAttributeDirectory) != 0;
    const int64_t now = Now(this);
    CAttribute* standard = StandardInformationTemplate(now, attributes);
    CAttribute* second = isDirectory ? IndexRootTemplate(this) : EmptyDataTemplate();
    if (standard == nullptr || second == nullptr) {
        delete standard;
        delete second;
        return LastError = ERROR_NOT_ENOUGH_MEMORY;
    }

    CFileRecord* blank = nullptr;
    code = ReferenceEmptyFileRecordFromMFT(&blank, 0);
    if (code != ERROR_SUCCESS) {
        delete standard;
        delete second;
        return LastError = code;
    }
    int64_t number = blank->RecordNumber;
    blank->Modified = 0;
    delete blank;

    CFullFileRecord* made = nullptr;
    code = ReferenceFileRecord(number, &made);
    if (code == ERROR_SUCCESS && made == nullptr) code = ERROR_FILE_CORRUPT;
    if (code != ERROR_SUCCESS) {
        (void)DeleteFileRecordFromMFT(number);
        // The templates are this function's own memory: freed here as well.
        delete standard;
        delete second;
        return LastError = code;
    }

    made->LockExclusive();
    WriteU16(made->Image, kFileFlagsOffset,
             static_cast<uint16_t>(kFileRecordInUse | (isDirectory ? kFileRecordIsDirectory : 0)));
    made->CFileRecord::Modified = 1;
    made->MarkModified();
    // A fresh record always has room for both.
    CAttribute* placed = standard;
    (void)made->InsertAttribute(&placed);
    delete standard;
    placed = second;
    (void)made->InsertAttribute(&placed);
    delete second;

    uint8_t entry[kNameTemplateBytes] = {};
    CFullFileRecord* parent = directory->GetFileRecord();
    const uint64_t parentReference = (static_cast<uint64_t>(parent->RecordNumber) & kFileReferenceNumberMask) |
                                     (static_cast<uint64_t>(ReadU16(parent->Image, kFileSequenceNumberOffset)) << 48);
    WriteU64(entry, kEntryParentOffset, parentReference);
    for (int offset = kFileNameCreationTimeOffset; offset <= kFileNameAccessTimeOffset; offset += 8) {
        WriteU64(entry, kEntryKeyOffset + static_cast<size_t>(offset), static_cast<uint64_t>(now));
    }
    const uint32_t nameFlags =
        isDirectory ? ((attributes & ~kFileAttributeDirectory) | kFileNameIsDirectory) : attributes;
    WriteU32(entry, kEntryFileFlagsOffset, nameFlags);

    char16_t shortName[kShortNameUnits] = {};
    bool shortAdded = false;
    uint8_t space = static_cast<uint8_t>(nameSpace);
    if (nameSpace == kNamespaceWin32) {
        if (!CreationNeedsShortName(name)) {
            lstrcpyW(shortName, name);
        } else {
            code = GenerateShortName(directory, name, shortName);
        }
        if (code == ERROR_SUCCESS) {
            if (lstrcmpiW(shortName, name) != 0) {
                WriteU8(entry, kEntryNameSpaceOffset, kNamespaceDos);
                code = AddFileNameDescription(directory, made, entry, shortName);
                shortAdded = code == ERROR_SUCCESS;
            } else {
                space = kNamespaceBoth;
            }
        }
    }
    if (code == ERROR_SUCCESS) {
        WriteU8(entry, kEntryNameSpaceOffset, space);
        code = AddFileNameDescription(directory, made, entry, name);
        if (code == ERROR_SUCCESS) {
            made->UnlockExclusive();
            *record = made;
            return LastError = ERROR_SUCCESS;
        }
        if (shortAdded) {
            FoldIndexName(shortName);
            (void)RemoveFileNameDescription(directory, made, shortName);
        }
    }
    made->UnlockExclusive();
    DiscardNewRecord(made);
    return LastError = code;
}

int CNTFSVolume::CreateDirectoryA(const char16_t* path, unsigned int attributes) {
    if (path == nullptr || !IsValidPath(path)) {
        LastError = ERROR_INVALID_PARAMETER;
        return 0;
    }
    const char16_t* leaf = LeafOfPath(path);
    CFindHandle* find = SearchParentForLeaf(path);
    if (find == nullptr) return 0;
    const uint8_t* entry = nullptr;
    unsigned int code = find->FindFirst(&entry);
    if (code == ERROR_SUCCESS) code = ERROR_FILE_EXISTS;
    if (code != ERROR_FILE_NOT_FOUND) {
        LastError = code;
        find->UnlockExclusive();
        delete find;
        return 0;
    }
    CFullFileRecord* record = nullptr;
    code = CreateEmptyFileRecord(leaf, kNamespaceWin32, attributes | kFileAttributeDirectory, find->GetDirectory(),
                                 &record);
    find->UnlockExclusive();
    delete find;
    if (code != ERROR_SUCCESS) {
        LastError = code;
        return 0;
    }
    int64_t changed = 0;
    code = WriteChangedRecord(record, nullptr, nullptr, &changed);
    record->Release();
    LastError = code;
    return code == ERROR_SUCCESS ? 1 : 0;
}

}  // namespace ntfs
