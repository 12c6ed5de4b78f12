// The directory flush: one change of a directory's index made durable
// without a journal. A change of one node is written in place. A change of
// several nodes is written by shadow paging: every changed index record goes
// to a newly taken location, children before parents, each parent's pointer
// following its child, and then the directory's file record, which holds the
// root, is written: that single write is the commit point. Before it the old
// tree on disk is complete and untouched; after it the new one is. Only then
// are the old locations given back. Memory follows with CommitChanges, or
// returns to the state before the change with RollbackChanges.
//
// All of it runs under the directory's exclusive use; the work lists lock
// themselves per operation only.
#include <cstdlib>
#include <cstring>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "foundation/platform.h"
#include "index/directory.h"
#include "index/index_record.h"
#include "index/index_root.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

CIndexRecord* AsIndexRecord(CChainElement* element) {
    return static_cast<CIndexRecord*>(static_cast<CShareElement*>(element));
}

bool Holds(CPointerArray& list, intptr_t value) {
    return list.IndexOf(value) >= 0;
}

}  // namespace

int CDirectory::CollectModifiedRecords(CChainElement* element, void* parameter) {
    CIndexRecord* record = AsIndexRecord(element);
    auto* list = static_cast<CPointerArray*>(parameter);
    if (record->IsModified()) list->InsertAfter(list->GetCount(), record);
    return 0;
}

int64_t CDirectory::MemoryShortfallCount() {
    int64_t count = IndexMemoryShortfalls.load() + FileRecord->CFileRecord::MemoryShortfalls;
    CPointerArray& extensions = FileRecord->GetExtensionRecords();
    for (int i = 0; i < extensions.GetCount(); ++i) count += extensions.At<CFileRecord>(i)->MemoryShortfalls;
    return count;
}

unsigned int CDirectory::WriteIndexRecord(CIndexRecord* record) {
    auto* buffer = static_cast<uint8_t*>(std::calloc(static_cast<size_t>(RecordSize), 1));
    if (buffer == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    if (record->IsValid()) {
        const size_t bytes = record->GetBytesAllocated() + static_cast<size_t>(kIndexNodeHeaderOffset);
        std::memcpy(buffer, record->Image, bytes < static_cast<size_t>(RecordSize) ? bytes : RecordSize);
    }
    ProtectIndexRecord(buffer, RecordSize);
    // The record goes to the VCN in its header. A header that names another
    // place than the one the record was read from or made for (damage) would
    // overwrite another record, and one whose byte offset does not fit in 64
    // bits names no place at all: a bad record, and nothing is written.
    const int64_t vcn = ReadI64(buffer, kIndexVcnOffset);
    int64_t offset = 0;
    if ((record->IsValid() && vcn != record->GetShadowVcn()) || vcn < 0 ||
        __builtin_mul_overflow(vcn, static_cast<int64_t>(VirtualClusterSize), &offset)) {
        std::free(buffer);
        return ERROR_BAD_FORMAT;
    }
    uint32_t written = 0;
    const unsigned int code = FileRecord->WriteAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength,
                                                         &offset, static_cast<uint32_t>(RecordSize), buffer, &written);
    std::free(buffer);
    return code;
}

unsigned int CDirectory::WriteDirectoryRecord() {
    int64_t changeTime = 0;
    return Volume->WriteChangedRecord(FileRecord, nullptr, nullptr, &changeTime);
}

// Logs the failed write of the directory's file record; returns the code.
static unsigned int ReportRecordFailure(CFullFileRecord* record, unsigned int code) {
    const bool numbered = record->CFileRecord::Valid != 0;
    const uint64_t number = numbered ? static_cast<uint64_t>(record->RecordNumber) : ~uint64_t{0};
    return LogFailure("Update FileRecord %04X%08X fail.", code, static_cast<unsigned int>((number >> 32) & 0xFFFF),
                      static_cast<unsigned int>(number));
}

unsigned int CDirectory::FreeRecordBit(int64_t vcn) {
    int64_t bit = VcnToBit(vcn);
    return FreeUnits(&bit, 1);
}

unsigned int CDirectory::Flush(int* undo) {
    *undo = 1;
    CIndexRoot* root = Root;
    const int rootChanged = root != nullptr && root->IsModified() ? 1 : 0;
    const int changed = ModifiedRecords.GetCount() + rootChanged;
    if (changed == 0) return LogFailure("No item need to be flushed.", ERROR_SUCCESS);

    if (changed == 1) {
        root = GetIndexRoot();
        if (root == nullptr) return LogFailure("IndexRoot object is NULL", ERROR_NOT_ENOUGH_MEMORY);
        if (!root->IsModified()) {
            // The change lies in one index record: written in place, protected
            // by its update sequence alone.
            CIndexRecord* record = ModifiedRecords.At<CIndexRecord>(0);
            *undo = 0;
            if (record == nullptr || !record->IsModified()) return ERROR_INTERNAL_ERROR;
            return WriteIndexRecord(record);
        }
        const unsigned int code = WriteDirectoryRecord();
        if (code != ERROR_SUCCESS) return ReportRecordFailure(FileRecord, code);
        root->ClearModified();
        *undo = 0;
        return ERROR_SUCCESS;
    }

    // Shadow paging. Step 1: new copies in free space only.
    unsigned int code = PrepareRecords(&ModifiedRecords);
    if (code != ERROR_SUCCESS) return code;
    // Step 2: the commit point.
    code = WriteDirectoryRecord();
    if (code != ERROR_SUCCESS) return ReportRecordFailure(FileRecord, code);
    // Step 3: the change stands.
    root = GetIndexRoot();
    if (root == nullptr) return LogFailure("IndexRoot object is NULL", ERROR_NOT_ENOUGH_MEMORY);
    if (root->IsModified()) root->ClearModified();
    *undo = 0;
    // Step 4: the moved records take their new places; the old ones go.
    for (int i = 0; i < ModifiedRecords.GetCount(); ++i) {
        CIndexRecord* record = ModifiedRecords.At<CIndexRecord>(i);
        if (Holds(AbateRecords, reinterpret_cast<intptr_t>(record)) ||
            Holds(NewRecords, static_cast<intptr_t>(record->GetVcn()))) {
            continue;
        }
        const int64_t old = record->GetVcn();
        WriteI64(record->Image, kIndexVcnOffset, record->GetShadowVcn());
        NoteRecordsChanged();
        if (record->GetShadowVcn() != old) {
            code = FreeRecordBit(old);
            if (code != ERROR_SUCCESS) return code;
        }
    }
    // Step 5: records retired by the change.
    const int abated = AbateRecords.GetCount();
    for (int i = 0; i < abated; ++i) {
        CIndexRecord* record = AbateRecords.At<CIndexRecord>(0);
        AbateRecords.RemoveAt(0);
        if (record == nullptr) break;
        const int64_t vcn = record->GetVcn();
        code = FreeRecordBit(vcn);
        if (code != ERROR_SUCCESS) return code;
        record->ClearModified();
        // Lookups by VCN must not find the retired object again once the
        // location is reused; references from parsed entries may keep it alive.
        record->CRecord::Valid = 0;
        NoteRecordsChanged();
        static_cast<CShareElement*>(record)->Release();
        LogMessage("Free abate IndexRecord %08XH.\n", static_cast<unsigned int>(vcn));
    }
    // Step 6: the bitmap.
    if (Dirty) {
        code = WriteUnit();
        FileRecord->MarkModified();
        if (code != ERROR_SUCCESS) return code;
    }
    // Step 7: a resident bitmap lives in the file record, written again.
    CAttribute* bitmap = FileRecord->FindAttribute(AttributeBitmap, kIndexName, kIndexNameLength, 0);
    if (bitmap != nullptr && bitmap->IsResident()) {
        code = WriteDirectoryRecord();
        if (code != ERROR_SUCCESS) return code;
    }
    return ERROR_SUCCESS;
}

unsigned int CDirectory::RelinkParents() {
    // The lists are made whole before the first link is cleared.
    CPointerArray nodes;
    if (Root != nullptr && nodes.InsertAfter(nodes.GetCount(), static_cast<CBPlusTreeNode*>(Root)) == -2) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    CPointerArray open;
    for (int i = 0;; ++i) {
        CChainElement* element = OpenRecords.GetElement(i);
        if (element == nullptr) break;
        CIndexRecord* record = AsIndexRecord(element);
        CBPlusTreeNode* node = record;
        if (open.InsertAfter(open.GetCount(), node) == -2) return ERROR_NOT_ENOUGH_MEMORY;
        if (record->IsValid() && nodes.InsertAfter(nodes.GetCount(), node) == -2) return ERROR_NOT_ENOUGH_MEMORY;
    }
    for (int i = 0; i < open.GetCount(); ++i) open.At<CBPlusTreeNode>(i)->SetParentItem(nullptr);
    for (int n = 0; n < nodes.GetCount(); ++n) {
        CBPlusTreeNode* node = nodes.At<CBPlusTreeNode>(n);
        for (int i = 0; i < node->GetItemCount(); ++i) {
            CBPlusTreeItem* item = node->GetItem(i);
            CBPlusTreeNode* child = item != nullptr ? item->GetChild() : nullptr;
            if (child != nullptr && open.IndexOf(child) >= 0) child->SetParentItem(item);
        }
    }
    return ERROR_SUCCESS;
}

unsigned int CDirectory::PrepareRecords(CPointerArray* list) {
    LogMessage("There are %d records need to be modified.\n", list->GetCount());
    // A node that parsed its entries anew (after a split) leaves the records
    // below it pointing at items that are gone; the links are taken again
    // from the items of the live tree before they are followed.
    const unsigned int relinked = RelinkParents();
    if (relinked != ERROR_SUCCESS) return relinked;
    // First pass: every record that is not new gets a shadow location, and
    // its parent joins the change, so a changed leaf drags its path up to the
    // root. The list grows while it is walked.
    for (int i = 0; i < list->GetCount(); ++i) {
        CIndexRecord* record = list->At<CIndexRecord>(i);
        if (Holds(AbateRecords, reinterpret_cast<intptr_t>(record))) continue;
        const int64_t vcn = record->GetVcn();
        if (Holds(NewRecords, static_cast<intptr_t>(vcn))) {
            LogMessage("Record %d is new allocated.\n", static_cast<int>(vcn));
            const unsigned int code = record->IsModified() ? WriteIndexRecord(record) : ERROR_INTERNAL_ERROR;
            if (code != ERROR_SUCCESS) return LogFailure("Write new allocated IndexRecord fail.", code);
            continue;
        }
        int64_t shadow = 0;
        int count = 0;
        const unsigned int code = AllocateIndexRecord(&shadow, &count);
        if (code != ERROR_SUCCESS) return LogFailure("Allocate IndexRecord for backup original data fail.", code);
        record->SetShadowVcn(shadow);
        CBPlusTreeItem* parent = record->GetParentItem();
        if (parent == nullptr) continue;
        auto* entry = static_cast<CIndexEntry*>(parent);
        if (ReadU16(entry->Entry, kEntryFlagsOffset) & kEntryHasSubNode) {
            const int length = ReadU16(entry->Entry, kEntryLengthOffset);
            WriteI64(entry->Entry, static_cast<size_t>(length - 8), shadow);
            if (!entry->OwnsBuffer && entry->GetNode() != nullptr) entry->GetNode()->MarkModified();
        }
        CBPlusTreeNode* parentNode = parent->GetNode();
        if (parentNode == nullptr || parentNode == static_cast<CBPlusTreeNode*>(Root)) continue;
        auto* parentRecord = static_cast<CIndexRecord*>(parentNode);
        if (!Holds(*list, reinterpret_cast<intptr_t>(parentRecord))) {
            list->InsertAfter(list->GetCount(), parentRecord);
        }
    }
    // Second pass: every record before its parent.
    const int total = list->GetCount();
    for (int i = 0; i + 1 < total; ++i) {
        CIndexRecord* record = list->At<CIndexRecord>(i);
        CBPlusTreeItem* parent = record->GetParentItem();
        if (parent == nullptr) continue;
        CBPlusTreeNode* parentNode = parent->GetNode();
        if (parentNode == nullptr || parentNode == static_cast<CBPlusTreeNode*>(Root)) continue;
        const int j = list->IndexOf(static_cast<CIndexRecord*>(parentNode));
        if (j >= 0 && j < i) {
            const intptr_t moved = list->Get(j);
            list->RemoveAt(j);
            // The record now stands at i - 1; its parent goes right behind it
            // and its turn comes next.
            list->InsertAfter(i - 1, moved);
            --i;
        }
    }
    // Third pass: the shadow copies, children first.
    unsigned int code = ERROR_SUCCESS;
    for (int i = 0; i < total; ++i) {
        CIndexRecord* record = list->At<CIndexRecord>(i);
        if (Holds(AbateRecords, reinterpret_cast<intptr_t>(record))) continue;
        const int64_t old = record->GetVcn();
        if (Holds(NewRecords, static_cast<intptr_t>(old))) continue;
        WriteI64(record->Image, kIndexVcnOffset, record->GetShadowVcn());
        NoteRecordsChanged();
        LogMessage("Write Record %d to Record %d.\n", static_cast<int>(old), static_cast<int>(record->GetShadowVcn()));
        code = record->IsModified() ? WriteIndexRecord(record) : ERROR_INTERNAL_ERROR;
        WriteI64(record->Image, kIndexVcnOffset, old);
        NoteRecordsChanged();
        if (code != ERROR_SUCCESS) break;
    }
    return code;
}

unsigned int CDirectory::RollbackChanges() {
    CPointerArray modified;
    OpenRecords.SearchElement(&CollectModifiedRecords, &modified);
    for (int i = 0; i < modified.GetCount(); ++i) {
        CIndexRecord* record = modified.At<CIndexRecord>(i);
        const int64_t vcn = record->GetVcn();
        const int newIndex = NewRecords.IndexOf(static_cast<intptr_t>(vcn));
        if (newIndex >= 0) {
            (void)FreeRecordBit(vcn);
            NewRecords.RemoveAt(newIndex);
            record->ClearModified();
            record->CRecord::Valid = 0;
            NoteRecordsChanged();
            static_cast<CShareElement*>(record)->Release();
            continue;
        }
        record->Revert();
        if (record->GetShadowVcn() != vcn) {
            (void)FreeRecordBit(record->GetShadowVcn());
            record->SetShadowVcn(vcn);
        }
    }
    FileRecord->Revert();
    if (CIndexRoot* root = GetIndexRoot()) {
        root->ClearModified();
        root->ParseEntries();
    }
    ModifiedRecords.Clear();
    AbateRecords.Clear();
    NewRecords.Clear();
    return ERROR_SUCCESS;
}

unsigned int CDirectory::CommitChanges() {
    CPointerArray modified;
    OpenRecords.SearchElement(&CollectModifiedRecords, &modified);
    for (int i = 0; i < modified.GetCount(); ++i) {
        CIndexRecord* record = modified.At<CIndexRecord>(i);
        record->Commit();
        record->ClearModified();
    }
    FileRecord->Commit();
    if (FileRecord->IsModified()) {
        FileRecord->ClearModified();
        if (Root != nullptr) Root->ClearModified();
    }
    for (int i = 0;; ++i) {
        CChainElement* link = OpenFindHandles.GetElement(i);
        if (link == nullptr) break;
        static_cast<CChainElement*>(link->Reserved)->NotifyChange();
    }
    ModifiedRecords.Clear();
    AbateRecords.Clear();
    NewRecords.Clear();
    return ERROR_SUCCESS;
}

unsigned int CDirectory::InsertAndFlush(CBPlusTreeNode* node, int position, CBPlusTreeItem* entry) {
    const int64_t shortfalls = MemoryShortfallCount();
    CBPlusTreeItem* inserted = nullptr;
    unsigned int code = node->InsertItem(position, entry, &inserted);
    // Deviation for safety: a node or record parsed during the change without
    // all its pieces for lack of memory has steered it (where an entry goes,
    // what a split moves), whatever the change answered. It is given up
    // with 8 before anything is written, instead of being flushed.
    if (MemoryShortfallCount() != shortfalls) code = ERROR_NOT_ENOUGH_MEMORY;
    if (code != ERROR_SUCCESS) {
        (void)RollbackChanges();
        return code;
    }
    return FlushChange();
}

unsigned int CDirectory::FlushChange() {
    int undo = 1;
    const unsigned int code = Flush(&undo);
    if (undo) return UndoChange(code);
    (void)CommitChanges();
    RecordsAdded = 0;
    NewClusterRuns.Clear();
    NewFileRecords.Clear();
    return code;
}

unsigned int CDirectory::UndoChange(unsigned int code) {
    for (int i = 0; i + 1 < NewClusterRuns.GetCount(); i += 2) {
        int64_t start = NewClusterRuns.Get(i);
        (void)Volume->FreeClusters(&start, static_cast<int>(NewClusterRuns.Get(i + 1)));
    }
    ItemCount -= RecordsAdded;
    (void)RollbackChanges();
    RecordsAdded = 0;
    NewClusterRuns.Clear();
    NewFileRecords.Clear();
    return code;
}

unsigned int CDirectory::RemoveEntry(const char16_t* name) {
    if (!ResetCursor()) return ERROR_NOT_ENOUGH_MEMORY;
    const _INDEX_SEARCH_KEY key{1, name, nullptr, 0, lstrlenW(name) + 1};
    // Deviation for safety: without a root there is nothing to search from;
    // the answer is that of a root that could not be made (8), and nothing
    // changes.
    CIndexRoot* root = GetIndexRoot();
    if (root == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    Cursor->Node = root;
    CBPlusTreeItem* item = nullptr;
    unsigned int code = FindNextItem(&item, &key);
    if (code != ERROR_SUCCESS) return code;

    // Deviation for safety: the undo below gives back the clusters a growth
    // of the index took for this change (shadow locations may need one), so
    // the lists hold this change's alone.
    NewFileRecords.Clear();
    NewClusterRuns.Clear();
    RecordsAdded = 0;
    const int64_t shortfalls = MemoryShortfallCount();
    code = Remove(item);
    // Deviation for safety, as in InsertAndFlush: a change steered by a node
    // parsed without all its items is given up before it is written.
    if (code == ERROR_SUCCESS && MemoryShortfallCount() != shortfalls) code = ERROR_NOT_ENOUGH_MEMORY;
    return code == ERROR_SUCCESS ? FlushChange() : UndoChange(code);
}

unsigned int CDirectory::FlushNode(CBPlusTreeNode* node) {
    if (node == static_cast<CBPlusTreeNode*>(Root)) {
        const unsigned int code = WriteDirectoryRecord();
        Root->ClearModified();
        if (code == ERROR_SUCCESS)
            FileRecord->Commit();
        else
            FileRecord->Revert();
        return code;
    }
    auto* record = static_cast<CIndexRecord*>(node);
    unsigned int code = ERROR_SUCCESS;
    if (!record->IsModified()) {
        record->Revert();
    } else {
        code = WriteIndexRecord(record);
        if (code == ERROR_SUCCESS)
            record->Commit();
        else
            record->Revert();
    }
    record->ClearModified();
    return code;
}

}  // namespace ntfs
