// The space of a mounted volume: clusters and records, free and in all, for
// hosts and tools that report it.
#include "data/bitmap_data.h"
#include "foundation/log.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

// Counts the clear bits of the bitmap's items, stopping at the first failed
// read with its code.
unsigned int CountFreeItems(CBitmapData* bitmap, int64_t* free) {
    *free = 0;
    for (int64_t item = 0; item < bitmap->GetItemCount(); ++item) {
        bool used = true;
        const unsigned int code = bitmap->IsItemInUse(item, &used);
        if (code != ERROR_SUCCESS) return code;
        *free += used ? 0 : 1;
    }
    return ERROR_SUCCESS;
}

}  // namespace

unsigned int CNTFSVolume::GetVolumeSpace(_VOLUME_SPACE* space) {
    if (ClusterBitmap == nullptr || MftBitmap == nullptr) return ERROR_INVALID_PARAMETER;
    space->Clusters = ClusterBitmap->GetItemCount();
    space->Records = MftBitmap->GetItemCount();
    space->FreeRecords = MftBitmap->FreeRecords;
    return CountFreeItems(ClusterBitmap, &space->FreeClusters);
}

}  // namespace ntfs
