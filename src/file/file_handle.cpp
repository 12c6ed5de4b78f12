// CFileHandle: life, initialisation and the growth of non-resident data.
#include "file/file_handle.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "data/bitmap_data.h"
#include "file/find_handle.h"
#include "foundation/endian.h"
#include "foundation/log.h"
#include "index/index_entry.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "record/run_list.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {
constexpr int kMaxShortRetries = 64;
// Bounds valid compressed data stays far below: the compression unit exponent
// (4 on every volume) and an allocated size that leaves room for rounding up
// to a whole unit.
constexpr int kMaxCompressionUnitExponent = 8;
constexpr int64_t kLargestAllocatedSize = INT64_MAX / 2;
}  // namespace

CFileHandle::CFileHandle(CFindHandle* findHandle, CNTFSVolume* volume, unsigned int accessMode)
    : CShareElement(&volume->FileHandles),
      FindHandle(findHandle),
      Volume(volume),
      Path(nullptr),
      FileRecord(nullptr),
      Modified(0),
      DataSize(0),
      AllocatedSize(0),
      FilePointer(0),
      RecordNumber(0),
      AccessMode(accessMode),
      Resident(0),
      LastWriteTime{},
      LastReadTime{},
      Compressed(0),
      StreamName{},
      StreamNameLength(0),
      Deleted(0),
      UnwrittenRuns() {}

CFileHandle::~CFileHandle() {
    std::free(Path);
    if (FindHandle != nullptr) FindHandle->Release();
    if (FileRecord != nullptr) {
        // Deviation for safety: a deleted record that other handles still
        // hold is left to them (marked removed from the volume) instead of
        // being destroyed under them.
        if (Deleted && FileRecord->GetReferenceCount() <= 1)
            delete FileRecord;
        else
            FileRecord->Release();
    }
}

unsigned int CFileHandle::Initialize(const char16_t* path) {
    const int length = lstrlenW(path);
    Path = static_cast<char16_t*>(std::malloc((static_cast<size_t>(length) + 1) * sizeof(char16_t)));
    if (Path == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    for (int i = 0; i <= length; ++i) {
        Path[i] = FoldUnit(path[i]);
    }
    const unsigned int code = FindHandle->Revalidate();
    if (code != ERROR_SUCCESS) return code;
    CIndexEntry* item = FindHandle->CursorItem();
    if (item == nullptr) return ERROR_FILE_NOT_FOUND;
    const uint64_t reference = ReadU48(item->Entry, 0);
    RecordNumber = static_cast<int64_t>(reference << 16) >> 16;
    // Deviation for safety: without a record there is nothing to lock or
    // read, and going on would use a null record. Its failure, a device code
    // among them, is the answer as it came.
    const unsigned int referenced = Volume->ReferenceFileRecord(RecordNumber, &FileRecord);
    if (referenced != ERROR_SUCCESS) return referenced;
    if (FileRecord == nullptr) return ERROR_FILE_CORRUPT;
    FileRecord->LockShared();
    CAttribute* data = FileRecord->FindAttribute(AttributeData, nullptr, 0, 0);
    if (data == nullptr) {
        // A file without an unnamed data stream has nothing to read or write.
        FileRecord->UnlockShared();
        return ERROR_FILE_CORRUPT;
    }
    Compressed = (ReadU16(data->Header, kAttributeFlagsOffset) & kAttributeUnitFlagsMask) != 0 ? 1 : 0;
    DataSize = data->GetDataSize();
    Resident = data->IsResident() ? 1 : 0;
    if (Resident) {
        AllocatedSize = DataSize + data->Record->GetFreeSpace();
    } else {
        AllocatedSize = ReadI64(data->Header, kNonResidentAllocatedSizeOffset);
    }
    GetSystemTime(&LastReadTime);
    GetSystemTime(&LastWriteTime);
    FileRecord->UnlockShared();
    return ERROR_SUCCESS;
}

// The last piece of the unnamed $DATA: the instance holding the highest VCNs.
static CAttribute* LastDataPiece(CFullFileRecord* record) {
    CAttribute* last = nullptr;
    for (unsigned int index = 0;; ++index) {
        CAttribute* piece = record->FindAttribute(AttributeData, nullptr, 0, index);
        if (piece == nullptr) return last;
        last = piece;
    }
}

// A new piece of the unnamed $DATA for an extension record: non-resident,
// one run of `count` clusters at `lcn` (the run list restarts with each
// piece), VCNs from `firstVcn`, all sizes 0.
static CAttribute* BuildDataPiece(int64_t firstVcn, int64_t lcn, int count) {
    auto* piece = new (std::nothrow) CAttribute(kNonResidentHeaderSize + 8, 0, nullptr);
    if (piece == nullptr) return nullptr;
    if (!piece->Valid) {
        delete piece;
        return nullptr;
    }
    WriteU32(piece->Header, kAttributeTypeOffset, AttributeData);
    WriteU64(piece->Header, kNonResidentLowestVcnOffset, static_cast<uint64_t>(firstVcn));
    WriteU64(piece->Header, kNonResidentHighestVcnOffset, static_cast<uint64_t>(firstVcn - 1));
    CAttribute* self = nullptr;
    if (piece->AppendRun(lcn, count, &self) != ERROR_SUCCESS) {
        delete piece;
        return nullptr;
    }
    return piece;
}

unsigned int CFileHandle::SpillDataPiece(CAttribute* attribute, int64_t lcn, int take) {
    CFileRecord* extension = nullptr;
    unsigned int code = Volume->ReferenceEmptyFileRecordFromMFT(&extension, 0);
    if (code != ERROR_SUCCESS) return code;
    CAttribute* piece = nullptr;
    const int64_t last = attribute->GetHighestVcn();
    if (attribute->Record != nullptr && attribute->Record->Attributes.GetCount() > 1) {
        // The piece shares its record: it moves whole, with the new run.
        piece = attribute->Clone();
        CAttribute* self = nullptr;
        if (piece == nullptr || piece->AppendRun(lcn, take, &self) != ERROR_SUCCESS) code = ERROR_NOT_ENOUGH_MEMORY;
        if (code == ERROR_SUCCESS) {
            // Taken out of its record without rewriting the attribute list:
            // a rewrite here would write records in which the file has no
            // such piece at all until the spill completes. The spill's own
            // rewrite follows at once and covers the move.
            attribute->Record->RemoveAttribute(attribute);
            FileRecord->RebuildMergedTable();
        }
    } else {
        piece = BuildDataPiece(last + 1, lcn, take);
        if (piece == nullptr) code = ERROR_NOT_ENOUGH_MEMORY;
    }
    // The piece covers its new run before it is written anywhere.
    return PlacePiece(extension, piece, last + take, code);
}

unsigned int CFileHandle::PlacePiece(CFileRecord* extension, CAttribute* piece, int64_t highestVcn, unsigned int code) {
    if (code == ERROR_SUCCESS) {
        WriteU64(piece->Header, kNonResidentHighestVcnOffset, static_cast<uint64_t>(highestVcn));
        CAttribute* placed = extension->InsertAttribute(piece);
        if (placed == nullptr || placed->GetType() != AttributeData) code = ERROR_NOT_ENOUGH_MEMORY;
    }
    delete piece;
    if (code == ERROR_SUCCESS) code = FileRecord->AddExtensionRecord(extension);
    if (code != ERROR_SUCCESS) {
        (void)Volume->DeleteFileRecordFromMFT(extension->RecordNumber);
        delete extension;
    }
    return code;
}

unsigned int CFileHandle::SpillReservation(CAttribute* attribute, const uint8_t* run, int runBytes, int64_t reserved) {
    CFileRecord* extension = nullptr;
    unsigned int code = Volume->ReferenceEmptyFileRecordFromMFT(&extension, 0);
    if (code != ERROR_SUCCESS) return code;
    const int64_t last = attribute->GetHighestVcn();
    CAttribute* piece = nullptr;
    bool removed = false;
    if (attribute->Record != nullptr && attribute->Record->Attributes.GetCount() > 1) {
        // The piece shares its record: it moves whole, with the new run.
        piece = attribute->Clone();
        int end = piece != nullptr ? ReadU16(piece->Header, kNonResidentRunListOffsetOffset) : 0;
        for (_DATA_RUN decoded{}; piece != nullptr;) {
            const int step = DecodeDataRun(piece->Header, end, piece->Size, &decoded);
            if (step < 0) code = ERROR_FILE_CORRUPT;
            if (step <= 0) break;
            end += decoded.Bytes;
        }
        CAttribute* self = nullptr;
        if (piece == nullptr) code = ERROR_NOT_ENOUGH_MEMORY;
        if (code == ERROR_SUCCESS && end + runBytes > piece->Size) code = piece->SetSize(end + runBytes, &self);
        if (code == ERROR_SUCCESS) {
            std::memcpy(piece->Header + end, run, static_cast<size_t>(runBytes));
            attribute->Record->RemoveAttribute(attribute);
            FileRecord->RebuildMergedTable();
            removed = true;
        }
    } else {
        piece = new (std::nothrow) CAttribute(kNonResidentHeaderSize + 8, 0, nullptr);
        if (piece == nullptr || !piece->Valid) {
            code = ERROR_NOT_ENOUGH_MEMORY;
        } else {
            WriteU32(piece->Header, kAttributeTypeOffset, AttributeData);
            WriteU16(piece->Header, kAttributeFlagsOffset, ReadU16(attribute->Header, kAttributeFlagsOffset));
            WriteU64(piece->Header, kNonResidentLowestVcnOffset, static_cast<uint64_t>(last + 1));
            std::memcpy(piece->Header + ReadU16(piece->Header, kNonResidentRunListOffsetOffset), run,
                        static_cast<size_t>(runBytes));
        }
    }
    code = PlacePiece(extension, piece, last + reserved, code);
    // The records return to what was last written, the moved piece with them.
    if (code != ERROR_SUCCESS && removed) FileRecord->Revert();
    return code;
}

void CFileHandle::FreeUnwrittenRuns() {
    for (int i = 0; i + 1 < UnwrittenRuns.GetCount(); i += 2) {
        int64_t lcn = UnwrittenRuns.Get(i);
        (void)Volume->FreeClusters(&lcn, static_cast<int>(UnwrittenRuns.Get(i + 1)));
    }
    UnwrittenRuns.Clear();
}

unsigned int CFileHandle::AllocateClusters(unsigned int clusters) {
    CAttribute* attribute = LastDataPiece(FileRecord);
    if (attribute == nullptr) return ERROR_FILE_CORRUPT;
    const int64_t clusterSize = Volume->GetClusterSize();
    const int64_t start = attribute->GetLowestVcn();
    const int64_t last = attribute->GetHighestVcn();
    // VCNs whose byte offsets do not fit in 64 bits are damage like any other
    // disagreement between the handle and the run list.
    int64_t startBytes = 0;
    int64_t endBytes = 0;
    if (__builtin_mul_overflow(start, clusterSize, &startBytes) || last == INT64_MAX ||
        __builtin_mul_overflow(last + 1, clusterSize, &endBytes) || startBytes > AllocatedSize ||
        endBytes < AllocatedSize) {
        return ERROR_FILE_CORRUPT;
    }
    UnwrittenRuns.Clear();
    if (clusters == 0) return ERROR_SUCCESS;
    int64_t missing = clusters;
    int wanted = static_cast<int>(clusters);
    // UnwrittenRuns holds the clusters taken since the records were last
    // written, to be given back when the growth fails; the records return
    // to what was last written.
    int64_t written = 0;  // clusters made part of the file on disk by a spill
    auto fail = [&](unsigned int code) {
        FreeUnwrittenRuns();
        FileRecord->Revert();
        if (written > 0) {
            // A spill has already written pieces that map these clusters:
            // they stay the file's, and its allocated size covers them.
            CAttribute* first = FileRecord->FindAttribute(AttributeData, nullptr, 0, 0);
            const int64_t bytes = written * clusterSize;
            WriteU64(first->Header, kNonResidentAllocatedSizeOffset,
                     static_cast<uint64_t>(ReadI64(first->Header, kNonResidentAllocatedSizeOffset) + bytes));
            first->Mark();
            if (Volume->WriteGrownRecord(FileRecord) == ERROR_SUCCESS) AllocatedSize += bytes;
        }
        return code;
    };
    // Each retry after a short answer asks for the longest stretch reported;
    // valid bitmaps answer it at once, so a bound only stops a damaged one.
    int retries = 0;
    while (missing > 0) {
        int64_t lcn = 0;
        int got = 0;
        unsigned int code = Volume->SearchSpareClusterAndAllocate(wanted, &lcn, &got, 0);
        if (code == ERROR_HANDLE_DISK_FULL && got != 0 && ++retries < kMaxShortRetries) {
            // Take the longest free stretch the bitmap reports.
            wanted = got;
            continue;
        }
        if (code != ERROR_SUCCESS) return fail(code);
        // The bitmap marks no more than was asked for, though the run it
        // reports may be a few clusters longer: taking the reported length
        // would map clusters that stay free, and the next allocation would
        // hand them out again under data already written there.
        int take = got < wanted ? got : wanted;
        if (take > missing) take = static_cast<int>(missing);
        if (UnwrittenRuns.InsertAfter(UnwrittenRuns.GetCount(), static_cast<intptr_t>(lcn)) == -2 ||
            UnwrittenRuns.InsertAfter(UnwrittenRuns.GetCount(), static_cast<intptr_t>(take)) == -2) {
            if (UnwrittenRuns.GetCount() % 2 != 0) UnwrittenRuns.RemoveAt(UnwrittenRuns.GetCount() - 1);
            (void)Volume->FreeClusters(&lcn, take);
            return fail(ERROR_NOT_ENOUGH_MEMORY);
        }
        CAttribute* appended = nullptr;
        code = attribute->AppendRun(lcn, take, &appended);
        if (code == ERROR_INSUFFICIENT_BUFFER) {
            // The piece has filled its record: the run opens a piece in a new
            // extension record, and the records are written with it.
            code = SpillDataPiece(attribute, lcn, take);
            if (code != ERROR_SUCCESS) return fail(code);
            FileRecord->Commit();
            written = static_cast<int64_t>(clusters) - missing + take;
            UnwrittenRuns.Clear();
            attribute = LastDataPiece(FileRecord);
            if (attribute == nullptr) return fail(ERROR_FILE_CORRUPT);
        } else if (code != ERROR_SUCCESS) {
            return fail(code);
        } else {
            WriteU64(attribute->Header, kNonResidentHighestVcnOffset,
                     static_cast<uint64_t>(attribute->GetHighestVcn() + take));
            attribute->Mark();
        }
        missing -= take;
        if (wanted > missing) wanted = static_cast<int>(missing);
    }
    return ERROR_SUCCESS;
}

unsigned int CFileHandle::ReserveCompressedClusters(unsigned int* clusters) {
    UnwrittenRuns.Clear();
    CAttribute* first = FileRecord->FindAttribute(AttributeData, nullptr, 0, 0);
    CAttribute* last = LastDataPiece(FileRecord);
    if (first == nullptr || last == nullptr || first->IsResident()) return ERROR_FILE_CORRUPT;
    const int64_t clusterSize = Volume->GetClusterSize();
    const int exponent = ReadU8(first->Header, kNonResidentCompressionUnitOffset);
    const int64_t allocated = ReadI64(first->Header, kNonResidentAllocatedSizeOffset);
    // A unit or an allocated size that valid data never has would overflow
    // the rounding below.
    if (exponent > kMaxCompressionUnitExponent || allocated < 0 || allocated > kLargestAllocatedSize) {
        return ERROR_FILE_CORRUPT;
    }
    const int64_t unit = int64_t{1} << exponent;
    const int64_t reserved =
        (allocated + (static_cast<int64_t>(*clusters) - 1 + unit) * clusterSize) / (clusterSize * unit) * unit -
        allocated / clusterSize;
    if (reserved <= 0) {
        *clusters = 0;
        return ERROR_SUCCESS;
    }
    // One run of a zero delta: address space at the previous LCN, not a hole.
    uint8_t run[kMaxEncodedRunSize];
    const int runBytes = EncodeDataRun(reserved, 0, run);
    const int runListOffset = ReadU16(last->Header, kNonResidentRunListOffsetOffset);
    int end = runListOffset;
    for (;;) {
        _DATA_RUN decoded{};
        const int step = DecodeDataRun(last->Header, end, last->Size, &decoded);
        if (step < 0) return ERROR_FILE_CORRUPT;
        if (step == 0) break;
        end += decoded.Bytes;
    }
    const int needed = end + runBytes;
    if (needed > last->Size) {
        CAttribute* resized = nullptr;
        const unsigned int code = last->SetSize(needed, &resized);
        if (code == ERROR_INSUFFICIENT_BUFFER) {
            // The record is full: the reservation goes on in a new extension
            // record. A new piece starts its own run list, so its zero delta
            // repeats cluster 0; like every run with an LCN field of 0 in
            // this data it owns nothing, and the write that comes takes
            // clusters for it before anything is written there.
            const unsigned int spilled = SpillReservation(last, run, runBytes, reserved);
            if (spilled == ERROR_SUCCESS) *clusters = static_cast<unsigned int>(reserved);
            return spilled;
        }
        if (code != ERROR_SUCCESS) return code;
    }
    std::memcpy(last->Header + end, run, static_cast<size_t>(runBytes));
    WriteU64(last->Header, kNonResidentHighestVcnOffset,
             static_cast<uint64_t>(last->GetHighestVcn()) + static_cast<uint64_t>(reserved));
    last->Mark();
    *clusters = static_cast<unsigned int>(reserved);
    return ERROR_SUCCESS;
}

}  // namespace ntfs
