// Stand-ins for the directory flush and for the making of room in a full
// file record, whose lower layers (extension record allocation and
// attachment) are not built yet. A change made through InsertEntry stays in
// memory, listed in the directory's work lists, and nothing is undone; the
// operations that need the flush answer ERROR_NOT_SUPPORTED. Two pieces work
// already, because the index code writes through them: WriteIndexRecord and
// WriteDirectoryRecord. This file goes when the flush lands.
#include <cstdlib>
#include <cstring>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "index/directory.h"
#include "index/index_record.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

unsigned int CDirectory::InsertAndFlush(CBPlusTreeNode* node, int position, CBPlusTreeItem* entry) {
    CBPlusTreeItem* inserted = nullptr;
    return node->InsertItem(position, entry, &inserted);
}

unsigned int CDirectory::Flush(int* undo) {
    *undo = 1;
    return ERROR_NOT_SUPPORTED;
}

unsigned int CDirectory::PrepareRecords(CPointerArray*) { return ERROR_NOT_SUPPORTED; }

unsigned int CDirectory::WriteIndexRecord(CIndexRecord* record) {
    auto* buffer = static_cast<uint8_t*>(std::calloc(static_cast<size_t>(RecordSize), 1));
    if (buffer == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    if (record->IsValid()) {
        const size_t bytes = record->GetBytesAllocated() + static_cast<size_t>(kIndexNodeHeaderOffset);
        std::memcpy(buffer, record->Image, bytes < static_cast<size_t>(RecordSize) ? bytes : RecordSize);
    }
    ProtectIndexRecord(buffer, RecordSize);
    int64_t offset = ReadI64(buffer, kIndexVcnOffset) * VirtualClusterSize;
    uint32_t written = 0;
    const unsigned int code =
        FileRecord->WriteAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, &offset,
                                   static_cast<uint32_t>(RecordSize), buffer, &written);
    std::free(buffer);
    return code;
}

unsigned int CDirectory::CommitChanges() { return ERROR_NOT_SUPPORTED; }

unsigned int CDirectory::RollbackChanges() { return ERROR_NOT_SUPPORTED; }

unsigned int CDirectory::FlushNode(CBPlusTreeNode*) { return ERROR_NOT_SUPPORTED; }

unsigned int CDirectory::WriteDirectoryRecord() {
    int64_t changeTime = 0;
    static_cast<void>(Volume->UpdateFileRecord(FileRecord, nullptr, nullptr, &changeTime));
    return Volume->GetLastError();
}

int CDirectory::CollectModifiedRecords(CChainElement* element, void* parameter) {
    auto* record = static_cast<CIndexRecord*>(static_cast<CShareElement*>(element));
    auto* list = static_cast<CPointerArray*>(parameter);
    if (record->IsModified()) list->InsertAfter(list->GetCount(), record);
    return 0;
}

unsigned int CDirectory::AdjustFileRecord() { return ERROR_NOT_SUPPORTED; }

unsigned int CDirectory::MoveBitmapAttribute(CFullFileRecord*) { return ERROR_NOT_SUPPORTED; }

}  // namespace ntfs
