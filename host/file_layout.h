// FileLayout: what one file's records hold, read through the volume's record
// path (ReadFileRecord) and decoded here: its names with their namespaces,
// its standard information, every attribute with its sizes and run list, and
// its extension records. Hosts use it to describe a file (ntfskit stat) and
// to know in advance where the volume's read of a file hands out bytes that
// differ from the file on disk (FindReadDifferences), so that a copy or a
// mount can say so instead of passing such bytes on silently.
//
// Nothing here writes, and nothing here changes how the volume reads: the
// answer describes the volume's read as it stands.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ntfskit.h"

namespace ntfs {

// One run of a non-resident attribute piece: `Length` clusters from `Vcn`,
// at `Lcn`, or a hole (`Hole`, `Lcn` unused).
struct LayoutRun {
    int64_t Vcn = 0;
    int64_t Length = 0;
    int64_t Lcn = 0;
    bool Hole = false;
};

// One attribute (one piece of it, when it is split over several records).
struct LayoutAttribute {
    uint32_t Type = 0;
    std::u16string Name;
    int64_t Record = 0;  // the record that holds this piece
    uint16_t Flags = 0;  // 0x00FF compression method, 0x4000 encrypted, 0x8000 sparse
    bool NonResident = false;
    uint32_t ValueLength = 0;  // resident only
    int64_t LowestVcn = 0;     // non-resident only, from here on
    int64_t HighestVcn = 0;
    uint8_t UnitExponent = 0;
    int64_t AllocatedSize = 0;  // piece 0 only
    int64_t DataSize = 0;
    int64_t InitializedSize = 0;
    std::vector<LayoutRun> Runs;
    bool RunsDamaged = false;  // the mapping pairs could not be decoded to their end
};

struct LayoutName {
    int64_t Parent = 0;     // record number of the directory (low 48 bits)
    uint8_t Namespace = 0;  // 0 POSIX, 1 Win32, 2 DOS, 3 Win32 and DOS
    std::u16string Name;
};

struct FileLayout {
    int64_t Record = 0;
    uint16_t Sequence = 0;
    uint16_t LinkCount = 0;
    uint16_t RecordFlags = 0;  // 0x01 in use, 0x02 directory
    // $STANDARD_INFORMATION: NTFS times and the file attribute bits.
    int64_t Created = 0;
    int64_t Modified = 0;
    int64_t RecordChanged = 0;
    int64_t Accessed = 0;
    uint32_t FileAttributes = 0;
    std::vector<LayoutName> Names;
    std::vector<LayoutAttribute> Attributes;  // base record first, then extensions
    std::vector<int64_t> Extensions;          // extension record numbers, ascending

    // The pieces of the unnamed $DATA, by lowest VCN (empty for a directory).
    std::vector<const LayoutAttribute*> DataPieces() const;
};

// Reads record `number` and its extension records. `storage` is the device
// the volume reads, used for a non-resident attribute list. 0, or
// ERROR_FILE_CORRUPT for a record that does not decode, or the read's code.
[[nodiscard]] unsigned int LoadFileLayout(CNTFSVolume* volume, CStorage* storage, int64_t number, FileLayout* layout);

// Where the volume's read of the unnamed $DATA delivers other bytes than the
// file holds on disk.
enum class ReadDifferenceKind {
    // A hole entered from an earlier compression unit and ending inside this
    // one: the read fills the hole's whole length from where it stands, so
    // clusters behind the hole's end read as zeros or come from the wrong
    // place.
    HoleFromEarlierUnit,
    // A compression unit runs past the last run: the read stops there with
    // ERROR_FILE_CORRUPT although the file's bytes are all on disk.
    UnitPastLastRun,
    // Clusters behind the initialized size are read as they are; on disk
    // those bytes read as zeros. Only a difference where the clusters do not
    // hold zeros, which the caller sees in the bytes it is handed.
    BeyondInitializedSize,
};

struct ReadDifference {
    ReadDifferenceKind Kind;
    uint64_t Offset;  // first byte of the file affected
    uint64_t Length;  // bytes affected, up to the data size
};

// Words for a difference, for messages: "a sparse hole is entered from an
// earlier compression unit", ...
const char* ReadDifferenceReason(ReadDifferenceKind kind);

// The differences of the unnamed $DATA of `layout` when the file is read
// from offset 0 in calls of `callBytes` bytes (a multiple of the compression
// unit; each call starts afresh at its unit). Empty for resident data and for
// files the read delivers faithfully.
std::vector<ReadDifference> FindReadDifferences(const FileLayout& layout, int clusterSize, uint32_t callBytes);

}  // namespace ntfs
