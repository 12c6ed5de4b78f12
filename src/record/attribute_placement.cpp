// Attribute placement: where an attribute goes when a file has more than its
// base record. Insertion falls back to a fresh extension record, removal
// gives emptied extension records back, and $ATTRIBUTE_LIST is rewritten as a
// whole, non-resident and in new clusters, whenever the set of records or
// attributes changes, so that it always agrees with the merged table.
//
// Everything here runs under the exclusive lock of the full record; the MFT
// bitmap is changed under the exclusive lock of $MFT's record.
#include <cstdlib>
#include <cstring>
#include <new>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

// Size of the non-resident $ATTRIBUTE_LIST header built here: the header and
// room for a few runs.
constexpr int kListAttributeSize = 72;
// Retries of a cluster request after a short answer; a valid bitmap answers
// the longest stretch it reported at once.
constexpr int kMaxShortRetries = 64;

int ListEntryLength(int nameLength) {
    return (2 * nameLength + kListEntryNameOffset + 7) & ~7;
}

int NameLengthOf(const CAttribute* attribute) {
    return attribute->NameFits() ? attribute->GetNameLength() : 0;
}

// Gives a record taken for this file back to the MFT and destroys it.
void GiveBackRecord(CNTFSVolume* volume, CFileRecord* record) {
    (void)volume->DeleteFileRecordFromMFT(record->RecordNumber);
    record->Modified = 0;
    delete record;
}

}  // namespace

int CFullFileRecord::AttributeListBytes() {
    int bytes = 0;
    for (int i = 0; i < MergedAttributes.GetCount(); ++i) {
        const CAttribute* attribute = MergedAttributes.At<CAttribute>(i);
        if (attribute->GetType() == AttributeAttributeList) continue;
        bytes += ListEntryLength(NameLengthOf(attribute));
    }
    return bytes;
}

void CFullFileRecord::BuildAttributeListEntries(uint8_t* buffer) {
    int place = 0;
    for (int i = 0; i < MergedAttributes.GetCount(); ++i) {
        const CAttribute* attribute = MergedAttributes.At<CAttribute>(i);
        if (attribute->GetType() == AttributeAttributeList) continue;
        const int nameLength = NameLengthOf(attribute);
        const int length = ListEntryLength(nameLength);
        std::memset(buffer + place, 0, static_cast<size_t>(length));
        WriteU32(buffer, place + kListEntryTypeOffset, attribute->GetType());
        WriteU8(buffer, place + kListEntryNameLengthOffset, static_cast<uint8_t>(nameLength));
        WriteU8(buffer, place + kListEntryNameOffsetOffset, kListEntryNameOffset);
        const int64_t lowest = attribute->IsResident() ? 0 : attribute->GetLowestVcn();
        WriteU64(buffer, place + kListEntryLowestVcnOffset, static_cast<uint64_t>(lowest));
        const CFileRecord* holder = attribute->Record != nullptr ? attribute->Record : this;
        const uint64_t sequence = ReadU16(holder->Image, kFileSequenceNumberOffset);
        WriteU64(buffer, place + kListEntryReferenceOffset,
                 (static_cast<uint64_t>(holder->RecordNumber) & kFileReferenceNumberMask) | (sequence << 48));
        WriteU16(buffer, place + kListEntryInstanceOffset, ReadU16(attribute->Header, kAttributeInstanceOffset));
        for (int unit = 0; unit < nameLength; ++unit) {
            WriteU16(buffer, place + kListEntryNameOffset + 2 * unit, attribute->GetNameUnit(unit));
        }
        WriteU16(buffer, place + kListEntryLengthOffset, static_cast<uint16_t>(length));
        place += length;
    }
}

unsigned int CFullFileRecord::FreeAttributeClusters(CAttribute* attribute) {
    return CFileRecord::Volume->FreeAttributeClusters(attribute);
}

unsigned int CFullFileRecord::InsertAttribute(CAttribute** attribute) {
    const int size = (*attribute)->Size;
    if (GetFreeSpace() >= size) {
        CAttribute* placed = CFileRecord::InsertAttribute(*attribute);
        // The record's objects are new whether or not the insertion worked.
        RebuildMergedTable();
        if (placed == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
        *attribute = placed;
        const uint32_t type = placed->GetType();
        if (FindAttribute(AttributeAttributeList, nullptr, 0, 0) == nullptr || type == AttributeAttributeList) {
            return ERROR_SUCCESS;
        }
        char16_t name[kMaxAttributeNameLength + 1];
        const int nameLength = NameLengthOf(placed);
        for (int i = 0; i < nameLength; ++i) name[i] = placed->GetNameUnit(i);
        name[nameLength] = 0;
        const int64_t lowest = placed->GetLowestVcn();
        const unsigned int code = RebuildAttributeList();
        if (code != ERROR_SUCCESS) return code;
        RebuildMergedTable();
        for (unsigned int index = 0;; ++index) {
            CAttribute* found = FindAttribute(type, name, static_cast<unsigned int>(nameLength), index);
            if (found == nullptr) break;
            if (found->GetLowestVcn() == lowest) {
                *attribute = found;
                break;
            }
        }
        return ERROR_SUCCESS;
    }
    // An extension record with room answers success without placing the
    // attribute; callers of this path allow for it.
    for (int i = 0; i < ExtensionRecords.GetCount(); ++i) {
        if (ExtensionRecords.At<CFileRecord>(i)->GetFreeSpace() >= size) return ERROR_SUCCESS;
    }
    CNTFSVolume* volume = CFileRecord::Volume;
    CFileRecord* record = nullptr;
    unsigned int code = volume->ReferenceEmptyFileRecordFromMFT(&record, 0);
    if (code != ERROR_SUCCESS) return code;
    CAttribute* placed = record->InsertAttribute(*attribute);
    if (placed == nullptr || placed->GetType() != (*attribute)->GetType()) {
        GiveBackRecord(volume, record);
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    code = record->WriteRecord();
    if (code == ERROR_SUCCESS) code = AddExtensionRecord(record);
    if (code != ERROR_SUCCESS) {
        GiveBackRecord(volume, record);
        return code;
    }
    RebuildMergedTable();
    *attribute = placed;
    return ERROR_SUCCESS;
}

unsigned int CFullFileRecord::AddExtensionRecord(CFileRecord* record) {
    uint64_t reference = kFileReferenceNumberMask;
    if (CFileRecord::Valid) {
        reference = (static_cast<uint64_t>(RecordNumber) & kFileReferenceNumberMask) |
                    (static_cast<uint64_t>(ReadU16(Image, kFileSequenceNumberOffset)) << 48);
    }
    WriteU64(record->Image, kFileBaseReferenceOffset, reference);
    record->IsBase = 0;
    // Its own mark is what gets it written with the reference: the record
    // has no owner to carry the mark of its attributes.
    record->Modified = 1;
    ExtensionRecords.InsertAfter(ExtensionRecords.GetCount(), record);
    RebuildMergedTable();
    const unsigned int code = RebuildAttributeList();
    if (code != ERROR_SUCCESS) RemoveExtensionRecord(record);
    return code;
}

int CFullFileRecord::RemoveExtensionRecord(CFileRecord* record) {
    const int index = ExtensionRecords.IndexOf(record);
    if (index < 0) return 0;
    WriteU64(record->Image, kFileBaseReferenceOffset, 0);
    ExtensionRecords.RemoveAt(index);
    for (int i = 0; i < record->Attributes.GetCount(); ++i) {
        const int merged = MergedAttributes.IndexOf(record->Attributes.Get(i));
        if (merged >= 0) MergedAttributes.RemoveAt(merged);
    }
    return 1;
}

unsigned int CFullFileRecord::MoveAttributeToExtension(int needed) {
    if (ExtensionRecords.GetCount() == 0) return ERROR_INTERNAL_ERROR;
    CFileRecord* last = ExtensionRecords.At<CFileRecord>(ExtensionRecords.GetCount() - 1);
    const int room = last->GetFreeSpace();
    // The first piece of $MFT's $DATA never leaves record 0: the boot
    // sector finds $MFT through it, and an extension record can only be
    // found through it. Moving it would leave the volume without a way to
    // its records, so it is never a candidate.
    CAttribute* pinned = RecordNumber == kMftRecord ? FindAttribute(AttributeData, nullptr, 0, 0) : nullptr;
    CAttribute* candidate = MergedAttributes.GetCount() >= 2 ? MergedAttributes.At<CAttribute>(1) : nullptr;
    if (candidate != nullptr && candidate == pinned) candidate = nullptr;
    for (int i = 2; i < MergedAttributes.GetCount(); ++i) {
        CAttribute* attribute = MergedAttributes.At<CAttribute>(i);
        if (attribute->GetType() == AttributeAttributeList || attribute == pinned) continue;
        if (attribute->Size <= room && GetFreeSpace() + attribute->Size >= needed &&
            (candidate == nullptr || attribute->Size >= candidate->Size)) {
            candidate = attribute;
        }
    }
    if (candidate == nullptr || candidate->Size > room) return ERROR_INTERNAL_ERROR;
    CAttribute* moving = candidate;
    CAttribute* clone = nullptr;
    CFileRecord* from = nullptr;
    if (candidate->InRecord) {
        clone = candidate->Clone();
        if (clone == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
        from = candidate->Record;
        from->RemoveAttribute(candidate);
        moving = clone;
    }
    const uint32_t type = moving->GetType();
    CAttribute* placed = last->InsertAttribute(moving);
    unsigned int code = ERROR_SUCCESS;
    if (placed == nullptr || placed->GetType() != type) {
        // Not placed: it goes back where it was rather than be lost.
        if (from != nullptr) (void)from->InsertAttribute(moving);
        code = ERROR_NOT_ENOUGH_MEMORY;
    }
    delete clone;
    RebuildMergedTable();
    return code;
}

unsigned int CFullFileRecord::RebuildAttributeList() {
    CNTFSVolume* volume = CFileRecord::Volume;
    const int listSize = AttributeListBytes();
    const int64_t clusters = (static_cast<int64_t>(listSize) + ClusterSize - 1) / ClusterSize;
    auto* created = new (std::nothrow) CAttribute(kListAttributeSize, 0, nullptr);
    if (created == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    if (!created->Valid) {
        delete created;
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    WriteU32(created->Header, kAttributeTypeOffset, AttributeAttributeList);
    WriteU64(created->Header, kNonResidentAllocatedSizeOffset, static_cast<uint64_t>(clusters * ClusterSize));
    WriteU64(created->Header, kNonResidentDataSizeOffset, static_cast<uint64_t>(listSize));
    WriteU64(created->Header, kNonResidentInitializedSizeOffset, static_cast<uint64_t>(listSize));
    WriteU64(created->Header, kNonResidentLowestVcnOffset, 0);
    WriteU64(created->Header, kNonResidentHighestVcnOffset, static_cast<uint64_t>(clusters - 1));

    uint8_t* buffer = nullptr;
    CAttribute* oldClone = nullptr;
    unsigned int code = ERROR_SUCCESS;
    // The staged clean-up: the clusters the new list holds so far go back,
    // then the buffer; once the old list has left its record it is put back,
    // so that the records in memory never stand without the list that
    // describes them on disk.
    auto fail = [&](unsigned int failure) {
        if (oldClone != nullptr) {
            CAttribute* placedList = FindAttribute(AttributeAttributeList, nullptr, 0, 0);
            if (placedList != nullptr && placedList->InRecord) placedList->Record->RemoveAttribute(placedList);
            (void)CFileRecord::InsertAttribute(oldClone);
            RebuildMergedTable();
            delete oldClone;
        }
        (void)FreeAttributeClusters(created);
        delete created;
        std::free(buffer);
        return failure;
    };

    int64_t remaining = clusters;
    int wanted = static_cast<int>(remaining);
    for (int retries = 0; remaining > 0;) {
        int64_t lcn = 0;
        int got = 0;
        code = volume->SearchSpareClusterAndAllocate(wanted, &lcn, &got, 0);
        if (code == ERROR_HANDLE_DISK_FULL && got != 0 && ++retries < kMaxShortRetries) {
            wanted = got;
            continue;
        }
        if (code != ERROR_SUCCESS) return fail(code);
        const int take = got < wanted ? got : wanted;
        CAttribute* self = nullptr;
        code = created->AppendRun(lcn, take, &self);
        if (code != ERROR_SUCCESS) {
            (void)volume->FreeClusters(&lcn, take);
            return fail(code);
        }
        remaining -= take;
        if (wanted > remaining) wanted = static_cast<int>(remaining);
    }

    CAttribute* old = FindAttribute(AttributeAttributeList, nullptr, 0, 0);
    const int needed = created->Size - (old != nullptr ? old->Size : 0);
    if (GetFreeSpace() < needed) {
        code = MoveAttributeToExtension(needed);
        if (code != ERROR_SUCCESS) return fail(code);
        old = FindAttribute(AttributeAttributeList, nullptr, 0, 0);
    }
    // The new list goes into the base record in place of the old one; when
    // even that leaves too little room, nothing has been taken out yet and
    // the rewrite ends here rather than leave the records without a list.
    const int roomAfterRemoval =
        GetFreeSpace() + (old != nullptr && old->InRecord && old->Record == this ? old->Size : 0);
    if (roomAfterRemoval < created->Size) return fail(ERROR_INTERNAL_ERROR);

    buffer = static_cast<uint8_t*>(std::malloc(listSize > 0 ? static_cast<size_t>(listSize) : 1));
    if (buffer == nullptr) return fail(ERROR_NOT_ENOUGH_MEMORY);
    BuildAttributeListEntries(buffer);

    if (old != nullptr) {
        if (!old->InRecord) return fail(ERROR_NOT_ENOUGH_MEMORY);
        oldClone = old->Clone();
        if (oldClone == nullptr) return fail(ERROR_NOT_ENOUGH_MEMORY);
        old->Record->RemoveAttribute(old);
        RebuildMergedTable();
    }
    CAttribute* placed = created;
    code = InsertAttribute(&placed);
    if (code != ERROR_SUCCESS) return fail(code);
    if (placed == created || placed->Record != this) return fail(ERROR_NOT_ENOUGH_MEMORY);
    int64_t offset = 0;
    uint32_t written = 0;
    code =
        WriteAttribute(AttributeAttributeList, nullptr, 0, &offset, static_cast<uint32_t>(listSize), buffer, &written);
    if (code != ERROR_SUCCESS) return fail(code);
    int64_t changed = 0;
    if (!volume->UpdateFileRecord(this, nullptr, nullptr, &changed)) return fail(volume->LastError);

    std::free(AttributeListData);
    AttributeListData = buffer;
    AttributeListSize = listSize;
    delete created;
    if (oldClone != nullptr) {
        (void)FreeAttributeClusters(oldClone);
        delete oldClone;
    }
    return ERROR_SUCCESS;
}

unsigned int CFullFileRecord::DeleteAttribute(CAttribute* attribute) {
    CFileRecord* holder = attribute->Record != nullptr ? attribute->Record : this;
    holder->RemoveAttribute(attribute);
    // A record joined in this session has no owner to rebuild the merged
    // table for it: the table is made anew before it is searched.
    RebuildMergedTable();
    CAttribute* list = FindAttribute(AttributeAttributeList, nullptr, 0, 0);
    if (list == nullptr) {
        RebuildMergedTable();
        return ERROR_SUCCESS;
    }
    // What the routine answers when a resident list is left in place: the
    // number of the record the attribute was taken from, nonzero in practice.
    unsigned int status = static_cast<unsigned int>(holder->RecordNumber);
    if (holder != this && holder->Attributes.GetCount() == 0) {
        RemoveExtensionRecord(holder);
        GiveBackRecord(CFileRecord::Volume, holder);
        RebuildMergedTable();
        list = FindAttribute(AttributeAttributeList, nullptr, 0, 0);
    }
    if (ExtensionRecords.GetCount() == 0) {
        if (list != nullptr && !list->IsResident()) {
            status = FreeAttributeClusters(list);
            if (status == ERROR_SUCCESS) {
                list->Record->RemoveAttribute(list);
                std::free(AttributeListData);
                AttributeListData = nullptr;
                AttributeListSize = 0;
            }
        }
    } else {
        status = RebuildAttributeList();
    }
    RebuildMergedTable();
    return status;
}

}  // namespace ntfs
