// RecordingStorage: device failures the volume drops by design (a failed read
// inside a unit, the flushes of Umount) are still on record for the host.
#include "recording_storage.h"

#include <gtest/gtest.h>

#include <vector>

#include "foundation/log.h"
#include "memory_storage.h"
#include "support/fault_storage.h"
#include "support/fixture.h"
#include "volume/ntfs_volume.h"

namespace ntfs {
namespace {

class RecordingStorageTest : public ::testing::Test {
protected:
    RecordingStorageTest()
        : memory_(test::LoadImage("c4k")), faults_(&memory_), recorder_(&faults_), volume_(&recorder_) {}

    MemoryStorage memory_;
    test::FaultStorage faults_;
    RecordingStorage recorder_;
    CNTFSVolume volume_;
};

TEST_F(RecordingStorageTest, AFailedReadThatTheVolumeDropsIsOnRecord) {
    ASSERT_EQ(volume_.Mount(), 1);
    EXPECT_EQ(recorder_.Failures(), 0u);
    // The next device read, the file's first cluster, fails. Whatever the
    // volume answers for it (inside a unit the failure is dropped), the
    // record holds it.
    void* file = volume_.CreateFileA(u"\\data\\large-random.bin", 0, kOpenExisting, kAccessRead | kAccessShareMask);
    ASSERT_NE(file, nullptr);
    faults_.FailNthRead(faults_.Reads() + 1, ERROR_IO_DEVICE);
    std::vector<char> buffer(8192);
    int done = 0;
    volume_.ReadFile(file, buffer.data(), static_cast<int>(buffer.size()), &done);
    EXPECT_EQ(recorder_.Failures(), 1u);
    EXPECT_FALSE(recorder_.FirstFailure().Write);
    EXPECT_EQ(recorder_.FirstFailure().Code, ERROR_IO_DEVICE);
    EXPECT_NE(recorder_.Describe(recorder_.FirstFailure()).find("read of 8 sectors at sector "), std::string::npos);
    volume_.CloseFileHandle(file);
    EXPECT_EQ(volume_.Umount(), 1);
}

TEST_F(RecordingStorageTest, AFailedFinalFlushIsOnRecordAndRefusedWritesApart) {
    ASSERT_EQ(volume_.Mount(), 1);
    void* file = volume_.CreateFileA(u"\\readme.txt", 0, kTruncateExisting, kAccessRead | kAccessWrite);
    ASSERT_NE(file, nullptr);
    const std::vector<char> data(20000, 'z');
    int done = 0;
    ASSERT_EQ(volume_.WriteFile(file, data.data(), static_cast<int>(data.size()), &done), 1);
    ASSERT_EQ(volume_.CloseFileHandle(file), 1);
    EXPECT_EQ(recorder_.Failures(), 0u);
    // The flushes of Umount fail; Umount answers 1 all the same.
    faults_.CutPowerAfterWrites(faults_.Writes(), ERROR_IO_DEVICE);
    EXPECT_EQ(volume_.Umount(), 1);
    ASSERT_GT(recorder_.Failures(), 0u);
    EXPECT_TRUE(recorder_.FirstFailure().Write);
    EXPECT_EQ(recorder_.FirstFailure().Code, ERROR_IO_DEVICE);
    EXPECT_EQ(recorder_.RefusedWrites(), 0u);
}

TEST_F(RecordingStorageTest, WritesRefusedByAReadOnlyStorageAreCountedApart) {
    faults_.FailNthWrite(1, ERROR_WRITE_PROTECT);
    ASSERT_EQ(volume_.Mount(), 1);
    int64_t sector = 0;
    int done = 0;
    std::vector<uint8_t> bytes(512);
    ASSERT_EQ(recorder_.ReadSectors(bytes.data(), &sector, 1, &done, nullptr), ERROR_SUCCESS);
    EXPECT_EQ(recorder_.WriteSectors(bytes.data(), &sector, 1, &done, nullptr), ERROR_WRITE_PROTECT);
    EXPECT_EQ(recorder_.RefusedWrites(), 1u);
    EXPECT_EQ(recorder_.Failures(), 0u);
    EXPECT_EQ(volume_.Umount(), 1);
}

}  // namespace
}  // namespace ntfs
