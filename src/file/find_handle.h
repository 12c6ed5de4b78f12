// CFindHandle: a search through one directory, and the way every file
// operation reaches an entry of a directory.
//
// It is a second tree object over the nodes of a CDirectory, with a cursor of
// its own, so an enumeration and a change of the same directory do not share
// a position. A pattern (literal stretches separated by runs of '?', anything
// behind the first '*' ignored) selects the entries; the record numbers
// already delivered are kept so that a file with a long and a short name comes
// out once. When the directory changes, the directory calls NotifyChange
// through the ChangeLink, and the next step places the cursor anew after the
// name last delivered (Revalidate).
//
// Ownership: the handle holds one reference to its directory; the value a host
// holds is the object's address, checked by a search of FindHandles. Locks:
// the shared and exclusive locks take the directory's lock of the same kind
// first (and with it the directory's file record); SeenRecords has a lock of
// its own.
#pragma once

#include <atomic>
#include <cstdint>

#include "foundation/chain_element.h"
#include "foundation/number_index.h"
#include "foundation/pointer_array.h"
#include "foundation/share_element.h"
#include "index/bplus_tree.h"
#include "volume/find_data.h"

namespace ntfs {

class CDirectory;
class CFullFileRecord;
class CIndexEntry;
class CNTFSVolume;

// One literal stretch of a pattern: 16 bytes, start and length each 32-bit
// at the start of an 8-byte slot.
struct _PATTERN_SEGMENT {
    int32_t Start;
    int32_t Reserved0;
    int32_t Length;
    int32_t Reserved1;
};

// Bytes of the copy of the index entry last delivered: the longest entry
// (16 + 66 + 2 * 255 bytes) and a terminator for its name.
constexpr int kCurrentEntrySize = 594;

class CFindHandle : public CShareElement, public CBPlusTreeNode {
public:
    // Joins the volume's FindHandles with one reference and the directory's
    // OpenFindHandles, and references the directory.
    CFindHandle(CDirectory* directory, CNTFSVolume* volume);
    ~CFindHandle() override;

    // Shared element side.
    int NotifyChange() override;
    int LockShared() override;
    int UnlockShared() override;
    int LockExclusive() override;
    int UnlockExclusive() override;

    // Tree side: a find object walks the tree and never changes it.
    int MarkModified() override { return 1; }
    int ClearModified() override { return 1; }
    unsigned int ReinsertDetached(CBPlusTreeItem*) override { return 0; }
    unsigned int FindLastNode(CBPlusTreeNode**) override { return 0; }
    bool IsLeaf() override { return false; }
    unsigned int Split(CBPlusTreeItem**) override { return 0; }
    unsigned int RetireNode(CBPlusTreeNode*) override { return 0; }
    bool HasSpaceFor(CBPlusTreeItem*) override { return false; }
    int InsertRaw(CBPlusTreeItem*, CBPlusTreeItem*, CBPlusTreeItem**) override { return -1; }
    unsigned int TakeLastEntry(CBPlusTreeItem**) override { return 0; }
    bool AcceptItem(CBPlusTreeItem* item, bool backtracked, const _INDEX_SEARCH_KEY* key) override;
    // A node the walk has left upwards: an index record no other cursor on
    // the directory stands in is handed to the directory to keep compactly.
    void NodePassed(CBPlusTreeNode* node) override;
    static int CursorInNodeSearchRoutine(CChainElement* element, void* parameter);
    // From now on the delivered records are looked up by a search of
    // SeenRecords alone: the plain form, against which the index is tested.
    void SearchSeenRecordsLinearly() { SeenIndexWhole.store(0); }

    // Compiles `pattern` (not folded) into Pattern and Segments. 1, or 0 when
    // out of memory.
    int SetPattern(const char16_t* pattern);
    // Places the cursor on the first entry the pattern selects. 0, or
    // ERROR_FILE_NOT_FOUND when there is none, or ERROR_NOT_ENOUGH_MEMORY.
    [[nodiscard]] unsigned int FindFirst(const uint8_t** entry);
    // The next entry the pattern selects.
    [[nodiscard]] unsigned int FindNext(const uint8_t** entry);
    // The next entry in order that was not delivered yet.
    [[nodiscard]] unsigned int NextEntry(const uint8_t** entry, _INDEX_SEARCH_KEY* key);
    // Moves on from *item until all literal stretches of the pattern match.
    [[nodiscard]] unsigned int MatchSegments(CIndexEntry** item, _INDEX_SEARCH_KEY* key);
    // After a change of the directory: the cursor is placed on the name last
    // delivered (0) or on its place in the order when it is gone
    // (ERROR_FILE_NOT_FOUND).
    [[nodiscard]] unsigned int Revalidate();
    // Fills `data` for the file of `entry` from its record and remembers the
    // entry. REQUIRES: the caller holds this object's shared lock.
    void FillFindData(const uint64_t* parentReference, CFullFileRecord* record, _FIND_FILE_DATA* data,
                      const uint8_t* entry);

    // The item under the cursor, or null.
    CIndexEntry* CursorItem() const;
    CDirectory* GetDirectory() const { return Directory; }
    const uint8_t* GetCurrentEntry() const { return CurrentEntry; }
    // Copies an entry into CurrentEntry (at most kCurrentEntrySize bytes).
    void KeepEntry(const uint8_t* entry);

private:
    void BuildKey(_INDEX_SEARCH_KEY* key) const;
    void FreePattern();

    CDirectory* Directory;
    CNTFSVolume* Volume;
    int Stale;
    char16_t* Pattern;
    int PatternLength;
    _PATTERN_SEGMENT* Segments;
    int SegmentCount;
    int SegmentCapacity;
    CBPlusTreeNode* RootNode;
    CChainElement ChangeLink;
    // Whether `record` was delivered already: the hash index while it holds
    // every number of SeenRecords, else a search of the array.
    bool WasDelivered(int64_t record);
    // Appends `record` to SeenRecords and, when that worked, to SeenIndex.
    void RememberDelivered(int64_t record);

    uint8_t CurrentEntry[kCurrentEntrySize];
    CPointerArray SeenRecords;
    // The numbers of SeenRecords by value, for the question asked at every
    // step; it answers exactly as the array would. SeenIndexWhole falls to 0
    // for good when the index could not take a number the array took.
    CNumberIndex SeenIndex{false};
    std::atomic<int> SeenIndexWhole;
};

}  // namespace ntfs
