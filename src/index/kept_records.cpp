// CDirectory: index records an enumeration has passed, let go in a compact
// form and brought back from it.
//
// The compact form is the record as the device holds it (update sequence
// applied again): the header and the bytes in use as they are, and the rest
// either stored too or, in the usual case where it is zero but for the
// update sequence words at the stretch ends, only noted as such. Once the
// kept images of a directory pass kKeptPlainBudget, further ones are stored
// as one LZNT1 chunk when that is smaller and expands to the same bytes. A
// record brought back is made from those bytes exactly as from a read, so
// the tree and every later device call are the same as with the record kept
// open.
#include <cstdlib>
#include <cstring>

#include "data/compression.h"
#include "foundation/endian.h"
#include "foundation/log.h"
#include "index/directory.h"
#include "index/index_record.h"
#include "record/file_record.h"
#include "record/layout.h"

namespace ntfs {

namespace {

// Header of a compact image; `Stored` bytes follow it.
struct _KEPT_RECORD {
    int32_t Stored;      // bytes that follow
    int16_t TailZero;    // 1: they are the record's start, behind them zeros but
                         // the sequence number at each stretch end
    int16_t Compressed;  // 1: they are an LZNT1 stream of the whole record
};

// `raw` as one compressed chunk in a new kept image, or null when that is
// not smaller or does not expand to `raw` exactly.
_KEPT_RECORD* Compress(const uint8_t* raw, int size, void* workspace, uint8_t* scratch) {
    uint32_t length = 0;
    if (size != static_cast<int>(kLznt1ChunkBytes) ||
        CompressBuffer(0, raw, static_cast<uint32_t>(size), scratch, size, kLznt1ChunkBytes, &length, workspace) !=
            ERROR_SUCCESS ||
        length + 64 >= static_cast<uint32_t>(size)) {
        return nullptr;
    }
    auto* kept = static_cast<_KEPT_RECORD*>(std::malloc(sizeof(_KEPT_RECORD) + length));
    if (kept == nullptr) return nullptr;
    kept->Stored = static_cast<int32_t>(length);
    kept->TailZero = 0;
    kept->Compressed = 1;
    std::memcpy(kept + 1, scratch, length);
    int32_t expanded = 0;
    DecompressBuffer(scratch, static_cast<uint32_t>(size), kept + 1, static_cast<int32_t>(length), &expanded);
    if (expanded != size || std::memcmp(scratch, raw, static_cast<size_t>(size)) != 0) {
        std::free(kept);
        return nullptr;
    }
    return kept;
}

// The stretch ends at or behind `from`, in a record of `size` bytes.
bool TailIsZeroButStretchEnds(const uint8_t* image, int from, int size, uint16_t number) {
    for (int at = from; at < size; ++at) {
        const bool stretchEnd = at % kUpdateSequenceStride >= kUpdateSequenceStride - 2;
        if (!stretchEnd && image[at] != 0) return false;
    }
    for (int end = kUpdateSequenceStride - 2; end < size; end += kUpdateSequenceStride) {
        if (end >= from && ReadU16(image, static_cast<size_t>(end)) != number) return false;
        if (end + 1 == from) return false;  // a stretch end cut in half: stored whole instead
    }
    return true;
}

void FreeKept(int64_t, intptr_t value, void*) {
    std::free(reinterpret_cast<void*>(value));
}

bool FrameHolds(const _TREE_CURSOR_FRAME* frame, const CBPlusTreeNode* node) {
    for (int depth = 0; frame != nullptr && depth <= kMaxTreeDepth; frame = frame->Previous, ++depth) {
        if (frame->Node == node) return true;
    }
    return false;
}

}  // namespace

void CDirectory::FreeKeptRecords() {
    KeptRecords.ForEach(&FreeKept, nullptr);
    KeptRecords.Clear();
    std::free(KeptWorkspace);
    KeptWorkspace = nullptr;
    KeptBytes = 0;
}

void CDirectory::KeepPassedRecord(CIndexRecord* record, ChainSearchRoutine cursorInNode) {
    if (record == nullptr || record->GetDirectory() != this || RecordsReattached.load()) return;
    // Under the element lock no thread takes or gives up a share lock of the
    // directory: being its only holder, the caller is alone in the tree.
    Lock();
    const bool alone = GetSharedCount() == 1 && GetExclusiveCount() == 0;
    CBPlusTreeItem* parent = record->GetParentItem();
    bool free = alone && OpenRecordIndexWhole.load() && !OpenRecordVcnsShared.load() && AbateRecords.GetCount() == 0 &&
                ModifiedRecords.GetCount() == 0 && NewRecords.GetCount() == 0 && record->IsValid() &&
                !record->IsModified() && record->MemoryShortfalls == 0 && record->CleanImage != nullptr &&
                record->GetReferenceCount() == 1 && record->GetShadowVcn() == record->GetVcn() && parent != nullptr &&
                parent->GetChild() == record && !FrameHolds(Cursor, record) &&
                OpenFindHandles.SearchElement(cursorInNode, static_cast<CBPlusTreeNode*>(record)) == nullptr;
    for (int i = 0; free && i < record->GetItemCount(); ++i) free = record->GetItem(i)->GetChild() == nullptr;
    const int size = record->GetRecordSize();
    free = free && std::memcmp(record->Image, record->CleanImage, static_cast<size_t>(size)) == 0;
    if (!free) {
        Unlock();
        return;
    }
    int64_t used = kIndexNodeHeaderOffset + static_cast<int64_t>(record->GetBytesInUse());
    if (used > size) used = size;
    // The device's form: the true words back in the array, the number at
    // the stretch ends.
    auto* raw = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(size)));
    if (raw == nullptr) {
        Unlock();
        return;
    }
    std::memcpy(raw, record->Image, static_cast<size_t>(size));
    ProtectUpdateSequence(raw, size);
    const uint16_t number = ReadU16(raw, ReadU16(raw, kIndexUpdateSequenceOffsetOffset));
    const bool tailZero = TailIsZeroButStretchEnds(raw, static_cast<int>(used), size, number);
    const int stored = tailZero ? static_cast<int>(used) : size;
    _KEPT_RECORD* kept = nullptr;
    if (KeptBytes + stored > KeptPlainBudget) {
        if (KeptWorkspace == nullptr) {
            KeptWorkspace = std::malloc(sizeof(_LZNT1_HASHED_WORKSPACE) + kLznt1PlainChunkBytes + 64);
        }
        if (KeptWorkspace != nullptr) {
            kept = Compress(raw, size, KeptWorkspace,
                            static_cast<uint8_t*>(KeptWorkspace) + sizeof(_LZNT1_HASHED_WORKSPACE));
        }
    }
    if (kept == nullptr) {
        kept = static_cast<_KEPT_RECORD*>(std::malloc(sizeof(_KEPT_RECORD) + static_cast<size_t>(stored)));
        if (kept != nullptr) {
            kept->Stored = stored;
            kept->TailZero = tailZero ? 1 : 0;
            kept->Compressed = 0;
            std::memcpy(kept + 1, raw, static_cast<size_t>(stored));
        }
    }
    std::free(raw);
    if (kept == nullptr || KeptRecords.Insert(record->GetVcn(), reinterpret_cast<intptr_t>(kept)) != 1) {
        std::free(kept);
        Unlock();
        return;
    }
    KeptBytes += kept->Stored;
    static_cast<CIndexEntry*>(parent)->ForgetChild();
    record->SetParentItem(nullptr);
    static_cast<CShareElement*>(record)->Release();
    Unlock();
}

bool CDirectory::TakeKeptImage(int64_t vcn, uint8_t* buffer) {
    intptr_t value = 0;
    if (!KeptRecords.Find(vcn, &value)) return false;
    KeptRecords.Remove(vcn);
    auto* kept = reinterpret_cast<_KEPT_RECORD*>(value);
    const int size = RecordSize;
    KeptBytes -= kept->Stored;
    if (kept->Compressed) {
        int32_t expanded = 0;
        DecompressBuffer(buffer, static_cast<uint32_t>(size), kept + 1, kept->Stored, &expanded);
    } else {
        std::memcpy(buffer, kept + 1, static_cast<size_t>(kept->Stored));
    }
    if (kept->TailZero) {
        std::memset(buffer + kept->Stored, 0, static_cast<size_t>(size - kept->Stored));
        const uint16_t number = ReadU16(buffer, ReadU16(buffer, kIndexUpdateSequenceOffsetOffset));
        for (int end = kUpdateSequenceStride - 2; end < size; end += kUpdateSequenceStride) {
            if (end >= kept->Stored) WriteU16(buffer, static_cast<size_t>(end), number);
        }
    }
    std::free(kept);
    return true;
}

}  // namespace ntfs
