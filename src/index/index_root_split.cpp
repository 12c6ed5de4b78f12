// CIndexRoot: the root's split, which moves every entry down into one new
// index record (this is also how a small directory becomes a large one), and
// the return of an entry whose sub-node was retired, down to the root's
// small form. Runs under the directory's exclusive lock.
#include <cstdlib>
#include <cstring>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "index/directory.h"
#include "index/index_record.h"
#include "index/index_root.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

unsigned int CIndexRoot::Split(CBPlusTreeItem** median) {
    *median = nullptr;
    const int recordSize = Directory->GetRecordSize();
    auto* buffer = static_cast<uint8_t*>(std::calloc(static_cast<size_t>(recordSize), 1));
    if (buffer == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    if (!CIndexRecord::InitializeRecord(buffer, recordSize, Directory->GetVolume()->GetSectorSize(), 0)) {
        std::free(buffer);
        return ERROR_INTERNAL_ERROR;
    }
    const int first = static_cast<int>(ReadU32(buffer, kIndexFirstEntryOffset));
    unsigned int code = MoveEntriesToRecord(buffer, first);
    if (code != ERROR_SUCCESS) {
        std::free(buffer);
        return code;
    }

    int64_t vcn = 0;
    int got = 0;
    code = Directory->AllocateIndexRecord(&vcn, &got);
    if (code != ERROR_SUCCESS) {
        std::free(buffer);
        return code;
    }
    // The record goes to its place at once, outside the flush: its VCN is
    // new to this change, so this is a write to free space.
    WriteU64(buffer, kIndexVcnOffset, static_cast<uint64_t>(vcn));
    ProtectIndexRecord(buffer, recordSize);
    int64_t offset = vcn * Directory->GetVirtualClusterSize();
    uint32_t written = 0;
    code = FileRecord->WriteAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, &offset,
                                      static_cast<uint32_t>(recordSize), buffer, &written);
    std::free(buffer);
    if (code != ERROR_SUCCESS) return code;

    auto* end = static_cast<uint8_t*>(std::calloc(kEndEntryWithSubNodeSize, 1));
    if (end == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    WriteU16(end, kEntryLengthOffset, kEndEntryWithSubNodeSize);
    WriteU16(end, kEntryFlagsOffset, kEntryIsLast | kEntryHasSubNode);
    WriteU64(end, kEntryHeaderSize, static_cast<uint64_t>(vcn));
    auto* item = new (std::nothrow) CIndexEntry(end, Directory);
    if (item == nullptr) {
        std::free(end);
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    *median = item;
    return ERROR_SUCCESS;
}

// Copies the root's entries over the end entry of the new record in
// `buffer` (first entry at `first`) and shrinks the root to its bare header,
// which gives the file record back the room of all the entries.
unsigned int CIndexRoot::MoveEntriesToRecord(uint8_t* buffer, int first) {
    CAttribute* attribute = FindRootAttribute();
    if (attribute == nullptr) return ERROR_FILE_CORRUPT;
    const int recordSize = Directory->GetRecordSize();
    const int64_t entries = attribute->GetDataSize() - kRootEntriesOffset;
    if (entries < 0 || entries > recordSize - kIndexNodeHeaderOffset - first) return ERROR_FILE_CORRUPT;
    int64_t offset = kRootEntriesOffset;
    uint32_t read = 0;
    unsigned int code =
        FileRecord->ReadAttribute(AttributeIndexRoot, kIndexName, kIndexNameLength, &offset,
                                  static_cast<uint32_t>(entries), buffer + kIndexNodeHeaderOffset + first, &read);
    if (code != ERROR_SUCCESS) return code;
    WriteU32(buffer, kIndexBytesInUseOffset, static_cast<uint32_t>(first) + read);

    const int valueOffset = static_cast<int>(Value - attribute->Header);
    CAttribute* resized = nullptr;
    code = attribute->SetSize(valueOffset + kRootEntriesOffset, &resized);
    if (code != ERROR_SUCCESS) return code;
    const uint32_t bare = kRootEntriesOffset - kRootNodeHeaderOffset;
    WriteU32(Value, kRootBytesInUseOffset, bare);
    WriteU32(Value, kRootBytesAllocatedOffset, bare);
    WriteU32(buffer, kIndexFlagsOffset, ReadU32(Value, kRootFlagsOffset) & kRootLargeIndex);
    WriteU32(attribute->Header, kResidentValueLengthOffset, kRootEntriesOffset);
    attribute->Mark();
    // The old items stood on bytes that are gone.
    static_cast<void>(ParseEntries());
    return ERROR_SUCCESS;
}

unsigned int CIndexRoot::ReinsertDetached(CBPlusTreeItem* item) {
    const int position = IndexOfItem(item);
    if (position < 0) return ERROR_INTERNAL_ERROR;
    auto* entry = static_cast<CIndexEntry*>(item);
    if (!entry->IsLast()) {
        // A real entry comes back as a leaf entry, by key order.
        CIndexEntry* copy = MakeLeafCopy(entry, Directory);
        if (copy == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
        CBPlusTreeNode* child = nullptr;
        unsigned int code = RemoveItem(item, &child);
        if (code == ERROR_SUCCESS) {
            CIndexRoot* root = Directory->GetIndexRoot();
            code = root != nullptr ? Directory->InsertEntry(root, copy) : ERROR_INTERNAL_ERROR;
        }
        delete copy;
        return code;
    }
    if (position == 0) return ReturnToSmallForm(entry);
    return GiveWayToEndEntry(position);
}

// The root has no real entry left and its last sub-node went: it becomes a
// small index again. $INDEX_ALLOCATION and $BITMAP stay.
unsigned int CIndexRoot::ReturnToSmallForm(CIndexEntry* end) {
    if (!end->HasChild() || end->GetLength() < kEndEntryWithSubNodeSize) return ERROR_SUCCESS;
    WriteU16(end->GetEntry(), kEntryLengthOffset, kEntryHeaderSize);
    WriteU16(end->GetEntry(), kEntryFlagsOffset, kEntryIsLast);
    AddToSizes(-kEntryVcnSize);
    WriteU32(Value, kRootFlagsOffset, 0);
    static_cast<void>(ResizeValue(-kEntryVcnSize));
    MarkModified();
    static_cast<void>(ParseEntries());
    FileRecord->MarkModified();
    return ERROR_SUCCESS;
}

// The entry in front of the end entry gives way: the end entry takes over
// its sub-node and its key comes back as a leaf entry below the root.
unsigned int CIndexRoot::GiveWayToEndEntry(int position) {
    auto* end = static_cast<CIndexEntry*>(GetItem(position));
    auto* before = static_cast<CIndexEntry*>(GetItem(position - 1));
    CIndexEntry* copy = MakeLeafCopy(before, Directory);
    if (copy == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    if (before->HasChild() && before->GetLength() >= kEndEntryWithSubNodeSize &&
        end->GetLength() >= kEndEntryWithSubNodeSize) {
        SetEntrySubNodeVcn(end->GetEntry(), EntrySubNodeVcn(before->GetEntry()));
    }
    CBPlusTreeNode* child = nullptr;
    const unsigned int code = RemoveItem(before, &child);
    if (code != ERROR_SUCCESS) {
        delete copy;
        return code;
    }
    if (CBPlusTreeItem* moved = GetItem(position - 1)) moved->AttachChild(child);
    // The key's return is not this step's result.
    static_cast<void>(Directory->InsertEntry(this, copy));
    delete copy;
    return ERROR_SUCCESS;
}

}  // namespace ntfs
