// Cluster allocation at volume level: the volume's cluster operations, which
// forward to the cluster bitmap, and the release of all clusters of a
// non-resident attribute.
#include <cstdint>

#include "data/bitmap_data.h"
#include "foundation/endian.h"
#include "foundation/log.h"
#include "foundation/pointer_array.h"
#include "record/attribute.h"
#include "record/layout.h"
#include "record/run_list.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

unsigned int CNTFSVolume::SearchSpareClusterAndAllocate(int wanted, int64_t* start, int* got, int ignoreExclusions) {
    if (ClusterBitmap == nullptr) return ERROR_INTERNAL_ERROR;
    return ClusterBitmap->AllocateUnits(wanted, start, got, ignoreExclusions);
}

unsigned int CNTFSVolume::SearchSpareClusterAndAllocateWithLeastItemNumber(int wanted, int64_t* start, int* got,
                                                                           int least, int ignoreExclusions) {
    if (ClusterBitmap == nullptr) return ERROR_INTERNAL_ERROR;
    // Runs that were taken but are too short are held until a long enough
    // one is found, so the search does not find them again; then they go back.
    CPointerArray held;
    auto releaseHeld = [this, &held]() {
        for (int i = 0; i + 1 < held.GetCount(); i += 2) {
            int64_t heldStart = held.Get(i);
            (void)ClusterBitmap->FreeUnits(&heldStart, static_cast<uint32_t>(held.Get(i + 1)));
        }
    };
    for (;;) {
        const unsigned int code = ClusterBitmap->AllocateUnits(wanted, start, got, ignoreExclusions);
        if (code != ERROR_SUCCESS) {
            // No free run is long enough: searching again cannot change that.
            releaseHeld();
            return code;
        }
        if (*got >= least) {
            releaseHeld();
            return ERROR_SUCCESS;
        }
        held.InsertAfter(held.GetCount(), static_cast<intptr_t>(*start));
        held.InsertAfter(held.GetCount(), static_cast<intptr_t>(*got));
    }
}

unsigned int CNTFSVolume::FreeClusters(int64_t* start, int count) {
    if (ClusterBitmap == nullptr) return ERROR_INTERNAL_ERROR;
    // Clusters outside the volume come only from damaged run lists; their
    // bits are not touched.
    if (*start < 0 || count < 0 || *start > ClusterBitmap->GetItemCount() - count) {
        return ERROR_INVALID_PARAMETER;
    }
    return ClusterBitmap->FreeUnits(start, static_cast<uint32_t>(count));
}

unsigned int CNTFSVolume::FreeAttributeClusters(CAttribute* attribute) {
    // Whatever the frees report, the attribute's clusters are given up: 0,
    // unless the run list is damaged (below).
    if (attribute->IsResident() || ClusterBitmap == nullptr) return ERROR_SUCCESS;
    const int runListOffset = ReadU16(attribute->Header, kNonResidentRunListOffsetOffset);
    const int64_t clusters = ClusterBitmap->GetItemCount();
    const bool unitFlags = (ReadU16(attribute->Header, kAttributeFlagsOffset) & kAttributeUnitFlagsMask) != 0;
    // Two walks: the first proves that the list is whole and every run lies
    // inside the volume, the second frees. A run of a damaged list outside
    // the volume would give the bits of other clusters free, so a damaged
    // list frees nothing at all.
    for (int pass = 0; pass < 2; ++pass) {
        int64_t lcn = 0;
        for (int position = runListOffset;;) {
            _DATA_RUN run{};
            const int decoded = DecodeDataRun(attribute->Header, position, attribute->Size, &run);
            if (decoded < 0) return ERROR_FILE_CORRUPT;
            if (decoded == 0) break;
            position += run.Bytes;
            // A sparse run owns no clusters; freeing its length at the previous
            // run's place would free clusters of other files.
            // Deviation for safety: in sparse or compressed data neither does
            // a run whose LCN field holds 0 (the holes and the reserved
            // address space the write paths write so). It maps the clusters
            // of the run before it, or at the start of a piece cluster 0:
            // freeing them would free that run's clusters a second time, or
            // the boot sector's. (Plain data has such a run only for $Boot,
            // which starts at cluster 0.)
            if (run.OffsetBytes == 0 || (unitFlags && run.Offset == 0)) continue;
            if (run.Offset < -lcn || run.Offset > clusters - lcn) return ERROR_FILE_CORRUPT;
            lcn += run.Offset;
            if (run.Length <= 0) continue;
            if (run.Length > clusters - lcn) return ERROR_FILE_CORRUPT;
            if (pass == 1) {
                int64_t start = lcn;
                (void)FreeClusters(&start, static_cast<int>(run.Length));
            }
        }
    }
    return ERROR_SUCCESS;
}

}  // namespace ntfs
