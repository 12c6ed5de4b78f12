// Making attributes larger than their place: a resident attribute becomes
// non-resident with clusters of its own (CFileRecord::MakeNonResident), and a
// bitmap attribute grows to hold more items (CBitmapData::Resize), in place
// while it is resident and fits, with new clusters otherwise.
//
// Callers hold the exclusive lock of the record that holds the attribute.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "data/bitmap_data.h"
#include "foundation/endian.h"
#include "foundation/log.h"
#include "record/file_record.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "record/run_list.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

struct ClusterRun {
    int64_t lcn;
    int count;
};

// Puts the image of `original` back over `attribute`, its converted form in
// the same record: the size first, then the bytes.
void PutBack(CAttribute* attribute, const CAttribute& original) {
    CAttribute* resized = nullptr;
    if (attribute->SetSize(original.Size, &resized) != ERROR_SUCCESS) return;
    std::memcpy(attribute->Header, original.Header, static_cast<size_t>(original.Size));
    attribute->Mark();
}

void FreeRuns(CNTFSVolume* volume, const ClusterRun* runs, int count) {
    for (int i = count - 1; i >= 0; --i) {
        int64_t start = runs[i].lcn;
        (void)volume->FreeClusters(&start, runs[i].count);
    }
}

}  // namespace

unsigned int CFileRecord::MakeNonResident(CAttribute* attribute) {
    if (attribute == nullptr || !attribute->InRecord || attribute->Record != this || GetAttributeIndex(attribute) < 0) {
        return ERROR_FILE_CORRUPT;
    }
    if (!attribute->Valid || !attribute->IsResident() || !attribute->BodyFits()) {
        return ERROR_INVALID_PARAMETER;
    }
    const uint16_t flags = ReadU16(attribute->Header, kAttributeFlagsOffset);
    const int clusterSize = Volume->GetClusterSize();
    const int nameLength = attribute->GetNameLength();
    const int valueLength = static_cast<int>(attribute->GetDataSize());
    const uint32_t type = attribute->GetType();

    if ((flags & kAttributeUnitFlagsMask) != 0) {
        // Compressed or sparse: one sparse unit, then the value is written
        // through the compressing write path, which allocates what it needs.
        std::unique_ptr<uint8_t[]> saved(new (std::nothrow) uint8_t[valueLength > 0 ? valueLength : 1]);
        if (saved == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
        // When that write fails, the value would be left converted and empty,
        // and the next write of the record would lose the file's data: the
        // attribute as it was is put back instead.
        std::unique_ptr<CAttribute> original(attribute->Clone());
        if (original == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
        std::memcpy(saved.get(), attribute->GetValue(), static_cast<size_t>(valueLength));
        char16_t name[kMaxAttributeNameLength];
        for (int i = 0; i < nameLength; ++i) name[i] = attribute->GetNameUnit(i);
        const uint8_t sparseUnit[3] = {0x01, kDefaultCompressionUnitClusters, 0x00};
        const int runOffset = kCompressedNonResidentHeaderSize + nameLength * 2;
        const int size = (runOffset + static_cast<int>(sizeof(sparseUnit)) + 7) & ~7;
        CAttribute* resized = nullptr;
        unsigned int code = attribute->SetSize(size, &resized);
        if (code != ERROR_SUCCESS) return code;
        uint8_t* header = attribute->Header;
        const uint16_t instance = ReadU16(header, kAttributeInstanceOffset);
        std::memset(header + kAttributeNonResidentOffset, 0, static_cast<size_t>(size - kAttributeNonResidentOffset));
        WriteU16(header, kAttributeInstanceOffset, instance);
        WriteU32(header, kAttributeLengthOffset, static_cast<uint32_t>(size));
        WriteU8(header, kAttributeNonResidentOffset, 1);
        WriteU8(header, kAttributeNameLengthOffset, static_cast<uint8_t>(nameLength));
        WriteU16(header, kAttributeNameOffsetOffset, nameLength > 0 ? kCompressedNonResidentHeaderSize : 0);
        WriteU16(header, kAttributeFlagsOffset, flags);
        WriteU64(header, kNonResidentLowestVcnOffset, 0);
        WriteU64(header, kNonResidentHighestVcnOffset, kDefaultCompressionUnitClusters - 1);
        WriteU16(header, kNonResidentRunListOffsetOffset, static_cast<uint16_t>(runOffset));
        WriteU8(header, kNonResidentCompressionUnitOffset, kDefaultCompressionUnitExponent);
        WriteU64(header, kNonResidentAllocatedSizeOffset,
                 static_cast<uint64_t>(clusterSize) << kDefaultCompressionUnitExponent);
        for (int i = 0; i < nameLength; ++i) {
            WriteU16(header, kCompressedNonResidentHeaderSize + 2 * i, name[i]);
        }
        std::memcpy(header + runOffset, sparseUnit, sizeof(sparseUnit));
        attribute->Mark();
        if (Owner == nullptr) {
            PutBack(attribute, *original);
            return ERROR_INTERNAL_ERROR;
        }
        int64_t offset = 0;
        uint32_t written = 0;
        code = Owner->WriteAttribute(type, nameLength > 0 ? name : nullptr, static_cast<uint32_t>(nameLength), &offset,
                                     static_cast<uint32_t>(valueLength), saved.get(), &written);
        if (code != ERROR_SUCCESS) {
            CAttribute* converted =
                Owner->FindAttribute(type, nameLength > 0 ? name : nullptr, static_cast<unsigned int>(nameLength), 0);
            if (converted != nullptr) PutBack(converted, *original);
            return code;
        }
        CAttribute* again =
            Owner->FindAttribute(type, nameLength > 0 ? name : nullptr, static_cast<unsigned int>(nameLength), 0);
        if (again != nullptr) {
            WriteU64(again->Header, kNonResidentDataSizeOffset, written);
            WriteU64(again->Header, kNonResidentInitializedSizeOffset, written);
            again->Mark();
        }
        return ERROR_SUCCESS;
    }

    // Plain form.
    const int bytes = valueLength > 0 ? valueLength : 1;
    const int recordSize = Volume->GetFileRecordSize();
    auto* buffer = static_cast<uint8_t*>(std::calloc(static_cast<size_t>(recordSize), 1));
    if (buffer == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    std::memcpy(buffer, attribute->GetValue(), static_cast<size_t>(valueLength));
    const int needed = (bytes + clusterSize - 1) / clusterSize;

    // Each allocation gives at least one cluster, so `needed` pairs suffice.
    std::unique_ptr<ClusterRun[]> runs(new (std::nothrow) ClusterRun[needed]);
    if (runs == nullptr) {
        std::free(buffer);
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    int runCount = 0;
    unsigned int code = ERROR_SUCCESS;
    for (int missing = needed; missing > 0;) {
        int64_t lcn = 0;
        int got = 0;
        code = Volume->SearchSpareClusterAndAllocate(missing, &lcn, &got, 0);
        if (code == ERROR_SUCCESS && got <= 0) code = ERROR_HANDLE_DISK_FULL;
        if (code != ERROR_SUCCESS) break;
        if (got > missing) got = missing;
        runs[runCount++] = {lcn, got};
        missing -= got;
    }
    if (code == ERROR_SUCCESS) {
        // The value fits in one record, so at most that many sectors are written
        // into each run.
        const int sectorsPerCluster = Volume->GetClusterSectors();
        const int recordSectors = recordSize / Volume->GetSectorSize();
        for (int i = 0; i < runCount; ++i) {
            int64_t sector = runs[i].lcn * sectorsPerCluster;
            int count = runs[i].count * sectorsPerCluster;
            if (count > recordSectors) count = recordSectors;
            int done = 0;
            code = Volume->WriteSector(buffer, &sector, count, &done, nullptr);
            if (code != ERROR_SUCCESS) break;
        }
    }
    uint8_t runBytes[kMaxEncodedRunSize];
    int runSize = 0;
    if (code == ERROR_SUCCESS) {
        runSize = EncodeDataRun(needed, runs[runCount - 1].lcn, runBytes);
        // The run list starts where the non-resident form puts it (behind the
        // name, aligned to 4), so the attribute must reach that far too.
        const int runListOffset = (nameLength * 2 + 3 + kNonResidentHeaderSize) & ~3;
        int size = runSize + kNonResidentHeaderSize + nameLength * 2;
        if (size < runListOffset + runSize) size = runListOffset + runSize;
        CAttribute* resized = nullptr;
        code = attribute->SetSize(size, &resized);
    }
    if (code != ERROR_SUCCESS) {
        FreeRuns(Volume, runs.get(), runCount);
        std::free(buffer);
        return code;
    }
    std::free(buffer);
    attribute->SetResident(0);
    uint8_t* header = attribute->Header;
    WriteU64(header, kNonResidentLowestVcnOffset, 0);
    WriteU64(header, kNonResidentHighestVcnOffset, static_cast<uint64_t>(needed - 1));
    WriteU8(header, kNonResidentCompressionUnitOffset, 0);
    WriteU64(header, kNonResidentAllocatedSizeOffset, static_cast<uint64_t>(clusterSize) * needed);
    WriteU64(header, kNonResidentDataSizeOffset, static_cast<uint64_t>(bytes));
    WriteU64(header, kNonResidentInitializedSizeOffset, static_cast<uint64_t>(bytes));
    const int runOffset = ReadU16(header, kNonResidentRunListOffsetOffset);
    std::memcpy(header + runOffset, runBytes, static_cast<size_t>(runSize));
    attribute->Mark();
    return ERROR_SUCCESS;
}

unsigned int CBitmapData::Resize(uint32_t items) {
    CAttribute* attribute = Owner->FindAttribute(AttributeType, AttributeName, NameLength, 0);
    if (attribute == nullptr) return ERROR_INTERNAL_ERROR;
    const int64_t neededBytes = (static_cast<int64_t>(items) + 7) / 8;
    const int64_t oldSize = attribute->GetDataSize();
    if (oldSize >= neededBytes) return ERROR_SUCCESS;
    if (Dirty) {
        const unsigned int code = FlushBitmap();
        if (code != ERROR_SUCCESS) return code;
    }
    const int64_t newSize = (neededBytes + 7) & ~int64_t{7};

    if (attribute->IsResident()) {
        CFileRecord* record = attribute->Record;
        const int64_t growth = newSize - oldSize;
        if (record->GetFreeSpace() < growth) {
            const unsigned int code = record->MakeNonResident(attribute);
            if (code != ERROR_SUCCESS) return code;
            attribute = Owner->FindAttribute(AttributeType, AttributeName, NameLength, 0);
            if (attribute == nullptr) return ERROR_INTERNAL_ERROR;
        } else {
            const int valueOffset = ReadU16(attribute->Header, kResidentValueOffsetOffset);
            CAttribute* resized = nullptr;
            const unsigned int code = attribute->SetSize(static_cast<int>(valueOffset + newSize), &resized);
            if (code != ERROR_SUCCESS) return code;
            std::memset(attribute->Header + valueOffset + oldSize, 0, static_cast<size_t>(growth));
            WriteU32(attribute->Header, kResidentValueLengthOffset, static_cast<uint32_t>(newSize));
            attribute->Mark();
            Owner->MarkModified();
            return ERROR_SUCCESS;
        }
    }

    const int64_t oldInitialized = ReadI64(attribute->Header, kNonResidentInitializedSizeOffset);
    const int clusterSize = Volume->GetClusterSize();
    int64_t allocated = ReadI64(attribute->Header, kNonResidentAllocatedSizeOffset);
    // One zeroed unit serves the new clusters and the tail of the initialized
    // part; it is taken before anything changes.
    const int zeroBytes = UnitSize > clusterSize ? UnitSize : clusterSize;
    auto* zeros = static_cast<uint8_t*>(std::calloc(static_cast<size_t>(zeroBytes), 1));
    if (zeros == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    if (allocated < newSize) {
        while (allocated < newSize) {
            const int count = static_cast<int>((newSize - allocated + UnitSize - 1) / UnitSize);
            int64_t lcn = 0;
            int got = 0;
            unsigned int code = Volume->SearchSpareClusterAndAllocate(count, &lcn, &got, 0);
            if (code == ERROR_SUCCESS && got == 0) code = ERROR_HANDLE_DISK_FULL;
            if (code != ERROR_SUCCESS) {
                std::free(zeros);
                return code;
            }
            if (got > count) got = count;
            const int sectorsPerCluster = Volume->GetClusterSectors();
            for (int i = 0; i < got && code == ERROR_SUCCESS; ++i) {
                int64_t sector = (lcn + i) * sectorsPerCluster;
                int done = 0;
                code = Volume->WriteSector(zeros, &sector, sectorsPerCluster, &done, nullptr);
            }
            CAttribute* last = nullptr;
            for (unsigned int piece = 0;; ++piece) {
                CAttribute* candidate = Owner->FindAttribute(AttributeType, AttributeName, NameLength, piece);
                if (candidate == nullptr) break;
                last = candidate;
            }
            CAttribute* appended = nullptr;
            if (code == ERROR_SUCCESS) code = last->AppendRun(lcn, got, &appended);
            if (code != ERROR_SUCCESS) {
                // The clusters go back to the volume's cluster bitmap, not to
                // the bitmap being grown.
                (void)Volume->FreeClusters(&lcn, got);
                std::free(zeros);
                return code;
            }
            WriteU64(last->Header, kNonResidentHighestVcnOffset, static_cast<uint64_t>(last->GetHighestVcn() + got));
            allocated += static_cast<int64_t>(got) * clusterSize;
            last->Mark();
        }
        attribute = Owner->FindAttribute(AttributeType, AttributeName, NameLength, 0);
        if (attribute == nullptr) {
            std::free(zeros);
            return ERROR_INTERNAL_ERROR;
        }
    }
    WriteU64(attribute->Header, kNonResidentAllocatedSizeOffset, static_cast<uint64_t>(allocated));
    WriteU64(attribute->Header, kNonResidentDataSizeOffset, static_cast<uint64_t>(newSize));
    WriteU64(attribute->Header, kNonResidentInitializedSizeOffset, static_cast<uint64_t>(newSize));
    attribute->Mark();
    Owner->MarkModified();
    int64_t clusterEnd = (oldInitialized / clusterSize + 1) * clusterSize;
    if (clusterEnd > newSize) clusterEnd = newSize;
    if (clusterEnd <= oldInitialized) {
        std::free(zeros);
        return ERROR_SUCCESS;
    }
    int64_t offset = oldInitialized;
    uint32_t written = 0;
    const unsigned int code =
        Owner->WriteAttribute(AttributeType, AttributeName, NameLength, &offset,
                              static_cast<uint32_t>(clusterEnd - oldInitialized), zeros, &written);
    std::free(zeros);
    return code;
}

}  // namespace ntfs
