// The space of a mounted volume: clusters and records, free and in all, for
// hosts and tools that report it.
#include "data/bitmap_data.h"
#include "foundation/log.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

unsigned int CNTFSVolume::GetVolumeSpace(_VOLUME_SPACE* space) {
    if (ClusterBitmap == nullptr || MftBitmap == nullptr) return ERROR_INVALID_PARAMETER;
    space->Clusters = ClusterBitmap->GetItemCount();
    space->Records = MftBitmap->GetItemCount();
    space->FreeRecords = MftBitmap->FreeRecords;
    return ClusterBitmap->CountFreeItems(&space->FreeClusters);
}

}  // namespace ntfs
