// Rewriting the mapping pairs of one compression unit: the unit gains real
// clusters for its holes (RemapCompressionUnit, MergeAndExtendRuns) or gives
// the clusters of its tail back (ReleaseUnitTail). Only the runs of the unit
// and the neighbours whose encoding changes with it are rewritten; the bytes
// of the other runs of the piece stay as they are. A run list that no longer
// fits its record goes on in a new extension record.
//
// Holes written here carry an LCN field of one byte holding 0. Readers take
// such an entry for a real run at the running LCN, so the clusters behind a
// hole written here read as the clusters of the run before it. That
// encoding is meant and stays.
//
// A run with an LCN delta of 0, in either form (no LCN field, or a field
// holding 0), owns no clusters of its own: whatever it maps belongs to the
// run whose LCN it repeats, or at the start of a piece to cluster 0, the
// boot sector. Here such a run is a hole: it is filled with new clusters
// and never freed.
//
// Members of CFullFileRecord; callers hold the record's exclusive lock.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "data/bitmap_data.h"
#include "foundation/endian.h"
#include "foundation/log.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "record/run_list.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

// One run of a piece as its list holds it.
struct _PIECE_RUN {
    int Position;  // of the header byte, in the attribute
    int Bytes;
    int64_t Vcn;
    int64_t Length;
    int64_t Lcn;          // absolute; for a hole the running LCN
    int64_t PreviousLcn;  // the running LCN before the run
    bool Hole;
};

struct _PIECE_RUNS {
    _PIECE_RUN* Runs = nullptr;
    int Count = 0;
    int End = 0;  // the end byte of the list
    _PIECE_RUNS() = default;
    _PIECE_RUNS(const _PIECE_RUNS&) = delete;
    _PIECE_RUNS& operator=(const _PIECE_RUNS&) = delete;
    ~_PIECE_RUNS() { std::free(Runs); }
};

struct FreeDeleter {
    void operator()(void* block) const { std::free(block); }
};

// Holes longer than this come only from damaged lists; the sums below stay
// far from 64 bits with it.
constexpr int64_t kLongestRun = int64_t{1} << 48;

// Decodes every run of `piece`. A real run must lie inside the volume and
// away from cluster 0; anything else is damage.
unsigned int DecodePiece(const CAttribute* piece, int64_t volumeClusters, _PIECE_RUNS* out) {
    const int start = ReadU16(piece->Header, kNonResidentRunListOffsetOffset);
    _DATA_RUN run{};
    int count = 0;
    int position = start;
    for (;;) {
        const int found = DecodeDataRun(piece->Header, position, piece->Size, &run);
        if (found < 0) return ERROR_FILE_CORRUPT;
        if (found == 0) break;
        ++count;
        position += run.Bytes;
    }
    out->End = position;
    out->Runs = static_cast<_PIECE_RUN*>(std::calloc(static_cast<size_t>(count > 0 ? count : 1), sizeof(_PIECE_RUN)));
    if (out->Runs == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    int64_t vcn = piece->GetLowestVcn();
    int64_t lcn = 0;
    position = start;
    for (int i = 0; i < count; ++i) {
        if (DecodeDataRun(piece->Header, position, piece->Size, &run) != 1) return ERROR_FILE_CORRUPT;
        _PIECE_RUN& entry = out->Runs[i];
        if (run.Length <= 0 || run.Length > kLongestRun || vcn < 0 || vcn > kLongestRun) return ERROR_FILE_CORRUPT;
        entry.Position = position;
        entry.Bytes = run.Bytes;
        entry.Vcn = vcn;
        entry.Length = run.Length;
        entry.PreviousLcn = lcn;
        entry.Hole = run.OffsetBytes == 0 || run.Offset == 0;
        if (!entry.Hole) {
            if (run.Offset < -lcn || run.Offset > volumeClusters - lcn) return ERROR_FILE_CORRUPT;
            lcn += run.Offset;
            if (lcn <= 0 || run.Length > volumeClusters - lcn) return ERROR_FILE_CORRUPT;
        }
        entry.Lcn = lcn;
        vcn += run.Length;
        position += run.Bytes;
    }
    out->Count = count;
    return ERROR_SUCCESS;
}

// Replaces the bytes [regionStart, regionEnd) of the run list of
// `attribute`, whose end byte stands at `listEnd`, with `bytes`. The
// attribute grows first when it must (a failure changes nothing) and
// shrinks after the move.
unsigned int SpliceRuns(CAttribute* attribute, int regionStart, int regionEnd, int listEnd, const uint8_t* bytes,
                        int newBytes) {
    const int tail = listEnd + 1 - regionEnd;
    const int used = regionStart + newBytes + tail;
    CAttribute* self = nullptr;
    if (used > attribute->Size) {
        const unsigned int code = attribute->SetSize(used, &self);
        if (code != ERROR_SUCCESS) return code;
    }
    std::memmove(attribute->Header + regionStart + newBytes, attribute->Header + regionEnd, static_cast<size_t>(tail));
    std::memcpy(attribute->Header + regionStart, bytes, static_cast<size_t>(newBytes));
    if (((used + 7) & ~7) < attribute->Size) (void)attribute->SetSize(used, &self);
    attribute->Mark();
    return ERROR_SUCCESS;
}

// Puts the image `original` back over `attribute` in its record.
void RestorePiece(CAttribute* attribute, const CAttribute& original) {
    CAttribute* self = nullptr;
    if (attribute->SetSize(original.Size, &self) != ERROR_SUCCESS) return;
    std::memcpy(attribute->Header, original.Header, static_cast<size_t>(original.Size));
    attribute->Mark();
}

bool HasCompressedSize(const CAttribute* attribute) {
    return ReadU16(attribute->Header, kNonResidentRunListOffsetOffset) >= kCompressedNonResidentHeaderSize;
}

// The compression unit border nearest the middle of the bytes of the run
// list of `piece`, strictly inside its VCNs; -1 when there is none. Cut
// there, both halves fit a record, and no unit is split between pieces.
int64_t MiddleUnitBorder(const CAttribute* piece, int64_t clustersPerUnit) {
    const int start = ReadU16(piece->Header, kNonResidentRunListOffsetOffset);
    int end = start;
    _DATA_RUN run{};
    while (DecodeDataRun(piece->Header, end, piece->Size, &run) == 1) end += run.Bytes;
    int position = start;
    int64_t vcn = piece->GetLowestVcn();
    while (DecodeDataRun(piece->Header, position, piece->Size, &run) == 1 && position + run.Bytes < (start + end) / 2) {
        position += run.Bytes;
        vcn += run.Length;
    }
    const int64_t lowest = piece->GetLowestVcn();
    const int64_t highest = piece->GetHighestVcn();
    int64_t border = (vcn + clustersPerUnit / 2) / clustersPerUnit * clustersPerUnit;
    if (border <= lowest) border = (lowest / clustersPerUnit + 1) * clustersPerUnit;
    if (border > highest) border = highest / clustersPerUnit * clustersPerUnit;
    return border > lowest && border <= highest ? border : -1;
}

// The piece `piece`, rewritten, no longer fits its record. A piece that
// shares its record moves whole into a new extension record; a piece alone
// in its record is cut at a unit border near the middle of its list, and
// the part from there on goes to the new record. On failure the piece is as
// it was.
unsigned int SpillPiece(CFullFileRecord* file, CAttribute* piece, const CAttribute& original, int regionStart,
                        int regionEnd, int listEnd, const uint8_t* bytes, int newBytes, int64_t clustersPerUnit) {
    CNTFSVolume* volume = file->GetVolume();
    std::unique_ptr<CAttribute> copy(original.Clone());
    if (copy == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    unsigned int code = SpliceRuns(copy.get(), regionStart, regionEnd, listEnd, bytes, newBytes);
    if (code != ERROR_SUCCESS) return code;
    CFileRecord* holder = piece->Record;
    const bool alone = holder->Attributes.GetCount() == 1;
    std::unique_ptr<CAttribute> moved;
    if (alone) {
        const int64_t lowest = copy->GetLowestVcn();
        const int64_t split = MiddleUnitBorder(copy.get(), clustersPerUnit);
        if (split < 0) return ERROR_INSUFFICIENT_BUFFER;
        moved.reset(copy->SplitAttribute(split - lowest, HasCompressedSize(copy.get()) ? 1 : 0));
        if (moved == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
        WriteU16(moved->Header, kAttributeFlagsOffset, ReadU16(copy->Header, kAttributeFlagsOffset));
        // The part before the cut is about half the list: it fits.
        CAttribute* self = nullptr;
        code = piece->SetSize(copy->Size, &self);
        if (code != ERROR_SUCCESS) return code;
        std::memcpy(piece->Header, copy->Header, static_cast<size_t>(copy->Size));
        piece->Mark();
    } else {
        moved = std::move(copy);
    }
    CFileRecord* extension = nullptr;
    code = volume->ReferenceEmptyFileRecordFromMFT(&extension, 0);
    if (code != ERROR_SUCCESS) {
        RestorePiece(piece, original);
        return code;
    }
    if (!alone) {
        holder->RemoveAttribute(piece);
        file->RebuildMergedTable();
    }
    CAttribute* placed = extension->InsertAttribute(moved.get());
    if (placed == nullptr || placed->GetType() != moved->GetType()) code = ERROR_INSUFFICIENT_BUFFER;
    if (code == ERROR_SUCCESS) code = file->AddExtensionRecord(extension);
    if (code != ERROR_SUCCESS) {
        (void)volume->DeleteFileRecordFromMFT(extension->RecordNumber);
        delete extension;
        if (alone) {
            RestorePiece(piece, original);
        } else {
            (void)holder->InsertAttribute(const_cast<CAttribute*>(&original));
            file->RebuildMergedTable();
        }
    }
    return code;
}

// The unit at a cursor as records: the part of the first run in front of
// the unit, the unit, the rest of its last run, the holes behind it, and the
// real run after them, whose delta changes with the unit's runs.
struct _UNIT_RECORDS {
    CAttribute* Piece = nullptr;
    _PIECE_RUNS Runs;
    std::unique_ptr<_RUN_RECORD, FreeDeleter> Records;
    std::unique_ptr<uint8_t, FreeDeleter> Encoded;
    int Count = 0;
    int RegionStart = 0;  // the pairs the records replace, in the piece
    int RegionEnd = 0;
    int32_t RealClusters = 0;  // up to the end of the unit's last real run
    int64_t UnitStart = 0;
    int64_t UnitEnd = 0;
    int64_t UnitClusters = 0;  // of the whole unit, of which this may be a part
};

// `clustersPerUnit` clusters from the cursor's VCN, all in its piece: a
// unit, or the part of one that lies in one piece.
unsigned int CollectUnit(CFullFileRecord* file, const _RUN_CURSOR& cursor, int32_t clustersPerUnit,
                         _UNIT_RECORDS* unit) {
    CClusterBitmap* bitmap = file->GetVolume()->GetClusterBitmap();
    if (clustersPerUnit <= 0 || bitmap == nullptr || cursor.Piece < 0) return ERROR_INVALID_PARAMETER;
    CAttribute* piece = file->FindAttribute(cursor.AttributeType, cursor.Name, cursor.NameLength,
                                            static_cast<unsigned int>(cursor.Piece));
    if (piece == nullptr || piece->IsResident() || !piece->BodyFits()) return ERROR_FILE_CORRUPT;
    unit->Piece = piece;
    unit->UnitStart = cursor.Vcn;
    unit->UnitEnd = cursor.Vcn + clustersPerUnit;
    unit->UnitClusters = clustersPerUnit;
    const int64_t unitStart = unit->UnitStart;
    const int64_t unitEnd = unit->UnitEnd;
    // Runs that go on in the next piece: 50, nothing changed. Closing pieces
    // and opening new ones around a unit is not built; a unit whose every
    // cluster is wanted is filled piece by piece instead (below).
    if (unitStart < piece->GetLowestVcn() || unitEnd - 1 > piece->GetHighestVcn()) return ERROR_NOT_SUPPORTED;

    _PIECE_RUNS& runs = unit->Runs;
    const unsigned int code = DecodePiece(piece, bitmap->GetItemCount(), &runs);
    if (code != ERROR_SUCCESS) return code;
    int first = -1;
    int last = -1;
    for (int i = 0; i < runs.Count; ++i) {
        const int64_t end = runs.Runs[i].Vcn + runs.Runs[i].Length;
        if (first < 0 && end > unitStart) first = i;
        if (first >= 0 && end >= unitEnd) {
            last = i;
            break;
        }
    }
    // The piece's runs end before the VCNs its header claims.
    if (first < 0 || last < 0) return ERROR_FILE_CORRUPT;

    const int capacity = clustersPerUnit + 2 * (last - first + 1) + 6;
    unit->Records.reset(static_cast<_RUN_RECORD*>(std::calloc(static_cast<size_t>(capacity), sizeof(_RUN_RECORD))));
    unit->Encoded.reset(static_cast<uint8_t*>(std::malloc(static_cast<size_t>(capacity) * kMaxEncodedRunSize + 1)));
    if (unit->Records == nullptr || unit->Encoded == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    _RUN_RECORD* records = unit->Records.get();
    int& count = unit->Count;
    auto add = [&](const _PIECE_RUN& from, int64_t lcn, int64_t length, uint16_t boundary) {
        _RUN_RECORD& record = records[count++];
        record.Lcn = lcn;
        record.Length = length;
        record.PieceOrdinal = static_cast<uint16_t>(cursor.Piece);
        record.Boundary = boundary;
        record.EncodedRun = piece->Header + from.Position;
        record.PreviousLcn = from.PreviousLcn;
    };
    // Behind the unit a hole joins a hole in front of it.
    auto addBehind = [&](const _PIECE_RUN& from, int64_t lcn, int64_t length) {
        if (lcn == 0 && records[count - 1].Lcn == 0) {
            records[count - 1].Length += length;
        } else {
            add(from, lcn, length, 1);
        }
    };
    int64_t collected = 0;
    for (int i = first; i <= last; ++i) {
        const _PIECE_RUN& run = runs.Runs[i];
        const int64_t from = (unitStart > run.Vcn ? unitStart : run.Vcn) - run.Vcn;
        const int64_t to = (unitEnd < run.Vcn + run.Length ? unitEnd : run.Vcn + run.Length) - run.Vcn;
        if (i == first && from > 0) add(run, run.Hole ? 0 : run.Lcn, from, 1);
        add(run, run.Hole ? 0 : run.Lcn + from, to - from, 0);
        collected += to - from;
        if (!run.Hole) unit->RealClusters = static_cast<int32_t>(collected);
        if (i == last && to < run.Length) addBehind(run, run.Hole ? 0 : run.Lcn + to, run.Length - to);
    }
    int next = last + 1;
    while (next < runs.Count && runs.Runs[next].Hole) {
        addBehind(runs.Runs[next], 0, runs.Runs[next].Length);
        ++next;
    }
    if (next < runs.Count) {
        add(runs.Runs[next], runs.Runs[next].Lcn, runs.Runs[next].Length, 1);
        ++next;
    }
    unit->RegionStart = runs.Runs[first].Position;
    unit->RegionEnd = runs.Runs[next - 1].Position + runs.Runs[next - 1].Bytes;
    return ERROR_SUCCESS;
}

// Encodes `count` records into `encoded`, from the running LCN in front of
// the first, and returns the bytes with the end byte. A hole takes an LCN
// field of one byte holding 0.
int32_t EncodeRecords(const _RUN_RECORD* records, int count, uint8_t* encoded) {
    int64_t running = records[0].PreviousLcn;
    int at = 0;
    for (int i = 0; i < count; ++i) {
        int64_t delta = 0;
        if (records[i].Lcn != 0) {
            delta = records[i].Lcn - running;
            running = records[i].Lcn;
        }
        at += EncodeDataRun(records[i].Length, delta, encoded + at) - 1;
    }
    encoded[at++] = 0;
    return at;
}

// Puts the encoded records of `unit` in place of its old pairs; a full
// record opens an extension record.
unsigned int PlaceUnit(CFullFileRecord* file, _UNIT_RECORDS* unit, const CAttribute& original, int32_t encodedSize) {
    unsigned int code = SpliceRuns(unit->Piece, unit->RegionStart, unit->RegionEnd, unit->Runs.End, unit->Encoded.get(),
                                   encodedSize - 1);
    if (code == ERROR_INSUFFICIENT_BUFFER) {
        code = SpillPiece(file, unit->Piece, original, unit->RegionStart, unit->RegionEnd, unit->Runs.End,
                          unit->Encoded.get(), encodedSize - 1, unit->UnitClusters);
    }
    return code;
}

// Adds `clusters` to the compressed size of piece 0 (when its header has
// one) and `dataClusters` to its data and initialized sizes, then writes the
// records and commits what was written.
unsigned int UpdateSizes(CFullFileRecord* file, const _RUN_CURSOR& cursor, int64_t clusters, int64_t dataClusters) {
    CNTFSVolume* volume = file->GetVolume();
    CAttribute* head = file->FindAttribute(cursor.AttributeType, cursor.Name, cursor.NameLength, 0);
    if (head == nullptr || head->IsResident()) return ERROR_FILE_CORRUPT;
    const int64_t clusterSize = volume->GetClusterSize();
    const uint64_t grown = static_cast<uint64_t>(dataClusters * clusterSize);
    WriteU64(head->Header, kNonResidentDataSizeOffset, ReadU64(head->Header, kNonResidentDataSizeOffset) + grown);
    WriteU64(head->Header, kNonResidentInitializedSizeOffset,
             ReadU64(head->Header, kNonResidentInitializedSizeOffset) + grown);
    if (HasCompressedSize(head)) {
        WriteU64(
            head->Header, kNonResidentCompressedSizeOffset,
            ReadU64(head->Header, kNonResidentCompressedSizeOffset) + static_cast<uint64_t>(clusters * clusterSize));
    }
    head->Mark();
    file->MarkModified();
    int64_t changed = 0;
    if (!volume->UpdateFileRecord(file, nullptr, nullptr, &changed)) return volume->GetLastError();
    // What is on disk now is what a later failed change returns to.
    file->Commit();
    return ERROR_SUCCESS;
}

}  // namespace

unsigned int CFullFileRecord::MergeAndExtendRuns(_RUN_RECORD* records, int32_t* recordCount, int32_t clustersWanted,
                                                 uint8_t* encoded, int32_t* encodedSize, int32_t* allocated) {
    *allocated = 0;
    int count = *recordCount;
    if (count == 0) {
        encoded[0] = 0;
        *encodedSize = 1;
        return ERROR_SUCCESS;
    }
    // 1. Neighbours of one kind merge: real runs that follow on, and holes.
    for (int i = count - 2; i >= 0; --i) {
        _RUN_RECORD& run = records[i];
        const _RUN_RECORD& next = records[i + 1];
        if (run.Boundary != 0) continue;
        const bool holes = run.Lcn == 0 && next.Lcn == 0;
        const bool follows = run.Lcn != 0 && next.Lcn != 0 && run.Lcn + run.Length == next.Lcn;
        if (!holes && !follows) continue;
        run.Length += next.Length;
        std::memmove(&records[i + 1], &records[i + 2], sizeof(_RUN_RECORD) * static_cast<size_t>(count - i - 2));
        --count;
    }
    // 2. The unit starts behind the leading boundary record; the clusters
    //    wanted are the first `clustersWanted` of it.
    int first = 0;
    int64_t unitStart = 0;
    while (first < count && records[first].Boundary != 0) unitStart += records[first++].Length;
    const int64_t windowEnd = unitStart + clustersWanted;
    // Deviation for safety: the clusters taken are those of the holes inside
    // the window, placed into the holes in order, and not the window less the
    // leading real clusters put into the first hole alone. Where the first
    // hole is shorter than that difference (real runs follow it inside the
    // unit), the new run would be longer than the hole it replaces, the unit
    // would grow and every later cluster of the file would move to another
    // VCN. Where the first hole covers the window's rest both agree.
    int64_t need = 0;
    int64_t position = unitStart;
    for (int i = first; i < count && position < windowEnd; ++i) {
        const int64_t inWindow = records[i].Length < windowEnd - position ? records[i].Length : windowEnd - position;
        if (records[i].Lcn == 0) need += inWindow;
        position += records[i].Length;
    }
    if (need > 0) {
        if (need > INT32_MAX) return ERROR_INVALID_PARAMETER;
        int64_t start = 0;
        int got = 0;
        const unsigned int code = CFileRecord::Volume->SearchSpareClusterAndAllocateWithLeastItemNumber(
            static_cast<int>(need), &start, &got, static_cast<int>(need), 0);
        if (code != ERROR_SUCCESS) return code;
        int64_t lcn = start;
        position = unitStart;
        for (int i = first; i < count && position < windowEnd; ++i) {
            _RUN_RECORD& run = records[i];
            const int64_t length = run.Length;
            if (run.Lcn == 0) {
                const int64_t inWindow = length < windowEnd - position ? length : windowEnd - position;
                if (inWindow < length) {
                    // The rest of the hole stays a hole behind the new run.
                    std::memmove(&records[i + 2], &records[i + 1],
                                 sizeof(_RUN_RECORD) * static_cast<size_t>(count - i - 1));
                    records[i + 1] = run;
                    records[i + 1].Length = length - inWindow;
                    ++count;
                }
                // New clusters have no pair in the record image yet.
                run.Lcn = lcn;
                run.Length = inWindow;
                run.EncodedRun = nullptr;
                lcn += inWindow;
            }
            position += length;
        }
        *allocated = static_cast<int32_t>(need);
    }
    *encodedSize = EncodeRecords(records, count, encoded);
    *recordCount = count;
    return ERROR_SUCCESS;
}

namespace {

// Fills the holes of the first `clustersWanted` clusters of `unit` (all in
// one piece) with new clusters; when it took any, the pairs are replaced,
// piece 0's sizes grow by them and the records are written. A failure
// gives the new clusters back and leaves the piece as it was.
unsigned int FillUnit(CFullFileRecord* file, const _RUN_CURSOR& cursor, _UNIT_RECORDS* unit, int32_t clustersWanted) {
    // The image before the change, for the way back.
    std::unique_ptr<CAttribute> original(unit->Piece->Clone());
    if (original == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    _RUN_RECORD* records = unit->Records.get();
    int32_t recordCount = unit->Count;
    int32_t encodedSize = 0;
    int32_t allocated = 0;
    unsigned int code =
        file->MergeAndExtendRuns(records, &recordCount, clustersWanted, unit->Encoded.get(), &encodedSize, &allocated);
    if (code != ERROR_SUCCESS) return code;
    // A unit that has the clusters already keeps its pairs as they are.
    if (allocated == 0) return ERROR_SUCCESS;
    code = PlaceUnit(file, unit, *original, encodedSize);
    if (code != ERROR_SUCCESS) {
        // Nothing maps the new clusters: they go back.
        for (int i = 0; i < recordCount; ++i) {
            if (records[i].EncodedRun != nullptr || records[i].Lcn == 0) continue;
            int64_t start = records[i].Lcn;
            (void)file->GetVolume()->FreeClusters(&start, static_cast<int>(records[i].Length));
        }
        return code;
    }
    // 11. The sizes of piece 0 follow the clusters taken; the handle sets the
    //     final sizes at close.
    return UpdateSizes(file, cursor, allocated, allocated);
}

}  // namespace

unsigned int CFullFileRecord::RemapCompressionUnit(_RUN_CURSOR* cursor, int32_t clustersPerUnit, int32_t clustersWanted,
                                                   int32_t* realClusters) {
    *realClusters = 0;
    if (clustersWanted < 0 || clustersWanted > clustersPerUnit || cursor->Piece < 0) return ERROR_INVALID_PARAMETER;
    _UNIT_RECORDS unit;
    unsigned int code = CollectUnit(this, *cursor, clustersPerUnit, &unit);
    if (code == ERROR_NOT_SUPPORTED && clustersWanted == clustersPerUnit) {
        // The unit's runs go on in the next pieces. Every cluster of it is
        // wanted, so each piece's part of it gets its holes filled in its own
        // piece, and no piece border moves.
        for (int64_t vcn = cursor->Vcn; vcn < cursor->Vcn + clustersPerUnit;) {
            _RUN_CURSOR part = *cursor;
            part.Piece = -1;
            for (unsigned int index = 0;; ++index) {
                CAttribute* piece = FindAttribute(cursor->AttributeType, cursor->Name, cursor->NameLength, index);
                if (piece == nullptr || piece->IsResident()) return ERROR_FILE_CORRUPT;
                if (vcn >= piece->GetLowestVcn() && vcn <= piece->GetHighestVcn()) {
                    part.Piece = static_cast<int32_t>(index);
                    part.Vcn = vcn;
                    const int64_t end = piece->GetHighestVcn() + 1 < cursor->Vcn + clustersPerUnit
                                            ? piece->GetHighestVcn() + 1
                                            : cursor->Vcn + clustersPerUnit;
                    const int32_t length = static_cast<int32_t>(end - vcn);
                    _UNIT_RECORDS share;
                    code = CollectUnit(this, part, length, &share);
                    if (code == ERROR_SUCCESS) {
                        if (share.RealClusters > 0) {
                            *realClusters = static_cast<int32_t>(vcn - cursor->Vcn) + share.RealClusters;
                        }
                        share.UnitClusters = clustersPerUnit;
                        code = FillUnit(this, part, &share, length);
                    }
                    if (code != ERROR_SUCCESS) return code;
                    vcn = end;
                    break;
                }
            }
        }
        return ERROR_SUCCESS;
    }
    if (code != ERROR_SUCCESS) return code;
    *realClusters = unit.RealClusters;
    if (clustersWanted == 0) return ERROR_SUCCESS;
    return FillUnit(this, *cursor, &unit, clustersWanted);
}

}  // namespace ntfs

namespace ntfs {

unsigned int CFullFileRecord::ReleaseUnitTail(_RUN_CURSOR* cursor, uint32_t surplus, int32_t clustersPerUnit) {
    // 1. Rewind: the cursor finds its piece again from piece 0.
    cursor->RunOffset = cursor->Vcn;
    cursor->HighestVcn = -1;
    cursor->Piece = -1;
    unsigned int code = AdvanceRunCursor(cursor);
    if (code != ERROR_SUCCESS) return code;
    // 2. and 3. The unit's records.
    _UNIT_RECORDS unit;
    code = CollectUnit(this, *cursor, clustersPerUnit, &unit);
    if (code != ERROR_SUCCESS) return code;
    _RUN_RECORD* records = unit.Records.get();
    int count = unit.Count;
    int first = 0;
    while (first < count && records[first].Boundary != 0) ++first;
    // 4. The real clusters up to the first hole, and those that stay.
    int64_t real = 0;
    int firstHole = first;
    while (firstHole < count && records[firstHole].Boundary == 0 && records[firstHole].Lcn != 0) {
        real += records[firstHole++].Length;
    }
    // Deviation for safety: a surplus beyond the real clusters would have
    // the release take clusters the unit does not own (a hole's, which are
    // another run's or the boot sector's). It ends with 87, nothing changed.
    if (surplus == 0 || surplus > real) return ERROR_INVALID_PARAMETER;
    std::unique_ptr<CAttribute> original(unit.Piece->Clone());
    if (original == nullptr) return ERROR_NOT_ENOUGH_MEMORY;

    // 5. and 6. The last `surplus` real clusters become a hole where they
    //    stood; what they were is kept for the release.
    struct _FREED {
        int64_t Lcn;
        int64_t Length;
    };
    std::unique_ptr<_FREED, FreeDeleter> freed(
        static_cast<_FREED*>(std::calloc(static_cast<size_t>(count) + 1, sizeof(_FREED))));
    if (freed == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    int freedCount = 0;
    const int64_t running = records[0].PreviousLcn;
    int64_t keep = real - surplus;
    int at = first;
    while (at < firstHole && keep >= records[at].Length) keep -= records[at++].Length;
    // `at` is the first record that loses clusters; it keeps `keep` of them.
    for (int i = at; i < firstHole; ++i) {
        const int64_t from = i == at ? keep : 0;
        freed.get()[freedCount++] = {records[i].Lcn + from, records[i].Length - from};
    }
    int removeFrom = keep > 0 ? at + 1 : at;
    if (keep > 0) records[at].Length = keep;
    // Deviation for safety: the hole goes where the freed clusters stood,
    // joined to the hole behind them, and not behind the unit's last record:
    // behind a real run that follows a hole inside the unit it would move
    // that run's clusters to other VCNs.
    std::memmove(&records[removeFrom], &records[firstHole],
                 sizeof(_RUN_RECORD) * static_cast<size_t>(count - firstHole));
    count -= firstHole - removeFrom;
    if (removeFrom < count && records[removeFrom].Lcn == 0 && records[removeFrom].Boundary == 0) {
        records[removeFrom].Length += surplus;
    } else {
        std::memmove(&records[removeFrom + 1], &records[removeFrom],
                     sizeof(_RUN_RECORD) * static_cast<size_t>(count - removeFrom));
        records[removeFrom] = {0, static_cast<int64_t>(surplus), records[0].PieceOrdinal, 0, nullptr, 0};
        ++count;
    }
    records[0].PreviousLcn = running;
    // 7. and 8. Encode. Deviation for safety: the real run behind the unit
    //    is rewritten with its absolute LCN whatever is left of the unit, not
    //    only when one record covers the unit: where the release changes the
    //    LCN that runs in front of it, its old delta would count from another
    //    place and map another file's clusters.
    const int32_t encodedSize = EncodeRecords(records, count, unit.Encoded.get());
    // 9. to 11. The new pairs, the compressed size and the records first.
    code = PlaceUnit(this, &unit, *original, encodedSize);
    if (code == ERROR_SUCCESS) code = UpdateSizes(this, *cursor, -static_cast<int64_t>(surplus), 0);
    if (code != ERROR_SUCCESS) return code;
    // Deviation for safety: the clusters are freed once no run list on disk
    // names them any more, not before the list changes; a failure in between
    // would leave the list naming free clusters, to be handed out again
    // under this file's data.
    for (int i = 0; i < freedCount; ++i) {
        int64_t start = freed.get()[i].Lcn;
        code = CFileRecord::Volume->FreeClusters(&start, static_cast<int>(freed.get()[i].Length));
        if (code != ERROR_SUCCESS) return code;
    }
    return ERROR_SUCCESS;
}

}  // namespace ntfs
