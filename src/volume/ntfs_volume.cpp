// CNTFSVolume's life outside mount: construction, destruction, the geometry
// accessors, sector copying and the factory.
#include "volume/ntfs_volume.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "data/bitmap_data.h"
#include "foundation/endian.h"
#include "foundation/log.h"

namespace ntfs {

namespace {
constexpr int kCopyChunkSectors = 128;
}

CNTFSVolume::CNTFSVolume(CStorage* storage)
    : CVolume(storage),
      ShortNameLists(nullptr),
      FileRecordSectors(0),
      IndexRecordSectors(0),
      VirtualClusterSize(0),
      MftBitmap(nullptr),
      MftMirror(nullptr),
      ClusterBitmap(nullptr),
      VersionMajor(0),
      VersionMinor(0) {
    std::memset(BootSector, 0, sizeof(BootSector));
    SectorScratch[0] = 0;
    Directories.EnableRecoverBox(1);
    FileRecords.EnableRecoverBox(1);
}

// No I/O here. What a mount keeps referenced for the life of the volume (the
// root's record, and after a failed mount whatever it had referenced) is
// freed, so that nothing outlives the object: the directories kept in the
// recover box first, since they hold references to records; then the
// bitmaps and the records. Directories and handles a host left open are not
// touched. The embedded
// containers then go in reverse order of declaration: Directories,
// FileRecords, FindHandles, FileHandles.
CNTFSVolume::~CNTFSVolume() {
    Directories.EnableRecoverBox(1);
    delete MftBitmap;
    MftBitmap = nullptr;
    delete ClusterBitmap;
    ClusterBitmap = nullptr;
    DestroyShortNameLists();
    FileRecords.EnableRecoverBox(1);
    while (CChainElement* record = FileRecords.GetElement(0)) delete record;
}

int CNTFSVolume::GetSectorSize() {
    return ReadI16(BootSector, kBootBytesPerSectorOffset);
}

int CNTFSVolume::GetClusterSectors() const {
    return ReadU8(BootSector, kBootSectorsPerClusterOffset);
}

int CNTFSVolume::GetFileRecordSize() const {
    return ReadI32(BootSector, kBootFileRecordSizeOffset);
}

int CNTFSVolume::GetIndexRecordSize() const {
    return ReadI32(BootSector, kBootIndexRecordSizeOffset);
}

void CNTFSVolume::GetVolumeSectorNumber(int64_t* out) const {
    *out = ReadI64(BootSector, kBootTotalSectorsOffset);
}

unsigned int CNTFSVolume::CopySector(int64_t source, int64_t target, int count, int* done) {
    *done = 0;
    // Sized by the one sector size the volume accepts, so a call before the
    // boot data is loaded cannot overrun the buffer.
    void* buffer = std::malloc(static_cast<size_t>(kSectorSize) * kCopyChunkSectors);
    if (buffer == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    unsigned int result = ERROR_SUCCESS;
    while (count > 0) {
        const int chunk = count < kCopyChunkSectors ? count : kCopyChunkSectors;
        int read = 0;
        result = ReadSector(buffer, &source, chunk, &read, nullptr);
        if (result != ERROR_SUCCESS || read < chunk) break;
        int written = 0;
        result = WriteSector(buffer, &target, read, &written, nullptr);
        *done += written;
        if (result != ERROR_SUCCESS || written < read) break;
        source += written;
        target += written;
        count -= written;
    }
    std::free(buffer);
    return result;
}

void CNTFSVolume::SystemTimeToFileTime(const _SYSTEMTIME* time, _LARGE_INTEGER* result) {
    ntfs::SystemTimeToFileTime(time, result);
}

void CNTFSVolume::FileTimeToSystemTime(_LARGE_INTEGER* time, _SYSTEMTIME* result) {
    ntfs::FileTimeToSystemTime(time, result);
}

int CreateFileSystemObject(CStorage* storage, CVolume** volume) {
    *volume = new (std::nothrow) CNTFSVolume(storage);
    return *volume != nullptr ? 1 : 0;
}

}  // namespace ntfs
