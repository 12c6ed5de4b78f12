// CIndexEntry: the key order of the $I30 index, the loading of the record
// below an entry, and the sub-node pointer kept in the last 8 bytes of an
// entry. Entries are read and changed under the directory's share lock.
#include "index/index_entry.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "foundation/log.h"
#include "index/directory.h"
#include "index/index_record.h"
#include "record/full_file_record.h"
#include "record/layout.h"

namespace ntfs {

const char16_t kIndexName[] = u"$I30";

bool EntryFitsIn(const uint8_t* image, int64_t offset, int64_t limit) {
    if (offset < 0 || offset + kEntryHeaderSize > limit) return false;
    const int length = EntryLength(image + offset);
    return length >= kEntryHeaderSize && length % 8 == 0 && offset + length <= limit;
}

void FoldIndexName(char16_t* name) {
    for (; *name != 0; ++name) *name = FoldUnit(*name);
}

unsigned int FindEntryInsertPosition(CBPlusTreeNode* start, CIndexEntry* entry, CBPlusTreeNode** node, int* index) {
    auto* name = static_cast<char16_t*>(std::malloc((kMaxEntryNameLength + 1) * sizeof(char16_t)));
    if (name == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    const int length = entry->CopyName(name);
    FoldIndexName(name);
    const _INDEX_SEARCH_KEY key{1, name, nullptr, 0, 2 * length + 1};
    const unsigned int code = CBPlusTreeNode::LocatePosition(start, &key, node, index);
    std::free(name);
    return code;
}

CIndexEntry::CIndexEntry(uint8_t* entry, CBPlusTreeNode* node, CBPlusTreeItem* previous, CDirectory* directory)
    : OwnsBuffer(0), Entry(entry), Directory(directory) {
    Node = node;
    Previous = previous;
}

CIndexEntry::CIndexEntry(uint8_t* buffer, CDirectory* directory) : OwnsBuffer(1), Entry(buffer), Directory(directory) {}

CIndexEntry* CIndexEntry::MakeOwning(const uint8_t* source, int bytes, CDirectory* directory) {
    if (bytes < kEntryHeaderSize) return nullptr;
    auto* buffer = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(bytes)));
    if (buffer == nullptr) return nullptr;
    std::memcpy(buffer, source, static_cast<size_t>(bytes));
    auto* entry = new (std::nothrow) CIndexEntry(buffer, directory);
    if (entry == nullptr) std::free(buffer);
    return entry;
}

CIndexEntry* MakeLeafCopy(CIndexEntry* entry, CDirectory* directory) {
    int length = entry->GetLength();
    if (entry->HasChild() && length >= kEndEntryWithSubNodeSize) length -= kEntryVcnSize;
    CIndexEntry* copy = CIndexEntry::MakeOwning(entry->GetEntry(), length, directory);
    if (copy == nullptr) return nullptr;
    WriteU16(copy->GetEntry(), kEntryLengthOffset, static_cast<uint16_t>(length));
    WriteU16(copy->GetEntry(), kEntryFlagsOffset, 0);
    return copy;
}

CIndexEntry::~CIndexEntry() {
    if (OwnsBuffer) std::free(Entry);
}

int EntryNameLength(const uint8_t* entry) {
    if (EntryIsLast(entry)) return 0;
    const int room = (EntryLength(entry) - kEntryNameOffset) / 2;
    if (room <= 0) return 0;
    const int length = ReadU8(entry, kEntryNameLengthOffset);
    return length < room ? length : room;
}

int CIndexEntry::GetNameLength() const {
    return EntryNameLength(Entry);
}

int CIndexEntry::CopyName(char16_t* name) const {
    const int length = GetNameLength();
    for (int i = 0; i < length; ++i) {
        name[i] = static_cast<char16_t>(ReadU16(Entry, kEntryNameOffset + 2 * static_cast<size_t>(i)));
    }
    name[length] = 0;
    return length;
}

bool CIndexEntry::HasChild() {
    return EntryHasSubNode(Entry);
}

int CIndexEntry::CompareKey(const _INDEX_SEARCH_KEY* key) {
    if (IsLast()) return 1;
    char16_t name[kMaxEntryNameLength + 1];
    const int length = CopyName(name);
    FoldIndexName(name);
    // Units behind either terminator count as 0, so equal names compare
    // equal whatever length the caller asks for.
    bool keyEnded = false;
    for (int i = 0; i < key->CompareLength; ++i) {
        const int mine = i <= length ? name[i] : 0;
        const int theirs = keyEnded ? 0 : key->Name[i];
        if (theirs == 0) keyEnded = true;
        if (mine != theirs) return mine - theirs;
    }
    return 0;
}

int CIndexEntry::CompareName(const char16_t* name) {
    char16_t mine[kMaxEntryNameLength + 1];
    const int length = CopyName(mine);
    int theirLength = 0;
    while (name[theirLength] != 0) ++theirLength;
    const int longer = length > theirLength ? length : theirLength;
    for (int i = 0; i < longer; ++i) {
        const int a = i < length ? mine[i] : 0;
        const int b = i < theirLength ? name[i] : 0;
        if (a != b) return a - b;
    }
    return 0;
}

unsigned int CIndexEntry::GetChildNode(CBPlusTreeNode** child) {
    if (Child != nullptr || !HasChild()) {
        *child = Child;
        return ERROR_SUCCESS;
    }
    *child = nullptr;
    // A key made for insertion has no directory to load from.
    if (Directory == nullptr) return ERROR_INTERNAL_ERROR;
    // The flag promises 8 VCN bytes that a header-only entry cannot hold.
    if (GetLength() < kEndEntryWithSubNodeSize) return ERROR_FILE_CORRUPT;
    const int64_t vcn = EntrySubNodeVcn(Entry);
    if (CIndexRecord* open = Directory->FindOpenRecord(vcn)) {
        open->Reference();
        Child = open;
        open->SetParentItem(this);
        *child = open;
        return ERROR_SUCCESS;
    }
    return LoadRecord(vcn, child);
}

unsigned int CIndexEntry::LoadRecord(int64_t vcn, CBPlusTreeNode** child) {
    *child = nullptr;
    const int recordSize = Directory->GetRecordSize();
    const int64_t unit = Directory->GetVirtualClusterSize();
    // A VCN no valid index reaches: the entry is damaged.
    if (vcn < 0 || unit <= 0 || vcn > INT64_MAX / unit) return ERROR_FILE_CORRUPT;
    auto* buffer = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(recordSize > 0 ? recordSize : 1)));
    if (buffer == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    int64_t offset = vcn * unit;
    uint32_t read = static_cast<uint32_t>(recordSize);
    // A record an enumeration has passed comes back from the directory's
    // compact copy, as it was open, without a device read.
    const unsigned int code =
        Directory->TakeKeptImage(vcn, buffer)
            ? ERROR_SUCCESS
            : Directory->GetFileRecord()->ReadAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, &offset,
                                                        static_cast<uint32_t>(recordSize), buffer, &read);
    if (code != ERROR_SUCCESS || read < static_cast<uint32_t>(recordSize)) {
        std::free(buffer);
        Child = nullptr;
        return code;
    }
    auto* record = new (std::nothrow) CIndexRecord(&vcn, buffer, Directory->GetVolume(), Directory);
    if (record == nullptr) {
        std::free(buffer);
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    // Deviation for safety: a record whose items could not all be made for
    // lack of memory would answer searches with entries missing and steer
    // changes wrongly; it is not kept, and the answer is 8.
    if (record->MemoryShortfalls != 0 || !record->IsValid()) {
        const unsigned int code = record->MemoryShortfalls != 0 ? ERROR_NOT_ENOUGH_MEMORY : ERROR_BAD_FORMAT;
        record->Release();
        Child = nullptr;
        return code;
    }
    Child = record;
    record->SetParentItem(this);
    *child = record;
    return ERROR_SUCCESS;
}

CBPlusTreeNode* CIndexEntry::AttachChild(CBPlusTreeNode* node) {
    CBPlusTreeNode* old = Child;
    Child = node;
    if (node != nullptr) node->SetParentItem(this);
    // The old sub-node is told too, and is not freed: kept as it always was.
    if (old != nullptr) old->SetParentItem(this);
    if (node != nullptr && GetLength() >= kEndEntryWithSubNodeSize) {
        SetEntrySubNodeVcn(Entry, static_cast<CIndexRecord*>(node)->GetVcn());
        WriteU16(Entry, kEntryFlagsOffset, static_cast<uint16_t>(EntryFlags(Entry) | kEntryHasSubNode));
    }
    return old;
}

CBPlusTreeNode* CIndexEntry::DetachChild() {
    CBPlusTreeNode* old = Child;
    Child = nullptr;
    if (old != nullptr) old->SetParentItem(nullptr);
    WriteU16(Entry, kEntryFlagsOffset, static_cast<uint16_t>(EntryFlags(Entry) & ~kEntryHasSubNode));
    // Only entries that end in 8 VCN bytes are meant here; a header-only
    // entry keeps its length rather than become shorter than a header.
    if (GetLength() >= kEndEntryWithSubNodeSize) {
        WriteU16(Entry, kEntryLengthOffset, static_cast<uint16_t>(GetLength() - kEntryVcnSize));
    }
    return old;
}

CBPlusTreeItem* CIndexEntry::Clone() {
    return MakeOwning(Entry, GetLength(), nullptr);
}

}  // namespace ntfs
