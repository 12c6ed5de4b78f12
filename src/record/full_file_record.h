// CFullFileRecord: one file with all its FILE records. It is the base record
// (its CFileRecord part) and, through $ATTRIBUTE_LIST, the extension records
// that hold the rest of its attributes; it offers one merged, sorted table of
// all attributes, so that FindAttribute sees the file as a whole. It is the
// unit of sharing (a CShareElement on the volume's FileRecords chain), of
// locking and of writing back.
//
// Attribute data is read and written through this object (ReadAttribute,
// WriteAttribute; their bodies live in data/), for every file including $MFT
// itself, whose records are read through its own $DATA.
//
// Ownership: the object owns its extension records, its attribute list copy
// and both tables. A CAttribute* from the merged table belongs to the record
// that holds it and is stale after any insertion or removal (the table is
// rebuilt then).
//
// Locking: LockShared around reads of the contents, LockExclusive around
// changes (order: find handle, directory, file record, $MFT innermost). The
// arrays lock themselves for the moment of an insert or a sort.
#pragma once

#include <cstdint>

#include "data/run_cursor.h"
#include "foundation/chain_element.h"
#include "foundation/pointer_array.h"
#include "foundation/share_element.h"
#include "record/file_record.h"

namespace ntfs {

class CNTFSVolume;

// $ATTRIBUTE_LIST entry layout.
constexpr int kListEntryTypeOffset = 0;
constexpr int kListEntryLengthOffset = 4;
constexpr int kListEntryNameLengthOffset = 6;
constexpr int kListEntryNameOffsetOffset = 7;
constexpr int kListEntryLowestVcnOffset = 8;
constexpr int kListEntryReferenceOffset = 16;
constexpr int kListEntryInstanceOffset = 24;
constexpr int kListEntryNameOffset = 26;

// Stores a 64-bit value at `valueOffset` of a resident attribute's value (a
// time or a size of $STANDARD_INFORMATION or $FILE_NAME) and marks it; does
// nothing when the value is shorter.
void StoreValue64(CAttribute* attribute, int valueOffset, int64_t value);

class CFullFileRecord : public CShareElement, public CFileRecord {
public:
    // Adopts `buffer`, the raw base record, and goes on the volume's
    // FileRecords chain with one reference. LoadExtensionRecords must follow.
    CFullFileRecord(int64_t recordNumber, void* buffer, CNTFSVolume* volume);
    ~CFullFileRecord() override;

    // CRecord: the whole file.
    int Revert() override;
    int IsValid() override { return Valid; }
    int IsModified() override { return Modified; }
    int Commit() override;

    // Reads $ATTRIBUTE_LIST and seeds the merged table; 1 on success.
    int LoadAttributeList();
    // Loads the extension records the list names and sorts the merged table.
    // 0, or ERROR_FILE_CORRUPT (bad list entry), ERROR_NOT_ENOUGH_MEMORY,
    // ERROR_BAD_FORMAT (extension record fails its checks),
    // ERROR_INTERNAL_ERROR (no $MFT yet) or a read error.
    [[nodiscard]] unsigned int LoadExtensionRecords();
    // Rebuilds the merged table after a change of the set of attributes.
    void RebuildMergedTable();

    // Reads `count` bytes of the value of attribute (type, name) at `*offset`
    // into `buffer`; `*bytesRead` counts what was delivered, also on failure.
    // Non-resident values are delivered as their runs hold them (compressed
    // units expanded), with no regard to the data size: bounding the read is
    // the caller's business. A count of 0 on a non-resident attribute returns
    // its flags word (0 for plain data).
    [[nodiscard]] unsigned int ReadAttribute(uint32_t type, const char16_t* name, uint32_t nameLength, int64_t* offset,
                                             uint32_t count, void* buffer, uint32_t* bytesRead);
    // Reads the stored clusters of one compression unit at the cursor and
    // moves it past them; `*compressed` tells whether the unit holds a
    // compressed stream (its first run ends inside it and some, but not all,
    // clusters are real).
    [[nodiscard]] unsigned int ReadCompressionUnit(_RUN_CURSOR* cursor, uint32_t unitBytes, void* buffer,
                                                   uint32_t* bytesRead, uint32_t* compressed);
    // Brings the cursor to the run that holds its Vcn, moving across pieces.
    // 0, or ERROR_BEYOND_END_OF_VALUE.
    [[nodiscard]] unsigned int AdvanceRunCursor(_RUN_CURSOR* cursor);

    // Writes `count` bytes into the value of attribute (type, name) at
    // `*offset`. Sizes are not changed and nothing is extended: a write
    // beyond the run list fails. Resident writes stay in memory until the
    // record is written.
    [[nodiscard]] unsigned int WriteAttribute(uint32_t type, const char16_t* name, uint32_t nameLength, int64_t* offset,
                                              uint32_t count, const void* buffer, uint32_t* bytesWritten);
    [[nodiscard]] unsigned int WritePlainAttribute(uint32_t type, const char16_t* name, uint32_t nameLength,
                                                   int64_t* offset, uint32_t count, const void* buffer,
                                                   uint32_t* bytesWritten);

    // The non-resident paths of sparse and compressed data: one compression
    // unit at a time, every unit touched ending with all its clusters real,
    // then written through WritePlainAttribute. Sizes are not changed here.
    [[nodiscard]] unsigned int WriteSparseAttribute(uint32_t type, const char16_t* name, uint32_t nameLength,
                                                    int64_t* offset, uint32_t count, const void* buffer,
                                                    uint32_t* bytesWritten);
    [[nodiscard]] unsigned int WriteCompressedAttribute(uint32_t type, const char16_t* name, uint32_t nameLength,
                                                        int64_t* offset, uint32_t count, const void* buffer,
                                                        uint32_t* bytesWritten);

    // Rewrites the mapping pairs of the compression unit the cursor stands
    // on (its first cluster, after AdvanceRunCursor) so that its first
    // `clustersWanted` clusters are real, taking new clusters for its holes.
    // `*realClusters` gets the clusters of the unit up to the end of its
    // last real run, as found before the change. When clusters were taken,
    // piece 0's data, initialized and compressed sizes grow by them and the
    // records are written. A run list that no longer fits its record goes on
    // in a new extension record.
    [[nodiscard]] unsigned int RemapCompressionUnit(_RUN_CURSOR* cursor, int32_t clustersPerUnit,
                                                    int32_t clustersWanted, int32_t* realClusters);
    // Merges neighbouring runs of `records`, takes clusters for the holes of
    // the first `clustersWanted` clusters of the unit, and encodes the
    // records into `encoded` (`*encodedSize` with the end byte).
    [[nodiscard]] unsigned int MergeAndExtendRuns(_RUN_RECORD* records, int32_t* recordCount, int32_t clustersWanted,
                                                  uint8_t* encoded, int32_t* encodedSize, int32_t* allocated);
    // Gives the last `surplus` real clusters of the unit at the cursor back
    // to the volume and makes them a hole.
    [[nodiscard]] unsigned int ReleaseUnitTail(_RUN_CURSOR* cursor, uint32_t surplus, int32_t clustersPerUnit);

    // The data size of attribute (type, name), piece 0: data size field or
    // value length; 0 when it is missing.
    int64_t GetAttributeDataSize(uint32_t type, const char16_t* name, uint32_t nameLength);
    void MarkModified() { Modified = 1; }
    void ClearModified();

    // Gives every extension record and then the base record back to the MFT
    // (flags word cleared, bit cleared) and destroys the extension objects.
    // 0 or the first failing code, which ends the work.
    [[nodiscard]] unsigned int ReleaseExtensionRecords();

    // Takes a file that has no name left off the volume: the clusters of its
    // non-resident attributes and its records go back, and the object is
    // marked RemovedFromVolume. A file with a name left is only written.
    // 0 or the first failing code (the file may then be half deleted).
    [[nodiscard]] unsigned int DeleteFromVolume(CNTFSVolume* volume);

    // Attribute placement across the base and extension records; all under
    // the exclusive lock of this record, the MFT bitmap under $MFT's.
    // Places `*attribute` (own memory, the caller's) and replaces `*attribute`
    // with the placed copy. In the base record when it has room, else in a
    // new extension record; when some extension record has room the call
    // answers 0 without placing anything, which callers must allow for.
    [[nodiscard]] unsigned int InsertAttribute(CAttribute** attribute);
    // The insertion into the base record alone stays reachable.
    using CFileRecord::InsertAttribute;
    // Removes `attribute` from whichever record holds it; an emptied
    // extension record goes back to the MFT and the attribute list follows.
    [[nodiscard]] unsigned int DeleteAttribute(CAttribute* attribute);
    // Joins `record` (a new extension record) to the file and rewrites the
    // attribute list; on failure the record is taken out again.
    [[nodiscard]] unsigned int AddExtensionRecord(CFileRecord* record);
    // Takes `record` out of the file's tables: 1, or 0 when it is not one
    // of the file's extension records.
    int RemoveExtensionRecord(CFileRecord* record);
    // Writes a new non-resident $ATTRIBUTE_LIST, in new clusters, that
    // agrees with the merged table, and writes the records.
    [[nodiscard]] unsigned int RebuildAttributeList();
    // Moves one attribute into the last extension record so that the base
    // record gains at least `needed` bytes; ERROR_INTERNAL_ERROR when none fits.
    [[nodiscard]] unsigned int MoveAttributeToExtension(int needed);
    // Gives a non-resident attribute's clusters back to the volume.
    [[nodiscard]] unsigned int FreeAttributeClusters(CAttribute* attribute);
    // Fills `buffer` with one list entry per attribute of the merged table,
    // the list itself left out.
    void BuildAttributeListEntries(uint8_t* buffer);
    // The bytes of the list BuildAttributeListEntries writes.
    int AttributeListBytes();

    CPointerArray& GetExtensionRecords() { return ExtensionRecords; }
    int GetAttributeListSize() const { return AttributeListSize; }
    const uint8_t* GetAttributeListData() const { return AttributeListData; }
    CNTFSVolume* GetVolume() const { return CFileRecord::Volume; }

    int Modified;
    int Valid;
    // Set when the file was deleted from the volume while other holders
    // still had the object: it is then no longer the record of its number
    // (the number may be handed out again), it is not found by number, and
    // nothing of it is written.
    int RemovedFromVolume = 0;

protected:
    // Sorts MergedAttributes: type, then name (exact, shorter first), then
    // lowest VCN with resident as -1.
    void SortMergedTable();
    // ReadCompressionUnit that also hands out the device's code when a sector
    // read failed (the unit itself then just comes back short).
    [[nodiscard]] unsigned int ReadUnitReportingDevice(_RUN_CURSOR* cursor, uint32_t unitBytes, void* buffer,
                                                       uint32_t* bytesRead, uint32_t* compressed,
                                                       unsigned int* deviceCode);
    // The unit loop of WriteSparseAttribute and WriteCompressedAttribute;
    // `expand` makes a compressed unit that is written in part expand first.
    [[nodiscard]] unsigned int WriteUnits(uint32_t type, const char16_t* name, uint32_t nameLength, int64_t* offset,
                                          uint32_t count, const void* buffer, uint32_t* bytesWritten, bool expand);
    // Fills a cursor for piece 0 of a non-resident attribute.
    void InitializeRunCursor(CAttribute* attribute, _RUN_CURSOR* cursor);
    // Points the cursor at the first mapping pair of `piece`.
    [[nodiscard]] unsigned int EnterPiece(CAttribute* piece, _RUN_CURSOR* cursor);
    // Steps the cursor to the next mapping pair of its piece.
    [[nodiscard]] unsigned int StepRun(_RUN_CURSOR* cursor);

    int Reserved;
    int ClusterSectors;
    int RecordSectors;
    int ClusterSize;
    CPointerArray MergedAttributes;
    CPointerArray ExtensionRecords;
    uint8_t* AttributeListData;
    int AttributeListSize;
    CChainElementContainer Unused;
};

}  // namespace ntfs
