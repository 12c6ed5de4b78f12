// CFullFileRecord: construction, the attribute list, extension records, the
// merged table and its order, revert and commit across all records.
#include "record/full_file_record.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

// An attribute list larger than this is taken as damaged; real lists are a
// few kilobytes even for heavily fragmented files.
constexpr int64_t kMaxAttributeListSize = 1 << 24;

int NameLengthOf(const CAttribute* attribute) {
    return attribute->NameFits() ? attribute->GetNameLength() : 0;
}

// Merged table order: type (signed), then name unit by unit over the longer
// name with a missing unit as 0 (exact, so a shorter name goes first), then
// lowest VCN with a resident attribute as -1.
bool MergedOrderLess(intptr_t left, intptr_t right) {
    const auto* a = reinterpret_cast<const CAttribute*>(left);
    const auto* b = reinterpret_cast<const CAttribute*>(right);
    const auto typeA = static_cast<int32_t>(a->GetType());
    const auto typeB = static_cast<int32_t>(b->GetType());
    if (typeA != typeB) return typeA < typeB;
    const int lengthA = NameLengthOf(a);
    const int lengthB = NameLengthOf(b);
    for (int i = 0; i < std::max(lengthA, lengthB); ++i) {
        const char16_t unitA = i < lengthA ? a->GetNameUnit(i) : 0;
        const char16_t unitB = i < lengthB ? b->GetNameUnit(i) : 0;
        if (unitA != unitB) return unitA < unitB;
    }
    return a->GetLowestVcn() < b->GetLowestVcn();
}

void AppendAttributes(CPointerArray* target, const CPointerArray& source) {
    for (int i = 0; i < source.GetCount(); ++i) target->InsertAfter(target->GetCount(), source.Get(i));
}

}  // namespace

void MarkFullFileRecordModified(CFullFileRecord* owner) {
    owner->MarkModified();
}

void RebuildFullFileRecordTable(CFullFileRecord* owner) {
    owner->RebuildMergedTable();
}

CFullFileRecord::CFullFileRecord(int64_t recordNumber, void* buffer, CNTFSVolume* volume)
    : CShareElement(&volume->FileRecords),
      CFileRecord(recordNumber, static_cast<_FILE_RECORD_HEADER*>(buffer), nullptr, volume),
      Modified(0),
      Valid(0),
      Reserved(0),
      ClusterSectors(0),
      RecordSectors(0),
      ClusterSize(0),
      AttributeListData(nullptr),
      AttributeListSize(0) {
    Valid = CFileRecord::Valid;
    if (!Valid) return;
    ClusterSectors = volume->GetClusterSectors();
    ClusterSize = volume->GetClusterSize();
    RecordSectors = volume->GetFileRecordSize() / kSectorSize;
    Valid = LoadAttributeList();
    Owner = this;
}

CFullFileRecord::~CFullFileRecord() {
    if (Valid) {
        for (int i = 0; i < ExtensionRecords.GetCount(); ++i) delete ExtensionRecords.At<CFileRecord>(i);
        Modified = 0;
        CFileRecord::Modified = 0;
    }
    std::free(AttributeListData);
    AttributeListData = nullptr;
}

int CFullFileRecord::LoadAttributeList() {
    Valid = 0;
    CAttribute* list = nullptr;
    for (int i = 0; i < Attributes.GetCount(); ++i) {
        CAttribute* attribute = Attributes.At<CAttribute>(i);
        if (attribute->GetType() == AttributeAttributeList) {
            list = attribute;
            break;
        }
    }
    if (list != nullptr) {
        const int64_t size = list->GetDataSize();
        if (size < 0 || size > kMaxAttributeListSize) return 0;
        AttributeListData = static_cast<uint8_t*>(std::malloc(size > 0 ? static_cast<size_t>(size) : 1));
        if (AttributeListData == nullptr) return 0;
        AttributeListSize = static_cast<int>(size);
        int64_t offset = 0;
        uint32_t read = 0;
        const unsigned int code = ReadAttribute(AttributeAttributeList, nullptr, 0, &offset,
                                                static_cast<uint32_t>(size), AttributeListData, &read);
        (void)code;  // what counts is whether the whole list arrived
        if (read != static_cast<uint32_t>(size)) return 0;
        LogMessage("Found attribute list, size = %XH.\n", static_cast<unsigned int>(size));
    } else {
        AttributeListData = nullptr;
        AttributeListSize = 0;
    }
    AppendAttributes(&MergedAttributes, Attributes);
    AttributeTable = &MergedAttributes;
    Modified = 0;
    Valid = 1;
    Reserved = 0;
    return 1;
}

unsigned int CFullFileRecord::LoadExtensionRecords() {
    if (AttributeListData == nullptr) return ERROR_SUCCESS;
    // The entries are checked and counted first, so that the table of record
    // numbers is taken once and at its full size.
    int entries = 0;
    unsigned int result = ERROR_SUCCESS;
    for (int place = 0; place < AttributeListSize;) {
        // The fixed part of an entry must lie inside the list before it is read.
        if (place + kListEntryInstanceOffset > AttributeListSize) {
            result = ERROR_FILE_CORRUPT;
            break;
        }
        const uint32_t type = ReadU32(AttributeListData, place + kListEntryTypeOffset);
        const int length = ReadU16(AttributeListData, place + kListEntryLengthOffset);
        if ((type & kAttributeTypeCheckMask) != 0 || length == 0 || place + length > AttributeListSize) {
            result = ERROR_FILE_CORRUPT;
            break;
        }
        ++entries;
        place += length;
    }
    if (result != ERROR_SUCCESS) {
        SortMergedTable();
        return result;
    }
    std::unique_ptr<int64_t[]> table(new (std::nothrow) int64_t[entries > 0 ? entries : 1]);
    if (table == nullptr) {
        SortMergedTable();
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    int64_t* const numbers = table.get();
    int count = 0;
    for (int place = 0; place < AttributeListSize;
         place += ReadU16(AttributeListData, place + kListEntryLengthOffset)) {
        uint64_t reference = ReadU48(AttributeListData, place + kListEntryReferenceOffset);
        // Sign-extend the 48-bit number.
        const int64_t number = static_cast<int64_t>(reference << 16) >> 16;
        if (number != RecordNumber && std::find(numbers, numbers + count, number) == numbers + count) {
            numbers[count++] = number;
        }
    }
    std::sort(numbers, numbers + count);

    CNTFSVolume* volume = CFileRecord::Volume;
    const int recordSize = volume->GetFileRecordSize();
    for (int k = 0; k < count; ++k) {
        int64_t number = numbers[k];
        void* buffer = std::malloc(static_cast<size_t>(recordSize));
        if (buffer == nullptr) {
            LogMessage("Allocate memory for extend FileRecord fail.\n");
            result = ERROR_NOT_ENOUGH_MEMORY;
            break;
        }
        if (volume->MftBitmap == nullptr) {
            std::free(buffer);
            result = ERROR_INTERNAL_ERROR;
            break;
        }
        const unsigned int code = volume->ReadFileRecord(&number, buffer);
        if (code != ERROR_SUCCESS) {
            std::free(buffer);
            result = code;
            break;
        }
        auto* extension =
            new (std::nothrow) CFileRecord(number, static_cast<_FILE_RECORD_HEADER*>(buffer), this, volume);
        if (extension == nullptr) {
            LogMessage("Allocate memory for extend FileRecord fail.\n");
            std::free(buffer);
            result = ERROR_NOT_ENOUGH_MEMORY;
            break;
        }
        if (!extension->IsValid()) {
            const bool memory = extension->MemoryShortfalls != 0;
            if (extension->Image == nullptr) std::free(buffer);
            delete extension;
            if (memory) {
                LogMessage("Allocate memory for extend FileRecord fail.\n");
                result = ERROR_NOT_ENOUGH_MEMORY;
                break;
            }
            LogMessage("Initialize extend FileRecord fail.\n");
            result = ERROR_BAD_FORMAT;
            break;
        }
        ExtensionRecords.InsertAfter(ExtensionRecords.GetCount(), extension);
        AppendAttributes(&MergedAttributes, extension->Attributes);
    }
    SortMergedTable();
    return result;
}

void CFullFileRecord::SortMergedTable() {
    MergedAttributes.StableSort(&MergedOrderLess);
}

void CFullFileRecord::RebuildMergedTable() {
    MergedAttributes.Clear();
    AppendAttributes(&MergedAttributes, Attributes);
    for (int i = 0; i < ExtensionRecords.GetCount(); ++i) {
        AppendAttributes(&MergedAttributes, ExtensionRecords.At<CFileRecord>(i)->Attributes);
    }
    SortMergedTable();
}

int CFullFileRecord::Revert() {
    const int result = CFileRecord::Revert();
    for (int i = 0; i < ExtensionRecords.GetCount(); ++i) ExtensionRecords.At<CFileRecord>(i)->Revert();
    RebuildMergedTable();
    return result;
}

int CFullFileRecord::Commit() {
    if (CFileRecord::Valid) CFileRecord::Commit();
    for (int i = 0; i < ExtensionRecords.GetCount(); ++i) ExtensionRecords.At<CFileRecord>(i)->Commit();
    return 1;
}

void CFullFileRecord::ClearModified() {
    Modified = 0;
    for (int i = 0; i < ExtensionRecords.GetCount(); ++i) {
        ExtensionRecords.At<CFileRecord>(i)->Modified = 0;
    }
    CFileRecord::Modified = 0;
}

int64_t CFullFileRecord::GetAttributeDataSize(uint32_t type, const char16_t* name, uint32_t nameLength) {
    CAttribute* attribute = FindAttribute(type, name, nameLength, 0);
    return attribute != nullptr ? attribute->GetDataSize() : 0;
}

}  // namespace ntfs
