// Cluster and record accounting of a mounted volume, for tests that change
// it: every in-use record's run lists are walked against $Bitmap, and the
// MFT bitmap against the in-use flags.
#pragma once

#include <cstdint>
#include <string>

#include "volume/ntfs_volume.h"

namespace ntfs::test {

struct ClusterAudit {
    int64_t OwnedTwice = 0;        // clusters in the run lists of two pieces
    int64_t OwnedButFree = 0;      // mapped by a run list, clear in $Bitmap
    int64_t Leaked = 0;            // set in $Bitmap, mapped by nobody
    int64_t RecordMismatches = 0;  // MFT bitmap bit differs from the in-use flag
    int64_t FreeClusters = 0;      // clear bits of $Bitmap
    std::string First;             // the first finding, for the failure message
    bool Clean() const { return OwnedTwice == 0 && OwnedButFree == 0 && Leaked == 0 && RecordMismatches == 0; }
};

// Walks every record of $MFT of the mounted `volume`. Reads only.
ClusterAudit AuditClusters(CNTFSVolume* volume);

}  // namespace ntfs::test
