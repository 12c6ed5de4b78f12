#include "volume/volume.h"

namespace ntfs {

CVolume::CVolume(CStorage* storage) : Mounted(0), Storage(storage), ClusterSize(0), LastError(0) {}

unsigned int CVolume::ReadSector(void* buffer, int64_t* sector, int count, int* done,
                                 _STORAGE_NOTIFICATION_BLOCK* block) {
    return Storage->ReadSectors(buffer, sector, count, done, block);
}

unsigned int CVolume::WriteSector(void* buffer, int64_t* sector, int count, int* done,
                                  _STORAGE_NOTIFICATION_BLOCK* block) {
    return Storage->WriteSectors(buffer, sector, count, done, block);
}

}  // namespace ntfs
