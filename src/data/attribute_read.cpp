// Reading attribute values: resident copies, and the run cursor that walks
// non-resident values unit by unit over all pieces of an attribute, with
// holes read as zeros and compressed units expanded.
//
// These are members of CFullFileRecord; callers hold the record's shared lock.
// No lock is taken here.
#include <cstdlib>
#include <cstring>

#include "data/compression.h"
#include "foundation/endian.h"
#include "foundation/log.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "record/run_list.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

// Flags of a non-resident attribute: a compression method in the low byte,
// 0x8000 for sparse data.
// Bounds that valid attributes never reach: the compression unit exponent and
// the pieces an attribute may be split into.
constexpr int kMaxCompressionUnitExponent = 8;
constexpr int32_t kMaxPieces = 1 << 16;

uint16_t AttributeFlags(const CAttribute* attribute) {
    return ReadU16(attribute->Header, kAttributeFlagsOffset);
}

}  // namespace

void CFullFileRecord::InitializeRunCursor(CAttribute* attribute, _RUN_CURSOR* cursor) {
    std::memset(cursor, 0, sizeof(*cursor));
    const int64_t allocated = ReadI64(attribute->Header, kNonResidentAllocatedSizeOffset);
    cursor->AllocatedClusters = ClusterSize > 0 ? allocated / ClusterSize : 0;
    cursor->Piece = 0;
    cursor->LowestVcn = attribute->GetLowestVcn();
    cursor->HighestVcn = attribute->GetHighestVcn();
    cursor->Run = attribute->Header + ReadU16(attribute->Header, kNonResidentRunListOffsetOffset);
    cursor->RunLimit = attribute->Header + attribute->Size;
    cursor->PreviousLcn = 0;
    _DATA_RUN run{};
    if (cursor->Run < cursor->RunLimit &&
        DecodeDataRun(cursor->Run, 0, static_cast<int>(cursor->RunLimit - cursor->Run), &run) == 1) {
        cursor->Lcn = run.Offset;
        cursor->RunLength = run.Length;
    }
}

unsigned int CFullFileRecord::EnterPiece(CAttribute* piece, _RUN_CURSOR* cursor) {
    const int runOffset = piece->IsResident() ? kResidentValueOffsetOffset : kNonResidentRunListOffsetOffset;
    cursor->Run = piece->Header + ReadU16(piece->Header, runOffset);
    cursor->RunLimit = piece->Header + piece->Size;
    cursor->PreviousLcn = 0;
    cursor->Lcn = 0;
    cursor->RunLength = 0;
    if (cursor->Run >= cursor->RunLimit) return ERROR_BEYOND_END_OF_VALUE;
    _DATA_RUN run{};
    const int decoded = DecodeDataRun(cursor->Run, 0, static_cast<int>(cursor->RunLimit - cursor->Run), &run);
    if (decoded < 0) return ERROR_BEYOND_END_OF_VALUE;
    if (decoded == 1) {
        cursor->RunLength = run.Length;
        cursor->Lcn = run.Offset;
    }
    return ERROR_SUCCESS;
}

unsigned int CFullFileRecord::StepRun(_RUN_CURSOR* cursor) {
    const int limit = static_cast<int>(cursor->RunLimit - cursor->Run);
    _DATA_RUN run{};
    if (DecodeDataRun(cursor->Run, 0, limit, &run) != 1) return ERROR_BEYOND_END_OF_VALUE;
    cursor->Run += run.Bytes;
    cursor->PreviousLcn = cursor->Lcn;
    _DATA_RUN next{};
    const int decoded = DecodeDataRun(cursor->Run, 0, static_cast<int>(cursor->RunLimit - cursor->Run), &next);
    if (decoded < 0) return ERROR_BEYOND_END_OF_VALUE;
    if (decoded == 0) {
        // The end byte: nothing is left in this piece.
        cursor->RunLength = 0;
        return ERROR_SUCCESS;
    }
    cursor->RunLength = next.Length;
    // Deltas of a damaged list can carry the LCN past 64 bits.
    if (__builtin_add_overflow(cursor->PreviousLcn, next.Offset, &cursor->Lcn)) return ERROR_FILE_CORRUPT;
    return ERROR_SUCCESS;
}

unsigned int CFullFileRecord::AdvanceRunCursor(_RUN_CURSOR* cursor) {
    if (cursor->Vcn > cursor->HighestVcn) {
        CAttribute* piece = nullptr;
        do {
            if (cursor->Piece >= kMaxPieces) return ERROR_BEYOND_END_OF_VALUE;
            ++cursor->Piece;
            piece = FindAttribute(cursor->AttributeType, cursor->Name, cursor->NameLength,
                                  static_cast<unsigned int>(cursor->Piece));
            if (piece == nullptr) return ERROR_BEYOND_END_OF_VALUE;
            if (!piece->IsResident()) {
                cursor->LowestVcn = piece->GetLowestVcn();
                cursor->HighestVcn = piece->GetHighestVcn();
                // Only a damaged piece's lowest VCN puts this beyond 64 bits.
                if (__builtin_sub_overflow(cursor->Vcn, cursor->LowestVcn, &cursor->RunOffset)) {
                    return ERROR_FILE_CORRUPT;
                }
            } else {
                cursor->LowestVcn = -1;
                cursor->HighestVcn = -1;
                cursor->RunOffset = cursor->Vcn + 1;
            }
        } while (cursor->Vcn > cursor->HighestVcn);
        const unsigned int code = EnterPiece(piece, cursor);
        if (code != ERROR_SUCCESS) return code;
    }
    // A run list is at most a record long, so this walk ends; a run of a
    // negative or zero length simply steps on, unless a damaged length
    // would carry the offset beyond 64 bits.
    while (cursor->RunOffset >= cursor->RunLength) {
        if (cursor->Run >= cursor->RunLimit || *cursor->Run == 0) return ERROR_BEYOND_END_OF_VALUE;
        if (__builtin_sub_overflow(cursor->RunOffset, cursor->RunLength, &cursor->RunOffset)) {
            return ERROR_FILE_CORRUPT;
        }
        const unsigned int code = StepRun(cursor);
        if (code != ERROR_SUCCESS) return code;
    }
    return ERROR_SUCCESS;
}

unsigned int CFullFileRecord::ReadCompressionUnit(_RUN_CURSOR* cursor, uint32_t unitBytes, void* buffer,
                                                  uint32_t* bytesRead, uint32_t* compressed) {
    unsigned int deviceCode = ERROR_SUCCESS;
    return ReadUnitReportingDevice(cursor, unitBytes, buffer, bytesRead, compressed, &deviceCode);
}

unsigned int CFullFileRecord::ReadUnitReportingDevice(_RUN_CURSOR* cursor, uint32_t unitBytes, void* buffer,
                                                      uint32_t* bytesRead, uint32_t* compressed,
                                                      unsigned int* deviceCode) {
    const int clusterSize = ClusterSize;
    const int sectorsPerCluster = ClusterSectors;
    CNTFSVolume* volume = CFileRecord::Volume;
    const uint32_t clustersPerUnit = clusterSize > 0 ? unitBytes / static_cast<uint32_t>(clusterSize) : 0;
    uint32_t realClusters = 0;
    *bytesRead = 0;
    uint32_t remaining = unitBytes;
    auto* out = static_cast<uint8_t*>(buffer);
    bool first = true;
    while (remaining > 0) {
        if (AdvanceRunCursor(cursor) != ERROR_SUCCESS || cursor->Run >= cursor->RunLimit || *cursor->Run == 0) {
            return ERROR_FILE_CORRUPT;
        }
        if (first) {
            *compressed = cursor->RunLength - cursor->RunOffset < static_cast<int64_t>(clustersPerUnit) ? 1 : 0;
            first = false;
        }
        const bool hole = (*cursor->Run >> 4) == 0;
        if (!hole) {
            int64_t clusters = static_cast<uint32_t>(cursor->RunLength - cursor->RunOffset);
            const int64_t wantedClusters = remaining / static_cast<uint32_t>(clusterSize);
            if (wantedClusters < clusters) clusters = wantedClusters;
            int64_t sector = 0;
            if (!CursorSector(*cursor, sectorsPerCluster, &sector)) return ERROR_FILE_CORRUPT;
            int done = 0;
            const unsigned int code =
                volume->ReadSector(out, &sector, static_cast<int>(clusters * sectorsPerCluster), &done, nullptr);
            const int64_t clustersDone = done / sectorsPerCluster;
            cursor->RunOffset += clustersDone;
            cursor->Vcn += clustersDone;
            realClusters += static_cast<uint32_t>(clustersDone);
            const uint32_t bytes = static_cast<uint32_t>(done) * static_cast<uint32_t>(volume->GetSectorSize());
            out += bytes;
            *bytesRead += bytes;
            remaining -= bytes;
            if (code != ERROR_SUCCESS) {
                *deviceCode = code;
                break;
            }
            if (done == 0) break;
        } else {
            _DATA_RUN run{};
            if (DecodeDataRun(cursor->Run, 0, static_cast<int>(cursor->RunLimit - cursor->Run), &run) != 1) {
                return ERROR_FILE_CORRUPT;
            }
            // The hole's whole length, not what is left behind RunOffset: a hole
            // entered from an earlier unit over-fills this one with zeros.
            uint32_t bytes = static_cast<uint32_t>(run.Length) * static_cast<uint32_t>(clusterSize);
            if (bytes > remaining) bytes = remaining;
            std::memset(out, 0, bytes);
            out += bytes;
            *bytesRead += bytes;
            remaining -= bytes;
            const int64_t clusters = bytes / static_cast<uint32_t>(clusterSize);
            cursor->RunOffset += clusters;
            cursor->Vcn += clusters;
            if (bytes == 0) return ERROR_FILE_CORRUPT;
        }
    }
    if (realClusters == 0 || realClusters == clustersPerUnit) *compressed = 0;
    return ERROR_SUCCESS;
}

unsigned int CFullFileRecord::ReadAttribute(uint32_t type, const char16_t* name, uint32_t nameLength, int64_t* offset,
                                            uint32_t count, void* buffer, uint32_t* bytesRead) {
    *bytesRead = 0;
    CAttribute* attribute = FindAttribute(type, name, nameLength, 0);
    if (attribute == nullptr || !attribute->BodyFits()) return ERROR_FILE_CORRUPT;

    if (attribute->IsResident()) {
        const uint32_t at = static_cast<uint32_t>(*offset);
        const uint32_t length = static_cast<uint32_t>(attribute->GetDataSize());
        if (at > length) return ERROR_BEYOND_END_OF_VALUE;
        const uint32_t size = count < length - at ? count : length - at;
        std::memcpy(buffer, attribute->GetValue() + at, size);
        *bytesRead = size;
        return ERROR_SUCCESS;
    }

    _RUN_CURSOR cursor;
    InitializeRunCursor(attribute, &cursor);
    cursor.AttributeType = type;
    cursor.Name = name;
    cursor.NameLength = nameLength;
    const uint16_t flags = AttributeFlags(attribute);
    uint32_t unit = static_cast<uint32_t>(ClusterSize);
    if (flags & kAttributeUnitFlagsMask) {
        const int exponent = ReadU8(attribute->Header, kNonResidentCompressionUnitOffset);
        if (exponent > kMaxCompressionUnitExponent) return ERROR_FILE_CORRUPT;
        unit = (1u << exponent) * static_cast<uint32_t>(ClusterSize);
    }
    if (unit == 0 || *offset < 0) return ERROR_FILE_CORRUPT;
    // Not cleared: a unit read whole overwrites it; after a short first
    // read the rest is cleared below, as a fresh zeroed block would be.
    auto* raw = static_cast<uint8_t*>(std::malloc(unit));
    // The unit after expansion is looked at only for compressed data.
    const bool mayExpand = (flags & kAttributeCompressionMask) != 0;
    auto* expanded = mayExpand ? static_cast<uint8_t*>(std::calloc(unit, 1)) : nullptr;
    if (raw == nullptr || (mayExpand && expanded == nullptr)) {
        std::free(raw);
        std::free(expanded);
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    uint32_t inUnit = static_cast<uint32_t>(*offset % unit);
    cursor.Vcn = (*offset - inUnit) / ClusterSize;
    cursor.RunOffset = cursor.Vcn;
    if (count == 0) {
        std::free(raw);
        std::free(expanded);
        return flags;
    }
    auto* out = static_cast<uint8_t*>(buffer);
    uint32_t remaining = count;
    unsigned int code = ERROR_SUCCESS;
    bool first = true;
    do {
        uint32_t rawRead = 0;
        uint32_t compressed = 0;
        unsigned int deviceCode = ERROR_SUCCESS;
        code = ReadUnitReportingDevice(&cursor, unit, raw, &rawRead, &compressed, &deviceCode);
        if (first && rawRead < unit) std::memset(raw + rawRead, 0, unit - rawRead);
        first = false;
        const uint8_t* source;
        int64_t length;
        if ((flags & kAttributeCompressionMask) != 0 && compressed) {
            int32_t finalSize = 0;
            DecompressBuffer(expanded, unit, raw, static_cast<int32_t>(rawRead), &finalSize);
            length = finalSize < 0 ? 0 : finalSize;
            source = expanded + inUnit;
        } else {
            length = rawRead;
            source = raw + inUnit;
        }
        if (length + inUnit > unit) length = unit - inUnit;
        if (length > remaining) length = remaining;
        std::memcpy(out, source, static_cast<size_t>(length));
        out += length;
        *bytesRead += static_cast<uint32_t>(length);
        remaining -= static_cast<uint32_t>(length);
        inUnit = 0;
        // A device that keeps failing at the same place delivers nothing more:
        // end with its code rather than retrying for ever.
        if (code == ERROR_SUCCESS && rawRead == 0) {
            code = deviceCode != ERROR_SUCCESS ? deviceCode : ERROR_FILE_CORRUPT;
        }
    } while (code == ERROR_SUCCESS && remaining > 0);
    std::free(raw);
    std::free(expanded);
    return code;
}

}  // namespace ntfs
