// _RUN_CURSOR: a position in the run list of a non-resident attribute,
// across all its pieces (an attribute split over several extension records
// has one piece per record, each with its own VCN range and mapping pairs).
//
// The cursor is a plain record on the caller's stack and is copied by value
// whenever a second position is needed. It points into the attribute image of
// a record (`Run`), so it is good only while the record's attributes are not
// rebuilt; the write paths restart it with Piece = -1 after a run-list change.
//
// Mapping pairs: a header byte (taken as signed: low nibble = bytes of the
// count, high nibble = bytes of the LCN delta), then both fields little-endian
// with the top byte sign-extended. A high nibble of 0 is a hole (delta 0); a
// header byte of 0 ends the list.
#pragma once

#include <cstdint>

namespace ntfs {

struct _RUN_CURSOR {
    uint32_t AttributeType;
    const char16_t* Name;  // not owned
    uint32_t NameLength;
    int64_t AllocatedClusters;  // allocated size of piece 0 in clusters; 0 if resident
    int32_t Piece;              // piece walked now; -1 restarts at piece 0
    int64_t Vcn;                // the VCN the cursor stands on
    int64_t RunOffset;          // clusters from the start of the current run to Vcn
    int64_t LowestVcn;          // of the piece; -1 when resident
    int64_t HighestVcn;         // of the piece; -1 when resident
    const uint8_t* Run;         // the current mapping pair in the attribute image
    int64_t Lcn;                // absolute LCN of the current run
    int64_t RunLength;          // clusters in the current run
    int64_t PreviousLcn;        // LCN of the run before: base of the next delta
    // Not part of the walk itself: the end of the attribute image that holds
    // `Run`, so that a damaged run list cannot lead the cursor outside it.
    const uint8_t* RunLimit;
};

// One decoded run of the unit being rewritten by the compression-unit remap
// (data/unit_remap.cpp), held in an array allocated per call.
struct _RUN_RECORD {
    int64_t Lcn;                // absolute LCN; 0 for a hole
    int64_t Length;             // clusters
    uint16_t PieceOrdinal;      // piece the run came from
    uint16_t Boundary;          // 1: outside the unit, kept because its encoding changes
    const uint8_t* EncodedRun;  // its mapping pair in the record image
    int64_t PreviousLcn;        // the running LCN before this run
};

// The first sector of the cluster the cursor stands on: (Lcn + RunOffset)
// times `sectorsPerCluster`. False when a damaged run list puts it beyond
// what 64 bits hold.
inline bool CursorSector(const _RUN_CURSOR& cursor, int64_t sectorsPerCluster, int64_t* sector) {
    int64_t cluster = 0;
    return !__builtin_add_overflow(cursor.Lcn, cursor.RunOffset, &cluster) &&
           !__builtin_mul_overflow(cluster, sectorsPerCluster, sector);
}

}  // namespace ntfs
