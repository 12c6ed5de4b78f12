// Deleting: a file goes when a handle opened with kAccessDeleteOnClose is
// closed, a directory by RemoveDirectoryA when it is empty and unused. Both
// end in the same two steps: CDirectory::UnlinkName takes the name (and its
// DOS or Win32 partner) out of the directory's index and the record, then
// CFullFileRecord::DeleteFromVolume gives the clusters and the records back
// once the file has no name left.
//
// Another holder of a deleted file's record keeps the object: it is marked
// RemovedFromVolume, found by number no more, and written no more, since its
// number may belong to a new file at once.
#include <cstdlib>
#include <cstring>
#include <new>

#include "file/file_handle.h"
#include "file/find_handle.h"
#include "foundation/endian.h"
#include "foundation/log.h"
#include "foundation/pointer_array.h"
#include "foundation/platform.h"
#include "index/directory.h"
#include "index/index_entry.h"
#include "index/index_root.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

constexpr int kNameUnits = kMaxEntryNameLength + 1;
constexpr uint8_t kNamespaceMask = 3;
constexpr uint16_t kEntryEndFlags = kEntryHasSubNode | kEntryIsLast;

// The name of a resident $FILE_NAME whose parent is `parent`, into `name`
// (kNameUnits units, terminated); its length, or -1 when the value is short
// or belongs to another directory.
int NameUnder(CAttribute* attribute, int64_t parent, char16_t* name) {
    if (!attribute->IsResident() || !attribute->BodyFits() || attribute->GetDataSize() < kFileNameUnitsOffset) {
        return -1;
    }
    const uint8_t* value = attribute->GetValue();
    const int units = ReadU8(value, kFileNameLengthOffset);
    if (kFileNameUnitsOffset + 2 * units > attribute->GetDataSize()) return -1;
    const int64_t owner = static_cast<int64_t>(ReadU48(value, kFileNameParentOffset) << 16) >> 16;
    if (owner != parent) return -1;
    for (int i = 0; i < units; ++i) name[i] = ReadU16(value, kFileNameUnitsOffset + 2 * i);
    name[units] = 0;
    return units;
}

unsigned int RemoveFolded(CDirectory* directory, char16_t* name) {
    FoldIndexName(name);
    directory->ModifiedRecords.Clear();
    directory->AbateRecords.Clear();
    directory->NewRecords.Clear();
    return directory->RemoveEntry(name);
}

// Lets go of a record object after its file was deleted: destroyed when the
// caller's reference is the last, else left to the other holders.
void DropDeletedRecord(CFullFileRecord* record) {
    if (record->GetReferenceCount() <= 1) {
        delete record;
    } else {
        record->Release();
    }
}

}  // namespace

unsigned int CDirectory::UnlinkName(CFullFileRecord* record, const char16_t* name) {
    const int64_t own = FileRecord->RecordNumber;
    const int length = lstrlenW(name);
    if (length >= kNameUnits) return ERROR_BAD_FORMAT;
    CAttribute* found = nullptr;
    char16_t held[kNameUnits];
    for (unsigned int index = 0; found == nullptr; ++index) {
        CAttribute* attribute = record->FindAttribute(AttributeFileName, nullptr, 0, index);
        if (attribute == nullptr) break;
        if (NameUnder(attribute, own, held) != length) continue;
        FoldIndexName(held);
        if (std::memcmp(held, name, sizeof(char16_t) * static_cast<size_t>(length)) == 0) found = attribute;
    }
    if (found == nullptr) return ERROR_BAD_FORMAT;
    const uint8_t space = ReadU8(found->GetValue(), kFileNameNamespaceOffset);
    lstrcpyW(held, name);
    unsigned int code = RemoveFolded(this, held);
    if (code != ERROR_SUCCESS) return code;
    code = record->DeleteAttribute(found);
    if ((space & kNamespaceMask) == 0) return code;

    for (unsigned int index = 0;; ++index) {
        CAttribute* attribute = record->FindAttribute(AttributeFileName, nullptr, 0, index);
        if (attribute == nullptr) return code;
        if (NameUnder(attribute, own, held) < 0) continue;
        if ((ReadU8(attribute->GetValue(), kFileNameNamespaceOffset) & kNamespaceMask) == 0) continue;
        // Deviation for safety: the partner's name is folded for the index
        // search, which matches folded names only; unfolded, a long name with
        // lower case would not be found and the file would stay half
        // unlinked.
        code = RemoveFolded(this, held);
        if (code != ERROR_SUCCESS) return code;
        return record->DeleteAttribute(attribute);
    }
}

unsigned int CFullFileRecord::DeleteFromVolume(CNTFSVolume* volume) {
    if (FindAttribute(AttributeFileName, nullptr, 0, 0) != nullptr) {
        // Deviation for safety: the file lives on under its other names, and
        // the record is written so that the disk no longer holds the name
        // the index has lost.
        int64_t changed = 0;
        return volume->WriteChangedRecord(this, nullptr, nullptr, &changed);
    }
    const uint64_t number = static_cast<uint64_t>(RecordNumber);
    LogMessage("  Delete FileRecord %04X%08XH.\n", static_cast<unsigned int>(number >> 32) & 0xFFFF,
               static_cast<unsigned int>(number));
    // Deviation for safety: the records are given back before the clusters,
    // from copies of the non-resident attributes. Freed first, the clusters
    // would stay mapped by a record in use on the disk until its release
    // lands, and a crash in between would leave them free and owned; this
    // way a crash can only leave them taken and unowned.
    CPointerArray pieces;
    unsigned int code = ERROR_SUCCESS;
    for (int i = 0; i < MergedAttributes.GetCount() && code == ERROR_SUCCESS; ++i) {
        CAttribute* attribute = MergedAttributes.At<CAttribute>(i);
        if (attribute->IsResident()) continue;
        CAttribute* copy = attribute->Clone();
        if (copy == nullptr || pieces.InsertAfter(pieces.GetCount(), reinterpret_cast<intptr_t>(copy)) == -2) {
            delete copy;
            code = ERROR_NOT_ENOUGH_MEMORY;
        }
    }
    if (code == ERROR_SUCCESS) code = ReleaseExtensionRecords();
    if (code == ERROR_SUCCESS) RemovedFromVolume = 1;
    for (int i = 0; i < pieces.GetCount(); ++i) {
        CAttribute* copy = pieces.At<CAttribute>(i);
        // Deviation for safety: holes (runs without a cluster of their own)
        // are passed over instead of being freed at the place of the run
        // before them, which belongs to this file or to another one.
        if (code == ERROR_SUCCESS) code = volume->FreeAttributeClusters(copy);
        delete copy;
    }
    return code;
}

unsigned int CFileHandle::DeleteFile() {
    FindHandle->LockExclusive();
    FileRecord->LockExclusive();
    // The name by which the file was opened: the entry the handle keeps.
    const uint8_t* entry = FindHandle->GetCurrentEntry();
    const int units = ReadU8(entry, kEntryNameLengthOffset);
    char16_t name[kNameUnits];
    for (int i = 0; i < units; ++i) name[i] = FoldUnit(ReadU16(entry, kEntryNameOffset + 2 * static_cast<size_t>(i)));
    name[units] = 0;
    unsigned int code = FindHandle->GetDirectory()->UnlinkName(FileRecord, name);
    if (code == ERROR_SUCCESS) code = FileRecord->DeleteFromVolume(Volume);
    FileRecord->UnlockExclusive();
    FindHandle->UnlockExclusive();
    return code;
}

int CNTFSVolume::RemoveDirectoryA(const char16_t* path) {
    if (path == nullptr || path[0] != u'\\') {
        LastError = ERROR_INVALID_PARAMETER;
        return 0;
    }
    for (const char16_t* unit = path; *unit != 0; ++unit) {
        if (*unit == u'*' || *unit == u'?') {
            LastError = ERROR_INVALID_PARAMETER;
            return 0;
        }
    }
    _FIND_FILE_DATA data{};
    void* find = FindFirstFileA(path, &data);
    if (find == nullptr) return 0;
    CloseFindHandle(find);
    const int64_t number = data.FileRecordNumber;
    if (number == kRootDirectoryRecord) {
        LastError = ERROR_ACCESS_DENIED;
        return 0;
    }
    CDirectory* target = nullptr;
    unsigned int code = ReferenceDirectory(number, path, &target);
    if (code != ERROR_SUCCESS) {
        LastError = code;
        return 0;
    }
    target->LockExclusive();

    // The stages after this point unwind what the earlier ones built.
    const char16_t* leaf = LeafOfPath(path);
    const int parentLength = static_cast<int>(leaf - path) - 1;
    char16_t* parentPath = static_cast<char16_t*>(std::malloc((static_cast<size_t>(parentLength) + 2) * 2));
    CDirectory* parent = nullptr;
    CFullFileRecord* record = nullptr;
    int stage = 0;  // 1: target held; 2: parent held too; 3: parent alone
    do {
        stage = 1;
        if (parentPath == nullptr) {
            code = ERROR_NOT_ENOUGH_MEMORY;
            break;
        }
        std::memcpy(parentPath, path, static_cast<size_t>(parentLength) * 2);
        parentPath[parentLength] = 0;
        int64_t parentNumber = kRootDirectoryRecord;
        if (parentLength > 0) {
            void* parentFind = FindFirstFileA(parentPath, &data);
            if (parentFind == nullptr) {
                code = LastError;
                break;
            }
            CloseFindHandle(parentFind);
            parentNumber = data.FileRecordNumber;
        } else {
            parentPath[0] = u'\\';
            parentPath[1] = 0;
        }
        code = ReferenceDirectory(parentNumber, parentPath, &parent);
        if (code != ERROR_SUCCESS) break;
        parent->LockExclusive();
        stage = 2;
        if (target->GetReferenceCount() > 1) {
            code = ERROR_ACCESS_DENIED;
            break;
        }
        CIndexRoot* root = target->GetIndexRoot();
        if (root == nullptr) {
            code = ERROR_NOT_ENOUGH_MEMORY;
            break;
        }
        auto* first = root->GetItemCount() > 0 ? static_cast<CIndexEntry*>(root->GetItem(0)) : nullptr;
        if (first == nullptr || (ReadU16(first->Entry, kEntryFlagsOffset) & kEntryEndFlags) != kEntryIsLast) {
            code = ERROR_DIR_NOT_EMPTY;
            break;
        }
        target->UnlockExclusive();
        delete target;
        target = nullptr;
        stage = 3;
        code = ReferenceFileRecord(number, &record);
        if (code != ERROR_SUCCESS) break;
        char16_t name[kNameUnits];
        const int units = lstrlenW(leaf);
        if (units >= kNameUnits) {
            code = ERROR_FILE_NOT_FOUND;
            break;
        }
        lstrcpyW(name, leaf);
        FoldIndexName(name);
        code = parent->UnlinkName(record, name);
        if (code != ERROR_SUCCESS) break;
        const unsigned int deleted = record->DeleteFromVolume(this);
        DropDeletedRecord(record);
        record = nullptr;
        parent->UnlockExclusive();
        parent->Release();
        std::free(parentPath);
        LastError = deleted;
        return 1;
    } while (false);

    if (record != nullptr) record->Release();
    if (stage == 2 || stage == 3) {
        parent->UnlockExclusive();
        parent->Release();
    }
    std::free(parentPath);
    if (target != nullptr) {
        target->UnlockExclusive();
        target->Release();
    }
    LastError = code;
    return 0;
}

}  // namespace ntfs
