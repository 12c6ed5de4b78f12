// CDirectory: one directory in memory. It is the tree object above the
// directory's $I30 index (the CIndexRoot in the file record and the
// CIndexRecords of $INDEX_ALLOCATION), the owner of every index record it has
// opened, the bitmap of those records ($BITMAP "$I30"), and the place where
// one change of the index is collected, written and, on failure, undone.
//
// Ownership: the volume's Directories chain holds the object, one per
// directory, shared by reference count (CNTFSVolume::ReferenceDirectory hands
// it out). The directory holds one reference of its CFullFileRecord, owns its
// root object, its pseudo item and every CIndexRecord on its chain of open
// records (they stay open for the life of the directory), and its path copy.
// The work lists point at records the chain owns.
//
// Locking: LockShared/LockExclusive take the same lock of the directory's
// file record first, then the directory's own. The tree is read under the
// shared lock and changed under the exclusive one; the work lists lock
// themselves per operation only. One change at a time per directory.
#pragma once

#include <atomic>
#include <cstdint>

#include "data/bitmap_data.h"
#include "foundation/chain_element.h"
#include "foundation/number_index.h"
#include "foundation/pointer_array.h"
#include "foundation/share_element.h"
#include "index/bplus_tree.h"
#include "index/index_entry.h"

namespace ntfs {

class CNTFSVolume;
class CFullFileRecord;
class CFileRecord;
class CIndexRoot;
class CIndexRecord;

class CDirectory : public CShareElement, public CBitmapData, public CBPlusTreeNode {
public:
    // Joins the volume's Directories chain with one reference and takes over
    // the caller's reference of `record`. The bitmap part stands over
    // $BITMAP "$I30" with a unit of one cluster; ItemCount is the number of
    // index records $INDEX_ALLOCATION "$I30" holds (0 without one).
    CDirectory(CFullFileRecord* record, CNTFSVolume* volume);
    // Writes the file record when it is modified, then frees the root, every
    // open record and the pseudo item, and releases the file record.
    ~CDirectory() override;

    // Share locks: the file record's first, then the directory's.
    int LockShared() override;
    int UnlockShared() override;
    int LockExclusive() override;
    int UnlockExclusive() override;

    // The tree-object operations. The directory has no items of its own.
    int MarkModified() override;  // the bitmap part's dirty flag
    int ClearModified() override;
    [[nodiscard]] unsigned int ReinsertDetached(CBPlusTreeItem* item) override;
    [[nodiscard]] unsigned int FindLastNode(CBPlusTreeNode** node) override;
    bool IsLeaf() override;
    [[nodiscard]] unsigned int Split(CBPlusTreeItem** median) override;
    // Retires an index record into AbateRecords; the root is never retired.
    [[nodiscard]] unsigned int RetireNode(CBPlusTreeNode* node) override;
    bool HasSpaceFor(CBPlusTreeItem* item) override;
    int InsertRaw(CBPlusTreeItem* previous, CBPlusTreeItem* item, CBPlusTreeItem** inserted) override;
    [[nodiscard]] unsigned int TakeLastEntry(CBPlusTreeItem** item) override;
    bool AcceptItem(CBPlusTreeItem* item, bool backtracked, const _INDEX_SEARCH_KEY* key) override;

    // The root node over the current $INDEX_ROOT value, made (with the
    // pseudo item) on the first call and made again when the value has moved
    // in the file record's image. Null when there is no $INDEX_ROOT "$I30"
    // or no memory.
    CIndexRoot* GetIndexRoot();

    // Adds `entry` (an owning key, still the caller's afterwards) below
    // `start` and makes the change durable. 0, ERROR_FILE_CORRUPT for a name
    // that is already there, ERROR_NOT_ENOUGH_MEMORY, or a code of the
    // insertion and flush. A full file record is made room in and the
    // insertion tried again, except inside a removal (RemovalRunning).
    [[nodiscard]] unsigned int InsertEntry(CBPlusTreeNode* start, CIndexEntry* entry);
    // Takes the entry of the whole name `name` (folded by the caller: units
    // a to z without bit 5) out of the index and makes the change durable,
    // or undoes it. The caller has cleared ModifiedRecords, AbateRecords and
    // NewRecords. 0, ERROR_FILE_NOT_FOUND when the name is not there,
    // ERROR_NOT_ENOUGH_MEMORY, or a code of the removal and the flush.
    // Emptied index records go back to the directory's bitmap; a removal
    // that takes an entry back from interior status adds it again through
    // InsertEntry, whose flush writes the whole change, and then the result
    // is that of the nested change. There is no retry.
    [[nodiscard]] unsigned int RemoveEntry(const char16_t* name);

    // Takes the name `name` (folded) of `record` under this directory out of
    // the index and the record, and with a Win32 or DOS name its partner of
    // the other namespace. 0, ERROR_BAD_FORMAT when the record has no such
    // name here, or a code of the removal. The record is changed in memory.
    [[nodiscard]] unsigned int UnlinkName(CFullFileRecord* record, const char16_t* name);

    // Takes one index record from the directory's bitmap, growing the index
    // when the bitmap has no free bit. *vcn is the record's VCN and *count
    // the records got (1). The VCN joins NewRecords.
    [[nodiscard]] unsigned int AllocateIndexRecord(int64_t* vcn, int* count);
    // Adds `count` empty index records to $INDEX_ALLOCATION "$I30", creating
    // it and $BITMAP "$I30" first when the directory has none.
    [[nodiscard]] unsigned int GrowIndexAllocation(int count);

    // The open record whose header holds `vcn`, without a reference; null
    // when it is not open. Of several, the first valid one on OpenRecords.
    CIndexRecord* FindOpenRecord(int64_t vcn);
    // The same answer by a walk of OpenRecords; the plain form of the lookup.
    CIndexRecord* ScanOpenRecords(int64_t vcn);
    // Keeping OpenRecordIndex true: a record calls NoteRecordOpened at the
    // end of its construction and NoteRecordClosed in its destruction; every
    // change of an open record's VCN or validity calls NoteRecordsChanged.
    void NoteRecordOpened(CIndexRecord* record);
    void NoteRecordClosed(CIndexRecord* record);
    void NoteRecordsChanged() { OpenRecordIndexWhole.store(0); }

    // Index records an enumeration has passed are let go in a compact form
    // of their image, and brought back from it instead of from the device:
    // the records visited and the device calls made stay as they were, at a
    // fraction of the memory. KeepPassedRecord makes `record` kept when
    // nothing else reaches it (the caller has checked the cursors of the
    // find handles on this directory; the directory's own is checked here)
    // and it is unchanged since it was read; else nothing happens.
    // TakeKeptImage fills `buffer` (RecordSize bytes) with the image of the
    // kept record at `vcn` as the device holds it, forgets it and answers
    // true; false when that record is not kept.
    void KeepPassedRecord(CIndexRecord* record, ChainSearchRoutine cursorInNode);
    bool TakeKeptImage(int64_t vcn, uint8_t* buffer);
    // A parse attached an already open record to a new item: links to open
    // records are then no longer one per reference, and no record is kept
    // any more.
    void NoteRecordReattached() { RecordsReattached.store(1); }
    int64_t GetKeptRecordCount() { return KeptRecords.GetCount(); }
    // Kept bytes stored as they are; behind them, kept images are compressed.
    static constexpr int64_t kKeptPlainBudget = 2 << 20;
    void SetKeptPlainBudget(int64_t bytes) { KeptPlainBudget = bytes; }
    // Counts a parse of the root or of an index record of this directory
    // that could not make all its items; loads may count under the shared
    // lock, so the count is atomic.
    void CountMemoryShortfall() { IndexMemoryShortfalls.fetch_add(1); }
    // Chain search routine over OpenRecords; `parameter` is an int64_t* VCN.
    static int IndexRecordSearchRoutine(CChainElement* element, void* parameter);

    // Bit of the directory's bitmap for the record at `vcn`, and back.
    int64_t VcnToBit(int64_t vcn) const;
    int64_t BitToVcn(int64_t bit) const;

    // The directory flush: one change made durable by shadow paging, undone
    // in memory before its commit point, adopted after it.
    [[nodiscard]] unsigned int InsertAndFlush(CBPlusTreeNode* node, int position, CBPlusTreeItem* entry);
    // The end of a change made in memory: Flush, then CommitChanges when it
    // passed its commit point, else UndoChange. The flush's result.
    [[nodiscard]] unsigned int FlushChange();
    // The undo of a change that did not reach its commit point: the
    // clusters taken for it go back, ItemCount loses the records it added,
    // the nodes return to their images; `code` is returned.
    unsigned int UndoChange(unsigned int code);
    [[nodiscard]] unsigned int Flush(int* undo);
    [[nodiscard]] unsigned int PrepareRecords(CPointerArray* list);
    [[nodiscard]] unsigned int WriteIndexRecord(CIndexRecord* record);
    [[nodiscard]] unsigned int CommitChanges();
    [[nodiscard]] unsigned int RollbackChanges();
    [[nodiscard]] unsigned int FlushNode(CBPlusTreeNode* node);
    // Stamps the change time into the directory's own $STANDARD_INFORMATION
    // and $FILE_NAMEs and writes its base and modified extension records;
    // on success clears their change flags. Result also in the volume's
    // LastError.
    [[nodiscard]] unsigned int WriteDirectoryRecord();
    // Sets the parent item of every open record from the items of the root
    // and the open records that lead to it. 0, or 8 when its work lists
    // cannot be made, and then no link has changed.
    [[nodiscard]] unsigned int RelinkParents();
    // Clears the bit of the index record at `vcn` in the directory's bitmap.
    [[nodiscard]] unsigned int FreeRecordBit(int64_t vcn);
    // Chain search routine that appends every modified open record to the
    // CPointerArray `parameter` and never stops the search.
    static int CollectModifiedRecords(CChainElement* element, void* parameter);
    // The parses of the root, the index records and the directory's file
    // records so far that could not make all their pieces for lack of
    // memory. A change during which it grows stands on missing pieces and
    // is given up.
    int64_t MemoryShortfallCount();

    // Room in the base file record: an index attribute moves out to a new
    // extension record ($BITMAP "$I30" when the last growth failed on it,
    // else $INDEX_ALLOCATION "$I30" itself or a new empty piece of it).
    // 0, or a code; a failure gives the new record back and leaves the
    // attributes where they were.
    [[nodiscard]] unsigned int AdjustFileRecord();
    // Moves resident $BITMAP "$I30" into `record`, a new extension record,
    // and joins the record to the file.
    [[nodiscard]] unsigned int MoveBitmapAttribute(CFileRecord* record);

    CFullFileRecord* GetFileRecord() const { return FileRecord; }
    CNTFSVolume* GetVolume() const { return Volume; }
    const char16_t* GetPath() const { return Path; }
    int GetRecordSize() const { return RecordSize; }
    int GetVirtualClusterSize() const { return VirtualClusterSize; }
    // Bytes of the bitmap part's cached unit: one cluster.
    int GetBitmapUnitSize() const { return UnitSize; }

    // Set by CNTFSVolume::ReferenceDirectory.
    char16_t* Path;
    int SectorsPerRecord;
    int RecordSize;
    int VirtualClusterSize;
    CNTFSVolume* Volume;
    CFullFileRecord* FileRecord;
    uint8_t* RootValue;  // the $INDEX_ROOT value in the file record's image
    // The root's parent item: a 16-byte zeroed entry in no node whose node
    // is the root, so that a root split sends its median into the root.
    CIndexEntry* PseudoItem;
    CIndexRoot* Root;
    // The directory's link in the chain of directories of its file record;
    // Reserved points back at this object.
    CChainElement DirectoryLink;
    // Every CIndexRecord loaded or made, by its CShareElement part.
    CChainElementContainer OpenRecords;
    // The change links of the find handles on this directory.
    CChainElementContainer OpenFindHandles;
    // The work lists of one change, empty between changes.
    CPointerArray AbateRecords;                  // CIndexRecord* retired in this change
    CPointerArray ModifiedRecords;               // CIndexRecord* changed in this change
    CPointerArray NewRecords;                    // VCNs taken from the bitmap in this change
    CPointerArray NewFileRecords;                // CFileRecord* extension records made for it
    CPointerArray NewClusterRuns;                // (LCN, count) pairs of clusters taken for it
    int GrowFailed;                              // the last growth failed in resizing the bitmap
    int RecordsAdded;                            // index records added to ItemCount in this change
    int RemovalRunning;                          // RemoveEntry is changing the tree (see InsertEntry)
    std::atomic<int64_t> IndexMemoryShortfalls;  // see CountMemoryShortfall
    // VCN to the first valid record of that VCN on OpenRecords, while
    // OpenRecordIndexWhole is 1; made again from the chain by the next
    // lookup after it fell to 0. OpenRecordIndexLock orders the rebuild
    // against the notes of records opened meanwhile.
    CNumberIndex OpenRecordIndex;
    std::atomic<int> OpenRecordIndexWhole;
    // Set while two valid open records may share a VCN; then the lookup's
    // index is made again after any record goes.
    std::atomic<int> OpenRecordVcnsShared;
    // VCN to the compact image of a kept record (C allocator memory).
    CNumberIndex KeptRecords;
    std::atomic<int> RecordsReattached;
    int64_t KeptBytes;  // bytes of the kept images
    int64_t KeptPlainBudget;
    void* KeptWorkspace;  // the compressor's workspace and output, made on first use
    CRITICAL_SECTION OpenRecordIndexLock;

private:
    void FreeKeptRecords();
    // Steps of GrowIndexAllocation.
    unsigned int CreateIndexAttributes();
    unsigned int GrowIntoNewClusters(int count, uint8_t* buffer, CPointerArray* runs);
    unsigned int GrowIntoSlack(int count, uint8_t* buffer);
    unsigned int WriteEmptyRecords(int64_t lcn, int clusters, uint8_t* buffer, int64_t* nextRecord, int* recordOffset);
};

// Appends `value` to `list` unless it is already there (two steps, each
// under the list's lock: the callers hold the directory exclusively).
void AppendUnique(CPointerArray* list, const void* value);

}  // namespace ntfs
