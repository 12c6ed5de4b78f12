// Index record allocation of a directory: one bit of $BITMAP "$I30" per
// record of $INDEX_ALLOCATION "$I30". When the bitmap has no free bit, or the
// directory has no $INDEX_ALLOCATION at all (a small directory becoming a
// large one), the index grows: clusters are taken from the volume, written
// with empty records at once and appended to $INDEX_ALLOCATION, or the slack
// of its last cluster is put to use.
//
// Everything taken here belongs to the directory's current change
// (NewRecords, NewClusterRuns, RecordsAdded), so that the change's undo can
// give it back. Runs under the directory's exclusive lock.
#include <cstdlib>
#include <cstring>
#include <new>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "index/directory.h"
#include "index/index_record.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

// Calls of the cluster allocation in one growth that may answer "too
// short" before one succeeds. Each repeats the request with the longest run
// just seen, which then exists; the bound only ends a search that cannot.
constexpr int kMaxShortAllocations = 64;

constexpr int kNameBytes = 2 * kIndexNameLength;

// The last piece of $INDEX_ALLOCATION "$I30", or null.
CAttribute* LastAllocationPiece(CFullFileRecord* record) {
    CAttribute* last = nullptr;
    for (unsigned int index = 0;; ++index) {
        CAttribute* piece = record->FindAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, index);
        if (piece == nullptr) return last;
        last = piece;
    }
}

void WriteName(CAttribute* attribute, int offset) {
    for (int i = 0; i < kIndexNameLength; ++i) {
        WriteU16(attribute->Header, offset + 2 * static_cast<size_t>(i), kIndexName[i]);
    }
}

// $BITMAP "$I30" for `records` index records: resident, all bits clear.
CAttribute* BuildBitmapAttribute(int records) {
    const int valueBytes = ((records + 7) / 8 + 7) & ~7;
    const int valueOffset = (kResidentHeaderSize + kNameBytes + 7) & ~7;
    const int length = ((records + 7) / 8 + 31 + kNameBytes) & ~7;
    auto* attribute = new (std::nothrow) CAttribute(length, 1, nullptr);
    if (attribute == nullptr || !attribute->Valid || valueOffset + valueBytes > attribute->Size) {
        delete attribute;
        return nullptr;
    }
    std::memset(attribute->Header, 0, static_cast<size_t>(attribute->Size));
    WriteU32(attribute->Header, kAttributeTypeOffset, AttributeBitmap);
    WriteU32(attribute->Header, kAttributeLengthOffset, static_cast<uint32_t>(attribute->Size));
    WriteU8(attribute->Header, kAttributeNameLengthOffset, kIndexNameLength);
    WriteU16(attribute->Header, kAttributeNameOffsetOffset, kResidentHeaderSize);
    WriteU32(attribute->Header, kResidentValueLengthOffset, static_cast<uint32_t>(valueBytes));
    WriteU16(attribute->Header, kResidentValueOffsetOffset, static_cast<uint16_t>(valueOffset));
    WriteName(attribute, kResidentHeaderSize);
    return attribute;
}

// $INDEX_ALLOCATION "$I30" without clusters: non-resident, sizes 0, VCNs 0
// to -1, an empty run list.
CAttribute* BuildAllocationAttribute() {
    const int runOffset = (kNonResidentHeaderSize + kNameBytes + 3) & ~3;
    const int length = (kNameBytes + 77) & ~7;
    auto* attribute = new (std::nothrow) CAttribute(length, 0, nullptr);
    if (attribute == nullptr || !attribute->Valid || runOffset >= attribute->Size) {
        delete attribute;
        return nullptr;
    }
    std::memset(attribute->Header, 0, static_cast<size_t>(attribute->Size));
    WriteU32(attribute->Header, kAttributeTypeOffset, AttributeIndexAllocation);
    WriteU32(attribute->Header, kAttributeLengthOffset, static_cast<uint32_t>(attribute->Size));
    WriteU8(attribute->Header, kAttributeNonResidentOffset, 1);
    WriteU8(attribute->Header, kAttributeNameLengthOffset, kIndexNameLength);
    WriteU16(attribute->Header, kAttributeNameOffsetOffset, kNonResidentHeaderSize);
    WriteU64(attribute->Header, kNonResidentLowestVcnOffset, 0);
    WriteU64(attribute->Header, kNonResidentHighestVcnOffset, static_cast<uint64_t>(-1));
    WriteU16(attribute->Header, kNonResidentRunListOffsetOffset, static_cast<uint16_t>(runOffset));
    WriteName(attribute, kNonResidentHeaderSize);
    return attribute;
}

// Copies `attribute` into the base record of `record`. 0, or
// ERROR_INSUFFICIENT_BUFFER when it does not fit.
unsigned int InsertIntoRecord(CFullFileRecord* record, CAttribute* attribute) {
    if (attribute == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    if (attribute->Size > record->GetFreeSpace() || attribute->Size > record->GetGrowthRoom()) {
        return ERROR_INSUFFICIENT_BUFFER;
    }
    const uint32_t type = attribute->GetType();
    CAttribute* placed = record->InsertAttribute(attribute);
    // The record rebuilt its own table; the merged one must follow.
    record->RebuildMergedTable();
    if (placed == nullptr || record->FindAttribute(type, kIndexName, kIndexNameLength, 0) == nullptr) {
        return ERROR_INSUFFICIENT_BUFFER;
    }
    return ERROR_SUCCESS;
}

void AddToSize(CAttribute* attribute, int offset, int64_t delta) {
    WriteU64(attribute->Header, static_cast<size_t>(offset),
             static_cast<uint64_t>(ReadI64(attribute->Header, static_cast<size_t>(offset)) + delta));
}

}  // namespace

unsigned int CDirectory::AllocateIndexRecord(int64_t* vcn, int* count) {
    *count = 0;
    unsigned int code = ERROR_SUCCESS;
    if (FileRecord->FindAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, 0) == nullptr) {
        code = GrowIndexAllocation(1);
        if (code != ERROR_SUCCESS) return code;
    }
    int64_t item = 0;
    int got = 0;
    code = AllocateUnits(1, &item, &got, 0);
    if (code == ERROR_HANDLE_DISK_FULL) {
        const unsigned int grown = GrowIndexAllocation(1 - got);
        if (grown != ERROR_SUCCESS) return LogFailure("Allocate IndexRecord fail.", grown);
        LogMessage("Allocated %d virtual cluster for new IndexRecord.\n", 1);
        code = AllocateUnits(1, &item, &got, 0);
    } else if (code != ERROR_SUCCESS) {
        return LogFailure("Allocate IndexRecord from Directory bitmap fail.", code);
    }
    if (code != ERROR_SUCCESS) return code;
    *vcn = BitToVcn(item);
    *count = got;
    for (int i = 0; i < got; ++i)
        NewRecords.InsertAfter(NewRecords.GetCount(), static_cast<intptr_t>(BitToVcn(item + i)));
    return ERROR_SUCCESS;
}

unsigned int CDirectory::GrowIndexAllocation(int count) {
    GrowFailed = 0;
    if (count <= 0 || RecordSize <= 0 || Volume->GetClusterSize() <= 0) return ERROR_INVALID_PARAMETER;
    auto* buffer = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(RecordSize)));
    if (buffer == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    CPointerArray runs;
    unsigned int code = ERROR_SUCCESS;
    if (FileRecord->FindAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, 0) == nullptr) {
        code = CreateIndexAttributes();
    }
    if (code == ERROR_SUCCESS) {
        CAttribute* first = FileRecord->FindAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, 0);
        if (first == nullptr || first->IsResident()) {
            code = ERROR_FILE_CORRUPT;
        } else {
            const int64_t allocated = ReadI64(first->Header, kNonResidentAllocatedSizeOffset);
            const int64_t data = ReadI64(first->Header, kNonResidentDataSizeOffset);
            if (allocated - data < static_cast<int64_t>(RecordSize) * count) {
                code = GrowIntoNewClusters(count, buffer, &runs);
            } else {
                code = GrowIntoSlack(count, buffer);
                buffer = nullptr;  // the slack path hands its buffers to the records
            }
        }
    }
    if (code != ERROR_SUCCESS) {
        // Only the clusters of this call go back; the attributes stay until
        // the change's undo restores the file record.
        for (int i = runs.GetCount() - 2; i >= 0; i -= 2) {
            int64_t lcn = runs.Get(i);
            static_cast<void>(Volume->FreeClusters(&lcn, static_cast<int>(runs.Get(i + 1))));
        }
    }
    // The file record's image may have changed under the root.
    GetIndexRoot();
    std::free(buffer);
    return code;
}

// The first growth of a small directory: $BITMAP and $INDEX_ALLOCATION are
// added to the file record and the bitmap part starts afresh over them.
unsigned int CDirectory::CreateIndexAttributes() {
    LogMessage("There is no IndexAllocation attribute in directory.\n");
    CAttribute* bitmap = BuildBitmapAttribute(1);
    unsigned int code = InsertIntoRecord(FileRecord, bitmap);
    delete bitmap;
    if (code != ERROR_SUCCESS) return LogFailure("Insert attribute into FileRecord fail.", code);
    CAttribute* allocation = BuildAllocationAttribute();
    code = InsertIntoRecord(FileRecord, allocation);
    delete allocation;
    if (code != ERROR_SUCCESS) return LogFailure("Insert attribute into FileRecord fail.", code);

    std::free(Buffer);
    Buffer = static_cast<uint8_t*>(std::calloc(static_cast<size_t>(UnitSize > 0 ? UnitSize : 1), 1));
    Enabled = Buffer != nullptr ? 1 : 0;
    ItemCount = 0;
    Owner = FileRecord;
    Dirty = 0;
    UnitBase = 0;
    ValidBytes = 0;
    return ERROR_SUCCESS;
}

unsigned int CDirectory::GrowIntoNewClusters(int count, uint8_t* buffer, CPointerArray* runs) {
    CAttribute* first = FileRecord->FindAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, 0);
    const int64_t present = ReadI64(first->Header, kNonResidentDataSizeOffset) / RecordSize;
    unsigned int code = Resize(static_cast<uint32_t>(present + count));
    if (code != ERROR_SUCCESS) {
        GrowFailed = 1;
        return LogFailure("Change bitmap size fail.", code);
    }
    const int clusterSize = Volume->GetClusterSize();
    int64_t needed = (static_cast<int64_t>(RecordSize) * count + clusterSize - 1) / clusterSize;
    int64_t amount = needed;
    int64_t nextRecord = ItemCount;
    int recordOffset = 0;
    int shortAnswers = 0;
    while (needed > 0) {
        int64_t lcn = 0;
        int got = 0;
        code = Volume->SearchSpareClusterAndAllocate(static_cast<int>(amount), &lcn, &got, 0);
        if (code == ERROR_HANDLE_DISK_FULL && got > 0 && ++shortAnswers < kMaxShortAllocations) {
            amount = got;
            continue;
        }
        if (code != ERROR_SUCCESS) return LogFailure("Allocate cluster for new IndexRecord fail.", code);
        // Only what was asked for is marked, though the run found may be
        // a few clusters longer.
        if (got > amount) got = static_cast<int>(amount);
        if (got > needed) got = static_cast<int>(needed);
        // The run joins the local list before its records are written, so
        // that a failed write gives its clusters back with the others.
        runs->InsertAfter(runs->GetCount(), static_cast<intptr_t>(lcn));
        runs->InsertAfter(runs->GetCount(), static_cast<intptr_t>(got));
        code = WriteEmptyRecords(lcn, got, buffer, &nextRecord, &recordOffset);
        if (code != ERROR_SUCCESS) return code;
        needed -= got;

        CAttribute* last = LastAllocationPiece(FileRecord);
        CAttribute* extended = nullptr;
        code = last->AppendRun(lcn, got, &extended);
        if (code != ERROR_SUCCESS) return LogFailure("Add cluster runs into attribute fail.", code);
        last->Mark();
        AddToSize(last, kNonResidentHighestVcnOffset, got);
        first = FileRecord->FindAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, 0);
        const int64_t bytes = static_cast<int64_t>(got) * clusterSize;
        AddToSize(first, kNonResidentAllocatedSizeOffset, bytes);
        AddToSize(first, kNonResidentDataSizeOffset, bytes);
        AddToSize(first, kNonResidentInitializedSizeOffset, bytes);
        first->Mark();
        amount = got <= needed ? got : needed;
    }
    ItemCount = ReadI64(first->Header, kNonResidentDataSizeOffset) / RecordSize;
    RecordsAdded += count;
    for (int i = runs->GetCount() - 2; i >= 0; i -= 2) {
        NewClusterRuns.InsertAfter(NewClusterRuns.GetCount(), runs->Get(i));
        NewClusterRuns.InsertAfter(NewClusterRuns.GetCount(), runs->Get(i + 1));
    }
    return ERROR_SUCCESS;
}

// Writes empty records over the `clusters` clusters at `lcn`, straight to
// the sectors. A record may begin in one run and end in the next:
// *recordOffset (sectors of the current record already written) and
// *nextRecord (the record number the next boundary starts) carry over.
unsigned int CDirectory::WriteEmptyRecords(int64_t lcn, int clusters, uint8_t* buffer, int64_t* nextRecord,
                                           int* recordOffset) {
    const int sectorSize = Volume->GetSectorSize();
    const int clusterSectors = Volume->GetClusterSectors();
    const int recordSectors = sectorSize > 0 ? RecordSize / sectorSize : 0;
    if (recordSectors <= 0 || clusterSectors <= 0) return ERROR_INTERNAL_ERROR;
    const int64_t total = static_cast<int64_t>(clusters) * clusterSectors;
    for (int64_t done = 0; done < total;) {
        if (*recordOffset == 0) {
            const int64_t vcn = *nextRecord * RecordSize / VirtualClusterSize;
            if (!CIndexRecord::InitializeRecord(buffer, RecordSize, sectorSize, vcn)) return ERROR_INTERNAL_ERROR;
            ProtectIndexRecord(buffer, RecordSize);
            ++*nextRecord;
        }
        int64_t sectors = recordSectors - *recordOffset;
        const int64_t inCluster = clusterSectors - done % clusterSectors;
        if (sectors > inCluster) sectors = inCluster;
        if (sectors > total - done) sectors = total - done;
        int64_t sector = lcn * clusterSectors + done;
        int written = 0;
        const unsigned int code = Volume->WriteSector(buffer + static_cast<int64_t>(*recordOffset) * sectorSize,
                                                      &sector, static_cast<int>(sectors), &written, nullptr);
        if (code != ERROR_SUCCESS) return LogFailure("Initialize new allocated IndexRecord fail.", code);
        *recordOffset = static_cast<int>((*recordOffset + sectors) % recordSectors);
        done += sectors;
    }
    return ERROR_SUCCESS;
}

// The last cluster has room behind the data: the data and initialized sizes
// grow into it and the new records are written through the attribute.
unsigned int CDirectory::GrowIntoSlack(int count, uint8_t* buffer) {
    CAttribute* first = FileRecord->FindAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, 0);
    const int64_t data = ReadI64(first->Header, kNonResidentDataSizeOffset);
    const int64_t grown = data + static_cast<int64_t>(RecordSize) * count;
    WriteU64(first->Header, kNonResidentDataSizeOffset, static_cast<uint64_t>(grown));
    WriteU64(first->Header, kNonResidentInitializedSizeOffset, static_cast<uint64_t>(grown));
    first->Mark();
    unsigned int code = Resize(static_cast<uint32_t>(grown / RecordSize));
    if (code != ERROR_SUCCESS) {
        std::free(buffer);
        GrowFailed = 1;
        return LogFailure("Change bitmap size fail.", code);
    }
    ItemCount = grown / RecordSize;
    RecordsAdded += count;
    for (int64_t number = ItemCount - 1; number >= ItemCount - count; --number) {
        if (buffer == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
        int64_t vcn = BitToVcn(number);
        CIndexRecord::InitializeRecord(buffer, RecordSize, Volume->GetSectorSize(), vcn);
        auto* record = new (std::nothrow) CIndexRecord(&vcn, buffer, Volume, this);
        if (record == nullptr) {
            std::free(buffer);
            GrowFailed = 1;
            return LogFailure("Initialize new IndexRecord fail.", ERROR_SUCCESS);
        }
        code = WriteIndexRecord(record);
        delete record;
        if (code != ERROR_SUCCESS) return LogFailure("Initialize empty IndexRecord fail.", code);
        buffer = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(RecordSize)));
    }
    std::free(buffer);
    return ERROR_SUCCESS;
}

}  // namespace ntfs
