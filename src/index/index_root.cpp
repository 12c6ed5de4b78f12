// CIndexRoot: the parse of the $INDEX_ROOT value, the raw insertion and
// removal of one entry with the matching change of the attribute's length,
// and the tree operations of the root node. The root's split and the return
// of an entry whose sub-node was retired are in index_root_split.cpp.
//
// Every access is bounded by the value as its attribute holds it: a bytes in
// use field that claims more gives a parse failure, never a read outside the
// file record's image.
#include "index/index_root.h"

#include <cstring>
#include <new>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "index/directory.h"
#include "index/index_record.h"
#include "record/full_file_record.h"
#include "record/layout.h"

namespace ntfs {

CIndexRoot::CIndexRoot(uint8_t* value, CDirectory* directory, CFullFileRecord* record)
    : Modified(0), Value(value), Used(0), MemoryShortfalls(0), Directory(directory), FileRecord(record) {}

CIndexRoot::~CIndexRoot() {
    for (int i = 0; i < GetItemCount(); ++i) {
        CBPlusTreeItem* item = GetItem(i);
        if (item->GetChild() != nullptr) item->GetChild()->SetParentItem(nullptr);
        delete item;
    }
    Items.Clear();
}

CAttribute* CIndexRoot::FindRootAttribute() const {
    CAttribute* attribute = FileRecord->FindAttribute(AttributeIndexRoot, kIndexName, kIndexNameLength, 0);
    if (attribute == nullptr || !attribute->IsResident() || attribute->GetValue() != Value) return nullptr;
    return attribute;
}

int64_t CIndexRoot::ValueBytes() const {
    const CAttribute* attribute = FindRootAttribute();
    if (attribute == nullptr) return 0;
    const int64_t room = attribute->Size - (Value - attribute->Header);
    const int64_t length = attribute->GetDataSize();
    return length < room ? length : room;
}

uint32_t CIndexRoot::GetBytesInUse() const {
    return ReadU32(Value, kRootBytesInUseOffset);
}

int64_t CIndexRoot::UsedEnd() const {
    const int64_t end = kRootNodeHeaderOffset + static_cast<int64_t>(GetBytesInUse());
    const int64_t bytes = ValueBytes();
    return end < bytes ? end : bytes;
}

void CIndexRoot::AddToSizes(int delta) {
    WriteU32(Value, kRootBytesInUseOffset, GetBytesInUse() + static_cast<uint32_t>(delta));
    WriteU32(Value, kRootBytesAllocatedOffset,
             ReadU32(Value, kRootBytesAllocatedOffset) + static_cast<uint32_t>(delta));
}

unsigned int CIndexRoot::ResizeValue(int delta) {
    CAttribute* attribute = FindRootAttribute();
    if (attribute == nullptr) return ERROR_FILE_CORRUPT;
    CAttribute* resized = nullptr;
    const unsigned int code = attribute->SetSize(attribute->Size + delta, &resized);
    if (code != ERROR_SUCCESS) return code;
    WriteU32(attribute->Header, kResidentValueLengthOffset, static_cast<uint32_t>(attribute->GetDataSize() + delta));
    attribute->Mark();
    return ERROR_SUCCESS;
}

int CIndexRoot::ParseEntries() {
    for (int i = GetItemCount() - 1; i >= 0; --i) delete GetItem(i);
    Items.Clear();
    if (ValueBytes() < kRootEntriesOffset) {
        LogFailure("Entry is broken.", ERROR_SUCCESS);
        return 0;
    }
    const int64_t inUse = GetBytesInUse();
    Used = inUse;
    int result = 1;
    if (inUse != kRootEntriesOffset - kRootNodeHeaderOffset) {
        const int64_t usedEnd = kRootNodeHeaderOffset + inUse;
        const int64_t limit = UsedEnd();
        int64_t remainder = inUse - (kRootEntriesOffset - kRootNodeHeaderOffset);
        CBPlusTreeItem* previous = nullptr;
        for (int64_t offset = kRootEntriesOffset;;) {
            if (offset >= usedEnd) {
                result = 0;
                break;
            }
            if (!EntryFitsIn(Value, offset, limit)) {
                LogFailure("Entry is broken.", ERROR_SUCCESS);
                result = 0;
                break;
            }
            uint8_t* bytes = Value + offset;
            auto* item = new (std::nothrow) CIndexEntry(bytes, this, previous, Directory);
            if (!AppendItem(item)) {
                ++MemoryShortfalls;
                Directory->CountMemoryShortfall();
                result = 0;
                break;
            }
            if (EntryHasSubNode(bytes) && EntryLength(bytes) >= kEndEntryWithSubNodeSize) {
                if (CIndexRecord* open = Directory->FindOpenRecord(EntrySubNodeVcn(bytes))) {
                    item->AttachChild(open);
                    Directory->NoteRecordReattached();
                }
            }
            previous = item;
            remainder -= EntryLength(bytes);
            if (EntryIsLast(bytes)) break;
            if (remainder <= 0) {
                // The used bytes ended without an end entry.
                LogFailure("Entry is broken.", ERROR_SUCCESS);
                result = 0;
                break;
            }
            offset += EntryLength(bytes);
        }
    }
    for (int i = 0; i < GetItemCount(); ++i) GetItem(i)->SetNext(GetItem(i + 1));
    return result;
}

int CIndexRoot::MarkModified() {
    return ExchangeFlag(&Modified, 1);
}

int CIndexRoot::ClearModified() {
    return ExchangeFlag(&Modified, 0);
}

unsigned int CIndexRoot::FindInsertPosition(CBPlusTreeItem* item, CBPlusTreeNode** node, int* index) {
    return FindEntryInsertPosition(this, static_cast<CIndexEntry*>(item), node, index);
}

unsigned int CIndexRoot::FindLastNode(CBPlusTreeNode** node) {
    *node = nullptr;
    CBPlusTreeItem* last = GetItem(GetItemCount() - 1);
    if (last == nullptr || !last->HasChild()) return ERROR_SUCCESS;
    CBPlusTreeNode* child = nullptr;
    const unsigned int code = last->GetChildNode(&child);
    if (code != ERROR_SUCCESS) return code;
    if (child == nullptr) return ERROR_FILE_CORRUPT;
    return child->FindLastNode(node);
}

bool CIndexRoot::IsLeaf() {
    return (ReadU32(Value, kRootFlagsOffset) & kRootLargeIndex) == 0;
}

unsigned int CIndexRoot::RetireNode(CBPlusTreeNode* node) {
    return Directory->RetireNode(node);
}

bool CIndexRoot::HasSpaceFor(CBPlusTreeItem* item) {
    const CAttribute* attribute = FindRootAttribute();
    if (attribute == nullptr || attribute->Record == nullptr) return false;
    return attribute->Record->GetFreeSpace() >= static_cast<CIndexEntry*>(item)->GetLength();
}

unsigned int CIndexRoot::TakeLastEntry(CBPlusTreeItem** item) {
    *item = nullptr;
    return ERROR_SUCCESS;
}

bool CIndexRoot::AcceptItem(CBPlusTreeItem* item, bool backtracked, const _INDEX_SEARCH_KEY* key) {
    return !item->HasChild() || backtracked || key->Exact != 0;
}

int CIndexRoot::InsertRaw(CBPlusTreeItem* previous, CBPlusTreeItem* item, CBPlusTreeItem** inserted) {
    *inserted = nullptr;
    const auto* entry = static_cast<CIndexEntry*>(item);
    const int length = entry->GetLength();
    const int previousIndex = previous != nullptr ? IndexOfItem(previous) : -1;
    int64_t place = kRootEntriesOffset;
    if (previousIndex >= 0) {
        const auto* before = static_cast<CIndexEntry*>(previous);
        place = (before->GetEntry() - Value) + before->GetLength();
    }
    const int64_t end = UsedEnd();
    if (length < kEntryHeaderSize || place > end) return -1;
    // HasSpaceFor was asked before; a resize that fails all the same leaves
    // nothing written.
    if (ResizeValue(length) != ERROR_SUCCESS) return -1;
    std::memmove(Value + place + length, Value + place, static_cast<size_t>(end - place));
    std::memcpy(Value + place, entry->GetEntry(), static_cast<size_t>(length));
    AddToSizes(length);
    const bool leadsDown = EntryHasSubNode(entry->GetEntry());
    const int position = previousIndex >= 0 ? previousIndex + 1 : 0;
    static_cast<void>(ParseEntries());
    if (leadsDown) WriteU32(Value, kRootFlagsOffset, ReadU32(Value, kRootFlagsOffset) | kRootLargeIndex);
    *inserted = GetItem(position);
    Modified = 1;
    return position;
}

unsigned int CIndexRoot::RemoveItem(CBPlusTreeItem* item, CBPlusTreeNode** child) {
    const int position = IndexOfItem(item);
    if (position < 0) return ERROR_INTERNAL_ERROR;
    const unsigned int code = UnlinkItem(item, child);
    const int length = static_cast<CIndexEntry*>(item)->GetLength();
    AddToSizes(-length);
    for (int i = position; i < GetItemCount(); ++i) {
        auto* entry = static_cast<CIndexEntry*>(GetItem(i));
        std::memmove(entry->GetEntry() - length, entry->GetEntry(), static_cast<size_t>(entry->GetLength()));
        entry->RelocateEntry(entry->GetEntry() - length);
    }
    Modified = 1;
    static_cast<void>(ResizeValue(-length));
    delete item;
    return code;
}

}  // namespace ntfs
