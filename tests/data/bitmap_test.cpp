// Cluster and record bitmaps on real volumes: free counts against the
// independent readers, first-fit allocation within and across units, freeing,
// exhaustion, and what reaches $Bitmap on disk.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "data/bitmap_data.h"
#include "foundation/log.h"
#include "record/full_file_record.h"
#include "support/fixture.h"
#include "support/mounted_volume.h"
#include "support/tools.h"

namespace ntfs {
namespace {

using test::MountedVolume;

bool InUse(CBitmapData* bitmap, int64_t item) {
    bool used = false;
    EXPECT_EQ(bitmap->IsItemInUse(item, &used), ERROR_SUCCESS) << item;
    return used;
}

int64_t CountFree(CBitmapData* bitmap) {
    int64_t free = 0;
    for (int64_t item = 0; item < bitmap->GetItemCount(); ++item) free += InUse(bitmap, item) ? 0 : 1;
    return free;
}

// The bytes of an attribute as sleuthkit reads them from an image.
std::string Icat(const std::string& image, const std::string& address) {
    const test::ToolResult result =
        test::RunTool("icat -f ntfs " + test::ShellQuote(image) + " " + address + " 2>/dev/null");
    EXPECT_EQ(result.status, 0);
    return result.output;
}

bool BitSet(const std::string& bitmap, int64_t item) {
    return (static_cast<uint8_t>(bitmap.at(static_cast<size_t>(item / 8))) >> (item % 8)) & 1;
}

TEST(Bitmap, FreeCountsAgreeWithIndependentReaders) {
    for (const std::string& name : test::FixtureNames()) {
        SCOPED_TRACE(name);
        MountedVolume mounted(name);
        ASSERT_EQ(mounted.Mount(), 1);
        CNTFSVolume* volume = mounted.Volume();
        const auto info = test::VolumeInfo(test::FixturePath(name));
        const std::string freeClusters = info.at("Free Clusters");
        EXPECT_EQ(std::to_string(CountFree(volume->GetClusterBitmap())),
                  freeClusters.substr(0, freeClusters.find(' ')));
        // $MFT's $BITMAP as sleuthkit reads it, over the records that exist.
        const std::string recordBits = Icat(test::FixturePath(name), "0-176");
        CFileRecordBitmap* records = volume->GetMftBitmap();
        int64_t free = 0;
        for (int64_t item = 0; item < records->GetItemCount(); ++item) free += BitSet(recordBits, item) ? 0 : 1;
        EXPECT_EQ(records->FreeRecords, free);
        EXPECT_EQ(CountFree(records), free);
    }
}

class ClusterAllocation : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(mounted.Mount(), 1);
        volume = mounted.Volume();
        bitmap = volume->GetClusterBitmap();
    }
    // Takes every free cluster, one at a time, and returns how many there were.
    int64_t TakeEverything() {
        int64_t taken = 0;
        for (;;) {
            int64_t start = 0;
            int got = 0;
            if (volume->SearchSpareClusterAndAllocate(1, &start, &got, 0) != ERROR_SUCCESS) break;
            ++taken;
        }
        return taken;
    }

    MountedVolume mounted{"c512"};  // 512-byte clusters: a unit covers 4096 of them
    CNTFSVolume* volume = nullptr;
    CClusterBitmap* bitmap = nullptr;
};

TEST_F(ClusterAllocation, SingleAndMultipleRuns) {
    int64_t start = -1;
    int got = 0;
    ASSERT_EQ(volume->SearchSpareClusterAndAllocate(1, &start, &got, 0), ERROR_SUCCESS);
    EXPECT_EQ(got, 1);
    EXPECT_TRUE(InUse(bitmap, start));
    int64_t run = -1;
    ASSERT_EQ(volume->SearchSpareClusterAndAllocate(20, &run, &got, 0), ERROR_SUCCESS);
    EXPECT_GE(got, 20);
    EXPECT_LE(got, 27);  // whole free bytes are counted at a time
    for (int64_t c = run; c < run + 20; ++c) EXPECT_TRUE(InUse(bitmap, c)) << c;
    EXPECT_EQ(volume->FreeClusters(&run, 20), ERROR_SUCCESS);
    for (int64_t c = run; c < run + 20; ++c) EXPECT_FALSE(InUse(bitmap, c)) << c;

    const std::string saved = mounted.UnmountToFile();
    const std::string onDisk = Icat(saved, "6");
    EXPECT_TRUE(BitSet(onDisk, start));
    EXPECT_FALSE(BitSet(onDisk, run));
}

TEST_F(ClusterAllocation, RunAcrossUnitBorderAndExhaustion) {
    const int64_t before = CountFree(bitmap);
    EXPECT_EQ(TakeEverything(), before);
    EXPECT_EQ(CountFree(bitmap), 0);
    // Free ten clusters that start in the last bits of a byte of unit 0 and
    // end in unit 1.
    int64_t start = 4093;
    ASSERT_EQ(volume->FreeClusters(&start, 10), ERROR_SUCCESS);
    int64_t found = -1;
    int got = 0;
    EXPECT_EQ(volume->SearchSpareClusterAndAllocate(11, &found, &got, 0), ERROR_HANDLE_DISK_FULL);
    for (int64_t c = 4093; c < 4103; ++c) EXPECT_FALSE(InUse(bitmap, c)) << c;
    // A scan starts at the cached unit and ends when it comes back to it, so
    // a run that crosses into the starting unit from the one before is not
    // seen; start in unit 0 for the run to be met whole.
    EXPECT_FALSE(InUse(bitmap, 4096));
    EXPECT_EQ(volume->SearchSpareClusterAndAllocate(10, &found, &got, 0), ERROR_HANDLE_DISK_FULL);
    EXPECT_TRUE(InUse(bitmap, 0));
    ASSERT_EQ(volume->SearchSpareClusterAndAllocate(10, &found, &got, 0), ERROR_SUCCESS);
    EXPECT_EQ(found, 4093);
    EXPECT_EQ(got, 10);
    for (int64_t c = 4093; c < 4103; ++c) EXPECT_TRUE(InUse(bitmap, c)) << c;
    // A volume with no free run long enough ends the contiguous search with
    // 39 instead of searching for ever.
    start = 100;
    ASSERT_EQ(volume->FreeClusters(&start, 3), ERROR_SUCCESS);
    EXPECT_EQ(volume->SearchSpareClusterAndAllocateWithLeastItemNumber(5, &found, &got, 5, 0), ERROR_HANDLE_DISK_FULL);
    for (int64_t c = 100; c < 103; ++c) EXPECT_FALSE(InUse(bitmap, c)) << c;
    EXPECT_EQ(volume->SearchSpareClusterAndAllocateWithLeastItemNumber(3, &found, &got, 3, 0), ERROR_SUCCESS);
    EXPECT_EQ(found, 100);
}

TEST_F(ClusterAllocation, NeverHandsOutItemsBeyondTheCount) {
    EXPECT_GT(TakeEverything(), 0);
    // The last byte of the bitmap has bits past the cluster count: they stay.
    int64_t start = 0;
    int got = 0;
    EXPECT_EQ(volume->SearchSpareClusterAndAllocate(1, &start, &got, 0), ERROR_HANDLE_DISK_FULL);
    EXPECT_EQ(got, 0);
}

TEST_F(ClusterAllocation, DeviceFailureOnWriteThrough) {
    mounted.Faults().FailNthWrite(mounted.Faults().Writes() + 1, ERROR_IO_DEVICE);
    int64_t start = 0;
    int got = 0;
    EXPECT_EQ(volume->SearchSpareClusterAndAllocate(4, &start, &got, 0), ERROR_IO_DEVICE);
    mounted.Faults().FailNthRead(mounted.Faults().Reads() + 1, ERROR_IO_DEVICE);
    EXPECT_EQ(volume->SearchSpareClusterAndAllocate(4, &start, &got, 0), ERROR_IO_DEVICE);
}

}  // namespace
}  // namespace ntfs
