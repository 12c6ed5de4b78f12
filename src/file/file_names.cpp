// A file's names: one name made into its two forms (the $FILE_NAME attribute
// of the record and the entry of the directory's index), added to a file and
// taken away from it. Creation and rename share these.
//
// The callers hold the exclusive lock of a find object on the directory, and
// with it the directory's; the file's record is changed in memory here and
// written by the caller, except by RemoveFileNameDescription.
#include <cstdlib>
#include <cstring>
#include <new>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "index/directory.h"
#include "index/index_entry.h"
#include "index/index_root.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

// Bytes of the template taken over: header, key up to the namespace byte,
// and the first name unit's place.
constexpr int kTemplateBytes = 84;

uint64_t FileReferenceOf(CFullFileRecord* record) {
    const uint64_t sequence = ReadU16(record->Image, kFileSequenceNumberOffset);
    return (static_cast<uint64_t>(record->RecordNumber) & kFileReferenceNumberMask) | (sequence << 48);
}

void ClearWorkLists(CDirectory* directory) {
    directory->ModifiedRecords.Clear();
    directory->AbateRecords.Clear();
    directory->NewRecords.Clear();
}

// Places `attribute` in a new extension record of `record`: the way of a
// name whose base record has no room. 0 or a code; on failure the new record
// is given back.
unsigned int PlaceInNewExtension(CNTFSVolume* volume, CFullFileRecord* record, CAttribute* attribute) {
    CFileRecord* extension = nullptr;
    unsigned int code = volume->ReferenceEmptyFileRecordFromMFT(&extension, 0);
    if (code != ERROR_SUCCESS) return code;
    CAttribute* placed = extension->InsertAttribute(attribute);
    code = placed != nullptr && placed->GetType() == AttributeFileName ? ERROR_SUCCESS : ERROR_NOT_ENOUGH_MEMORY;
    if (code == ERROR_SUCCESS) code = extension->WriteRecord();
    if (code == ERROR_SUCCESS) code = record->AddExtensionRecord(extension);
    if (code != ERROR_SUCCESS) {
        (void)volume->DeleteFileRecordFromMFT(extension->RecordNumber);
        extension->Modified = 0;
        delete extension;
    }
    return code;
}

}  // namespace

int CNTFSVolume::GenerateNewFileName(const uint8_t* entry, const char16_t* name, CAttribute** attribute,
                                     CIndexEntry** item) {
    const int length = lstrlenW(name);
    const int entryBytes = (length * 2 + 89) & ~7;
    auto* bytes = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(entryBytes)));
    if (bytes == nullptr) return 0;
    std::memcpy(bytes, entry, kTemplateBytes);
    std::memset(bytes + kTemplateBytes, 0, static_cast<size_t>(entryBytes - kTemplateBytes));
    WriteU16(bytes, kEntryLengthOffset, static_cast<uint16_t>(entryBytes));
    WriteU8(bytes, kEntryNameLengthOffset, static_cast<uint8_t>(length));
    WriteU16(bytes, kEntryKeyLengthOffset, static_cast<uint16_t>(((length & 255) + 33) * 2));
    for (int i = 0; i < length; ++i) WriteU16(bytes, kEntryNameOffset + 2 * static_cast<size_t>(i), name[i]);
    auto* made = new (std::nothrow) CIndexEntry(bytes, nullptr);
    if (made == nullptr) {
        std::free(bytes);
        return 0;
    }
    auto* value = new (std::nothrow) CAttribute((length * 2 + 97) & ~7, 1, nullptr);
    const int valueBytes = ReadU8(bytes, kEntryNameLengthOffset) * 2 + kEntryNameOffset - kEntryKeyOffset;
    if (value == nullptr || !value->Valid) {
        delete value;
        delete made;
        return 0;
    }
    WriteU32(value->Header, kAttributeTypeOffset, AttributeFileName);
    WriteU16(value->Header, kAttributeFlagsOffset, 0);
    WriteU16(value->Header, kResidentValueOffsetOffset, kResidentHeaderSize);
    WriteU8(value->Header, kResidentIndexedFlagOffset, 1);
    if (!value->SetValue(bytes + kEntryKeyOffset, valueBytes)) {
        delete value;
        delete made;
        return 0;
    }
    *attribute = value;
    *item = made;
    return 1;
}

unsigned int CNTFSVolume::AddFileNameDescription(CDirectory* directory, CFullFileRecord* record, const uint8_t* entry,
                                                 const char16_t* name) {
    CAttribute* attribute = nullptr;
    CIndexEntry* item = nullptr;
    if (!GenerateNewFileName(entry, name, &attribute, &item)) return ERROR_NOT_ENOUGH_MEMORY;
    WriteU64(item->Entry, kEntryRecordNumberOffset, FileReferenceOf(record));

    CAttribute* placed = attribute;
    unsigned int code = record->InsertAttribute(&placed);
    // Deviation for safety: an answer of success with the attribute left
    // where it was means that an extension record had room and nothing was
    // placed. The index entry would then name a record that lacks the name,
    // so the name goes the way of a full record instead: into a new
    // extension record.
    if (code == ERROR_SUCCESS && placed == attribute) code = ERROR_INSUFFICIENT_BUFFER;
    if (code == ERROR_INSUFFICIENT_BUFFER) code = PlaceInNewExtension(this, record, attribute);
    delete attribute;
    // Deviation for safety: a name that could not be put into the record is
    // not put into the index either, where it would name a record without
    // it.
    if (code != ERROR_SUCCESS) {
        delete item;
        LastError = code;
        return code;
    }
    ClearWorkLists(directory);
    code = directory->InsertEntry(directory->GetIndexRoot(), item);
    delete item;
    return code;
}

unsigned int CNTFSVolume::RemoveFileNameDescription(CDirectory* directory, CFullFileRecord* record,
                                                    const char16_t* name) {
    ClearWorkLists(directory);
    const unsigned int code = directory->RemoveEntry(name);
    if (code != ERROR_SUCCESS) return code;
    const int length = lstrlenW(name);
    const int64_t parent = directory->GetFileRecord()->RecordNumber;
    for (unsigned int index = 0;; ++index) {
        CAttribute* attribute = record->FindAttribute(AttributeFileName, nullptr, 0, index);
        if (attribute == nullptr) break;
        const uint8_t* value = attribute->GetValue();
        if (!attribute->IsResident() || !attribute->BodyFits() || attribute->GetDataSize() < kFileNameUnitsOffset) {
            continue;
        }
        const int units = ReadU8(value, kFileNameLengthOffset);
        if (units != length || kFileNameUnitsOffset + 2 * units > attribute->GetDataSize()) continue;
        const int64_t owner = static_cast<int64_t>(ReadU48(value, kFileNameParentOffset) << 16) >> 16;
        if (owner != parent) continue;
        bool same = true;
        for (int i = 0; same && i < units; ++i) same = ReadU16(value, kFileNameUnitsOffset + 2 * i) == name[i];
        if (!same) continue;
        const unsigned int removed = record->DeleteAttribute(attribute);
        if (removed != ERROR_SUCCESS) {
            LastError = removed;
            return removed;
        }
        break;
    }
    int64_t changed = 0;
    return WriteChangedRecord(record, nullptr, nullptr, &changed);
}

}  // namespace ntfs
