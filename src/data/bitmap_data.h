// Paged views of allocation bitmaps: the cluster bitmap ($Bitmap's $DATA),
// the file record bitmap ($MFT's $BITMAP) and, as a base of the directory,
// index bitmaps. One bit per item; a set bit means the item is in use.
//
// A CBitmapData caches one unit (one cluster's worth of bytes) of the
// attribute. Every LoadUnit reads the unit again and writes a dirty one back
// first; AllocateUnits and FreeUnits write their changes through before they
// return. ItemCount is a limit of its own: bits behind it exist in the
// attribute but are never handed out.
//
// Ownership: the bitmap owns its buffer, its copy of the attribute name and
// its exclusion list; the Owner record is borrowed (the volume holds its
// reference). Thread safety: no lock of its own. Users serialise on the
// owning record: record allocation holds $MFT's exclusive lock; the cluster
// bitmap is reached under the lock of whichever file record is changing.
#pragma once

#include <cstdint>

namespace ntfs {

class CFullFileRecord;
class CNTFSVolume;

// An inclusive range of items that a single-item search skips.
struct _BITMAP_EXCLUSION {
    _BITMAP_EXCLUSION* Next;
    int64_t First;
    int64_t Last;
};

class CBitmapData {
public:
    // Builds a bitmap over attribute (type, name) of `owner`, with units of
    // `unitSize` bytes. Loads nothing; Enabled is 0 when the buffer could not
    // be allocated.
    CBitmapData(CNTFSVolume* volume, CFullFileRecord* owner, uint32_t type, const char16_t* name, uint32_t nameLength,
                int unitSize, int64_t itemCount);
    ~CBitmapData();
    CBitmapData(const CBitmapData&) = delete;
    CBitmapData& operator=(const CBitmapData&) = delete;

    // Makes the unit that holds `*item` current, writing a dirty unit back
    // first. Reads the unit every time.
    [[nodiscard]] unsigned int LoadUnit(int64_t* item);
    // First-fit search for `wanted` (> 1) free items from the first bit of
    // the cached unit, through the wrap. 0 with *start/*got (got may exceed
    // wanted by up to seven), or ERROR_HANDLE_DISK_FULL with *got = longest
    // run seen. Marks nothing.
    [[nodiscard]] unsigned int SearchSpareUnits(int wanted, int64_t* start, int* got, int ignoreExclusions);
    // Search for one free item, honouring the exclusion list unless told not to.
    [[nodiscard]] unsigned int SearchSingleUnit(int64_t* start, int ignoreExclusions);
    // Search and mark; the marked bits reach the attribute before it returns.
    [[nodiscard]] unsigned int AllocateUnits(int wanted, int64_t* start, int* got, int ignoreExclusions);
    // Clears `count` bits at `*start` (whether set or not) and writes through.
    // ERROR_INVALID_PARAMETER, nothing changed, for a negative start or an end
    // past the largest item number.
    [[nodiscard]] unsigned int FreeUnits(int64_t* start, uint32_t count);
    // Writes the cached unit back if it is dirty; Dirty is cleared whatever
    // the write gave.
    [[nodiscard]] unsigned int FlushBitmap();

    // Grows the attribute so that it holds `items` bits: in place while it is
    // resident and its record has room, else as non-resident data with new
    // zeroed clusters. A bitmap never shrinks. 0, or ERROR_INTERNAL_ERROR
    // (attribute missing), ERROR_INSUFFICIENT_BUFFER (record full when adding
    // a run: the caller makes room) or a code of the steps.
    [[nodiscard]] unsigned int Resize(uint32_t items);

    // Whether the item's bit is set, loading its unit; for tests and tools.
    [[nodiscard]] unsigned int IsItemInUse(int64_t item, bool* inUse);
    // The clear bits of all items, one unit load per unit and bytes counted
    // whole. Answers as IsItemInUse asked for every item in turn would: the
    // count up to the first item that cannot be read, and that item's code.
    [[nodiscard]] unsigned int CountFreeItems(int64_t* free);

    int64_t GetItemCount() const { return ItemCount; }
    CFullFileRecord* GetOwner() const { return Owner; }
    int IsDirty() const { return Dirty; }
    uint32_t GetAttributeType() const { return AttributeType; }
    const char16_t* GetAttributeName() const { return AttributeName; }
    uint32_t GetNameLength() const { return NameLength; }

    // Zero bits in a byte (8 for 0, 0 for 255); used for free-record counts.
    static int FreeBitsInByte(uint8_t value);

protected:
    // Marks `count` items from `first`, loading each unit it enters.
    [[nodiscard]] unsigned int MarkUnits(int64_t first, int64_t count);
    // Writes the cached unit, marks the owner modified and clears Dirty,
    // whatever the write gave.
    [[nodiscard]] unsigned int WriteUnit();
    // Writes the cached unit back after an allocation or a release.
    [[nodiscard]] unsigned int WriteThrough();
    bool IsExcluded(int64_t item, int64_t* last) const;
    int64_t NextUnitPosition() const;
    // Upper bound on the units a wrapped scan may visit; valid bitmaps end far
    // sooner, a damaged one cannot loop for ever.
    int64_t ScanUnitLimit() const;

    int Enabled;
    int Dirty;
    int64_t UnitBase;
    uint32_t AttributeType;
    char16_t* AttributeName;
    uint32_t NameLength;
    uint8_t* Buffer;
    int ValidBytes;
    int UnitSize;
    int64_t ItemCount;
    CFullFileRecord* Owner;
    _BITMAP_EXCLUSION* ExcludedRanges;
    CNTFSVolume* Volume;
};

// The cluster bitmap: $DATA of record 6, one bit per cluster of the volume.
class CClusterBitmap : public CBitmapData {
public:
    CClusterBitmap(CNTFSVolume* volume, CFullFileRecord* bitmapRecord, int unitSize, int64_t clusterCount);
};

// The file record bitmap: $BITMAP of $MFT, with the state of record
// allocation and of the $MFT relocation that may grow it.
class CFileRecordBitmap : public CBitmapData {
public:
    CFileRecordBitmap(CNTFSVolume* volume, CFullFileRecord* mft, int unitSize, int sectorsPerRecord, int recordSize,
                      int64_t recordCount);

    // Takes one free record and stamps it as a blank record in use: its bit
    // is set, its image on disk is a fresh FILE record with the in-use flag.
    // With two free records or fewer left, first stamps up to ten new
    // records out of the room $MFT's $DATA already owns, enlarging $MFT
    // (EnlargeMft) when that room is used up; while Growing is set it only
    // takes a free bit. REQUIRES: the exclusive lock of Mft. 0 with `*index`,
    // or ERROR_HANDLE_DISK_FULL (no free record and $MFT cannot grow),
    // ERROR_NOT_ENOUGH_MEMORY, or a code of the reads, writes and growth
    // (a bit taken is then given back).
    [[nodiscard]] unsigned int TakeRecord(int64_t* index, int ignoreExclusions);
    // Stamps `count` records from `first` as free on disk: the signature and
    // a zero flags word, every other byte as it was read.
    [[nodiscard]] unsigned int InitializeRecords(int64_t first, int count);
    // Makes record `*index` free: its flags word on disk is cleared and its
    // bit cleared in the cached unit, which is written by the next load or at
    // unmount. FreeRecords is left alone. REQUIRES: the exclusive lock of Mft.
    [[nodiscard]] unsigned int ReleaseRecord(int64_t* index);

    // Gives $DATA of $MFT clusters for more records: enough for a step that
    // grows with the volume (16 records per 32768 sectors, in multiples of
    // 16), taken in falling request sizes and appended run by run; a run that
    // no longer fits the record of the last piece opens a new piece in a new
    // extension record. `records` is the allocated size of $DATA in records;
    // the bitmap is grown first to cover them and the step. Changes the
    // attribute in memory only: the caller writes $MFT's record. `*grown` is
    // nonzero when the bitmap or the records grew beyond what the caller
    // counts. 0, ERROR_HANDLE_DISK_FULL (volume too small, no cluster), or a
    // code of the steps (clusters not yet appended are given back).
    // REQUIRES: the exclusive lock of Mft.
    [[nodiscard]] unsigned int EnlargeMft(int64_t records, int ignoreExclusions, int* grown);
    // Opens a new, empty piece of $DATA in a new extension record of $MFT:
    // record 15 when it is still a blank system record, else a free record,
    // else one of four records won by moving the last runs of $MFT to a
    // longer place. Writes the records; undoes what it did on failure.
    // `*grown` receives the records won by the move (0 otherwise).
    [[nodiscard]] unsigned int RelocateMftAttribute(int* grown);
    // Moves $BITMAP of $MFT (whole, or its last run) into a new extension
    // record, when its own record is full, and grows it to `items` bits.
    [[nodiscard]] unsigned int SpillBitmap(uint32_t items);

    // Record `index` of $MFT read from / written to $MFT's $DATA.
    [[nodiscard]] unsigned int ReadRecordImage(int64_t index, void* buffer);
    [[nodiscard]] unsigned int WriteRecordImage(int64_t index, const void* buffer);

    CFullFileRecord* Mft;
    int SectorsPerFileRecord;
    int FileRecordSize;
    CNTFSVolume* Volume;
    int Growing;
    int64_t ReserveBase;
    int ReserveCount;
    uint32_t ReserveMask;
    int64_t FreeRecords;

private:
    // Sets the bit of `item` through the cached unit and marks it dirty.
    [[nodiscard]] unsigned int SetItemBit(int64_t item);
    // Stamps free every record from `first` up to `end` except the reserved
    // ones in use.
    [[nodiscard]] unsigned int StampNewRecords(int64_t first, int64_t end);
};

}  // namespace ntfs
