// Renaming a file inside its directory.
//
// The order of the work is what keeps a file named through a failure or a
// crash: the record changes in memory first, the new names enter the index,
// the record is written, and only then do the old names leave the index. If
// anything fails before that last step, RenameFile restores the record image
// from its last commit, so the old names stay.
//
// The worker runs under the exclusive lock of the file handle's find object,
// which holds the directory's. It takes no lock of the file's record: a
// handle being closed holds that lock while it waits for its find object,
// which may stand on this same directory (another name of the file).
#include <cstring>
#include <new>

#include "file/file_handle.h"
#include "file/find_handle.h"
#include "file/short_file_name_list.h"
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

constexpr int kNameUnits = kMaxEntryNameLength + 1;
// The template entry: header and key up to the first name unit.
constexpr int kTemplateBytes = kEntryNameOffset + 8;
// Bytes of a $FILE_NAME value the template takes over: parent, times,
// sizes, flags, length, namespace and the first unit's place.
constexpr int kFixedValueBytes = 0x44;

constexpr uint8_t kNamespaceWin32 = 1;
constexpr uint8_t kNamespaceBoth = 3;

// The name of a resident $FILE_NAME value whose body holds it, into `name`
// (kNameUnits units, terminated); its length, or -1 when the value is short.
int NameOfValue(CAttribute* attribute, char16_t* name) {
    if (!attribute->IsResident() || !attribute->BodyFits() || attribute->GetDataSize() < kFileNameUnitsOffset) {
        return -1;
    }
    const uint8_t* value = attribute->GetValue();
    const int units = ReadU8(value, kFileNameLengthOffset);
    if (kFileNameUnitsOffset + 2 * units > attribute->GetDataSize()) return -1;
    for (int i = 0; i < units; ++i) name[i] = ReadU16(value, kFileNameUnitsOffset + 2 * i);
    name[units] = 0;
    return units;
}

// Whether `directory` holds an entry of exactly `name` (folded): 0 when it
// does, ERROR_FILE_NOT_FOUND when not, or the search's code.
unsigned int FindExactName(CDirectory* directory, CNTFSVolume* volume, const char16_t* name) {
    for (const char16_t* unit = name; *unit != 0; ++unit) {
        if (*unit == u'*' || *unit == u'?') return ERROR_FILE_NOT_FOUND;  // no exact search: the index decides
    }
    auto* search = new (std::nothrow) CFindHandle(directory, volume);
    if (search == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    unsigned int code = ERROR_NOT_ENOUGH_MEMORY;
    const uint8_t* entry = nullptr;
    if (search->SetPattern(name)) code = search->FindFirst(&entry);
    delete search;
    return code;
}

unsigned int RemoveFromIndex(CDirectory* directory, char16_t* name) {
    FoldIndexName(name);
    directory->ModifiedRecords.Clear();
    directory->AbateRecords.Clear();
    directory->NewRecords.Clear();
    return directory->RemoveEntry(name);
}

}  // namespace

unsigned int CFileHandle::Rename(const char16_t* oldName, const char16_t* newName, int* changed) {
    *changed = 0;
    char16_t oldLong[kNameUnits] = {};
    char16_t oldPartner[kNameUnits] = {};
    CDirectory* directory = FindHandle->GetDirectory();
    CFullFileRecord* record = FileRecord;
    FindHandle->LockExclusive();

    // The names this rename put into the index, taken out again when a
    // later step fails.
    char16_t added[2][kNameUnits] = {};
    int addedCount = 0;
    unsigned int code = ERROR_SUCCESS;
    do {
        char16_t wanted[kNameUnits] = {};
        const int wantedLength = lstrlenW(oldName);
        if (wantedLength >= kNameUnits) {
            code = ERROR_FILE_CORRUPT;
            break;
        }
        lstrcpyW(wanted, oldName);
        FoldIndexName(wanted);
        CAttribute* found = nullptr;
        for (unsigned int index = 0; found == nullptr; ++index) {
            CAttribute* attribute = record->FindAttribute(AttributeFileName, nullptr, 0, index);
            if (attribute == nullptr) break;
            char16_t name[kNameUnits];
            if (NameOfValue(attribute, name) != wantedLength) continue;
            FoldIndexName(name);
            if (std::memcmp(name, wanted, sizeof(char16_t) * static_cast<size_t>(wantedLength)) == 0) {
                found = attribute;
            }
        }
        if (found == nullptr) {
            code = ERROR_FILE_CORRUPT;
            break;
        }
        // Deviation for safety: a new name the directory holds already ends
        // the rename here, before the record changes. In a file with an
        // attribute list every removal and insertion of an attribute rewrites
        // the list in new clusters and writes the records at once, which the
        // restore of the record image cannot take back: the refused rename
        // would leave clusters and an extension record taken.
        code = FindExactName(directory, Volume, newName);
        if (code == ERROR_SUCCESS) code = ERROR_FILE_CORRUPT;
        if (code != ERROR_FILE_NOT_FOUND) break;
        code = ERROR_SUCCESS;

        uint8_t entry[kTemplateBytes] = {};
        std::memcpy(entry + kEntryKeyOffset, found->GetValue(), kFixedValueBytes);
        const uint8_t oldSpace = ReadU8(found->GetValue(), kFileNameNamespaceOffset);
        NameOfValue(found, oldLong);
        // Deviation for safety: a removal that failed ends the rename (its
        // record image is restored by the caller) instead of going on with
        // a record whose attributes are not what the list says.
        code = record->DeleteAttribute(found);
        FindHandle->NotifyChange();
        *changed = 1;
        if (code != ERROR_SUCCESS) break;

        if (oldSpace == kNamespaceWin32) {
            for (unsigned int index = 0;; ++index) {
                CAttribute* attribute = record->FindAttribute(AttributeFileName, nullptr, 0, index);
                if (attribute == nullptr) break;
                if (NameOfValue(attribute, oldPartner) < 0 ||
                    ReadU8(attribute->GetValue(), kFileNameNamespaceOffset) != kNamespaceDos) {
                    oldPartner[0] = 0;
                    continue;
                }
                code = record->DeleteAttribute(attribute);
                break;
            }
            if (code != ERROR_SUCCESS) break;
        }

        char16_t shortName[kShortNameUnits] = {};
        code = Volume->GenerateAlternateFileNameDesc(directory, newName, shortName);
        if (code != ERROR_SUCCESS) break;
        WriteU64(entry, kEntryRecordNumberOffset,
                 (static_cast<uint64_t>(record->RecordNumber) & kFileReferenceNumberMask) |
                     (static_cast<uint64_t>(ReadU16(record->Image, kFileSequenceNumberOffset)) << 48));

        uint8_t space = kNamespaceBoth;
        if (lstrcmpiW(newName, shortName) != 0) {
            WriteU8(entry, kEntryNameSpaceOffset, kNamespaceWin32);
            code = Volume->AddFileNameDescription(directory, record, entry, newName);
            if (code != ERROR_SUCCESS) break;
            lstrcpyW(added[addedCount++], newName);
            space = kNamespaceDos;
        }
        // Here the long name goes first and the short one second.
        WriteU8(entry, kEntryNameSpaceOffset, space);
        code = Volume->AddFileNameDescription(directory, record, entry, shortName);
        if (code != ERROR_SUCCESS) break;
        lstrcpyW(added[addedCount++], shortName);

        int64_t changeTime = 0;
        code = Volume->WriteChangedRecord(record, nullptr, nullptr, &changeTime);
        if (code != ERROR_SUCCESS) break;
        record->ClearModified();
        *changed = 0;
        addedCount = 0;

        code = RemoveFromIndex(directory, oldLong);
        if (code == ERROR_SUCCESS && oldPartner[0] != 0) code = RemoveFromIndex(directory, oldPartner);
    } while (false);

    // Deviation for safety: the names this rename added to the index leave
    // it again when the rename fails before its record was written; the
    // record's old image comes back, and an entry left behind would name a
    // record that does not hold that name.
    while (addedCount > 0) (void)RemoveFromIndex(directory, added[--addedCount]);
    FindHandle->UnlockExclusive();
    return code;
}

int CNTFSVolume::RenameFile(const char16_t* from, const char16_t* to) {
    if (from == nullptr || to == nullptr || !IsValidFileName(to)) {
        LastError = ERROR_INVALID_PARAMETER;
        return 0;
    }
    // Deviation for safety: a name of no unit or of more than 255 cannot be
    // stored (its length byte would hold the length modulo 256) and is
    // refused like a name with a forbidden unit.
    const int length = lstrlenW(to);
    if (length == 0 || length > kMaxEntryNameLength) {
        LastError = ERROR_INVALID_PARAMETER;
        return 0;
    }
    if (GetFileHandleByFileName(from, 0) != nullptr) {
        LastError = ERROR_ACCESS_DENIED;
        return 0;
    }
    void* opened = CreateFileA(from, 0, kOpenExisting, kAccessRead | kAccessWrite);
    if (opened == nullptr) return 0;
    auto* file = static_cast<CFileHandle*>(static_cast<CShareElement*>(opened));
    int slash = lstrlenW(from) - 1;
    while (slash > 0 && from[slash] != u'\\') --slash;
    int changed = 0;
    const unsigned int code = file->Rename(from + slash + 1, to, &changed);
    if (code != ERROR_SUCCESS) {
        CFullFileRecord* record = file->FileRecord;
        record->LockExclusive();
        record->Revert();
        int64_t changeTime = 0;
        (void)WriteChangedRecord(record, nullptr, nullptr, &changeTime);
        record->UnlockExclusive();
    }
    // Deleted, not closed: the handle's times do not reach the disk.
    file->Release();
    LastError = code;
    return code == ERROR_SUCCESS ? 1 : 0;
}

}  // namespace ntfs
