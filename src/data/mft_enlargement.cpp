// Growth of $MFT: new clusters for its $DATA, new pieces of its run list in
// extension records, the move of its tail when no record is left to hold a
// new piece, and the move of its $BITMAP out of a full record.
//
// $MFT's run list must grow while the records that would describe that
// growth are themselves taken from it. Clusters are appended to the last
// piece in memory; when the next run no longer fits that piece's record, a
// new piece is opened in an extension record: record 15 while it is still a
// blank system record, else a free record, else one of four records won by
// moving the last runs of $MFT to one longer place. The caller (TakeRecord)
// writes $MFT's record once the new sizes are set.
//
// Everything here runs under the exclusive lock of $MFT's record, which the
// record allocation holds around TakeRecord. Growing is set while a new piece
// is being opened, so that the record it takes cannot start another growth.
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "data/bitmap_data.h"
#include "foundation/endian.h"
#include "foundation/log.h"
#include "foundation/pointer_array.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "record/run_list.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

// $MFT grows by 16 records for every so many sectors of the volume.
constexpr int64_t kSectorsPerGrowthStep = 32768;
// Records won by a tail move, and the system record that serves first.
constexpr int kReservedRecords = 4;
constexpr int64_t kFirstExtensionHome = 15;
// Size of the empty piece opened in a new record: the header, no runs.
constexpr int kEmptyPieceSize = 72;
// The room an attribute list needs in $MFT's base record.
constexpr int kListRoom = 72;
// Retries of a cluster request after a short answer; a valid bitmap answers
// the longest stretch it reported at once.
constexpr int kMaxShortRetries = 64;

// The last piece of attribute `type` of `mft`, in the merged table's order.
CAttribute* LastPiece(CFullFileRecord* mft, uint32_t type) {
    CAttribute* last = nullptr;
    for (unsigned int piece = 0;; ++piece) {
        CAttribute* candidate = mft->FindAttribute(type, nullptr, 0, piece);
        if (candidate == nullptr) return last;
        last = candidate;
    }
}

// The runs of a non-resident piece, in order.
struct _PIECE_RUNS {
    _DATA_RUN Runs[512];
    int64_t Lcns[512];
    int Count = 0;
    int64_t LastLcn = 0;
};

// Walks the runs of `piece` up to `limit`; false for a damaged list or one
// of more runs than a record can hold.
bool ReadPieceRuns(const CAttribute* piece, int limit, _PIECE_RUNS* runs) {
    runs->Count = 0;
    runs->LastLcn = 0;
    if (piece->IsResident()) return false;
    int position = ReadU16(piece->Header, kNonResidentRunListOffsetOffset);
    for (;;) {
        _DATA_RUN run{};
        const int found = DecodeDataRun(piece->Header, position, limit, &run);
        if (found < 0) return false;
        if (found == 0) return true;
        if (runs->Count >= 512) return false;
        runs->LastLcn += run.Offset;
        runs->Runs[runs->Count] = run;
        runs->Lcns[runs->Count] = runs->LastLcn;
        ++runs->Count;
        position += run.Bytes;
    }
}

// The growth of `piece` that appending a run of `bytes` (end byte included)
// asks of its record, as the append computes it.
int AppendGrowth(const CAttribute* piece, int bytes) {
    const int runOffset = ReadU16(piece->Header, kNonResidentRunListOffsetOffset);
    int end = runOffset;
    for (;;) {
        _DATA_RUN run{};
        if (DecodeDataRun(piece->Header, end, piece->Size, &run) != 1) break;
        end += run.Bytes;
    }
    return (((end - runOffset + 7 + bytes) & ~7) + runOffset) - piece->Size;
}

// Closes a piece after `added` clusters were appended to it: its highest VCN
// and the allocated size of piece 0 follow.
void ClosePiece(CAttribute* last, CAttribute* first, int64_t added, int clusterSize) {
    if (added == 0) return;
    WriteU64(last->Header, kNonResidentHighestVcnOffset, static_cast<uint64_t>(last->GetHighestVcn() + added));
    const int64_t allocated = ReadI64(first->Header, kNonResidentAllocatedSizeOffset);
    WriteU64(first->Header, kNonResidentAllocatedSizeOffset, static_cast<uint64_t>(allocated + added * clusterSize));
    last->Mark();
    first->Mark();
}

// A new empty $DATA piece to stand behind `last`: no runs, sizes 0.
CAttribute* MakeEmptyPiece(const CAttribute* last) {
    auto* piece = new (std::nothrow) CAttribute(kEmptyPieceSize, 0, nullptr);
    if (piece == nullptr) return nullptr;
    if (!piece->Valid) {
        delete piece;
        return nullptr;
    }
    WriteU32(piece->Header, kAttributeTypeOffset, AttributeData);
    WriteU64(piece->Header, kNonResidentLowestVcnOffset, static_cast<uint64_t>(last->GetHighestVcn() + 1));
    WriteU64(piece->Header, kNonResidentHighestVcnOffset, static_cast<uint64_t>(last->GetHighestVcn()));
    return piece;
}

// Frees the (start, count) pairs of `pairs` from pair `from` on.
void FreePairs(CNTFSVolume* volume, const CPointerArray& pairs, int from) {
    for (int i = 2 * from; i + 1 < pairs.GetCount(); i += 2) {
        int64_t start = pairs.Get(i);
        (void)volume->FreeClusters(&start, static_cast<int>(pairs.Get(i + 1)));
    }
}

// Makes room for an attribute list in $MFT's base record by moving
// attributes other than $DATA (whose first piece must stay where the boot
// sector's location finds it) into `record`, keeping `keep` bytes of the
// record free for the piece it is made for. False when none can go.
bool MakeRoomForList(CFullFileRecord* mft, CFileRecord* record, int keep) {
    CFileRecord* base = mft;
    while (base->GetFreeSpace() < kListRoom) {
        CAttribute* moving = nullptr;
        for (int i = 1; i < base->Attributes.GetCount(); ++i) {
            CAttribute* candidate = base->Attributes.At<CAttribute>(i);
            if (candidate->GetType() == AttributeData) continue;
            if (candidate->Size + keep > record->GetFreeSpace()) continue;
            moving = candidate;
            break;
        }
        if (moving == nullptr) return false;
        CAttribute* clone = moving->Clone();
        if (clone == nullptr) return false;
        base->RemoveAttribute(moving);
        CAttribute* placed = record->InsertAttribute(clone);
        const bool ok = placed != nullptr && placed->GetType() == clone->GetType();
        delete clone;
        if (!ok) return false;
    }
    return true;
}

// Whether the first piece of $DATA is still in $MFT's base record.
bool FirstDataPieceInBase(CFullFileRecord* mft) {
    CAttribute* first = mft->FindAttribute(AttributeData, nullptr, 0, 0);
    return first != nullptr && first->Record == static_cast<CFileRecord*>(mft);
}

// Makes the present state of $MFT's records the one a later Revert returns
// to, keeping their marks: a record changed in memory and not yet written
// must still be written by the next write of $MFT.
void KeepAsRevertPoint(CFullFileRecord* mft) {
    CFileRecord* base = mft;
    const int fullMark = mft->Modified;
    const int baseMark = base->Modified;
    CPointerArray& extensions = mft->GetExtensionRecords();
    std::unique_ptr<int[]> marks(new (std::nothrow) int[static_cast<size_t>(extensions.GetCount()) + 1]);
    for (int i = 0; marks != nullptr && i < extensions.GetCount(); ++i) {
        marks[static_cast<size_t>(i)] = extensions.At<CFileRecord>(i)->Modified;
    }
    mft->Commit();
    mft->Modified = fullMark;
    base->Modified = baseMark;
    for (int i = 0; i < extensions.GetCount(); ++i) {
        // Without memory for the marks every record is written again.
        extensions.At<CFileRecord>(i)->Modified = marks != nullptr ? marks[static_cast<size_t>(i)] : 1;
    }
}

}  // namespace

unsigned int CFileRecordBitmap::SetItemBit(int64_t item) {
    int64_t at = item;
    const unsigned int code = LoadUnit(&at);
    if (code != ERROR_SUCCESS) return code;
    const int64_t byte = item / 8 - UnitBase;
    if (byte < 0 || byte >= ValidBytes) return ERROR_INVALID_PARAMETER;
    Buffer[byte] = static_cast<uint8_t>(Buffer[byte] | (1u << (item & 7)));
    Dirty = 1;
    return ERROR_SUCCESS;
}

unsigned int CFileRecordBitmap::EnlargeMft(int64_t records, int ignoreExclusions, int* grown) {
    *grown = 0;
    int64_t sectors = 0;
    Volume->GetVolumeSectorNumber(&sectors);
    const int64_t grow = (sectors / kSectorsPerGrowthStep + 15) & ~int64_t{15};

    // The bitmap first covers the records the growth makes.
    const int64_t bits = Mft->GetAttributeDataSize(AttributeBitmap, nullptr, 0) * 8;
    if (bits < records + grow) {
        if (records + grow > static_cast<int64_t>(UINT32_MAX)) return ERROR_HANDLE_DISK_FULL;
        const auto items = static_cast<uint32_t>(records + grow);
        unsigned int code = Resize(items);
        if (code == ERROR_INSUFFICIENT_BUFFER) code = SpillBitmap(items);
        if (code != ERROR_SUCCESS) return code;
        *grown = 1;
    }

    const int clusterSize = Volume->GetClusterSize();
    int64_t clusters = (grow * FileRecordSize + clusterSize - 1) / clusterSize;
    if (clusters > INT_MAX) clusters = INT_MAX;

    // Clusters in falling request sizes, one (start, count) pair per run.
    CPointerArray pairs;
    int64_t obtained = 0;
    int wanted = static_cast<int>(clusters);
    for (int retries = 0; obtained < clusters && wanted > 0;) {
        int64_t start = 0;
        int got = 0;
        const unsigned int code = Volume->SearchSpareClusterAndAllocate(wanted, &start, &got, ignoreExclusions);
        if (code == ERROR_SUCCESS) {
            // Only `wanted` clusters were marked, even when the run is longer.
            const int take = got < wanted ? got : wanted;
            if (take <= 0) break;
            if (pairs.InsertAfter(pairs.GetCount(), static_cast<intptr_t>(start)) == -2 ||
                pairs.InsertAfter(pairs.GetCount(), static_cast<intptr_t>(take)) == -2) {
                (void)Volume->FreeClusters(&start, take);
                if (pairs.GetCount() % 2 != 0) pairs.RemoveAt(pairs.GetCount() - 1);
                FreePairs(Volume, pairs, 0);
                return ERROR_NOT_ENOUGH_MEMORY;
            }
            obtained += take;
            const int64_t missing = clusters - obtained;
            wanted = static_cast<int>(missing < take ? missing : take);
            continue;
        }
        // A bound on the retries, which a valid bitmap never reaches.
        if (code == ERROR_HANDLE_DISK_FULL && got > 0 && ++retries < kMaxShortRetries) {
            wanted = got;
            continue;
        }
        if (code == ERROR_HANDLE_DISK_FULL) break;
        FreePairs(Volume, pairs, 0);
        return code;
    }
    clusters = obtained;
    if (clusters == 0) return ERROR_HANDLE_DISK_FULL;

    // With clusters of one sector, the run list still holds whole records.
    if ((Volume->GetClusterSectors() & 1) != 0 && (clusters & 1) != 0) {
        const int last = pairs.GetCount() - 2;
        int64_t end = pairs.Get(last) + pairs.Get(last + 1) - 1;
        (void)Volume->FreeClusters(&end, 1);
        const int64_t shorter = pairs.Get(last + 1) - 1;
        if (shorter == 0) {
            pairs.RemoveAt(last + 1);
            pairs.RemoveAt(last);
        } else {
            pairs.RemoveAt(last + 1);
            pairs.InsertAfter(last, static_cast<intptr_t>(shorter));
        }
        --clusters;
        // Nothing left to map: there is no growth to report.
        if (clusters == 0) return ERROR_HANDLE_DISK_FULL;
    }

    CAttribute* last = LastPiece(Mft, AttributeData);
    CAttribute* first = Mft->FindAttribute(AttributeData, nullptr, 0, 0);
    if (last == nullptr || first == nullptr || last->IsResident() || first->IsResident()) {
        FreePairs(Volume, pairs, 0);
        return ERROR_FILE_CORRUPT;
    }
    auto* runs = new (std::nothrow) _PIECE_RUNS;
    if (runs == nullptr || !ReadPieceRuns(last, last->Size, runs)) {
        delete runs;
        FreePairs(Volume, pairs, 0);
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    int64_t lastLcn = runs->LastLcn;
    int64_t added = 0;
    const int pairCount = pairs.GetCount() / 2;
    for (int i = 0; i < pairCount; ++i) {
        const int64_t start = pairs.Get(2 * i);
        const int count = static_cast<int>(pairs.Get(2 * i + 1));
        uint8_t encoded[kMaxEncodedRunSize];
        const int bytes = EncodeDataRun(count, start - lastLcn, encoded);
        const int fields = bytes - 2;
        const int free = last->Record != nullptr ? last->Record->GetFreeSpace() : 0;
        // Besides the room the two fields ask, the append rounds the
        // attribute to 8 bytes; a pair that passes the first test but not
        // the second would fail the append with a full record, every time
        // the growth is tried again, so it too opens a new piece.
        if (fields + 4 > free || AppendGrowth(last, bytes) > free) {
            ClosePiece(last, first, added, clusterSize);
            added = 0;
            int won = 0;
            const unsigned int code = RelocateMftAttribute(&won);
            if (code != ERROR_SUCCESS) {
                delete runs;
                FreePairs(Volume, pairs, i);
                return code;
            }
            if (won != 0) *grown = 1;
            last = LastPiece(Mft, AttributeData);
            first = Mft->FindAttribute(AttributeData, nullptr, 0, 0);
            if (last == nullptr || first == nullptr || !ReadPieceRuns(last, last->Size, runs)) {
                delete runs;
                FreePairs(Volume, pairs, i);
                return ERROR_FILE_CORRUPT;
            }
            lastLcn = runs->LastLcn;
        }
        CAttribute* self = nullptr;
        const unsigned int code = last->AppendRun(start, count, &self);
        if (code != ERROR_SUCCESS) {
            // The clusters appended so far stay $MFT's; the piece is closed
            // over them, so that its highest VCN and the allocated size
            // agree with its runs whenever the record is written.
            ClosePiece(last, first, added, clusterSize);
            delete runs;
            FreePairs(Volume, pairs, i);
            return code;
        }
        added += count;
        lastLcn = start;
    }
    delete runs;
    ClosePiece(last, first, added, clusterSize);
    return ERROR_SUCCESS;
}

unsigned int CFileRecordBitmap::RelocateMftAttribute(int* grown) {
    *grown = 0;
    Growing = 1;
    ReserveBase = 0;
    ReserveCount = 0;
    ReserveMask = 0;
    const int clusterSize = Volume->GetClusterSize();
    const int sectorsPerCluster = Volume->GetClusterSectors();
    CPointerArray oldRuns;
    // The state that a failure returns to: $MFT's records as they stand now,
    // with the clusters the enlargement has appended so far, so that those
    // stay mapped and none is left marked without an owner.
    KeepAsRevertPoint(Mft);

    int64_t index = -1;
    bool tookRecord = false;
    uint8_t* foundImage = nullptr;  // record 15 as it was found, to put back
    int64_t takenLcn = 0;
    int takenCount = 0;
    int64_t reserve = 0;
    CAttribute* pending = nullptr;
    uint8_t* image = nullptr;
    CFileRecord* made = nullptr;
    bool joined = false;

    // The staged clean-up: `number` says how far the work came.
    auto undo = [&](int number, unsigned int failure) -> unsigned int {
        if (number == 7 && made != nullptr) {
            if (joined) Mft->RemoveExtensionRecord(made);
            made->Modified = 0;
            delete made;
            made = nullptr;
            image = nullptr;
            if (index == kFirstExtensionHome && foundImage != nullptr) {
                // Record 15 was a system record before: it is put back as it
                // was found rather than be given free.
                (void)WriteRecordImage(index, foundImage);
            } else {
                (void)ReleaseRecord(&index);
            }
        }
        if (number >= 6 && number != 7) {
            if (made != nullptr) {
                const bool adopted = made->Image == image;
                delete made;
                made = nullptr;
                if (adopted) image = nullptr;
            }
            std::free(image);
            image = nullptr;
        }
        if (number >= 5) {
            delete pending;
            pending = nullptr;
        }
        if (number >= 4 && takenCount > 0) {
            (void)Volume->FreeClusters(&takenLcn, takenCount);
            takenCount = 0;
        }
        if (number >= 3) Mft->Revert();
        // Only a record taken for this move goes back: record 15 stays the
        // system's.
        if (number == 2 && tookRecord) (void)ReleaseRecord(&index);
        std::free(foundImage);
        Growing = 0;
        return failure;
    };

    // A home: record 15 while it is a blank system record, else a free one.
    foundImage = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(FileRecordSize)));
    if (foundImage == nullptr) return undo(1, ERROR_NOT_ENOUGH_MEMORY);
    unsigned int code = ReadRecordImage(kFirstExtensionHome, foundImage);
    if (code != ERROR_SUCCESS) return undo(1, code);
    bool accepted = false;
    {
        auto* copy = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(FileRecordSize)));
        if (copy == nullptr) return undo(1, ERROR_NOT_ENOUGH_MEMORY);
        std::memcpy(copy, foundImage, static_cast<size_t>(FileRecordSize));
        auto* probe = new (std::nothrow)
            CFileRecord(kFirstExtensionHome, reinterpret_cast<_FILE_RECORD_HEADER*>(copy), nullptr, Volume);
        if (probe == nullptr) {
            std::free(copy);
            return undo(1, ERROR_NOT_ENOUGH_MEMORY);
        }
        if (probe->Image != copy) std::free(copy);
        accepted = probe->IsValid() && ReadU64(probe->Image, kFileBaseReferenceOffset) == 0 &&
                   ReadU16(probe->Image, kFileLinkCountOffset) == 0 &&
                   probe->FindAttribute(AttributeFileName, nullptr, 0, 0) == nullptr;
        delete probe;
    }
    // Record 15 already holding a piece of $MFT is never taken again, also
    // when $MFT's own sequence number leaves its base reference 0.
    for (int i = 0; accepted && i < Mft->GetExtensionRecords().GetCount(); ++i) {
        if (Mft->GetExtensionRecords().At<CFileRecord>(i)->RecordNumber == kFirstExtensionHome) accepted = false;
    }
    if (accepted) {
        index = kFirstExtensionHome;
        // Its bit is set, so that no allocation hands it out while it holds
        // $MFT's piece.
        bool inUse = false;
        if (IsItemInUse(index, &inUse) == ERROR_SUCCESS && !inUse) (void)SetItemBit(index);
    } else {
        std::free(foundImage);
        foundImage = nullptr;
        code = TakeRecord(&index, 1);
        if (code == ERROR_SUCCESS) {
            tookRecord = true;
        } else if (code != ERROR_HANDLE_DISK_FULL) {
            return undo(1, code);
        }
    }

    if (index < 0) {
        // No record is free at all: the last runs of $MFT move to one longer
        // place, and the records won at its end hold the new piece.
        reserve = (static_cast<int64_t>(kReservedRecords) * FileRecordSize + clusterSize - 1) / clusterSize;
        CAttribute* last = LastPiece(Mft, AttributeData);
        CAttribute* first = Mft->FindAttribute(AttributeData, nullptr, 0, 0);
        if (last == nullptr || first == nullptr || last->IsResident()) return undo(1, ERROR_FILE_CORRUPT);
        const int nameBytes = 2 * ReadU8(last->Header, kAttributeNameLengthOffset);
        int limit =
            ReadU16(last->Header, kNonResidentRunListOffsetOffset) + last->Size - (nameBytes + kNonResidentHeaderSize);
        if (limit > last->Size) limit = last->Size;
        auto* runs = new (std::nothrow) _PIECE_RUNS;
        if (runs == nullptr) return undo(1, ERROR_NOT_ENOUGH_MEMORY);
        if (!ReadPieceRuns(last, limit, runs) || runs->Count == 0) {
            delete runs;
            return undo(1, ERROR_FILE_CORRUPT);
        }
        const bool lastIsFirst = last == first;
        int from = runs->Count - 1;
        uint8_t encoded[kMaxEncodedRunSize];
        int bytes = 0;
        int64_t want = 0;
        for (;;) {
            // Moving the first run of $MFT would move record 0, whose place
            // the boot sector holds and which nothing here rewrites; its old
            // clusters would then be given free under the boot sector's
            // pointer. The move ends here instead, before any change.
            if (lastIsFirst && from == 0) {
                delete runs;
                return undo(1, ERROR_HANDLE_DISK_FULL);
            }
            int64_t stretch = 0;
            for (int r = from; r < runs->Count; ++r) {
                // A run without clusters of its own has nothing to copy.
                if (runs->Runs[r].OffsetBytes == 0) {
                    delete runs;
                    return undo(1, ERROR_HANDLE_DISK_FULL);
                }
                stretch += runs->Runs[r].Length;
            }
            want = stretch + reserve;
            if (want > INT_MAX / sectorsPerCluster) {
                delete runs;
                return undo(1, ERROR_HANDLE_DISK_FULL);
            }
            int64_t lcn = 0;
            int got = 0;
            code = Volume->SearchSpareClusterAndAllocateWithLeastItemNumber(static_cast<int>(want), &lcn, &got,
                                                                            static_cast<int>(want), 0);
            if (code != ERROR_SUCCESS) {
                delete runs;
                return undo(4, code);
            }
            if (got < want) {
                (void)Volume->FreeClusters(&lcn, got);
                delete runs;
                return undo(4, ERROR_HANDLE_DISK_FULL);
            }
            takenLcn = lcn;
            takenCount = static_cast<int>(want);
            const int64_t before = from > 0 ? runs->Lcns[from - 1] : 0;
            bytes = EncodeDataRun(want, lcn - before, encoded);
            if (bytes <= last->Size - runs->Runs[from].Position) break;
            // The pair does not fit where the stretch stood: the run before
            // joins the stretch, and one new run stands for both.
            (void)Volume->FreeClusters(&takenLcn, takenCount);
            takenCount = 0;
            --from;
        }
        LogMessage("The new space to store node at tail is %X%08XH,%04XH.\n", static_cast<uint32_t>(takenLcn >> 32),
                   static_cast<uint32_t>(takenLcn), static_cast<uint32_t>(want));
        int64_t target = takenLcn;
        for (int r = from; r < runs->Count; ++r) {
            const int64_t length = runs->Runs[r].Length;
            const int sectorCount = static_cast<int>(length * sectorsPerCluster);
            int done = 0;
            code =
                Volume->CopySector(runs->Lcns[r] * sectorsPerCluster, target * sectorsPerCluster, sectorCount, &done);
            if (code == ERROR_SUCCESS && done != sectorCount) code = ERROR_IO_DEVICE;
            if (code != ERROR_SUCCESS) {
                delete runs;
                return undo(4, code);
            }
            oldRuns.InsertAfter(oldRuns.GetCount(), static_cast<intptr_t>(runs->Lcns[r]));
            oldRuns.InsertAfter(oldRuns.GetCount(), static_cast<intptr_t>(length));
            target += length;
        }
        // The stretch's pairs give way to the one new pair.
        const int position = runs->Runs[from].Position;
        delete runs;
        std::memcpy(last->Header + position, encoded, static_cast<size_t>(bytes));
        CAttribute* self = nullptr;
        code = last->SetSize(position + bytes, &self);
        if (code != ERROR_SUCCESS) return undo(4, code);
        ClosePiece(last, first, reserve, clusterSize);
        ReserveBase = ItemCount;
        ReserveCount = static_cast<int>(reserve * clusterSize / FileRecordSize);
        index = ReserveBase;
        // The reserved records must lie inside what $DATA now maps.
        if ((ReserveBase + ReserveCount) * FileRecordSize > ReadI64(first->Header, kNonResidentAllocatedSizeOffset)) {
            return undo(4, ERROR_HANDLE_DISK_FULL);
        }
        code = InitializeRecords(ReserveBase, ReserveCount);
        if (code != ERROR_SUCCESS) return undo(4, code);
        // The new record must lie inside $MFT's initialized size once it is
        // written: a record past it cannot be read by other implementations,
        // which then refuse the whole volume if the stamping that follows
        // this move fails. The reserved records were just stamped, so the
        // sizes cover them from here on.
        const int64_t covered = (ReserveBase + ReserveCount) * FileRecordSize;
        if (ReadI64(first->Header, kNonResidentInitializedSizeOffset) < covered) {
            WriteU64(first->Header, kNonResidentDataSizeOffset, static_cast<uint64_t>(covered));
            WriteU64(first->Header, kNonResidentInitializedSizeOffset, static_cast<uint64_t>(covered));
            first->Mark();
        }
        ReserveMask = 1;
        pending = MakeEmptyPiece(last);
        if (pending == nullptr) return undo(4, ERROR_NOT_ENOUGH_MEMORY);
    } else if (Mft->FindAttribute(AttributeAttributeList, nullptr, 0, 0) != nullptr) {
        CAttribute* last = LastPiece(Mft, AttributeData);
        pending = last != nullptr ? MakeEmptyPiece(last) : nullptr;
        if (pending == nullptr) return undo(2, ERROR_NOT_ENOUGH_MEMORY);
    } else {
        // Without a list, piece 0 keeps the runs up to the new record, which
        // must be found through it; the rest goes to the new record.
        CAttribute* first = Mft->FindAttribute(AttributeData, nullptr, 0, 0);
        const int64_t vcn = ((index + 1) * FileRecordSize + clusterSize - 1) / clusterSize;
        if (first == nullptr || first->IsResident() || vcn > first->GetHighestVcn()) {
            return undo(2, ERROR_NOT_ENOUGH_MEMORY);
        }
        pending = first->SplitAttribute(vcn - first->GetLowestVcn(), 0);
        if (pending == nullptr) return undo(2, ERROR_NOT_ENOUGH_MEMORY);
    }

    // The new extension record.
    image = static_cast<uint8_t*>(std::calloc(static_cast<size_t>(FileRecordSize), 1));
    if (image == nullptr) return undo(5, ERROR_NOT_ENOUGH_MEMORY);
    CFileRecord::InitializeFileRecord(reinterpret_cast<_FILE_RECORD_HEADER*>(image), FileRecordSize,
                                      Volume->GetSectorSize(), &index);
    if (index == kFirstExtensionHome) WriteU16(image, kFileSequenceNumberOffset, kFirstExtensionHome);
    made = new (std::nothrow) CFileRecord(index, reinterpret_cast<_FILE_RECORD_HEADER*>(image), Mft, Volume);
    if (made == nullptr || !made->IsValid()) return undo(6, ERROR_NOT_ENOUGH_MEMORY);
    image = made->Image;

    if (Mft->FindAttribute(AttributeAttributeList, nullptr, 0, 0) == nullptr &&
        !MakeRoomForList(Mft, made, pending->Size)) {
        return undo(6, ERROR_HANDLE_DISK_FULL);
    }

    CAttribute* placed = made->InsertAttribute(pending);
    if (placed == nullptr || placed->GetType() != AttributeData) return undo(6, ERROR_NOT_ENOUGH_MEMORY);
    delete pending;
    pending = nullptr;
    WriteU16(made->Image, kFileFlagsOffset,
             static_cast<uint16_t>(ReadU16(made->Image, kFileFlagsOffset) | kFileRecordInUse));
    const uint64_t reference = (static_cast<uint64_t>(Mft->RecordNumber) & kFileReferenceNumberMask) |
                               (static_cast<uint64_t>(ReadU16(Mft->Image, kFileSequenceNumberOffset)) << 48);
    WriteU64(made->Image, kFileBaseReferenceOffset, reference);

    code = made->WriteRecord();
    if (code != ERROR_SUCCESS) return undo(7, code);
    code = Mft->AddExtensionRecord(made);
    if (code != ERROR_SUCCESS) return undo(7, code);
    joined = true;
    if (!FirstDataPieceInBase(Mft)) return undo(7, ERROR_INTERNAL_ERROR);
    int64_t changed = 0;
    // The rewrite of the list has already written every changed record, so
    // the new piece is on disk by now. A failure of this write, or of the
    // bitmap's growth below, is answered but not undone: undoing memory
    // would part it from the disk, leave the new list's clusters marked with
    // no owner and an old list's clusters, freed by the rewrite, owned again.
    // That rewrite wrote the record of the moved runs too (it is marked), so
    // their old place is named by nothing on disk and goes back either way.
    unsigned int late = ERROR_SUCCESS;
    if (!Volume->UpdateFileRecord(Mft, nullptr, nullptr, &changed)) late = Volume->LastError;
    KeepAsRevertPoint(Mft);

    int64_t n = reserve;
    if (Mft->FindAttribute(AttributeData, nullptr, 0, 2) != nullptr) {
        n = n * clusterSize / FileRecordSize;
        const int64_t items = ItemCount + n;
        code = items > static_cast<int64_t>(UINT32_MAX) ? ERROR_HANDLE_DISK_FULL : Resize(static_cast<uint32_t>(items));
        if (code == ERROR_INSUFFICIENT_BUFFER) code = SpillBitmap(static_cast<uint32_t>(items));
        if (code != ERROR_SUCCESS && late == ERROR_SUCCESS) late = code;
    }
    // Without a third piece the count grows by the clusters of the move, not
    // by its records; that is how the count is kept.
    ItemCount += n;
    *grown = static_cast<int>(n);
    for (int bit = 0; bit < ReserveCount && bit < 32; ++bit) {
        if ((ReserveMask & (1u << bit)) == 0) continue;
        const int64_t item = ReserveBase + bit;
        if (item >= ItemCount) continue;  // ERROR_BEYOND_END_OF_VALUE, passed over
        (void)SetItemBit(item);
    }
    // The old place of the moved runs goes back only now that the new
    // mapping is on disk.
    for (int i = 0; i + 1 < oldRuns.GetCount(); i += 2) {
        int64_t start = oldRuns.Get(i);
        (void)Volume->FreeClusters(&start, static_cast<int>(oldRuns.Get(i + 1)));
    }
    std::free(foundImage);
    Growing = 0;
    return late;
}

unsigned int CFileRecordBitmap::SpillBitmap(uint32_t items) {
    // A failure returns $MFT's records to what they hold now.
    KeepAsRevertPoint(Mft);
    int64_t index = 0;
    int bit = -1;
    if (FreeRecords == 0) {
        int lowest = 0;
        while (lowest < 32 && (ReserveMask & (1u << lowest)) != 0) ++lowest;
        if (lowest >= ReserveCount) return ERROR_HANDLE_DISK_FULL;
        index = ItemCount + lowest;
        // Only a record of the reserve is taken this way: any other record
        // past the count may be stamped over by the next growth.
        if (ReserveBase < 0 || index < ReserveBase || index >= ReserveBase + ReserveCount) {
            return ERROR_HANDLE_DISK_FULL;
        }
        ReserveMask |= 1u << lowest;
        bit = lowest;
    } else {
        int got = 0;
        const unsigned int code = AllocateUnits(1, &index, &got, 1);
        if (code != ERROR_SUCCESS) return code;
        --FreeRecords;
    }
    CFileRecord* made = nullptr;
    auto fail = [&](unsigned int failure, bool written) {
        if (made != nullptr) {
            Mft->RemoveExtensionRecord(made);
            made->Modified = 0;
            delete made;
        }
        Mft->Revert();
        if (bit >= 0) {
            ReserveMask &= ~(1u << bit);
        } else if (written) {
            (void)ReleaseRecord(&index);
        } else {
            (void)FreeUnits(&index, 1);
        }
        return failure;
    };

    auto* image = static_cast<uint8_t*>(std::calloc(static_cast<size_t>(FileRecordSize), 1));
    if (image == nullptr) return fail(ERROR_NOT_ENOUGH_MEMORY, false);
    CFileRecord::InitializeFileRecord(reinterpret_cast<_FILE_RECORD_HEADER*>(image), FileRecordSize,
                                      Volume->GetSectorSize(), &index);
    made = new (std::nothrow) CFileRecord(index, reinterpret_cast<_FILE_RECORD_HEADER*>(image), Mft, Volume);
    if (made == nullptr) {
        std::free(image);
        return fail(ERROR_NOT_ENOUGH_MEMORY, false);
    }
    if (made->Image != image) std::free(image);
    if (!made->IsValid()) return fail(ERROR_NOT_ENOUGH_MEMORY, false);
    WriteU16(made->Image, kFileFlagsOffset, kFileRecordInUse);

    CAttribute* first = Mft->FindAttribute(AttributeBitmap, nullptr, 0, 0);
    CAttribute* last = LastPiece(Mft, AttributeBitmap);
    if (first == nullptr || last == nullptr) return fail(ERROR_INTERNAL_ERROR, false);
    CAttribute* piece = nullptr;
    if (first == last && made->GetFreeSpace() > first->Size) {
        piece = first->Clone();
        if (piece == nullptr) return fail(ERROR_NOT_ENOUGH_MEMORY, false);
        if (first->Record != nullptr) first->Record->RemoveAttribute(first);
    } else {
        auto* runs = new (std::nothrow) _PIECE_RUNS;
        if (runs == nullptr || !ReadPieceRuns(last, last->Size, runs) || runs->Count == 0) {
            delete runs;
            return fail(ERROR_NOT_ENOUGH_MEMORY, false);
        }
        const int64_t length = runs->Runs[runs->Count - 1].Length;
        delete runs;
        piece = last->SplitAttribute(last->GetHighestVcn() - length + 1 - last->GetLowestVcn(), 0);
        if (piece == nullptr) return fail(ERROR_NOT_ENOUGH_MEMORY, false);
    }
    // The list that names the new record needs room in the base record; it
    // is made here by moving other attributes than $DATA, so that the list's
    // own rewrite never moves the first piece of $DATA out of record 0.
    if (Mft->FindAttribute(AttributeAttributeList, nullptr, 0, 0) == nullptr &&
        !MakeRoomForList(Mft, made, piece->Size)) {
        delete piece;
        return fail(ERROR_HANDLE_DISK_FULL, false);
    }
    CAttribute* placed = made->InsertAttribute(piece);
    const bool ok = placed != nullptr && placed->GetType() == AttributeBitmap;
    delete piece;
    if (!ok) return fail(ERROR_NOT_ENOUGH_MEMORY, false);
    const uint64_t reference = (static_cast<uint64_t>(Mft->RecordNumber) & kFileReferenceNumberMask) |
                               (static_cast<uint64_t>(ReadU16(Mft->Image, kFileSequenceNumberOffset)) << 48);
    WriteU64(made->Image, kFileBaseReferenceOffset, reference);
    unsigned int code = made->WriteRecord();
    if (code != ERROR_SUCCESS) return fail(code, true);
    code = Mft->AddExtensionRecord(made);
    if (code != ERROR_SUCCESS) return fail(code, true);
    if (!FirstDataPieceInBase(Mft)) return fail(ERROR_INTERNAL_ERROR, true);
    KeepAsRevertPoint(Mft);
    // A reserved record taken here gets its bit as the move's own does.
    if (bit >= 0 && index < ItemCount) (void)SetItemBit(index);
    (void)Resize(items);
    return ERROR_SUCCESS;
}

}  // namespace ntfs
