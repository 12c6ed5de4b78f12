// CIndexRecord: construction and its checks, the parse of the entries, the
// raw insertion and removal of one entry, room accounting, revert and commit.
// Splitting and the operations of entry removal are in index_record_split.cpp.
//
// Every offset taken from the header is bounded by the image: bytes in use
// and bytes allocated that claim more than RecordSize are clipped, so a
// damaged record can give a parse failure but never an access outside it.
#include "index/index_record.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "index/directory.h"
#include "index/index_root.h"
#include "record/file_record.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

void ProtectIndexRecord(uint8_t* image, int recordSize) {
    ProtectUpdateSequence(image, recordSize);
}

int CIndexRecord::InitializeRecord(uint8_t* buffer, int recordSize, int sectorSize, int64_t vcn) {
    if (buffer == nullptr || sectorSize <= 0 || recordSize < kUpdateSequenceStride) return 0;
    const int count = recordSize / sectorSize + 1;
    const int first = (2 * count + 23) & ~7;
    if (kIndexUpdateSequenceArrayOffset + 2 * count > recordSize ||
        kIndexNodeHeaderOffset + first + kEntryHeaderSize > recordSize) {
        return 0;
    }
    std::memset(buffer, 0, static_cast<size_t>(recordSize));
    WriteU32(buffer, kIndexMagicOffset, kIndexRecordMagic);
    WriteU16(buffer, kIndexUpdateSequenceOffsetOffset, kIndexUpdateSequenceArrayOffset);
    WriteU16(buffer, kIndexUpdateSequenceCountOffset, static_cast<uint16_t>(count));
    WriteU64(buffer, kIndexVcnOffset, static_cast<uint64_t>(vcn));
    WriteU32(buffer, kIndexFirstEntryOffset, static_cast<uint32_t>(first));
    WriteU32(buffer, kIndexBytesInUseOffset, static_cast<uint32_t>(first + kEntryHeaderSize));
    WriteU32(buffer, kIndexBytesAllocatedOffset, static_cast<uint32_t>(recordSize - kIndexNodeHeaderOffset));
    WriteU32(buffer, kIndexFlagsOffset, 0);
    uint8_t* end = buffer + kIndexNodeHeaderOffset + first;
    WriteU16(end, kEntryLengthOffset, kEntryHeaderSize);
    WriteU16(end, kEntryFlagsOffset, kEntryIsLast);
    // The sequence number (element 0) stays 0 and is never raised; element 1
    // starts as 1, which the first protection overwrites.
    if (ReadU16(buffer, kIndexUpdateSequenceArrayOffset + 2) == 0) {
        WriteU16(buffer, kIndexUpdateSequenceArrayOffset + 2, 1);
    }
    return 1;
}

CIndexRecord::CIndexRecord(const int64_t* vcn, uint8_t* buffer, CNTFSVolume* volume, CDirectory* directory)
    : CShareElement(&directory->OpenRecords),
      Directory(directory),
      Volume(nullptr),
      ShadowVcn(0),
      RecordSize(directory->GetRecordSize()) {
    Image = buffer;
    Modified = 0;
    CleanImage = nullptr;
    if (Image == nullptr || RecordSize < kUpdateSequenceStride ||
        ReadU32(Image, kIndexMagicOffset) != kIndexRecordMagic) {
        Valid = 0;
        return;
    }
    CleanImage = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(RecordSize)));
    if (CleanImage == nullptr) {
        ++MemoryShortfalls;
        Directory->CountMemoryShortfall();
        return;
    }
    // The count must be RecordSize / 512 + 1 and the array inside the record;
    // every stretch's last word must hold the sequence number.
    if (!ApplyUpdateSequence(Image, RecordSize)) {
        Valid = 0;
        return;
    }
    Valid = 1;
    std::memcpy(CleanImage, Image, static_cast<size_t>(RecordSize));
    Modified = 0;
    Volume = volume;
    ShadowVcn = *vcn;
    static_cast<void>(ParseEntries());
    Directory->NoteRecordOpened(this);
}

// The share element part leaves the chain of open records in its own
// destructor.
CIndexRecord::~CIndexRecord() {
    if (Image != nullptr) Directory->NoteRecordClosed(this);
    std::free(CleanImage);
    CleanImage = nullptr;
    std::free(Image);
    Image = nullptr;
    for (int i = GetItemCount() - 1; i >= 0; --i) delete GetItem(i);
    Items.Clear();
}

int64_t CIndexRecord::GetVcn() const {
    return ReadI64(Image, kIndexVcnOffset);
}

uint32_t CIndexRecord::GetBytesInUse() const {
    return ReadU32(Image, kIndexBytesInUseOffset);
}

uint32_t CIndexRecord::GetFirstEntryOffset() const {
    return ReadU32(Image, kIndexFirstEntryOffset);
}

uint32_t CIndexRecord::GetBytesAllocated() const {
    const uint32_t allocated = ReadU32(Image, kIndexBytesAllocatedOffset);
    const auto most = static_cast<uint32_t>(RecordSize - kIndexNodeHeaderOffset);
    return allocated < most ? allocated : most;
}

void CIndexRecord::SetBytesInUse(uint32_t bytes) {
    WriteU32(Image, kIndexBytesInUseOffset, bytes);
}

int64_t CIndexRecord::UsedEnd() const {
    const int64_t end = kIndexNodeHeaderOffset + static_cast<int64_t>(GetBytesInUse());
    return end < RecordSize ? end : RecordSize;
}

int CIndexRecord::ParseEntries() {
    const int oldCount = GetItemCount();
    for (int i = oldCount - 1; i >= 0; --i) delete GetItem(i);
    Items.Clear();

    const int64_t end = UsedEnd();
    int64_t offset = kIndexNodeHeaderOffset + static_cast<int64_t>(GetFirstEntryOffset());
    int result = 1;
    if (offset >= end) {
        LogFailure("Entry is out of record.", ERROR_SUCCESS);
        return 0;
    }
    CBPlusTreeItem* previous = nullptr;
    for (;;) {
        if (!EntryFitsIn(Image, offset, end)) {
            LogFailure("Entry is broken.", ERROR_SUCCESS);
            result = 0;
            break;
        }
        uint8_t* bytes = Image + offset;
        auto* item = new (std::nothrow) CIndexEntry(bytes, this, previous, Directory);
        if (!AppendItem(item)) {
            ++MemoryShortfalls;
            Directory->CountMemoryShortfall();
            result = 0;
            break;
        }
        // A first parse attaches nothing: the sub-nodes are found later by
        // GetChildNode.
        if (oldCount != 0 && EntryHasSubNode(bytes) && EntryLength(bytes) >= kEndEntryWithSubNodeSize) {
            if (CIndexRecord* open = Directory->FindOpenRecord(EntrySubNodeVcn(bytes))) {
                item->AttachChild(open);
                Directory->NoteRecordReattached();
            }
        }
        previous = item;
        if (EntryIsLast(bytes)) break;
        offset += EntryLength(bytes);
        if (offset >= end) {
            LogFailure("Entry is out of record.", ERROR_SUCCESS);
            result = 0;
            break;
        }
    }
    for (int i = 0; i < GetItemCount(); ++i) GetItem(i)->SetNext(GetItem(i + 1));
    return result;
}

int CIndexRecord::MarkModified() {
    return ExchangeFlag(&Modified, 1);
}

int CIndexRecord::ClearModified() {
    return ExchangeFlag(&Modified, 0);
}

unsigned int CIndexRecord::FindInsertPosition(CBPlusTreeItem* item, CBPlusTreeNode** node, int* index) {
    return FindEntryInsertPosition(this, static_cast<CIndexEntry*>(item), node, index);
}

bool CIndexRecord::IsEmpty() {
    return GetItemCount() < 2;
}

bool CIndexRecord::IsLeaf() {
    return (ReadU32(Image, kIndexFlagsOffset) & kIndexNodeHasSubNodes) == 0;
}

unsigned int CIndexRecord::RetireNode(CBPlusTreeNode* node) {
    return Directory->RetireNode(node);
}

bool CIndexRecord::HasSpaceFor(CBPlusTreeItem* item) {
    const int64_t free = static_cast<int64_t>(GetBytesAllocated()) - GetBytesInUse();
    return free > static_cast<CIndexEntry*>(item)->GetLength();
}

bool CIndexRecord::AcceptItem(CBPlusTreeItem*, bool, const _INDEX_SEARCH_KEY*) {
    return true;
}

int CIndexRecord::InsertRaw(CBPlusTreeItem* previous, CBPlusTreeItem* item, CBPlusTreeItem** inserted) {
    *inserted = nullptr;
    const auto* entry = static_cast<CIndexEntry*>(item);
    const int length = entry->GetLength();
    const int previousIndex = previous != nullptr ? IndexOfItem(previous) : -1;
    int64_t place = kIndexNodeHeaderOffset + static_cast<int64_t>(GetFirstEntryOffset());
    if (previousIndex >= 0) {
        const auto* before = static_cast<CIndexEntry*>(previous);
        place = (before->GetEntry() - Image) + before->GetLength();
    }
    const int64_t end = UsedEnd();
    // Callers ask HasSpaceFor first; an entry that would leave the image is
    // refused rather than written.
    if (length < kEntryHeaderSize || place > end || end + length > RecordSize) return -1;
    std::memmove(Image + place + length, Image + place, static_cast<size_t>(end - place));
    std::memcpy(Image + place, entry->GetEntry(), static_cast<size_t>(length));
    SetBytesInUse(GetBytesInUse() + static_cast<uint32_t>(length));
    const bool leadsDown = EntryHasSubNode(entry->GetEntry());
    const int position = previousIndex >= 0 ? previousIndex + 1 : 0;
    static_cast<void>(ParseEntries());
    if (leadsDown) {
        WriteU32(Image, kIndexFlagsOffset, ReadU32(Image, kIndexFlagsOffset) | kIndexNodeHasSubNodes);
    }
    *inserted = GetItem(position);
    Modified = 1;
    AppendUnique(&Directory->ModifiedRecords, this);
    return position;
}

void CIndexRecord::ShiftItemsDown(int position, int length) {
    for (int i = position; i < GetItemCount(); ++i) {
        auto* entry = static_cast<CIndexEntry*>(GetItem(i));
        std::memmove(entry->GetEntry() - length, entry->GetEntry(), static_cast<size_t>(entry->GetLength()));
        entry->RelocateEntry(entry->GetEntry() - length);
    }
}

unsigned int CIndexRecord::RemoveItem(CBPlusTreeItem* item, CBPlusTreeNode** child) {
    if (!Valid) return ERROR_INTERNAL_ERROR;
    LogMessage("  IndexRecord VirtualCluster %XH.\n", static_cast<uint32_t>(GetVcn()));
    const int position = IndexOfItem(item);
    if (position < 0) return ERROR_INTERNAL_ERROR;
    const unsigned int code = UnlinkItem(item, child);
    const int length = static_cast<CIndexEntry*>(item)->GetLength();
    SetBytesInUse(GetBytesInUse() - static_cast<uint32_t>(length));
    ShiftItemsDown(position, length);
    Modified = 1;
    delete item;
    AppendUnique(&Directory->ModifiedRecords, this);
    return code;
}

int CIndexRecord::Revert() {
    if (!Valid || CleanImage == nullptr) return 0;
    std::memcpy(Image, CleanImage, GetBytesAllocated() + static_cast<size_t>(kIndexNodeHeaderOffset));
    Directory->NoteRecordsChanged();
    Modified = 0;
    return ParseEntries();
}

int CIndexRecord::Commit() {
    if (!Valid || CleanImage == nullptr) return 0;
    std::memcpy(CleanImage, Image, GetBytesAllocated() + static_cast<size_t>(kIndexNodeHeaderOffset));
    return 1;
}

}  // namespace ntfs
