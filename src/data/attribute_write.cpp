// Writing attribute values in place: resident values in the record image,
// plain non-resident values sector by sector over the existing runs. Nothing
// here changes an attribute's sizes or extends its runs: callers make the
// space first, and a write beyond the run list fails. No journal is kept:
// each sector goes to the device as soon as it is ready.
//
// Members of CFullFileRecord; callers hold the record's exclusive lock. The
// volume's one SectorScratch buffer serves the partial-sector path and has no
// lock of its own.
#include <cstring>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

unsigned int CFullFileRecord::WriteAttribute(uint32_t type, const char16_t* name, uint32_t nameLength, int64_t* offset,
                                             uint32_t count, const void* buffer, uint32_t* bytesWritten) {
    *bytesWritten = 0;
    CAttribute* attribute = FindAttribute(type, name, nameLength, 0);
    if (attribute == nullptr || !attribute->BodyFits()) return ERROR_FILE_CORRUPT;
    if (count == 0) return ERROR_SUCCESS;
    if (attribute->IsResident()) {
        const uint32_t at = static_cast<uint32_t>(*offset);
        const uint32_t length = static_cast<uint32_t>(attribute->GetDataSize());
        if (at > length) return ERROR_BEYOND_END_OF_VALUE;
        const uint32_t size = count < length - at ? count : length - at;
        std::memcpy(attribute->GetValue() + at, buffer, size);
        *bytesWritten = size;
        Modified = 1;
        attribute->Mark();
        return ERROR_SUCCESS;
    }
    const uint16_t flags = ReadU16(attribute->Header, kAttributeFlagsOffset);
    if ((flags & kAttributeCompressionMask) != 0) {
        return WriteCompressedAttribute(type, name, nameLength, offset, count, buffer, bytesWritten);
    }
    if (flags >= kAttributeSparse)
        return WriteSparseAttribute(type, name, nameLength, offset, count, buffer, bytesWritten);
    return WritePlainAttribute(type, name, nameLength, offset, count, buffer, bytesWritten);
}

unsigned int CFullFileRecord::WritePlainAttribute(uint32_t type, const char16_t* name, uint32_t nameLength,
                                                  int64_t* offset, uint32_t count, const void* buffer,
                                                  uint32_t* bytesWritten) {
    *bytesWritten = 0;
    CNTFSVolume* volume = CFileRecord::Volume;
    const int sectorSize = volume->GetSectorSize();
    CAttribute* attribute = FindAttribute(type, name, nameLength, 0);
    if (attribute == nullptr || attribute->IsResident() || !attribute->BodyFits()) {
        return ERROR_FILE_CORRUPT;
    }
    if (*offset < 0 || sectorSize != kSectorSize) return ERROR_BEYOND_END_OF_VALUE;
    _RUN_CURSOR cursor;
    InitializeRunCursor(attribute, &cursor);
    cursor.AttributeType = type;
    cursor.Name = name;
    cursor.NameLength = nameLength;
    cursor.Vcn = *offset / ClusterSize;
    cursor.RunOffset = cursor.Vcn;
    unsigned int code = AdvanceRunCursor(&cursor);
    if (code != ERROR_SUCCESS) return code;

    int inSector = static_cast<int>(*offset % sectorSize);
    int sectorInCluster = static_cast<int>((*offset / sectorSize) % ClusterSectors);
    const auto* source = static_cast<const uint8_t*>(buffer);
    uint32_t remaining = count;
    while (remaining > 0) {
        if (cursor.RunOffset >= cursor.RunLength) {
            code = AdvanceRunCursor(&cursor);
            if (code != ERROR_SUCCESS) return code;
        }
        int64_t sector = 0;
        if (!CursorSector(cursor, ClusterSectors, &sector) || sector > INT64_MAX - sectorInCluster) {
            return ERROR_FILE_CORRUPT;
        }
        sector += sectorInCluster;
        int written = 0;
        uint32_t bytesDone;
        if (inSector != 0 || remaining < static_cast<uint32_t>(sectorSize)) {
            int read = 0;
            volume->SectorScratch[0] = 0;
            code = volume->ReadSector(volume->SectorScratch, &sector, 1, &read, nullptr);
            if (code != ERROR_SUCCESS) return code;
            const uint32_t room = static_cast<uint32_t>(sectorSize - inSector);
            bytesDone = remaining < room ? remaining : room;
            std::memcpy(volume->SectorScratch + inSector, source, bytesDone);
            code = volume->WriteSector(volume->SectorScratch, &sector, 1, &written, nullptr);
        } else {
            int64_t sectors = remaining / static_cast<uint32_t>(sectorSize);
            // A run longer than any write (only a damaged list has one of
            // 2^31 clusters) holds the whole rest of it.
            const int64_t clustersLeft = cursor.RunLength - cursor.RunOffset;
            const int64_t inRun =
                clustersLeft > INT32_MAX ? INT64_MAX : clustersLeft * ClusterSectors - sectorInCluster;
            if (inRun < sectors) sectors = inRun;
            code = volume->WriteSector(const_cast<uint8_t*>(source), &sector, static_cast<int>(sectors), &written,
                                       nullptr);
            bytesDone = static_cast<uint32_t>(written) * static_cast<uint32_t>(sectorSize);
            if (bytesDone > remaining) bytesDone = remaining;
        }
        if (code != ERROR_SUCCESS) {
            *bytesWritten += static_cast<uint32_t>(written) * static_cast<uint32_t>(sectorSize);
            return code;
        }
        if (written == 0) return ERROR_IO_DEVICE;  // the device took nothing
        sectorInCluster += written;
        if (sectorInCluster >= ClusterSectors) {
            const int clusters = sectorInCluster / ClusterSectors;
            cursor.RunOffset += clusters;
            cursor.Vcn += clusters;
            sectorInCluster %= ClusterSectors;
        }
        source += bytesDone;
        *bytesWritten += bytesDone;
        remaining -= bytesDone;
        inSector = 0;
    }
    return ERROR_SUCCESS;
}

}  // namespace ntfs
