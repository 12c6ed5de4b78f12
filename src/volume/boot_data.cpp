// Boot data: reading and checking a candidate boot sector, deriving the
// geometry, and fetching the raw $MFT record from its location or from the
// mirror's. The library supports one geometry class only: 512-byte sectors,
// 1,024-byte file records and 4,096-byte index records.
#include <cstdlib>
#include <cstring>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

const char kOemIdentifier[8] = {'N', 'T', 'F', 'S', ' ', ' ', ' ', ' '};
constexpr uint32_t kLargestClusterCount = 128;

// A record size field: up to 128 is a count of clusters, above it the size is
// 1 shifted by the low five bits of the negated value (so both the signed
// byte form 0xF6 and the full form 0xFFFFFFF6 give 1,024).
int RecordSizeFromField(uint32_t field, int clusterBytes) {
    if (field <= kLargestClusterCount) return static_cast<int>(field) * clusterBytes;
    return static_cast<int>(1u << ((0u - field) & 31));
}

}  // namespace

int CNTFSVolume::InitializeGeometryData() {
    const int sectorSize = GetSectorSize();
    const int clusterBytes = GetClusterSectors() * sectorSize;
    const int fileRecordSize = RecordSizeFromField(ReadU32(BootSector, kBootFileRecordSizeOffset), clusterBytes);
    WriteU32(BootSector, kBootFileRecordSizeOffset, static_cast<uint32_t>(fileRecordSize));
    FileRecordSectors = fileRecordSize / sectorSize;
    const int indexRecordSize = RecordSizeFromField(ReadU32(BootSector, kBootIndexRecordSizeOffset), clusterBytes);
    WriteU32(BootSector, kBootIndexRecordSizeOffset, static_cast<uint32_t>(indexRecordSize));
    IndexRecordSectors = indexRecordSize / sectorSize;
    ClusterSize = clusterBytes;
    VirtualClusterSize = ClusterSize > indexRecordSize ? sectorSize : ClusterSize;

    if (ClusterSize % sectorSize != 0 || indexRecordSize % sectorSize != 0 || fileRecordSize % sectorSize != 0 ||
        indexRecordSize == 0 || fileRecordSize == 0 || indexRecordSize != kIndexRecordSize ||
        fileRecordSize != kFileRecordSize) {
        LastError = ERROR_UNRECOGNIZED_VOLUME;
        return 0;
    }
    return 1;
}

int CNTFSVolume::LoadBootupData(int64_t sector) {
    std::memset(BootSector, 0, sizeof(BootSector));
    int done = 0;
    LastError = Storage->ReadSectors(BootSector, &sector, 1, &done, nullptr);
    if (LastError != ERROR_SUCCESS) return 0;

    if (ReadU16(BootSector, kBootSignatureOffset) != kBootSignature ||
        std::memcmp(BootSector + kBootOemOffset, kOemIdentifier, sizeof(kOemIdentifier)) != 0 ||
        GetSectorSize() != kSectorSize || GetClusterSectors() == 0) {
        LastError = ERROR_UNRECOGNIZED_VOLUME;
        return 0;
    }
    if (!InitializeGeometryData()) return 0;

    // First try: the $MFT location. A device error here ends the attempt; only
    // a record that fails its checks sends us to the mirror.
    const int64_t candidates[2] = {ReadI64(BootSector, kBootMftLcnOffset),
                                   ReadI64(BootSector, kBootMftMirrorLcnOffset)};
    for (int attempt = 0; attempt < 2; ++attempt) {
        void* buffer = std::malloc(static_cast<size_t>(GetFileRecordSize()));
        if (buffer == nullptr) {
            LastError = ERROR_NOT_ENOUGH_MEMORY;
            return 0;
        }
        // An LCN whose sector number does not fit in 64 bits names no place
        // on any volume: the boot sector is damaged.
        int64_t recordSector = 0;
        if (candidates[attempt] < 0 ||
            __builtin_mul_overflow(candidates[attempt], GetClusterSectors(), &recordSector)) {
            std::free(buffer);
            LastError = ERROR_UNRECOGNIZED_VOLUME;
            return 0;
        }
        LastError = Storage->ReadSectors(buffer, &recordSector, FileRecordSectors, &done, nullptr);
        if (LastError != ERROR_SUCCESS) {
            std::free(buffer);
            return 0;
        }
        // The buffer belongs to the record object from here on.
        if (InitializeMFT(static_cast<_FILE_RECORD_HEADER*>(buffer))) return 1;
    }
    return 0;
}

}  // namespace ntfs
