// CIndexRoot: the top node of a directory's $I30 index. Its bytes are the
// value of the resident attribute $INDEX_ROOT "$I30" in the directory's file
// record, parsed and changed in place: every change of the root changes the
// attribute's length in the file record, and the root is written whenever
// the file record is. It keeps no copy of its bytes; its undo is the file
// record's Revert followed by a new parse.
//
// Ownership: the directory makes, replaces and deletes the root
// (CDirectory::GetIndexRoot). The root owns its entry objects, which are
// rebuilt at every parse; it does not own the index records below them.
//
// Locking: none of its own beyond the item list's lock. The root is read
// under the directory's shared lock and changed under its exclusive lock.
#pragma once

#include <cstdint>

#include "index/bplus_tree.h"
#include "index/index_entry.h"

namespace ntfs {

class CAttribute;
class CDirectory;
class CFullFileRecord;

// $INDEX_ROOT value, byte offsets. The node header's offsets count from
// kRootNodeHeaderOffset.
constexpr int kRootIndexedTypeOffset = 0;
constexpr int kRootCollationRuleOffset = 4;
constexpr int kRootRecordSizeOffset = 8;
constexpr int kRootClustersPerRecordOffset = 12;
constexpr int kRootNodeHeaderOffset = 16;
constexpr int kRootFirstEntryOffset = 16;
constexpr int kRootBytesInUseOffset = 20;
constexpr int kRootBytesAllocatedOffset = 24;
constexpr int kRootFlagsOffset = 28;
// Entries start here, whatever the first-entry field says.
constexpr int kRootEntriesOffset = 32;
// Value flag: a large index, whose entries have sub-nodes.
constexpr uint32_t kRootLargeIndex = 0x00000001;

class CIndexRoot : public CBPlusTreeNode {
public:
    // Over `value`, the $INDEX_ROOT value in `record`'s image. The caller
    // runs ParseEntries.
    CIndexRoot(uint8_t* value, CDirectory* directory, CFullFileRecord* record);
    // Detaches the records below its entries, deletes the entries.
    ~CIndexRoot() override;

    int MarkModified() override;
    int ClearModified() override;
    [[nodiscard]] unsigned int FindInsertPosition(CBPlusTreeItem* item, CBPlusTreeNode** node, int* index) override;
    [[nodiscard]] unsigned int ReinsertDetached(CBPlusTreeItem* item) override;
    [[nodiscard]] unsigned int FindLastNode(CBPlusTreeNode** node) override;
    bool IsLeaf() override;
    // Moves every entry to one new index record, written at once, and gives
    // an owning end entry that points at it.
    [[nodiscard]] unsigned int Split(CBPlusTreeItem** median) override;
    [[nodiscard]] unsigned int RetireNode(CBPlusTreeNode* node) override;
    // The file record's free bytes are at least the entry's length.
    bool HasSpaceFor(CBPlusTreeItem* item) override;
    int InsertRaw(CBPlusTreeItem* previous, CBPlusTreeItem* item, CBPlusTreeItem** inserted) override;
    // The root never gives up an entry this way: 0 and no item.
    [[nodiscard]] unsigned int TakeLastEntry(CBPlusTreeItem** item) override;
    [[nodiscard]] unsigned int RemoveItem(CBPlusTreeItem* item, CBPlusTreeNode** child) override;
    bool AcceptItem(CBPlusTreeItem* item, bool backtracked, const _INDEX_SEARCH_KEY* key) override;

    // Rebuilds the items from the value; entries that lead to an open index
    // record get it attached. Returns 1, or 0 (after "Entry is broken."
    // with code 0 for a damaged entry) with the items parsed so far kept;
    // also 0 when an item could not be allocated, which is counted here and
    // in the directory.
    int ParseEntries();

    uint8_t* GetValue() const { return Value; }
    uint32_t GetBytesInUse() const;
    int IsModified() const { return Modified; }

    int Modified;
    uint8_t* Value;
    int64_t Used;          // bytes in use as of the last parse
    int MemoryShortfalls;  // parses that lacked memory for an item
    CDirectory* Directory;
    CFullFileRecord* FileRecord;

private:
    // The $INDEX_ROOT "$I30" attribute whose value this is, or null.
    CAttribute* FindRootAttribute() const;
    // Bytes of the value that may be read or written: its length, bounded by
    // the attribute.
    int64_t ValueBytes() const;
    // Absolute end of the used bytes in the value, bounded by ValueBytes.
    int64_t UsedEnd() const;
    void AddToSizes(int delta);
    // Changes the attribute's length and the value length by `delta`.
    unsigned int ResizeValue(int delta);
    // ReinsertDetached for the end entry.
    unsigned int ReturnToSmallForm(CIndexEntry* end);
    unsigned int GiveWayToEndEntry(int position);
    // Split steps.
    unsigned int MoveEntriesToRecord(uint8_t* buffer, int first);
};

}  // namespace ntfs
