// Making room in a directory's base file record when an index change no
// longer fits: an index attribute moves out to a new extension record, and
// the attribute list is written anew with it. Runs under the directory's
// exclusive lock, inside the retry of InsertEntry.
#include <new>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "index/directory.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

constexpr int kNameBytes = 2 * kIndexNameLength;

// The last instance of (type, "$I30"), or null.
CAttribute* LastIndexPiece(CFullFileRecord* record, uint32_t type) {
    CAttribute* last = nullptr;
    for (unsigned int index = 0;; ++index) {
        CAttribute* piece = record->FindAttribute(type, kIndexName, kIndexNameLength, index);
        if (piece == nullptr) return last;
        last = piece;
    }
}

// An empty non-resident piece named "$I30" that follows `last`: it spans no
// cluster and is filled by the next growth.
CAttribute* BuildEmptyPiece(uint32_t type, const CAttribute* last) {
    const int length = (kNameBytes + 79) & ~7;
    auto* piece = new (std::nothrow) CAttribute(length, 0, kIndexName);
    if (piece == nullptr) return nullptr;
    if (!piece->Valid) {
        delete piece;
        return nullptr;
    }
    const int64_t highest = last != nullptr ? last->GetHighestVcn() : -1;
    WriteU32(piece->Header, kAttributeTypeOffset, type);
    WriteU16(piece->Header, kNonResidentRunListOffsetOffset, static_cast<uint16_t>((kNameBytes + 67) & ~3));
    WriteU64(piece->Header, kNonResidentLowestVcnOffset, static_cast<uint64_t>(highest + 1));
    WriteU64(piece->Header, kNonResidentHighestVcnOffset, static_cast<uint64_t>(highest));
    return piece;
}

// Takes `attribute` out of its record as a free-standing copy; null when it
// is not in a record or cannot be copied, and then nothing has changed.
CAttribute* TakeOut(CFullFileRecord* file, CAttribute* attribute, CFileRecord** from) {
    if (!attribute->InRecord || attribute->Record == nullptr) return nullptr;
    CAttribute* copy = attribute->Clone();
    if (copy == nullptr) return nullptr;
    *from = attribute->Record;
    attribute->Record->RemoveAttribute(attribute);
    file->RebuildMergedTable();
    return copy;
}

}  // namespace

unsigned int CDirectory::AdjustFileRecord() {
    CFileRecord* record = nullptr;
    unsigned int code = Volume->ReferenceEmptyFileRecordFromMFT(&record, 0);
    if (code != ERROR_SUCCESS) return code;
    if (GrowFailed) {
        code = MoveBitmapAttribute(record);
        if (code == ERROR_SUCCESS) {
            GrowFailed = 0;
            return ERROR_SUCCESS;
        }
    } else {
        CAttribute* last = LastIndexPiece(FileRecord, AttributeIndexAllocation);
        CAttribute* moving = nullptr;
        CFileRecord* from = nullptr;
        if (last != nullptr &&
            FileRecord->FindAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, 1) == nullptr &&
            FileRecord->FindAttribute(AttributeAttributeList, nullptr, 0, 0) == nullptr) {
            moving = TakeOut(FileRecord, last, &from);
        } else {
            moving = BuildEmptyPiece(AttributeIndexAllocation, last);
        }
        code = ERROR_NOT_ENOUGH_MEMORY;
        if (moving != nullptr) {
            CAttribute* placed = record->InsertAttribute(moving);
            if (placed != nullptr && placed->GetType() == AttributeIndexAllocation) {
                code = record->WriteRecord();
                if (code == ERROR_SUCCESS) code = FileRecord->AddExtensionRecord(record);
            }
            if (code != ERROR_SUCCESS && from != nullptr) {
                // The attribute goes back where it was: left out, the index
                // would lose its records with the next write of the file.
                (void)from->InsertAttribute(moving);
                FileRecord->RebuildMergedTable();
            }
            delete moving;
        }
        if (code == ERROR_SUCCESS) {
            NewFileRecords.InsertAfter(NewFileRecords.GetCount(), record);
            return ERROR_SUCCESS;
        }
    }
    (void)Volume->DeleteFileRecordFromMFT(record->RecordNumber);
    delete record;
    return code;
}

unsigned int CDirectory::MoveBitmapAttribute(CFileRecord* record) {
    CAttribute* bitmap = FileRecord->FindAttribute(AttributeBitmap, kIndexName, kIndexNameLength, 0);
    if (bitmap == nullptr || !bitmap->IsResident()) {
        // The piece built for this case keeps a type field of 0, which no
        // record may hold: written, it would make the extension record, and
        // with it the directory, unreadable. The move ends here instead.
        return ERROR_INTERNAL_ERROR;
    }
    CFileRecord* from = nullptr;
    CAttribute* moving = TakeOut(FileRecord, bitmap, &from);
    if (moving == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    unsigned int code = ERROR_NOT_ENOUGH_MEMORY;
    CAttribute* placed = record->InsertAttribute(moving);
    if (placed != nullptr && placed->GetType() == AttributeBitmap) {
        code = record->WriteRecord();
        if (code == ERROR_SUCCESS) code = FileRecord->AddExtensionRecord(record);
    }
    if (code != ERROR_SUCCESS) {
        // Back where it was, as above.
        (void)from->InsertAttribute(moving);
        FileRecord->RebuildMergedTable();
    }
    delete moving;
    return code;
}

}  // namespace ntfs
