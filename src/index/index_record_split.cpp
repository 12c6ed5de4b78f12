// CIndexRecord: the split of a full record at its byte middle, and the
// record's part in the removal of entries (the greatest entry of a subtree,
// the last node of a subtree, the return of an entry whose sub-node was
// retired). Runs under the directory's exclusive lock.
#include <cstdlib>
#include <cstring>
#include <new>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "index/directory.h"
#include "index/index_record.h"
#include "index/index_root.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

// The first item at which the lengths up to and including it, plus those up
// to the item before it, reach RecordSize: the byte middle of a full record.
// The end entry takes part in the sums but is never chosen.
int CIndexRecord::ChooseMedian() const {
    const int count = GetItemCount();
    int64_t limit = GetBytesAllocated();
    int64_t sum = 0;
    for (int i = 0; i < count; ++i) {
        sum += static_cast<CIndexEntry*>(GetItem(i))->GetLength();
        if (limit <= sum) return i < count - 1 ? i : count - 2;
        limit = RecordSize - sum;
    }
    return count - 2;
}

unsigned int CIndexRecord::Split(CBPlusTreeItem** median) {
    *median = nullptr;
    const int chosen = ChooseMedian();
    if (chosen < 0) return ERROR_INTERNAL_ERROR;

    int64_t vcn = 0;
    int got = 0;
    unsigned int code = Directory->AllocateIndexRecord(&vcn, &got);
    if (code != ERROR_SUCCESS) return code;

    CIndexRecord* left = nullptr;
    code = BuildLeftRecord(chosen, vcn, &left);
    if (code != ERROR_SUCCESS) return code;

    auto* middle = static_cast<CIndexEntry*>(GetItem(chosen));
    CIndexEntry* copy = CopyMedian(middle, vcn);
    if (copy == nullptr) {
        // The left record stays open; its bit goes back.
        int64_t bit = Directory->VcnToBit(vcn);
        static_cast<void>(Directory->FreeUnits(&bit, 1));
        return ERROR_NOT_ENOUGH_MEMORY;
    }

    // The entries behind the median stay here, under the VCN the parent
    // already points at.
    const int64_t first = kIndexNodeHeaderOffset + static_cast<int64_t>(GetFirstEntryOffset());
    const int64_t from = (middle->GetEntry() - Image) + middle->GetLength();
    const int64_t end = UsedEnd();
    const int64_t kept = end > from ? end - from : 0;
    std::memmove(Image + first, Image + from, static_cast<size_t>(kept));
    SetBytesInUse(GetFirstEntryOffset() + static_cast<uint32_t>(kept));
    static_cast<void>(ParseEntries());

    *median = copy;
    AppendUnique(&Directory->ModifiedRecords, left);
    AppendUnique(&Directory->ModifiedRecords, this);
    Modified = 1;
    return ERROR_SUCCESS;
}

// Makes the new left record at `vcn` with the entries in front of the
// median and an end entry that takes over the median's sub-node.
unsigned int CIndexRecord::BuildLeftRecord(int median, int64_t vcn, CIndexRecord** left) {
    auto* buffer = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(RecordSize)));
    if (buffer == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    if (!InitializeRecord(buffer, RecordSize, Volume->GetSectorSize(), vcn)) {
        std::free(buffer);
        return ERROR_INTERNAL_ERROR;
    }
    auto* record = new (std::nothrow) CIndexRecord(&vcn, buffer, Volume, Directory);
    if (record == nullptr) {
        std::free(buffer);
        return ERROR_NOT_ENOUGH_MEMORY;
    }

    auto* middle = static_cast<CIndexEntry*>(GetItem(median));
    const int64_t first = kIndexNodeHeaderOffset + static_cast<int64_t>(GetFirstEntryOffset());
    const int64_t moved = middle->GetEntry() - (Image + first);
    const int64_t target = kIndexNodeHeaderOffset + static_cast<int64_t>(record->GetFirstEntryOffset());
    const bool leadsDown = middle->HasChild() && middle->GetLength() >= kEndEntryWithSubNodeSize;
    const int endLength = leadsDown ? kEndEntryWithSubNodeSize : kEntryHeaderSize;
    if (moved < 0 || target + moved + endLength > RecordSize) return ERROR_INTERNAL_ERROR;

    uint8_t* image = record->Image;
    std::memcpy(image + target, Image + first, static_cast<size_t>(moved));
    uint8_t* end = image + target + moved;
    std::memset(end, 0, static_cast<size_t>(endLength));
    WriteU16(end, kEntryLengthOffset, static_cast<uint16_t>(endLength));
    WriteU16(end, kEntryFlagsOffset, leadsDown ? kEntryIsLast | kEntryHasSubNode : kEntryIsLast);
    if (leadsDown) WriteU64(end, kEntryHeaderSize, static_cast<uint64_t>(EntrySubNodeVcn(middle->GetEntry())));
    WriteU32(image, kIndexFlagsOffset, ReadU32(Image, kIndexFlagsOffset));
    record->SetBytesInUse(record->GetFirstEntryOffset() + static_cast<uint32_t>(moved + endLength));
    static_cast<void>(record->ParseEntries());
    record->Modified = 1;
    *left = record;
    return ERROR_SUCCESS;
}

// The median as an owning entry that leads to the left record at `leftVcn`:
// a leaf median grows by the 8 VCN bytes, an interior one keeps its length
// and gets the new VCN in place of its own.
CIndexEntry* CIndexRecord::CopyMedian(CIndexEntry* median, int64_t leftVcn) {
    const int length = median->GetLength();
    const int size = median->HasChild() && length >= kEndEntryWithSubNodeSize ? length : length + kEntryVcnSize;
    auto* buffer = static_cast<uint8_t*>(std::calloc(static_cast<size_t>(size), 1));
    if (buffer == nullptr) return nullptr;
    std::memcpy(buffer, median->GetEntry(), static_cast<size_t>(length < size ? length : size));
    WriteU16(buffer, kEntryLengthOffset, static_cast<uint16_t>(size));
    SetEntrySubNodeVcn(buffer, leftVcn);
    WriteU16(buffer, kEntryFlagsOffset, static_cast<uint16_t>(EntryFlags(buffer) | kEntryHasSubNode));
    auto* copy = new (std::nothrow) CIndexEntry(buffer, Directory);
    if (copy == nullptr) std::free(buffer);
    return copy;
}

unsigned int CIndexRecord::TakeLastEntry(CBPlusTreeItem** item) {
    return TakeLastEntryAt(item, 0);
}

unsigned int CIndexRecord::TakeLastEntryAt(CBPlusTreeItem** item, int depth) {
    if (depth >= kMaxTreeDepth) return ERROR_FILE_CORRUPT;
    const int count = GetItemCount();
    CBPlusTreeItem* last = GetItem(count - 1);
    if (last == nullptr) return ERROR_INTERNAL_ERROR;
    if (last->HasChild()) {
        CBPlusTreeNode* child = nullptr;
        unsigned int code = last->GetChildNode(&child);
        if (code != ERROR_SUCCESS) return code;
        if (child == nullptr) return ERROR_FILE_CORRUPT;
        if (count == 1) {
            // Only a link in a chain: the parent item takes the sub-node and
            // this record goes.
            if (ParentItem != nullptr) ParentItem->AttachChild(child);
            code = RetireNode(this);
            if (code != ERROR_SUCCESS) return code;
        }
        return static_cast<CIndexRecord*>(child)->TakeLastEntryAt(item, depth + 1);
    }
    auto* taken = static_cast<CIndexEntry*>(GetItem(count - 2));
    if (taken == nullptr) return ERROR_FILE_CORRUPT;
    const int length = taken->GetLength();
    auto* buffer = static_cast<uint8_t*>(std::calloc(static_cast<size_t>(length + kEntryVcnSize), 1));
    if (buffer == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    std::memcpy(buffer, taken->GetEntry(), static_cast<size_t>(length));
    // Room for a VCN, without the flag: AttachChild or DetachChild decides.
    WriteU16(buffer, kEntryLengthOffset, static_cast<uint16_t>(length + kEntryVcnSize));
    auto* copy = new (std::nothrow) CIndexEntry(buffer, Directory);
    if (copy == nullptr) {
        std::free(buffer);
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    CBPlusTreeNode* child = nullptr;
    const unsigned int code = RemoveItem(taken, &child);
    if (code != ERROR_SUCCESS) {
        delete copy;
        return code;
    }
    *item = copy;
    return ERROR_SUCCESS;
}

unsigned int CIndexRecord::FindLastNode(CBPlusTreeNode** node) {
    return FindLastNodeAt(node, 0);
}

unsigned int CIndexRecord::FindLastNodeAt(CBPlusTreeNode** node, int depth) {
    if (depth >= kMaxTreeDepth) return ERROR_FILE_CORRUPT;
    *node = nullptr;
    if (IsEmpty() && IsLeaf()) return ERROR_SUCCESS;
    CBPlusTreeItem* last = GetItem(GetItemCount() - 1);
    if (last == nullptr) return ERROR_SUCCESS;
    if (last->HasChild()) {
        CBPlusTreeNode* child = nullptr;
        unsigned int code = last->GetChildNode(&child);
        if (code != ERROR_SUCCESS) return code;
        if (child == nullptr) return ERROR_FILE_CORRUPT;
        code = static_cast<CIndexRecord*>(child)->FindLastNodeAt(node, depth + 1);
        if (code != ERROR_SUCCESS) return code;
        if (IsEmpty() || *node != nullptr) return ERROR_SUCCESS;
    }
    *node = this;
    return ERROR_SUCCESS;
}

unsigned int CIndexRecord::ReinsertDetached(CBPlusTreeItem* item) {
    const int position = IndexOfItem(item);
    if (position < 0) return ERROR_INTERNAL_ERROR;
    auto* entry = static_cast<CIndexEntry*>(item);
    CBPlusTreeNode* child = nullptr;

    if (!entry->IsLast()) {
        // A real entry comes back as a leaf entry, by key order from the root.
        CIndexEntry* copy = MakeLeafCopy(entry, Directory);
        if (copy == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
        unsigned int code = RemoveItem(item, &child);
        CIndexRoot* root = code == ERROR_SUCCESS ? Directory->GetIndexRoot() : nullptr;
        if (code == ERROR_SUCCESS && root == nullptr) code = ERROR_INTERNAL_ERROR;
        if (code == ERROR_SUCCESS) code = Directory->InsertEntry(root, copy);
        delete copy;
        return code;
    }

    if (position > 0) {
        // The entry in front gives way: the end entry takes over its
        // sub-node, and its key comes back below this record.
        auto* before = static_cast<CIndexEntry*>(GetItem(position - 1));
        CIndexEntry* copy = MakeLeafCopy(before, Directory);
        if (copy == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
        if (before->HasChild() && before->GetLength() >= kEndEntryWithSubNodeSize &&
            entry->GetLength() >= kEndEntryWithSubNodeSize) {
            SetEntrySubNodeVcn(entry->GetEntry(), EntrySubNodeVcn(before->GetEntry()));
        }
        unsigned int code = RemoveItem(before, &child);
        if (code != ERROR_SUCCESS) {
            delete copy;
            return code;
        }
        if (CBPlusTreeItem* end = GetItem(position - 1)) end->AttachChild(child);
        code = Directory->InsertEntry(this, copy);
        delete copy;
        return code;
    }

    // Nothing is left here: this record goes, and the problem moves up.
    CBPlusTreeItem* parent = ParentItem;
    const unsigned int code = RetireNode(this);
    if (code != ERROR_SUCCESS) return code;
    if (parent == nullptr || parent->GetNode() == nullptr) return ERROR_INTERNAL_ERROR;
    return parent->GetNode()->ReinsertDetached(parent);
}

}  // namespace ntfs
