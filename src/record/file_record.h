// CFileRecord: one record of the MFT in memory. It owns the FILE record
// format: the header, the update sequence, the walk over attributes and its
// checks, the order of attributes, and insertion and removal of an attribute
// inside this one record. Extension records are the business of
// CFullFileRecord, which is also a CFileRecord (its base record) and becomes
// the Owner of the records it loads.
//
// Ownership: the object adopts the raw record buffer given to its constructor
// (std::malloc memory) as its working copy, allocates the backup copy, and
// makes and destroys the CAttribute objects of its table. Every insertion and
// removal rebuilds that table, so attribute pointers do not survive them.
//
// Locking: changes are made under the exclusive lock of the full record that
// holds this record, reads under its shared lock. The lock of the Attributes
// array guards the array alone, for one insertion or search.
#pragma once

#include <cstdint>

#include "foundation/pointer_array.h"
#include "record/attribute.h"
#include "record/layout.h"
#include "record/record.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

class CFullFileRecord;

class CFileRecord : public CRecord {
public:
    // Adopts `buffer`, the raw record of the volume's file record size as read
    // from disk, checks magic and update sequence and builds the attribute
    // table. The object is invalid when any check fails; when even the backup
    // cannot be allocated, the buffer is not adopted and stays the caller's.
    // After a failed magic or update sequence check only IsValid and the
    // destructor may be used. `volume` may be null for a record that is never
    // written; the record size is then the library's one size.
    CFileRecord(int64_t recordNumber, _FILE_RECORD_HEADER* buffer, CFullFileRecord* owner, CNTFSVolume* volume);
    ~CFileRecord() override;

    int Revert() override;
    int Commit() override;
    // Allocated size minus bytes in use; 0 when not valid.
    virtual int GetFreeSpace();
    // Position of `attribute` in Attributes, or -1.
    virtual int GetAttributeIndex(CAttribute* attribute);

    // The attribute with this type and name (`nameLength` 0: unnamed), the
    // `index`-th of those that match, searched in AttributeTable. Names are
    // compared unit by unit, without folding case. Null when not valid or
    // nothing matches. The pointer lives until the next rebuild of the table.
    CAttribute* FindAttribute(uint32_t type, const char16_t* name, unsigned int nameLength, unsigned int index);

    // Where `attribute` belongs in Attributes: in front of the first attribute
    // of a greater type, or of the same type with a greater name. `*position`
    // gets that index (the count when it belongs at the end); the result is
    // the attribute there, else the last one, else null.
    CAttribute* FindInsertPosition(const CAttribute* attribute, int* position);

    // Copies `attribute` into the record at its place in order and returns
    // the new in-record object, its instance taken from the next attribute
    // identifier. When the attribute does not fit, nothing changes and the
    // neighbour at its place is returned: the caller checks GetFreeSpace
    // first. Null when not valid.
    CAttribute* InsertAttribute(CAttribute* attribute);

    // Removes `attribute` (one of Attributes) from the record; the object is
    // destroyed with the table. Removing the last attribute does not mark the
    // record. Does nothing for an attribute that is not in the table.
    void RemoveAttribute(CAttribute* attribute);

    // Writes the record to the MFT, protected on the way and unprotected again
    // whatever the write gave; a success clears Modified. Returns the write's
    // code, or ERROR_INTERNAL_ERROR when not valid or without a volume.
    [[nodiscard]] unsigned int WriteRecord();

    // Turns resident `attribute` of this record into non-resident data with
    // clusters of its own (compressed and sparse data start as one sparse
    // unit and are written through the compressing path). 0, or
    // ERROR_FILE_CORRUPT (not an attribute of this record),
    // ERROR_INVALID_PARAMETER (not valid or already non-resident),
    // ERROR_NOT_ENOUGH_MEMORY, or a code of the allocation and write.
    [[nodiscard]] unsigned int MakeNonResident(CAttribute* attribute);

    // Makes the free record in `header` (`recordSize` bytes) ready for use, in
    // protected form: new sequence number and update sequence number, empty
    // attribute list, record number from `*reference` (an int64_t). Returns 1,
    // or 0 without changing anything when the record is in use or the sizes
    // cannot describe a record.
    static int InitializeFileRecord(_FILE_RECORD_HEADER* header, int recordSize, int sectorSize, const void* reference);

    // Rebuilds Attributes by walking the working copy. Returns 1, or 0 when an
    // attribute is damaged (zero length, past bytes in use or the buffer, too
    // short for its header, bad type) or the walk runs past the allocated size
    // (with a log line); the table then holds what was walked. Every attribute
    // object of this record is destroyed first.
    int BuildAttributeTable();

    int IsBase;                     // low 48 bits of the base reference are 0
    CPointerArray Attributes;       // CAttribute* of this record, in on-disk order
    CPointerArray* AttributeTable;  // what FindAttribute searches
    uint8_t* EndMarker;             // the end marker in the working copy
    int64_t RecordNumber;
    CFullFileRecord* Owner;
    CNTFSVolume* Volume;
    // Bytes of the working and backup copies: the volume's file record size.
    int ImageSize;

    // Room for an attribute to grow by: the free space, further bounded so the
    // moved end marker stays inside the working copy (only a damaged header
    // makes the second bound the smaller).
    int GetGrowthRoom();
    // Moves EndMarker by `delta` bytes, writes the marker there and changes
    // bytes in use by as much. REQUIRES: the new marker lies in the image.
    void ShiftEndMarker(int delta);

private:
    void DestroyAttributes();
    // The allocated size, clipped to the working copy.
    int AllocatedBytes() const;
};

// The update sequence. Both check that the count at offset 6 is
// recordSize / 512 + 1 and that the array lies inside the record, and do
// nothing more when it is not so.
// Restores the last word of every 512-byte stretch from the array after
// checking it against the update sequence number. Returns 1, or 0 on a bad
// count or offset or a mismatch (earlier stretches stay restored).
[[nodiscard]] int ApplyUpdateSequence(uint8_t* image, int recordSize);
// Saves the last word of every stretch into the array and puts the update
// sequence number there, which is the form a record has on disk.
void ProtectUpdateSequence(uint8_t* image, int recordSize);

// Calls into the full record that owns a record, made by the marking rule and
// by RemoveAttribute. They are defined with CFullFileRecord.
// Sets the full record's own modified flag.
void MarkFullFileRecordModified(CFullFileRecord* owner);
// Rebuilds the full record's merged attribute table.
void RebuildFullFileRecordTable(CFullFileRecord* owner);

}  // namespace ntfs
