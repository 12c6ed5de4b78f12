// CBitmapData: unit loading, write-back, marking and freeing. The two scans
// for free items live in bitmap_search.cpp.
#include "data/bitmap_data.h"

#include <cstdlib>
#include <cstring>

#include "data/bitmap_tables.h"
#include "foundation/log.h"
#include "record/full_file_record.h"
#include "record/layout.h"

namespace ntfs {

CBitmapData::CBitmapData(CNTFSVolume* volume, CFullFileRecord* owner, uint32_t type, const char16_t* name,
                         uint32_t nameLength, int unitSize, int64_t itemCount)
    : Enabled(0),
      Dirty(0),
      UnitBase(0),
      AttributeType(type),
      AttributeName(nullptr),
      NameLength(0),
      Buffer(nullptr),
      ValidBytes(0),
      UnitSize(unitSize),
      ItemCount(itemCount),
      Owner(owner),
      ExcludedRanges(nullptr),
      Volume(volume) {
    if (name != nullptr && nameLength > 0) {
        AttributeName = static_cast<char16_t*>(std::calloc(nameLength + 1, sizeof(char16_t)));
        if (AttributeName != nullptr) {
            std::memcpy(AttributeName, name, nameLength * sizeof(char16_t));
            NameLength = nameLength;
        }
    }
    if (unitSize > 0) Buffer = static_cast<uint8_t*>(std::calloc(static_cast<size_t>(unitSize), 1));
    Enabled = Buffer != nullptr ? 1 : 0;
}

CBitmapData::~CBitmapData() {
    std::free(Buffer);
    std::free(AttributeName);
    while (ExcludedRanges != nullptr) {
        _BITMAP_EXCLUSION* next = ExcludedRanges->Next;
        std::free(ExcludedRanges);
        ExcludedRanges = next;
    }
}

int CBitmapData::FreeBitsInByte(uint8_t value) {
    return bitmap_tables::kTables.FreeBits[value];
}

unsigned int CBitmapData::WriteUnit() {
    uint32_t written = 0;
    int64_t offset = UnitBase;
    const unsigned int code = Owner->WriteAttribute(AttributeType, AttributeName, NameLength, &offset,
                                                    static_cast<uint32_t>(ValidBytes), Buffer, &written);
    Owner->MarkModified();
    Dirty = 0;
    return code;
}

unsigned int CBitmapData::FlushBitmap() {
    const unsigned int code = WriteUnit();
    if (code != ERROR_SUCCESS) LogMessage("Function FlushBitmap() fail. ErrorCode=%08XH.\n", code);
    return code;
}

unsigned int CBitmapData::WriteThrough() {
    return Dirty ? WriteUnit() : ERROR_SUCCESS;
}

unsigned int CBitmapData::LoadUnit(int64_t* item) {
    const int64_t position = *item / 8;
    const int64_t base = UnitSize > 0 ? position - position % UnitSize : 0;
    if ((!Enabled && UnitBase == base) || Buffer == nullptr) return ERROR_INTERNAL_ERROR;
    if (Dirty) {
        const unsigned int code = FlushBitmap();
        if (code != ERROR_SUCCESS) return code;
    }
    int64_t offset = base;
    uint32_t read = 0;
    const unsigned int code = Owner->ReadAttribute(AttributeType, AttributeName, NameLength, &offset,
                                                   static_cast<uint32_t>(UnitSize), Buffer, &read);
    if (code != ERROR_SUCCESS) return code;
    const int64_t dataSize = Owner->GetAttributeDataSize(AttributeType, AttributeName, NameLength);
    int64_t valid = static_cast<int64_t>(read);
    if (dataSize - base < valid) valid = dataSize - base;
    ValidBytes = valid < 0 ? 0 : static_cast<int>(valid);
    UnitBase = base;
    Enabled = 1;
    return ERROR_SUCCESS;
}

unsigned int CBitmapData::IsItemInUse(int64_t item, bool* inUse) {
    *inUse = false;
    if (item < 0) return ERROR_INVALID_PARAMETER;
    const unsigned int code = LoadUnit(&item);
    if (code != ERROR_SUCCESS) return code;
    const int64_t index = item / 8 - UnitBase;
    if (index >= ValidBytes) return ERROR_INVALID_PARAMETER;
    *inUse = (Buffer[index] >> (item % 8)) & 1;
    return ERROR_SUCCESS;
}

unsigned int CBitmapData::CountFreeItems(int64_t* free) {
    *free = 0;
    for (int64_t item = 0; item < ItemCount;) {
        int64_t at = item;
        const unsigned int code = LoadUnit(&at);
        if (code != ERROR_SUCCESS) return code;
        // The items of this unit, and those of them its valid bytes hold.
        const int64_t unitEnd = UnitSize > 0 ? (UnitBase + UnitSize) * 8 : ItemCount;
        const int64_t end = unitEnd < ItemCount ? unitEnd : ItemCount;
        const int64_t validEnd = (UnitBase + ValidBytes) * 8;
        const int64_t stop = validEnd < end ? validEnd : end;
        for (; item < stop && item % 8 != 0; ++item) *free += ((Buffer[item / 8 - UnitBase] >> (item % 8)) & 1) ^ 1;
        for (; item + 8 <= stop; item += 8) *free += FreeBitsInByte(Buffer[item / 8 - UnitBase]);
        for (; item < stop; ++item) *free += ((Buffer[item / 8 - UnitBase] >> (item % 8)) & 1) ^ 1;
        if (item < end) return ERROR_INVALID_PARAMETER;
    }
    return ERROR_SUCCESS;
}

bool CBitmapData::IsExcluded(int64_t item, int64_t* last) const {
    for (const _BITMAP_EXCLUSION* range = ExcludedRanges; range != nullptr; range = range->Next) {
        if (item >= range->First && item <= range->Last) {
            *last = range->Last;
            return true;
        }
    }
    return false;
}

int64_t CBitmapData::NextUnitPosition() const {
    const int64_t next = (UnitBase + ValidBytes) * 8;
    return next >= ItemCount || ValidBytes == 0 ? 0 : next;
}

int64_t CBitmapData::ScanUnitLimit() const {
    const int64_t unitItems = static_cast<int64_t>(UnitSize > 0 ? UnitSize : 1) * 8;
    return ItemCount / unitItems + 3;
}

unsigned int CBitmapData::MarkUnits(int64_t first, int64_t count) {
    int64_t item = first;
    const int64_t end = first + count;
    while (item < end) {
        int64_t index = item / 8 - UnitBase;
        if (index < 0 || index >= UnitSize) {
            const unsigned int code = LoadUnit(&item);
            if (code != ERROR_SUCCESS) return code;
            index = item / 8 - UnitBase;
        }
        const int bit = static_cast<int>(item % 8);
        if (bit == 0 && end - item >= 8) {
            Buffer[index] = 0xFF;
            item += 8;
        } else {
            Buffer[index] = static_cast<uint8_t>(Buffer[index] | (1u << bit));
            ++item;
        }
        Dirty = 1;
    }
    return ERROR_SUCCESS;
}

unsigned int CBitmapData::AllocateUnits(int wanted, int64_t* start, int* got, int ignoreExclusions) {
    unsigned int code;
    if (wanted == 1) {
        code = SearchSingleUnit(start, ignoreExclusions);
        if (code != ERROR_SUCCESS) {
            *start = 0;
            *got = 0;
        } else {
            *got = wanted;
        }
    } else {
        code = SearchSpareUnits(wanted, start, got, ignoreExclusions);
    }
    if (*start >= ItemCount) {
        return LogFailure("There is no spare unit in bitmap.", ERROR_HANDLE_DISK_FULL);
    }
    if (code != ERROR_SUCCESS) return code;
    const int marked = wanted < *got ? wanted : *got;
    code = MarkUnits(*start, marked);
    if (code != ERROR_SUCCESS) return code;
    return WriteThrough();
}

unsigned int CBitmapData::FreeUnits(int64_t* start, uint32_t count) {
    LogMessage("Free Item %X%08XH, Size %XH.\n", static_cast<uint32_t>(*start >> 32), static_cast<uint32_t>(*start),
               count);
    // Items before the first or whose end passes the largest number have no
    // bits: a negative item would land in the first byte and clear the bits
    // of others. Nothing changes.
    if (*start < 0 || *start > INT64_MAX - static_cast<int64_t>(count)) return ERROR_INVALID_PARAMETER;
    int64_t item = *start;
    unsigned int code = LoadUnit(&item);
    if (code != ERROR_SUCCESS) return code;
    const int firstBit = static_cast<int>(item % 8);
    if (firstBit + static_cast<int64_t>(count) <= 8) {
        const int64_t index = item / 8 - UnitBase;
        if (index >= 0 && index < ValidBytes) {
            const unsigned mask = ((1u << count) - 1u) << firstBit;
            Buffer[index] = static_cast<uint8_t>(Buffer[index] & ~mask);
            Dirty = 1;
        }
        return WriteThrough();
    }
    int64_t remaining = count;
    while (remaining > 0) {
        if (LoadUnit(&item) != ERROR_SUCCESS) break;
        int64_t index = item / 8 - UnitBase;
        const int64_t before = remaining;
        const int bit = static_cast<int>(item % 8);
        if (bit != 0 && index < ValidBytes) {
            // Head of a partial byte.
            const int64_t take = remaining < 8 - bit ? remaining : 8 - bit;
            const unsigned mask = ((1u << take) - 1u) << bit;
            Buffer[index] = static_cast<uint8_t>(Buffer[index] & ~mask);
            Dirty = 1;
            item += take;
            remaining -= take;
            ++index;
        }
        while (remaining >= 8 && index < ValidBytes) {
            Buffer[index++] = 0;
            Dirty = 1;
            item += 8;
            remaining -= 8;
        }
        if (remaining > 0 && remaining < 8 && index < ValidBytes) {
            Buffer[index] = static_cast<uint8_t>(Buffer[index] & ~((1u << remaining) - 1u));
            Dirty = 1;
            item += remaining;
            remaining = 0;
        }
        if (remaining == before) break;  // past the bitmap's valid bytes
    }
    return WriteThrough();
}

CClusterBitmap::CClusterBitmap(CNTFSVolume* volume, CFullFileRecord* bitmapRecord, int unitSize, int64_t clusterCount)
    : CBitmapData(volume, bitmapRecord, AttributeData, nullptr, 0, unitSize, clusterCount) {}

CFileRecordBitmap::CFileRecordBitmap(CNTFSVolume* volume, CFullFileRecord* mft, int unitSize, int sectorsPerRecord,
                                     int recordSize, int64_t recordCount)
    : CBitmapData(volume, mft, AttributeBitmap, nullptr, 0, unitSize, recordCount),
      Mft(mft),
      SectorsPerFileRecord(sectorsPerRecord),
      FileRecordSize(recordSize),
      Volume(volume),
      Growing(0),
      ReserveBase(-1),
      ReserveCount(0),
      ReserveMask(0),
      FreeRecords(0) {}

}  // namespace ntfs
