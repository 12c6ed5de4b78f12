// Boot data: every check of a candidate boot sector alone, the geometry rules,
// where the $MFT record is read from, and sector copying.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "memory_storage.h"
#include "support/fault_storage.h"
#include "support/fixture.h"
#include "volume/ntfs_volume.h"

namespace ntfs {
namespace {

using test::FaultStorage;

// Exposes the protected boot steps.
class ProbeVolume : public CNTFSVolume {
public:
    using CNTFSVolume::CNTFSVolume;
    using CNTFSVolume::InitializeGeometryData;
    using CNTFSVolume::LoadBootupData;
    uint8_t* Boot() { return BootSector; }
    int RecordSectors() const { return FileRecordSectors; }
    int IndexSectors() const { return IndexRecordSectors; }
};

constexpr int64_t kMftLcn = 4;
constexpr int64_t kMirrorLcn = 8;

// A boot sector as mkntfs writes it for the given cluster size.
std::vector<uint8_t> BootImage(int clusterBytes, int64_t sectors = 4096) {
    std::vector<uint8_t> boot(512, 0);
    std::memcpy(&boot[3], "NTFS    ", 8);
    WriteU16(boot.data(), 11, 512);
    WriteU8(boot.data(), 13, static_cast<uint8_t>(clusterBytes / 512));
    WriteU64(boot.data(), 40, static_cast<uint64_t>(sectors - 1));
    WriteU64(boot.data(), 48, kMftLcn);
    WriteU64(boot.data(), 56, kMirrorLcn);
    WriteU32(boot.data(), 64, clusterBytes > 1024 ? 0xF6 : 1024 / clusterBytes);
    WriteU32(boot.data(), 68, clusterBytes > 4096 ? 0xF4 : 4096 / clusterBytes);
    WriteU16(boot.data(), 510, 0xAA55);
    return boot;
}

struct Device {
    explicit Device(const std::vector<uint8_t>& boot, int64_t sectors = 4096)
        : memory(std::vector<uint8_t>(static_cast<size_t>(sectors) * 512)), faults(&memory), volume(&faults) {
        std::copy(boot.begin(), boot.end(), memory.Bytes().begin());
    }
    MemoryStorage memory;
    FaultStorage faults;
    ProbeVolume volume;
};

TEST(BootData, EachCheckFailsAlone) {
    struct Damage {
        const char* what;
        void (*apply)(uint8_t*);
    };
    const Damage damages[] = {
        {"signature", [](uint8_t* b) { WriteU16(b, 510, 0x55AA); }},
        {"oem", [](uint8_t* b) { b[7] = 'X'; }},
        {"sector size 4096", [](uint8_t* b) { WriteU16(b, 11, 4096); }},
        {"sector size 1024", [](uint8_t* b) { WriteU16(b, 11, 1024); }},
        {"zero sectors per cluster", [](uint8_t* b) { b[13] = 0; }},
        {"file record field 0", [](uint8_t* b) { WriteU32(b, 64, 0); }},
        {"file record 2048", [](uint8_t* b) { WriteU32(b, 64, 0xF5); }},
        {"file record 129 shifts by 31", [](uint8_t* b) { WriteU32(b, 64, 129); }},
        {"index record 1024", [](uint8_t* b) { WriteU32(b, 68, 0xF6); }},
        {"index record field 0", [](uint8_t* b) { WriteU32(b, 68, 0); }},
    };
    for (const Damage& damage : damages) {
        std::vector<uint8_t> boot = BootImage(4096);
        damage.apply(boot.data());
        Device device(boot);
        EXPECT_EQ(device.volume.LoadBootupData(0), 0) << damage.what;
        EXPECT_EQ(device.volume.GetLastError(), ERROR_UNRECOGNIZED_VOLUME) << damage.what;
        // Nothing beyond the boot sector is read for a refused volume.
        EXPECT_EQ(device.faults.Reads(), 1) << damage.what;
    }
}

TEST(BootData, GeometryPerClusterSize) {
    struct Case {
        int cluster;
        int virtualCluster;
    };
    for (const Case& c :
         {Case{512, 512}, Case{1024, 1024}, Case{2048, 2048}, Case{4096, 4096}, Case{8192, 512}, Case{65536, 512}}) {
        Device device(BootImage(c.cluster));
        device.volume.LoadBootupData(0);
        EXPECT_EQ(device.volume.GetClusterSize(), c.cluster);
        EXPECT_EQ(device.volume.GetClusterSectors(), c.cluster / 512);
        EXPECT_EQ(device.volume.GetFileRecordSize(), 1024) << c.cluster;
        EXPECT_EQ(device.volume.GetIndexRecordSize(), 4096) << c.cluster;
        EXPECT_EQ(device.volume.RecordSectors(), 2);
        EXPECT_EQ(device.volume.IndexSectors(), 8);
        EXPECT_EQ(device.volume.GetVirtualClusterSize(), c.virtualCluster) << c.cluster;
        EXPECT_EQ(device.volume.GetSectorSize(), 512);
    }
}

TEST(BootData, RecordSizeFieldForms) {
    // The signed byte and the full negative form both mean 1 << 10; 128 is a
    // cluster count.
    for (uint32_t field : {0xF6u, 0xFFFFFFF6u}) {
        std::vector<uint8_t> boot = BootImage(4096);
        WriteU32(boot.data(), 64, field);
        Device device(boot);
        device.volume.LoadBootupData(0);
        EXPECT_EQ(device.volume.GetFileRecordSize(), 1024) << field;
    }
    std::vector<uint8_t> boot = BootImage(512);
    WriteU32(boot.data(), 68, 128);
    Device device(boot);
    EXPECT_EQ(device.volume.LoadBootupData(0), 0);
    EXPECT_EQ(device.volume.GetIndexRecordSize(), 128 * 512);
    EXPECT_EQ(device.volume.GetLastError(), ERROR_UNRECOGNIZED_VOLUME);
}

TEST(BootData, VolumeSectorNumberAsStored) {
    Device device(BootImage(4096, 4096));
    device.volume.LoadBootupData(0);
    int64_t sectors = 0;
    device.volume.GetVolumeSectorNumber(&sectors);
    EXPECT_EQ(sectors, 4095);
}

TEST(BootData, MftReadFromBootLocationThenMirror) {
    Device device(BootImage(4096));
    // The zeroed record at the $MFT location fails its proof, so the mirror's
    // copy is read next.
    EXPECT_EQ(device.volume.LoadBootupData(0), 0);
    const auto& reads = device.faults.ReadLog();
    ASSERT_EQ(reads.size(), 3u);
    EXPECT_EQ(reads[0].sector, 0);
    EXPECT_EQ(reads[0].count, 1);
    EXPECT_EQ(reads[1].sector, kMftLcn * 8);
    EXPECT_EQ(reads[1].count, 2);
    EXPECT_EQ(reads[2].sector, kMirrorLcn * 8);
    EXPECT_EQ(reads[2].count, 2);
}

TEST(BootData, DeviceErrorAtMftDoesNotTryMirror) {
    Device device(BootImage(4096));
    device.faults.FailReadsOfSector(kMftLcn * 8, ERROR_IO_DEVICE);
    EXPECT_EQ(device.volume.LoadBootupData(0), 0);
    EXPECT_EQ(device.volume.GetLastError(), ERROR_IO_DEVICE);
    EXPECT_EQ(device.faults.Reads(), 2);
}

TEST(BootData, DeviceErrorOnBootSectorPassesThrough) {
    Device device(BootImage(4096));
    device.faults.FailNthRead(1, ERROR_IO_DEVICE);
    EXPECT_EQ(device.volume.LoadBootupData(0), 0);
    EXPECT_EQ(device.volume.GetLastError(), ERROR_IO_DEVICE);
    int64_t sectors = -1;
    device.volume.GetVolumeSectorNumber(&sectors);
    EXPECT_EQ(sectors, 0);  // the image stays cleared after a read error
}

// An LCN whose sector number passes 64 bits names no place: the boot sector
// is damaged (1005), and the product is not taken modulo 2^64 to some other
// place. On "c4k", each LCN is made 2^61 clusters larger than the real one
// (8 sectors a cluster: the product would wrap onto the real place); the
// mount then goes on with the intact backup boot sector.
TEST(BootData, LcnBeyondSixtyFourBitSectorsIsADamagedBootSector) {
    for (const int field : {kBootMftLcnOffset, kBootMftMirrorLcnOffset}) {
        SCOPED_TRACE(field);
        std::vector<uint8_t> image = test::LoadImage("c4k");
        WriteU64(image.data(), field, static_cast<uint64_t>(ReadI64(image.data(), field)) + (uint64_t{1} << 61));
        // The mirror is read only after the record at the $MFT location
        // failed its checks: here it is the boot sector.
        if (field == kBootMftMirrorLcnOffset) WriteU64(image.data(), kBootMftLcnOffset, 0);
        {
            MemoryStorage memory(image);
            FaultStorage faults(&memory);
            ProbeVolume volume(&faults);
            EXPECT_EQ(volume.LoadBootupData(0), 0);
            EXPECT_EQ(volume.GetLastError(), ERROR_UNRECOGNIZED_VOLUME);
        }
        MemoryStorage memory(image);
        FaultStorage faults(&memory);
        CNTFSVolume volume(&faults);
        EXPECT_EQ(volume.Mount(), 1) << volume.GetLastError();
        EXPECT_EQ(volume.Umount(), 1);
    }
}

TEST(CopySector, EmptyChunkedAndShort) {
    Device device(BootImage(4096), 1024);
    for (size_t i = 512; i < device.memory.Bytes().size(); ++i) {
        device.memory.Bytes()[i] = static_cast<uint8_t>(i / 512);
    }
    device.volume.LoadBootupData(0);
    device.faults.ClearLogs();
    int done = -1;
    EXPECT_EQ(device.volume.CopySector(10, 500, 0, &done), ERROR_SUCCESS);
    EXPECT_EQ(done, 0);
    EXPECT_TRUE(device.faults.ReadLog().empty());

    EXPECT_EQ(device.volume.CopySector(100, 600, 129, &done), ERROR_SUCCESS);
    EXPECT_EQ(done, 129);
    ASSERT_EQ(device.faults.WriteLog().size(), 2u);
    EXPECT_EQ(device.faults.WriteLog()[0].sector, 600);
    EXPECT_EQ(device.faults.WriteLog()[0].bytes.size(), 128u * 512);
    EXPECT_EQ(device.faults.WriteLog()[1].sector, 728);
    EXPECT_EQ(device.faults.WriteLog()[1].bytes.size(), 512u);
    EXPECT_EQ(device.memory.Bytes()[728 * 512], static_cast<uint8_t>(228));

    // A short read that reports success ends the copy with 0 and a short count.
    device.faults.LimitReadSectors(50);
    EXPECT_EQ(device.volume.CopySector(100, 600, 129, &done), ERROR_SUCCESS);
    EXPECT_EQ(done, 0);
    device.faults.Heal();
    device.faults.FailNthWrite(device.faults.Writes() + 1, ERROR_IO_DEVICE);
    EXPECT_EQ(device.volume.CopySector(100, 600, 10, &done), ERROR_IO_DEVICE);
    EXPECT_EQ(done, 0);
}

TEST(VolumeFactory, CreatesUnmountedVolumeWithoutIo) {
    MemoryStorage memory(std::vector<uint8_t>(512));
    FaultStorage faults(&memory);
    CVolume* volume = nullptr;
    ASSERT_EQ(CreateFileSystemObject(&faults, &volume), 1);
    ASSERT_NE(volume, nullptr);
    EXPECT_EQ(volume->IsMounted(), 0);
    EXPECT_EQ(volume->GetLastError(), 0u);
    EXPECT_EQ(faults.Reads() + faults.Writes(), 0);
    delete volume;
}

}  // namespace
}  // namespace ntfs
