// Writing sparse and compressed attribute values: one compression unit at a
// time. Each unit touched first gets real clusters for all its holes
// (RemapCompressionUnit), then goes to the device whole through
// WritePlainAttribute. Sizes are not changed here and nothing is extended: a
// write beyond the run list fails with the cursor's 644. A failure in a later
// unit leaves the units before it written.
//
// Members of CFullFileRecord; callers hold the record's exclusive lock.
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

// The compression unit exponent valid attributes have (4) stays far below.
constexpr int kMaxCompressionUnitExponent = 8;

}  // namespace

unsigned int CFullFileRecord::WriteSparseAttribute(uint32_t type, const char16_t* name, uint32_t nameLength,
                                                   int64_t* offset, uint32_t count, const void* buffer,
                                                   uint32_t* bytesWritten) {
    return WriteUnits(type, name, nameLength, offset, count, buffer, bytesWritten, false);
}

// Deviation for safety: a compressed unit is stored whole, in real clusters,
// as written data of the sparse path is; it is not stored as an LZNT1 stream
// in fewer clusters, nor as a hole when it is all zero. The rest of such a
// unit would be a hole written with an LCN field holding 0, which every
// reader of this format takes for real clusters at the running LCN: the unit
// would read back as raw clusters of its own run, of the run before it, or
// at the start of a piece of the boot sector, instead of the data, and in a
// partial write the bytes of the unit the caller did not give would be lost.
// For the same reason a unit whose clusters to store equal the unit, and
// which still has holes, is given real clusters first (written through its
// runs as they stand, a hole would overwrite the run before it or the boot
// sector); what is stored is the caller's data in a whole-unit write (not the
// merge buffer, which holds another unit or nothing), and the unit as read,
// expanded when it is compressed, under the caller's bytes in a partial
// write (a unit stored plain is not left out of the merge).
unsigned int CFullFileRecord::WriteCompressedAttribute(uint32_t type, const char16_t* name, uint32_t nameLength,
                                                       int64_t* offset, uint32_t count, const void* buffer,
                                                       uint32_t* bytesWritten) {
    return WriteUnits(type, name, nameLength, offset, count, buffer, bytesWritten, true);
}

unsigned int CFullFileRecord::WriteUnits(uint32_t type, const char16_t* name, uint32_t nameLength, int64_t* offset,
                                         uint32_t count, const void* buffer, uint32_t* bytesWritten, bool expand) {
    *bytesWritten = 0;
    CNTFSVolume* volume = CFileRecord::Volume;
    volume->SectorScratch[0] = 0;
    CAttribute* attribute = FindAttribute(type, name, nameLength, 0);
    if (attribute == nullptr || attribute->IsResident() || !attribute->BodyFits()) return ERROR_FILE_CORRUPT;
    const int exponent = ReadU8(attribute->Header, kNonResidentCompressionUnitOffset);
    if (exponent > kMaxCompressionUnitExponent || ClusterSize <= 0) return ERROR_FILE_CORRUPT;
    if (*offset < 0) return ERROR_BEYOND_END_OF_VALUE;
    const int32_t clustersPerUnit = 1 << exponent;
    const uint32_t unit = static_cast<uint32_t>(clustersPerUnit) * static_cast<uint32_t>(ClusterSize);
    auto* store = static_cast<uint8_t*>(std::malloc(unit));
    auto* merge = expand ? static_cast<uint8_t*>(std::malloc(unit)) : nullptr;
    if (store == nullptr || (expand && merge == nullptr)) {
        std::free(store);
        std::free(merge);
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    uint32_t inUnit = static_cast<uint32_t>(*offset % unit);
    int64_t unitOffset = *offset - inUnit;
    auto startCursor = [&](_RUN_CURSOR* cursor) {
        CAttribute* head = FindAttribute(type, name, nameLength, 0);
        if (head == nullptr || head->IsResident()) return false;
        InitializeRunCursor(head, cursor);
        cursor->AttributeType = type;
        cursor->Name = name;
        cursor->NameLength = nameLength;
        cursor->Vcn = unitOffset / ClusterSize;
        cursor->RunOffset = cursor->Vcn;
        return true;
    };
    _RUN_CURSOR cursor;
    unsigned int code = startCursor(&cursor) ? ERROR_SUCCESS : ERROR_FILE_CORRUPT;
    const auto* source = static_cast<const uint8_t*>(buffer);
    uint32_t remaining = count;
    while (code == ERROR_SUCCESS && remaining > 0) {
        code = AdvanceRunCursor(&cursor);
        if (code != ERROR_SUCCESS) break;
        const uint8_t* unitData = source;
        uint32_t take = unit;
        if (inUnit != 0 || remaining < unit) {
            _RUN_CURSOR reader = cursor;
            uint32_t got = 0;
            uint32_t compressed = 0;
            unsigned int deviceCode = ERROR_SUCCESS;
            code = ReadUnitReportingDevice(&reader, unit, store, &got, &compressed, &deviceCode);
            if (code != ERROR_SUCCESS) break;
            // Deviation for safety: a unit that came back short (the device
            // failed) is not written back: the part not read would go to
            // the device as whatever the buffer held. The device's code ends
            // the write.
            if (got < unit) {
                code = deviceCode != ERROR_SUCCESS ? deviceCode : ERROR_IO_DEVICE;
                break;
            }
            uint8_t* unitImage = store;
            if (expand && compressed) {
                int32_t expanded = 0;
                (void)DecompressBuffer(merge, unit, store, static_cast<int32_t>(got), &expanded);
                if (expanded < 0) expanded = 0;
                if (static_cast<uint32_t>(expanded) > unit) expanded = static_cast<int32_t>(unit);
                // What a stream that ends early leaves behind reads as zeros.
                std::memset(merge + expanded, 0, unit - static_cast<uint32_t>(expanded));
                unitImage = merge;
            }
            take = unit - inUnit < remaining ? unit - inUnit : remaining;
            std::memcpy(unitImage + inUnit, source, take);
            unitData = unitImage;
        }
        int32_t realClusters = 0;
        code = RemapCompressionUnit(&cursor, clustersPerUnit, clustersPerUnit, &realClusters);
        if (code != ERROR_SUCCESS) break;
        // The run list may have moved: the cursor starts again.
        if (!startCursor(&cursor)) {
            code = ERROR_FILE_CORRUPT;
            break;
        }
        int64_t at = unitOffset;
        uint32_t written = 0;
        code = WritePlainAttribute(type, name, nameLength, &at, unit, unitData, &written);
        if (code != ERROR_SUCCESS) break;
        source += take;
        remaining -= take;
        *bytesWritten += take;
        inUnit = 0;
        unitOffset += unit;
        if (!startCursor(&cursor)) code = ERROR_FILE_CORRUPT;
    }
    std::free(store);
    std::free(merge);
    return code;
}

}  // namespace ntfs
