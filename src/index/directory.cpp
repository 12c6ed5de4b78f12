// CDirectory: construction and destruction, the share locks, the root and
// its pseudo parent item, the chain of open index records, the tree-object
// operations, and the search for the place of a new entry. Index record
// allocation is in index_allocation.cpp; the flush that makes a change
// durable has a file of its own.
#include "index/directory.h"

#include <cstdlib>
#include <new>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "index/index_record.h"
#include "index/index_root.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

// Retries of an insertion after making room in the file record. Each round
// moves one attribute out of the base record, so a valid record is done
// after a few; the bound only ends a round that can never succeed.
constexpr int kMaxInsertRetries = 64;

// Index records held by $INDEX_ALLOCATION "$I30": its initialized size in
// records, 0 without one or for a resident one.
int64_t CountIndexRecords(CFullFileRecord* record, CNTFSVolume* volume) {
    CAttribute* allocation = record->FindAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, 0);
    const int recordSize = volume->GetIndexRecordSize();
    if (allocation == nullptr || allocation->IsResident() || recordSize <= 0) return 0;
    const int64_t initialized = ReadI64(allocation->Header, kNonResidentInitializedSizeOffset);
    return initialized > 0 ? initialized / recordSize : 0;
}

CIndexRecord* AsIndexRecord(CChainElement* element) {
    return static_cast<CIndexRecord*>(static_cast<CShareElement*>(element));
}

}  // namespace

void AppendUnique(CPointerArray* list, const void* value) {
    if (list->IndexOf(value) < 0) list->InsertAfter(list->GetCount(), value);
}

CDirectory::CDirectory(CFullFileRecord* record, CNTFSVolume* volume)
    : CShareElement(&volume->Directories),
      CBitmapData(volume, record, AttributeBitmap, kIndexName, kIndexNameLength, volume->GetClusterSize(),
                  CountIndexRecords(record, volume)),
      Path(nullptr),
      SectorsPerRecord(volume->IndexRecordSectors),
      RecordSize(volume->GetIndexRecordSize()),
      VirtualClusterSize(volume->GetVirtualClusterSize()),
      Volume(volume),
      FileRecord(record),
      RootValue(nullptr),
      PseudoItem(nullptr),
      Root(nullptr),
      GrowFailed(0),
      RecordsAdded(0),
      IndexMemoryShortfalls(0),
      OpenRecordIndexWhole(1),
      OpenRecordVcnsShared(0),
      RecordsReattached(0),
      KeptBytes(0),
      KeptPlainBudget(kKeptPlainBudget),
      KeptWorkspace(nullptr) {
    InitializeCriticalSection(&OpenRecordIndexLock);
    // Nothing is put on the file record's chain of directories; the link
    // only names its owner.
    DirectoryLink.Reserved = this;
}

CDirectory::~CDirectory() {
    if (FileRecord != nullptr && FileRecord->IsModified()) static_cast<void>(WriteDirectoryRecord());
    std::free(Path);
    Path = nullptr;
    delete Root;
    Root = nullptr;
    if (DirectoryLink.Container != nullptr) DirectoryLink.Container->RemoveElement(&DirectoryLink);
    // Each record leaves the chain in its destructor.
    while (CChainElement* element = OpenRecords.GetElement(0)) delete AsIndexRecord(element);
    FreeKeptRecords();
    FreeCursor();
    if (FileRecord != nullptr) FileRecord->Release();
    FileRecord = nullptr;
    delete PseudoItem;
    PseudoItem = nullptr;
    DeleteCriticalSection(&OpenRecordIndexLock);
}

int CDirectory::LockShared() {
    if (FileRecord != nullptr) FileRecord->LockShared();
    return CShareElement::LockShared();
}

int CDirectory::UnlockShared() {
    if (FileRecord != nullptr) FileRecord->UnlockShared();
    return CShareElement::UnlockShared();
}

int CDirectory::LockExclusive() {
    if (FileRecord != nullptr) FileRecord->LockExclusive();
    return CShareElement::LockExclusive();
}

int CDirectory::UnlockExclusive() {
    if (FileRecord != nullptr) FileRecord->UnlockExclusive();
    return CShareElement::UnlockExclusive();
}

int CDirectory::MarkModified() {
    const int old = Dirty;
    Dirty = 1;
    return old;
}

int CDirectory::ClearModified() {
    const int old = Dirty;
    Dirty = 0;
    return old;
}

unsigned int CDirectory::ReinsertDetached(CBPlusTreeItem*) {
    return ERROR_SUCCESS;
}

unsigned int CDirectory::FindLastNode(CBPlusTreeNode** node) {
    *node = nullptr;
    return ERROR_SUCCESS;
}

bool CDirectory::IsLeaf() {
    return false;
}

unsigned int CDirectory::Split(CBPlusTreeItem** median) {
    *median = nullptr;
    return ERROR_SUCCESS;
}

unsigned int CDirectory::TakeLastEntry(CBPlusTreeItem** item) {
    *item = nullptr;
    return ERROR_SUCCESS;
}

unsigned int CDirectory::RetireNode(CBPlusTreeNode* node) {
    if (node == nullptr || node == Root) return ERROR_SUCCESS;
    // A node retired twice in one change must be freed once.
    AppendUnique(&AbateRecords, static_cast<CIndexRecord*>(node));
    node->SetParentItem(nullptr);
    return ERROR_SUCCESS;
}

bool CDirectory::HasSpaceFor(CBPlusTreeItem* item) {
    return FileRecord != nullptr && FileRecord->GetFreeSpace() >= static_cast<CIndexEntry*>(item)->GetLength();
}

int CDirectory::InsertRaw(CBPlusTreeItem*, CBPlusTreeItem*, CBPlusTreeItem** inserted) {
    *inserted = nullptr;
    return -1;
}

bool CDirectory::AcceptItem(CBPlusTreeItem* item, bool backtracked, const _INDEX_SEARCH_KEY* key) {
    return !item->HasChild() || backtracked || key->Exact != 0;
}

CIndexRoot* CDirectory::GetIndexRoot() {
    CAttribute* attribute = FileRecord != nullptr
                                ? FileRecord->FindAttribute(AttributeIndexRoot, kIndexName, kIndexNameLength, 0)
                                : nullptr;
    uint8_t* value = attribute != nullptr && attribute->IsResident() ? attribute->GetValue() : nullptr;
    if (Root != nullptr) {
        if (RootValue == value) return Root;
        // The attribute moved in the record's image: the old root stands on
        // stale bytes.
        delete Root;
        Root = nullptr;
    }
    RootValue = value;
    if (value == nullptr) return nullptr;
    if (PseudoItem == nullptr) {
        auto* bytes = static_cast<uint8_t*>(std::calloc(kEntryHeaderSize, 1));
        if (bytes == nullptr) return nullptr;
        PseudoItem = new (std::nothrow) CIndexEntry(bytes, this);
        if (PseudoItem == nullptr) {
            std::free(bytes);
            return nullptr;
        }
    }
    auto* root = new (std::nothrow) CIndexRoot(RootValue, this, FileRecord);
    if (root == nullptr) return nullptr;
    static_cast<void>(root->ParseEntries());
    // Deviation for safety: a root whose items could not all be made for lack
    // of memory would answer searches with entries missing, and a change
    // made over it would put entries in the wrong place on disk. It is not
    // kept; the caller answers as for no root (8).
    if (root->MemoryShortfalls != 0) {
        delete root;
        return nullptr;
    }
    Root = root;
    root->SetParentItem(PseudoItem);
    PseudoItem->SetNode(root);
    return root;
}

int CDirectory::IndexRecordSearchRoutine(CChainElement* element, void* parameter) {
    CIndexRecord* record = AsIndexRecord(element);
    return record->IsValid() && record->GetVcn() == *static_cast<int64_t*>(parameter);
}

CIndexRecord* CDirectory::ScanOpenRecords(int64_t vcn) {
    CChainElement* element = OpenRecords.SearchElement(&IndexRecordSearchRoutine, &vcn);
    return element != nullptr ? AsIndexRecord(element) : nullptr;
}

namespace {

// Chain search routine of the rebuild: each valid record's VCN joins the
// index unless an earlier record holds it. Never stops; a failed insertion
// and a VCN held twice are noted in the parameter.
struct _INDEX_REBUILD {
    CNumberIndex* Index;
    int Failed;
    int Shared;
};

int AddToRecordIndex(CChainElement* element, void* parameter) {
    auto* rebuild = static_cast<_INDEX_REBUILD*>(parameter);
    CIndexRecord* record = AsIndexRecord(element);
    if (!record->IsValid()) return 0;
    const int added = rebuild->Index->Insert(record->GetVcn(), reinterpret_cast<intptr_t>(record));
    if (added == -2) rebuild->Failed = 1;
    if (added == 0) rebuild->Shared = 1;
    return 0;
}

}  // namespace

CIndexRecord* CDirectory::FindOpenRecord(int64_t vcn) {
    EnterCriticalSection(&OpenRecordIndexLock);
    if (!OpenRecordIndexWhole.load()) {
        OpenRecordIndex.Clear();
        _INDEX_REBUILD rebuild{&OpenRecordIndex, 0, 0};
        OpenRecordIndexWhole.store(1);
        OpenRecords.SearchElement(&AddToRecordIndex, &rebuild);
        OpenRecordVcnsShared.store(rebuild.Shared);
        if (rebuild.Failed) OpenRecordIndexWhole.store(0);
    }
    CIndexRecord* found = nullptr;
    if (OpenRecordIndexWhole.load()) {
        intptr_t value = 0;
        if (OpenRecordIndex.Find(vcn, &value)) found = reinterpret_cast<CIndexRecord*>(value);
    } else {
        found = ScanOpenRecords(vcn);
    }
    LeaveCriticalSection(&OpenRecordIndexLock);
    return found;
}

void CDirectory::NoteRecordOpened(CIndexRecord* record) {
    EnterCriticalSection(&OpenRecordIndexLock);
    // The record stands last on the chain, so it is the first of its VCN
    // only when no other holds it; a second one of a VCN (two loads racing)
    // leaves the order to the rebuild.
    if (OpenRecordIndexWhole.load() && record->IsValid()) {
        const int added = OpenRecordIndex.Insert(record->GetVcn(), reinterpret_cast<intptr_t>(record));
        if (added != 1) OpenRecordIndexWhole.store(0);
        if (added == 0) OpenRecordVcnsShared.store(1);
    }
    LeaveCriticalSection(&OpenRecordIndexLock);
}

void CDirectory::NoteRecordClosed(CIndexRecord* record) {
    EnterCriticalSection(&OpenRecordIndexLock);
    intptr_t value = 0;
    if (OpenRecordIndexWhole.load() && record->IsValid() && OpenRecordIndex.Find(record->GetVcn(), &value) &&
        value == reinterpret_cast<intptr_t>(record)) {
        // The only valid record of its VCN leaves the index; with another of
        // the same VCN behind it on the chain, the index is made again.
        if (OpenRecordVcnsShared.load()) {
            OpenRecordIndexWhole.store(0);
        } else {
            OpenRecordIndex.Remove(record->GetVcn());
        }
    }
    LeaveCriticalSection(&OpenRecordIndexLock);
}

int64_t CDirectory::VcnToBit(int64_t vcn) const {
    return RecordSize > 0 ? vcn * VirtualClusterSize / RecordSize : 0;
}

int64_t CDirectory::BitToVcn(int64_t bit) const {
    return VirtualClusterSize > 0 ? bit * RecordSize / VirtualClusterSize : 0;
}

unsigned int CDirectory::InsertEntry(CBPlusTreeNode* start, CIndexEntry* entry) {
    auto* name = static_cast<char16_t*>(std::malloc((kMaxEntryNameLength + 1) * sizeof(char16_t)));
    if (name == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    const int length = entry->CopyName(name);
    FoldIndexName(name);
    // Twice the name's length: the comparison runs on behind equal names,
    // where both count as ended.
    const _INDEX_SEARCH_KEY key{1, name, nullptr, 0, 2 * length};
    CBPlusTreeNode* node = nullptr;
    int position = 0;
    unsigned int code = LocatePosition(start, &key, &node, &position);
    std::free(name);
    if (code != ERROR_SUCCESS) return code;

    NewFileRecords.Clear();
    NewClusterRuns.Clear();
    RecordsAdded = 0;
    const bool atRoot = node == static_cast<CBPlusTreeNode*>(Root);
    code = InsertAndFlush(node, position, entry);
    // A failed attempt has been undone as a whole, so the same position
    // serves the retry, and the same node, an index record, stays open.
    for (int retry = 0;
         (code == ERROR_INSUFFICIENT_BUFFER || code == ERROR_HANDLE_DISK_FULL) && retry < kMaxInsertRetries; ++retry) {
        LogMessage("There is no space to store new data in FileRecord, Adjust it.\n");
        if (FileRecord->FindAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, 0) != nullptr) {
            const unsigned int adjusted = AdjustFileRecord();
            if (adjusted != ERROR_SUCCESS) return adjusted;
        }
        // Making room may move the root's bytes in the file record's image
        // (an attribute list goes in ahead of $INDEX_ROOT), and the undo may
        // too. The root object over the old place is replaced now, before
        // the retry: replaced in the middle of it, by the first look at the
        // root, it would be freed while a split still used it and its items.
        CIndexRoot* root = GetIndexRoot();
        if (root == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
        if (atRoot) node = root;
        code = InsertAndFlush(node, position, entry);
    }
    return code;
}

}  // namespace ntfs
