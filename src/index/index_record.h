// CIndexRecord: one "INDX" record of a directory's $INDEX_ALLOCATION "$I30",
// a stored node of the index tree. It holds a live image, which every change
// edits in place, and a clean image of what was last accepted, so that a
// failed change of the directory can be undone. It decides splitting, room
// accounting and the return of entries whose sub-node went away.
//
// Ownership: the record adopts the buffer given to its constructor as its
// live image and allocates the clean one; it makes and deletes the entry
// objects of its items, which are rebuilt at every parse (no item pointer
// survives an InsertRaw, Split, RemoveItem of another item or Revert). The
// record is a CShareElement on its directory's chain of open records, which
// finds it by VCN; the directory deletes what is left there when it goes.
//
// Locking: none of its own beyond the item list's lock. Records are read
// under the directory's shared lock and changed under its exclusive lock.
#pragma once

#include <cstdint>

#include "foundation/share_element.h"
#include "index/bplus_tree.h"
#include "index/index_entry.h"
#include "record/record.h"

namespace ntfs {

class CDirectory;
class CNTFSVolume;

// INDX record header, byte offsets.
constexpr uint32_t kIndexRecordMagic = 0x58444E49;  // "INDX"
constexpr int kIndexMagicOffset = 0;
constexpr int kIndexUpdateSequenceOffsetOffset = 4;
constexpr int kIndexUpdateSequenceCountOffset = 6;
constexpr int kIndexLogSequenceNumberOffset = 8;
constexpr int kIndexVcnOffset = 16;
// The node header; its offsets count from kIndexNodeHeaderOffset.
constexpr int kIndexNodeHeaderOffset = 24;
constexpr int kIndexFirstEntryOffset = 24;
constexpr int kIndexBytesInUseOffset = 28;
constexpr int kIndexBytesAllocatedOffset = 32;
constexpr int kIndexFlagsOffset = 36;
// Where records made here keep the update sequence array.
constexpr int kIndexUpdateSequenceArrayOffset = 40;
// Node flag: the entries of this node have sub-nodes.
constexpr uint32_t kIndexNodeHasSubNodes = 0x00000001;

class CIndexRecord : public CBPlusTreeNode, public CRecord, public CShareElement {
public:
    // Joins `directory`'s chain of open records with one reference and
    // adopts `buffer`, RecordSize bytes as read from disk, as the live image.
    // The update sequence is checked and undone in place (512-byte stretches
    // whatever the device says); the caller reads IsValid afterwards. The
    // header's VCN is not compared with `*vcn`.
    CIndexRecord(const int64_t* vcn, uint8_t* buffer, CNTFSVolume* volume, CDirectory* directory);
    // Frees both images and the items and leaves the chain of open records.
    ~CIndexRecord() override;

    // Makes `buffer` (`recordSize` bytes, unprotected) an empty record at
    // `vcn`: all zero, the header, a 16-byte end entry, update sequence
    // number 0 and array element 1 set to 1. The array count comes from
    // `sectorSize`. Returns 1, or 0 when the sizes cannot hold a record.
    static int InitializeRecord(uint8_t* buffer, int recordSize, int sectorSize, int64_t vcn);

    // CBPlusTreeNode.
    int MarkModified() override;
    int ClearModified() override;
    [[nodiscard]] unsigned int FindInsertPosition(CBPlusTreeItem* item, CBPlusTreeNode** node, int* index) override;
    [[nodiscard]] unsigned int ReinsertDetached(CBPlusTreeItem* item) override;
    // Nothing but the end entry.
    bool IsEmpty() override;
    [[nodiscard]] unsigned int FindLastNode(CBPlusTreeNode** node) override;
    bool IsLeaf() override;
    // Moves the entries in front of the byte middle to a new left record and
    // gives the middle entry, pointing at that record, as an owning item.
    [[nodiscard]] unsigned int Split(CBPlusTreeItem** median) override;
    [[nodiscard]] unsigned int RetireNode(CBPlusTreeNode* node) override;
    // Strictly more free bytes than the entry's length.
    bool HasSpaceFor(CBPlusTreeItem* item) override;
    int InsertRaw(CBPlusTreeItem* previous, CBPlusTreeItem* item, CBPlusTreeItem** inserted) override;
    [[nodiscard]] unsigned int TakeLastEntry(CBPlusTreeItem** item) override;
    [[nodiscard]] unsigned int RemoveItem(CBPlusTreeItem* item, CBPlusTreeNode** child) override;
    bool AcceptItem(CBPlusTreeItem* item, bool backtracked, const _INDEX_SEARCH_KEY* key) override;

    // CRecord.
    int Revert() override;
    int Commit() override;

    // Rebuilds the items from the live image. Returns 1, or 0 after logging
    // "Entry is broken." or "Entry is out of record." (code 0) with the
    // items parsed so far kept; also 0 when an item could not be allocated,
    // which is counted here and in the directory. Except on the first parse,
    // entries that lead to an open record get it attached.
    int ParseEntries();

    // The VCN in the live image's header.
    int64_t GetVcn() const;
    int64_t GetShadowVcn() const { return ShadowVcn; }
    void SetShadowVcn(int64_t vcn) { ShadowVcn = vcn; }
    CDirectory* GetDirectory() const { return Directory; }
    // Node header fields of the live image.
    uint32_t GetBytesInUse() const;
    uint32_t GetFirstEntryOffset() const;
    // Bytes allocated, bounded by the image.
    uint32_t GetBytesAllocated() const;
    int GetRecordSize() const { return RecordSize; }

    CDirectory* Directory;
    CNTFSVolume* Volume;
    int64_t ShadowVcn;

private:
    // Absolute end of the used bytes, bounded by the image.
    int64_t UsedEnd() const;
    void SetBytesInUse(uint32_t bytes);
    // Moves the items from `position` on down by `length` bytes, one entry at
    // a time, following with their Entry pointers.
    void ShiftItemsDown(int position, int length);
    // Steps of the operations above, with the depth of the walk so far.
    unsigned int FindLastNodeAt(CBPlusTreeNode** node, int depth);
    unsigned int TakeLastEntryAt(CBPlusTreeItem** item, int depth);
    // Split steps.
    int ChooseMedian() const;
    unsigned int BuildLeftRecord(int median, int64_t vcn, CIndexRecord** left);
    CIndexEntry* CopyMedian(CIndexEntry* median, int64_t leftVcn);

    int RecordSize;
};

// Protects an unprotected record image for the disk: the last word of every
// 512-byte stretch goes into the update sequence array and the sequence
// number (array element 0, never raised) takes its place.
void ProtectIndexRecord(uint8_t* image, int recordSize);

}  // namespace ntfs
