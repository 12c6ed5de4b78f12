// CDirectory: index records an enumeration has passed, let go in a compact
// form and brought back from it.
//
// The compact form is the record as the device holds it (update sequence
// applied again): the header and the bytes in use as they are, and the rest
// either stored too or, in the usual case where it is zero but for the
// update sequence words at the stretch ends, only noted as such. Once the
// kept images of a directory pass kKeptPlainBudget, further ones are stored
// packed (foundation/byte_pack.h) when that is clearly smaller. A
// record brought back is made from those bytes exactly as from a read, so
// the tree and every later device call are the same as with the record kept
// open.
#include <cstdlib>
#include <cstring>

#include "foundation/byte_pack.h"
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
    int32_t Stored;    // bytes that follow
    int16_t TailZero;  // 1: they are the record's start, behind them zeros but
                       // the sequence number at each stretch end
    int16_t Packed;    // 1: they are the packed form of the bytes above
    int32_t Plain;     // bytes they stand for: the record, or its start
};

// What the scratch space of KeepPassedRecord holds.
struct _KEPT_WORKSPACE {
    _BYTE_PACK_WORKSPACE Pack;
    uint8_t Scratch[1];  // the record size, and room to spare
};

// The first `plain` bytes of `raw` packed into a new kept image, or null
// when that is not clearly smaller. The packing is not checked here: its
// round trip is tested and fuzzed on every input (foundation/byte_pack.h).
_KEPT_RECORD* Pack(const uint8_t* raw, int plain, bool tailZero, _KEPT_WORKSPACE* workspace) {
    const size_t limit = static_cast<size_t>(plain) * 7 / 8;
    const size_t length = PackBytes(raw, static_cast<size_t>(plain), workspace->Scratch, limit, &workspace->Pack);
    if (length == 0) return nullptr;
    auto* kept = static_cast<_KEPT_RECORD*>(std::malloc(sizeof(_KEPT_RECORD) + length));
    if (kept == nullptr) return nullptr;
    kept->Stored = static_cast<int32_t>(length);
    kept->TailZero = tailZero ? 1 : 0;
    kept->Packed = 1;
    kept->Plain = plain;
    std::memcpy(kept + 1, workspace->Scratch, length);
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
        // Zeroed: the packer's table starts empty.
        if (KeptWorkspace == nullptr) KeptWorkspace = std::calloc(1, sizeof(_KEPT_WORKSPACE) + size);
        if (KeptWorkspace != nullptr) kept = Pack(raw, stored, tailZero, static_cast<_KEPT_WORKSPACE*>(KeptWorkspace));
    }
    if (kept == nullptr) {
        kept = static_cast<_KEPT_RECORD*>(std::malloc(sizeof(_KEPT_RECORD) + static_cast<size_t>(stored)));
        if (kept != nullptr) {
            kept->Stored = stored;
            kept->TailZero = tailZero ? 1 : 0;
            kept->Packed = 0;
            kept->Plain = stored;
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
    if (kept->Packed) {
        // Made by Pack in this process: it unpacks whole.
        UnpackBytes(reinterpret_cast<const uint8_t*>(kept + 1), static_cast<size_t>(kept->Stored), buffer,
                    static_cast<size_t>(kept->Plain));
    } else {
        std::memcpy(buffer, kept + 1, static_cast<size_t>(kept->Stored));
    }
    if (kept->TailZero) {
        std::memset(buffer + kept->Plain, 0, static_cast<size_t>(size - kept->Plain));
        const uint16_t number = ReadU16(buffer, ReadU16(buffer, kIndexUpdateSequenceOffsetOffset));
        for (int end = kUpdateSequenceStride - 2; end < size; end += kUpdateSequenceStride) {
            if (end >= kept->Plain) WriteU16(buffer, static_cast<size_t>(end), number);
        }
    }
    std::free(kept);
    return true;
}

}  // namespace ntfs
