// CIndexEntry: one key of a directory's $I30 index, the tree item of the
// index root and of the index records. It owns the key order of the index
// (ASCII letters folded to upper case, every other unit compared raw), the
// lazy loading of the index record below an entry, and the writing of a
// sub-node pointer into the entry's bytes.
//
// An entry object comes in two forms. The parsed form stands in a node: its
// bytes lie in the node's image and it dies at the node's next parse, so no
// pointer to it may be kept across a change of its node. The owning form
// holds its bytes in a heap block of its own (freed by its destructor), stands
// in no node and carries a key to be put into one; its creator deletes it.
//
// Locking: none of its own. Entries are read and changed under the share lock
// of the directory whose tree holds them.
#pragma once

#include <cstdint>

#include "foundation/endian.h"
#include "index/bplus_tree.h"

namespace ntfs {

class CDirectory;

// `_INDEX_ENTRY`, as it lies in an index node: a little-endian record of a
// multiple of 8 bytes, read and written at these offsets only.
struct _INDEX_ENTRY;

constexpr int kEntryRecordNumberOffset = 0;  // 48 bits
constexpr int kEntrySequenceOffset = 6;
constexpr int kEntryLengthOffset = 8;
constexpr int kEntryKeyLengthOffset = 10;
constexpr int kEntryFlagsOffset = 12;
constexpr int kEntryKeyOffset = 16;
// Inside the key, a copy of the indexed file's $FILE_NAME value.
constexpr int kEntryNameLengthOffset = 80;
constexpr int kEntryNameSpaceOffset = 81;
constexpr int kEntryNameOffset = 82;

// Fields of the key that the file operations read in place.
constexpr int kEntryParentOffset = kEntryKeyOffset + 0x00;
constexpr int kEntryRealSizeOffset = kEntryKeyOffset + 0x30;
constexpr int kEntryFileFlagsOffset = kEntryKeyOffset + 0x38;

constexpr uint16_t kEntryHasSubNode = 0x0001;
constexpr uint16_t kEntryIsLast = 0x0002;

// The smallest entry, a header alone: the end entry of a leaf.
constexpr int kEntryHeaderSize = 16;
// The trailing sub-node VCN of an entry that leads down.
constexpr int kEntryVcnSize = 8;
constexpr int kEndEntryWithSubNodeSize = kEntryHeaderSize + kEntryVcnSize;
// Units of the longest name: a count byte.
constexpr int kMaxEntryNameLength = 255;

// The only index this code handles, and its name's length in units.
extern const char16_t kIndexName[];
constexpr int kIndexNameLength = 4;

// Raw field access on an entry's bytes. REQUIRES: at least the 16 header
// bytes are readable; the VCN helpers also need the length field to be true.
inline int EntryLength(const uint8_t* entry) {
    return ReadU16(entry, kEntryLengthOffset);
}
inline uint16_t EntryFlags(const uint8_t* entry) {
    return ReadU16(entry, kEntryFlagsOffset);
}
inline bool EntryIsLast(const uint8_t* entry) {
    return (EntryFlags(entry) & kEntryIsLast) != 0;
}
inline bool EntryHasSubNode(const uint8_t* entry) {
    return (EntryFlags(entry) & kEntryHasSubNode) != 0;
}
inline int64_t EntrySubNodeVcn(const uint8_t* entry) {
    return ReadI64(entry, static_cast<size_t>(EntryLength(entry) - kEntryVcnSize));
}
inline void SetEntrySubNodeVcn(uint8_t* entry, int64_t vcn) {
    WriteU64(entry, static_cast<size_t>(EntryLength(entry) - kEntryVcnSize), static_cast<uint64_t>(vcn));
}
inline int64_t EntryRecordNumber(const uint8_t* entry) {
    return static_cast<int64_t>(ReadU48(entry, kEntryRecordNumberOffset));
}
// The record number of the entry's file reference, its 48 bits sign-extended
// as the file operations take it.
inline int64_t EntryReferencedRecord(const uint8_t* entry) {
    return static_cast<int64_t>(ReadU48(entry, kEntryRecordNumberOffset) << 16) >> 16;
}

// Units of the entry's name: 0 for an end entry, and never more than the
// entry's length can hold, whatever its name length byte says.
int EntryNameLength(const uint8_t* entry);
// Whether a real entry is long enough to hold its key up to the name; a
// shorter one is damage, and the key's fields must not be read.
inline bool EntryHoldsKey(const uint8_t* entry) {
    return EntryLength(entry) >= kEntryNameOffset;
}

// The length of a leaf entry for a name of `units` units: 82 + 2n rounded up
// to 8. Its key length is 66 + 2n.
constexpr int IndexEntrySize(int units) {
    return (kEntryNameOffset + 2 * units + 7) & ~7;
}
constexpr int IndexKeySize(int units) {
    return kEntryNameOffset - kEntryKeyOffset + 2 * units;
}

// The validity test the node parsers apply to the entry at `offset`: a
// readable header, a length of at least 16 and a multiple of 8, and an end
// at or before `limit`.
bool EntryFitsIn(const uint8_t* image, int64_t offset, int64_t limit);

// The folding of every name comparison: units 'a' to 'z' lose bit 5,
// nothing else changes ($UpCase is not read).
inline char16_t FoldUnit(char16_t unit) {
    return unit >= u'a' && unit <= u'z' ? static_cast<char16_t>(unit & ~0x20) : unit;
}
// Folds a NUL-terminated name in place.
void FoldIndexName(char16_t* name);

class CIndexEntry;

// Where `entry` belongs below `start`, for both stored nodes: a folded copy
// of its name is searched as a whole name (2n + 1 units). *node and *index
// receive the leaf and the position; ERROR_NOT_ENOUGH_MEMORY, or a code of
// CBPlusTreeNode::LocatePosition.
[[nodiscard]] unsigned int FindEntryInsertPosition(CBPlusTreeNode* start, CIndexEntry* entry, CBPlusTreeNode** node,
                                                   int* index);

// An owning copy of `entry` as a leaf entry: without its trailing VCN (when
// it leads down), flags 0. Null when out of memory.
CIndexEntry* MakeLeafCopy(CIndexEntry* entry, CDirectory* directory);

class CIndexEntry : public CBPlusTreeItem {
public:
    // The parsed form: `entry` lies in `node`'s image; `previous` is the item
    // in front of it in that node (null for the first).
    CIndexEntry(uint8_t* entry, CBPlusTreeNode* node, CBPlusTreeItem* previous, CDirectory* directory);
    // The owning form: adopts `buffer` (C allocator memory holding a whole
    // entry). `directory` may be null for a key that is never asked to load
    // a sub-node.
    CIndexEntry(uint8_t* buffer, CDirectory* directory);
    // An owning copy of `bytes` bytes of `source`, or null when out of memory.
    static CIndexEntry* MakeOwning(const uint8_t* source, int bytes, CDirectory* directory);
    // Frees the bytes when owned; the sub-node is left alone.
    ~CIndexEntry() override;

    // The index record below this entry, read from $INDEX_ALLOCATION on the
    // first request and found again through the directory's open records
    // afterwards (one more reference each time). On success *child is the
    // record, or null for an entry without a sub-node and for a short read;
    // ERROR_NOT_ENOUGH_MEMORY, ERROR_BAD_FORMAT for a record that fails its
    // checks (which is then dropped), or the read's code.
    [[nodiscard]] unsigned int GetChildNode(CBPlusTreeNode** child) override;
    // Makes `node` (an index record) the sub-node: writes its VCN into the
    // last 8 bytes and sets the sub-node flag. The length does not change,
    // so the entry must already hold the 8 VCN bytes.
    CBPlusTreeNode* AttachChild(CBPlusTreeNode* node) override;
    // Drops the sub-node, clears the flag and takes the 8 VCN bytes off the
    // length whether or not the flag was set.
    CBPlusTreeNode* DetachChild() override;
    // Drops the link to the loaded sub-node and nothing else (the entry's
    // bytes stay): the directory has kept that record, and the next
    // GetChildNode brings it back.
    void ForgetChild() { Child = nullptr; }
    // An owning copy of the whole entry with no directory; null when out of
    // memory.
    CBPlusTreeItem* Clone() override;
    // The sub-node flag of the bytes, whether or not the node is loaded.
    bool HasChild() override;
    // Raw unit comparison with `name` over the longer of the two names.
    int CompareName(const char16_t* name) override;
    // The index order: entry name (folded) minus key name, over
    // key->CompareLength units, units behind a terminator counting as 0. An
    // end entry is greater than every key.
    int CompareKey(const _INDEX_SEARCH_KEY* key) override;

    uint8_t* GetEntry() const { return Entry; }
    int GetLength() const { return EntryLength(Entry); }
    bool IsLast() const { return EntryIsLast(Entry); }
    int64_t GetRecordNumber() const { return EntryRecordNumber(Entry); }
    // Units of the name, bounded by what the entry's length can hold.
    int GetNameLength() const;
    // Copies the name and a terminator into `name` (kMaxEntryNameLength + 1
    // units); returns the length.
    int CopyName(char16_t* name) const;
    CDirectory* GetDirectory() const { return Directory; }
    // Moves the bytes this parsed entry stands on (its node moved them).
    void RelocateEntry(uint8_t* entry) { Entry = entry; }

    int OwnsBuffer;
    uint8_t* Entry;
    CDirectory* Directory;

private:
    // Loads the record at `vcn` from disk; on success *record is open.
    unsigned int LoadRecord(int64_t vcn, CBPlusTreeNode** record);
};

}  // namespace ntfs
