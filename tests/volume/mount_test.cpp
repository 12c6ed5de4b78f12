// Mounting the real fixture volumes: geometry and version against ntfsinfo,
// the backup boot sector and the $MFT mirror as fallbacks, each refusal with
// its code, and device failures passed through.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "data/bitmap_data.h"
#include "foundation/endian.h"
#include "foundation/log.h"
#include "record/full_file_record.h"
#include "support/fixture.h"
#include "support/mounted_volume.h"
#include "support/tools.h"

namespace ntfs {
namespace {

using test::FixtureNames;
using test::FixturePath;
using test::LoadImage;
using test::MountedVolume;

TEST(Mount, EveryFixtureMountsWithItsGeometry) {
    ASSERT_FALSE(FixtureNames().empty());
    for (const std::string& name : FixtureNames()) {
        SCOPED_TRACE(name);
        MountedVolume mounted(name);
        ASSERT_EQ(mounted.Mount(), 1) << mounted.Volume()->GetLastError();
        CNTFSVolume* volume = mounted.Volume();
        const auto info = test::VolumeInfo(FixturePath(name));
        ASSERT_FALSE(info.empty());
        EXPECT_EQ(std::to_string(volume->GetClusterSize()), info.at("Cluster Size"));
        EXPECT_EQ(std::to_string(volume->GetFileRecordSize()), info.at("MFT Record Size"));
        EXPECT_EQ(std::to_string(volume->GetIndexRecordSize()), info.at("Index Block Size"));
        const std::string version =
            std::to_string(volume->GetVersionMajor()) + "." + std::to_string(volume->GetVersionMinor());
        EXPECT_EQ(version, info.at("Volume Version"));
        const int expectedVirtual = volume->GetClusterSize() > 4096 ? 512 : volume->GetClusterSize();
        EXPECT_EQ(volume->GetVirtualClusterSize(), expectedVirtual);
        EXPECT_EQ(volume->IsMounted(), 1);
        EXPECT_EQ(volume->Umount(), 1);
        EXPECT_EQ(volume->IsMounted(), 1);  // stays set after Umount
    }
}

TEST(Mount, DamagedSignatureMountsFromBackupBootSector) {
    std::vector<uint8_t> image = LoadImage("c4k");
    image[510] = 0;
    MountedVolume mounted(std::move(image));
    ASSERT_EQ(mounted.Mount(), 1) << mounted.Volume()->GetLastError();
    int64_t sectors = 0;
    mounted.Volume()->GetVolumeSectorNumber(&sectors);
    ASSERT_FALSE(mounted.Faults().ReadLog().empty());
    EXPECT_EQ(mounted.Faults().ReadLog()[1].sector, sectors);
}

TEST(Mount, ZeroedBootSectorIsRefused) {
    std::vector<uint8_t> image = LoadImage("c4k");
    std::memset(image.data(), 0, 512);
    MountedVolume mounted(std::move(image));
    EXPECT_EQ(mounted.Mount(), 0);
    EXPECT_EQ(mounted.Volume()->GetLastError(), ERROR_UNRECOGNIZED_VOLUME);
}

TEST(Mount, UnreadableMftRecordMountsFromMirror) {
    // The boot sector's $MFT location is pointed at cluster 0, where the
    // record checks fail; the mirror's copy leads to the real $MFT and proves.
    std::vector<uint8_t> image = LoadImage("c1k");
    WriteU64(image.data(), 48, 0);
    MountedVolume mounted(std::move(image));
    ASSERT_EQ(mounted.Mount(), 1) << mounted.Volume()->GetLastError();
    CFullFileRecord* root = nullptr;
    ASSERT_EQ(mounted.Volume()->ReferenceFileRecord(5, &root), ERROR_SUCCESS);
    EXPECT_TRUE(root->IsValid());
    root->Release();
}

TEST(Mount, MftThatDoesNotLeadBackToItselfIsRefused) {
    // A torn sector in record 0 at its real place: both the boot sector's
    // copy and the proof through the mirror's run list read it.
    std::vector<uint8_t> image = LoadImage("c1k");
    const int64_t clusterBytes = ReadU8(image.data(), 13) * 512;
    const int64_t mft = ReadI64(image.data(), 48) * clusterBytes;
    image[mft + 510] ^= 0xFF;
    MountedVolume mounted(std::move(image));
    EXPECT_EQ(mounted.Mount(), 0);
    EXPECT_EQ(mounted.Volume()->GetLastError(), ERROR_UNRECOGNIZED_VOLUME);
}

TEST(Mount, DeviceErrorsPassThrough) {
    // The n-th read fails for every read that Mount makes, in turn.
    MountedVolume probe("c4k");
    ASSERT_EQ(probe.Mount(), 1);
    const int reads = probe.Faults().Reads();
    for (int n = 1; n <= reads; ++n) {
        SCOPED_TRACE(n);
        MountedVolume mounted("c4k");
        mounted.Faults().FailNthRead(n, ERROR_IO_DEVICE);
        const int result = mounted.Mount();
        if (result == 0) {
            EXPECT_TRUE(mounted.Volume()->GetLastError() == ERROR_IO_DEVICE ||
                        mounted.Volume()->GetLastError() == ERROR_FILE_CORRUPT ||
                        mounted.Volume()->GetLastError() == ERROR_UNRECOGNIZED_VOLUME)
                << mounted.Volume()->GetLastError();
        }
    }
    MountedVolume failing("c4k");
    failing.Faults().FailNthRead(1, 1117);
    EXPECT_EQ(failing.Mount(), 0);
    EXPECT_EQ(failing.Volume()->GetLastError(), 1117u);
}

}  // namespace
}  // namespace ntfs
