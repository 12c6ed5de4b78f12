// Records of $MFT handed out and taken back: a record taken is a blank FILE
// record in use with its bit set; given back, its flags and bit are clear.
// With two free records or fewer left, new records are first stamped out of
// the room $MFT's $DATA already owns; with no such room, on a volume too
// small for $MFT to grow, there is no record.
#include <gtest/gtest.h>

#include <string>

#include "data/bitmap_data.h"
#include "foundation/log.h"
#include "record/file_record.h"
#include "record/full_file_record.h"
#include "support/cluster_audit.h"
#include "support/mounted_volume.h"
#include "support/tools.h"

namespace ntfs {
namespace {

int64_t MftDataSize(CNTFSVolume* volume) {
    return volume->GetMftBitmap()->Mft->GetAttributeDataSize(AttributeData, nullptr, 0);
}

TEST(RecordAllocation, RecordsAreTakenStampedAndGivenBack) {
    test::MountedVolume mounted("c512");
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    CFileRecordBitmap* bitmap = volume->GetMftBitmap();
    const int64_t records = bitmap->GetItemCount();
    const int64_t size = MftDataSize(volume);

    // Plenty of free records: a free bit is taken.
    CFileRecord* first = nullptr;
    ASSERT_EQ(volume->ReferenceEmptyFileRecordFromMFT(&first, 0), ERROR_SUCCESS);
    ASSERT_NE(first, nullptr);
    EXPECT_TRUE(first->IsValid());
    EXPECT_EQ(first->Attributes.GetCount(), 0);
    bool inUse = false;
    ASSERT_EQ(bitmap->IsItemInUse(first->RecordNumber, &inUse), 0u);
    EXPECT_TRUE(inUse);
    EXPECT_EQ(bitmap->GetItemCount(), records);

    // Two left: the one record of room in $DATA is stamped first.
    bitmap->FreeRecords = 2;
    CFileRecord* second = nullptr;
    ASSERT_EQ(volume->ReferenceEmptyFileRecordFromMFT(&second, 0), ERROR_SUCCESS);
    EXPECT_EQ(bitmap->GetItemCount(), records + 1);
    EXPECT_EQ(MftDataSize(volume), size + volume->GetFileRecordSize());
    // No room left, and 32767 sectors are too few for $MFT to grow: no record.
    bitmap->FreeRecords = 2;
    CFileRecord* third = nullptr;
    EXPECT_EQ(volume->ReferenceEmptyFileRecordFromMFT(&third, 0), ERROR_HANDLE_DISK_FULL);
    EXPECT_EQ(third, nullptr);
    EXPECT_EQ(volume->GetLastError(), ERROR_HANDLE_DISK_FULL);

    for (CFileRecord* record : {first, second}) {
        const int64_t number = record->RecordNumber;
        delete record;
        EXPECT_EQ(volume->DeleteFileRecordFromMFT(number), ERROR_SUCCESS);
        ASSERT_EQ(bitmap->IsItemInUse(number, &inUse), 0u);
        EXPECT_FALSE(inUse);
    }
    const test::ClusterAudit audit = test::AuditClusters(volume);
    EXPECT_TRUE(audit.Clean()) << audit.First;
    const std::string image = mounted.UnmountToFile();
    const test::ToolResult fix = test::RunTool("ntfsfix -n " + test::ShellQuote(image));
    EXPECT_EQ(fix.status, 0) << fix.output;
    EXPECT_NE(test::RunTool("ntfsinfo -i 0 " + test::ShellQuote(image)).output.find(std::to_string(size + 1024)),
              std::string::npos);
}

}  // namespace
}  // namespace ntfs
