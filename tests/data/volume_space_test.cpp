// GetVolumeSpace: the free clusters are counted in one pass over the cluster
// bitmap, a unit at a time, not a read per cluster.
#include <gtest/gtest.h>

#include "support/mounted_volume.h"

namespace ntfs {
namespace {

TEST(VolumeSpaceTest, CountsTheClusterBitmapInOnePass) {
    for (const char* name : {"c512", "c4k", "big"}) {
        test::MountedVolume mounted(name);
        ASSERT_EQ(mounted.Mount(), 1) << name;
        CNTFSVolume* volume = mounted.Volume();
        const int readsBefore = mounted.Faults().Reads();
        const int64_t sectorsBefore = mounted.Faults().SectorsRead();
        _VOLUME_SPACE space{};
        ASSERT_EQ(volume->GetVolumeSpace(&space), 0u) << name;
        // The bitmap holds a bit per cluster; reading it once takes at most a
        // transfer per cluster of the bitmap, and its sectors once.
        const int64_t bitmapBytes = (space.Clusters + 7) / 8;
        const int64_t bitmapClusters = (bitmapBytes + volume->GetClusterSize() - 1) / volume->GetClusterSize();
        EXPECT_LE(mounted.Faults().Reads() - readsBefore, bitmapClusters + 1) << name;
        EXPECT_LE(mounted.Faults().SectorsRead() - sectorsBefore,
                  bitmapClusters * volume->GetClusterSize() / volume->GetSectorSize())
            << name;
        EXPECT_GT(space.FreeClusters, 0) << name;
        EXPECT_LT(space.FreeClusters, space.Clusters) << name;
        EXPECT_EQ(volume->Umount(), 1);
    }
}

}  // namespace
}  // namespace ntfs
