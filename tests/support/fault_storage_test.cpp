// The fault-injecting storage is itself tested: each fault fires where asked
// and nowhere else, and the write log replays to the same image.
#include "support/fault_storage.h"

#include <gtest/gtest.h>

#include <vector>

#include "foundation/log.h"
#include "memory_storage.h"

namespace ntfs::test {
namespace {

class FaultStorageTest : public ::testing::Test {
protected:
    FaultStorageTest() : memory(std::vector<uint8_t>(16 * 512)), faults(&memory), buffer(8 * 512, 0xAB) {}

    unsigned int Read(int64_t sector, int count, int* done) {
        return faults.ReadSectors(buffer.data(), &sector, count, done, nullptr);
    }
    unsigned int Write(int64_t sector, int count, int* done) {
        return faults.WriteSectors(buffer.data(), &sector, count, done, nullptr);
    }

    MemoryStorage memory;
    FaultStorage faults;
    std::vector<uint8_t> buffer;
};

TEST_F(FaultStorageTest, NthReadAndWriteFail) {
    faults.FailNthRead(2, ERROR_IO_DEVICE);
    faults.FailNthWrite(1, 31);
    int done = 0;
    EXPECT_EQ(Read(0, 1, &done), ERROR_SUCCESS);
    EXPECT_EQ(Read(0, 1, &done), ERROR_IO_DEVICE);
    EXPECT_EQ(done, 0);
    EXPECT_EQ(Read(0, 1, &done), ERROR_SUCCESS);
    EXPECT_EQ(Write(0, 1, &done), 31u);
    EXPECT_EQ(memory.Bytes()[0], 0);
    EXPECT_EQ(Write(0, 1, &done), ERROR_SUCCESS);
    EXPECT_EQ(faults.Reads(), 3);
    EXPECT_EQ(faults.Writes(), 2);
    EXPECT_EQ(faults.SectorsRead(), 2);
    EXPECT_EQ(faults.SectorsWritten(), 1);
}

TEST_F(FaultStorageTest, BadSectorAndShortReads) {
    faults.FailReadsOfSector(5, ERROR_IO_DEVICE);
    int done = 0;
    EXPECT_EQ(Read(3, 2, &done), ERROR_SUCCESS);
    EXPECT_EQ(Read(4, 2, &done), ERROR_IO_DEVICE);
    EXPECT_EQ(Read(5, 1, &done), ERROR_IO_DEVICE);
    faults.Heal();
    faults.LimitReadSectors(3);
    EXPECT_EQ(Read(0, 8, &done), ERROR_SUCCESS);
    EXPECT_EQ(done, 3);
    ASSERT_EQ(faults.ReadLog().size(), 4u);
    EXPECT_EQ(faults.ReadLog()[1].sector, 4);
    EXPECT_EQ(faults.ReadLog()[3].count, 8);
}

TEST_F(FaultStorageTest, TornWriteLandsOnlyItsHead) {
    faults.TearNthWrite(1, 2, ERROR_IO_DEVICE);
    int done = 0;
    EXPECT_EQ(Write(4, 4, &done), ERROR_IO_DEVICE);
    EXPECT_EQ(done, 2);
    EXPECT_EQ(memory.Bytes()[5 * 512], 0xAB);
    EXPECT_EQ(memory.Bytes()[6 * 512], 0);
    ASSERT_EQ(faults.WriteLog().size(), 1u);
    EXPECT_EQ(faults.WriteLog()[0].bytes.size(), 2u * 512);
}

TEST_F(FaultStorageTest, PowerCutStopsEverythingAfterN) {
    faults.CutPowerAfterWrites(2, ERROR_IO_DEVICE);
    int done = 0;
    EXPECT_EQ(Write(0, 1, &done), ERROR_SUCCESS);
    EXPECT_EQ(Write(1, 1, &done), ERROR_SUCCESS);
    EXPECT_EQ(Write(2, 1, &done), ERROR_IO_DEVICE);
    EXPECT_EQ(Read(0, 1, &done), ERROR_IO_DEVICE);
    EXPECT_EQ(memory.Bytes()[2 * 512], 0);
}

TEST_F(FaultStorageTest, ReplayRebuildsTheImage) {
    const std::vector<uint8_t> before = memory.Bytes();
    int done = 0;
    for (int i = 0; i < 3; ++i) {
        buffer.assign(buffer.size(), static_cast<uint8_t>(i + 1));
        ASSERT_EQ(Write(i * 2, 3, &done), ERROR_SUCCESS);
    }
    std::vector<uint8_t> replayed = before;
    FaultStorage::Replay(faults.WriteLog(), faults.WriteLog().size(), &replayed);
    EXPECT_EQ(replayed, memory.Bytes());
    std::vector<uint8_t> partial = before;
    FaultStorage::Replay(faults.WriteLog(), 1, &partial);
    EXPECT_EQ(partial[2 * 512], 1);
    EXPECT_EQ(partial[3 * 512], 0);
}

}  // namespace
}  // namespace ntfs::test
