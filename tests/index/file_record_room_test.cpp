// Room in a directory's base record: $INDEX_ALLOCATION moves out to an
// extension record, then a new empty piece of it opens in another one; the
// directory still lists every name, after remount and for ntfsfix and fls.
#include <gtest/gtest.h>

#include <string>

#include "foundation/log.h"
#include "index/directory.h"
#include "record/full_file_record.h"
#include "support/cluster_audit.h"
#include "support/mounted_volume.h"
#include "support/tools.h"

namespace ntfs {
namespace {

int CountNames(CNTFSVolume* volume, const char16_t* pattern) {
    _FIND_FILE_DATA data{};
    void* find = volume->FindFirstFileA(pattern, &data);
    if (find == nullptr) return -1;
    int names = 1;
    while (volume->FindNextFileA(find, &data)) ++names;
    (void)volume->CloseFindHandle(find);
    return names;
}

TEST(FileRecordRoom, IndexAllocationMovesToExtensionRecordsAndTheDirectoryStaysWhole) {
    test::MountedVolume mounted("big");
    ASSERT_EQ(mounted.Mount(), 1);
    CNTFSVolume* volume = mounted.Volume();
    const int names = CountNames(volume, u"\\subdirs\\*");
    ASSERT_GT(names, 200);
    CDirectory* directory = nullptr;
    ASSERT_EQ(volume->ReferenceDirectory(65, u"\\subdirs", &directory), ERROR_SUCCESS);
    directory->LockExclusive();
    // First the attribute itself moves (no list yet), then an empty piece
    // follows it in a second record.
    EXPECT_EQ(directory->AdjustFileRecord(), ERROR_SUCCESS);
    EXPECT_EQ(directory->GetFileRecord()->GetExtensionRecords().GetCount(), 1);
    EXPECT_NE(directory->GetFileRecord()->FindAttribute(AttributeAttributeList, nullptr, 0, 0), nullptr);
    EXPECT_EQ(directory->AdjustFileRecord(), ERROR_SUCCESS);
    EXPECT_EQ(directory->GetFileRecord()->GetExtensionRecords().GetCount(), 2);
    // With no resident bitmap to move, the bitmap path ends with a code and
    // gives its record back.
    directory->GrowFailed = 1;
    CAttribute* bitmap = directory->GetFileRecord()->FindAttribute(AttributeBitmap, kIndexName, kIndexNameLength, 0);
    ASSERT_NE(bitmap, nullptr);
    if (!bitmap->IsResident()) {
        EXPECT_EQ(directory->AdjustFileRecord(), ERROR_INTERNAL_ERROR);
        EXPECT_EQ(directory->GetFileRecord()->GetExtensionRecords().GetCount(), 2);
    } else {
        EXPECT_EQ(directory->AdjustFileRecord(), ERROR_SUCCESS);
        EXPECT_EQ(directory->GetFileRecord()->GetExtensionRecords().GetCount(), 3);
    }
    directory->GrowFailed = 0;
    directory->UnlockExclusive();
    directory->Release();
    EXPECT_EQ(CountNames(volume, u"\\subdirs\\*"), names);
    const test::ClusterAudit audit = test::AuditClusters(volume);
    EXPECT_TRUE(audit.Clean()) << audit.First;

    const std::string image = mounted.UnmountToFile();
    const test::ToolResult fix = test::RunTool("ntfsfix -n " + test::ShellQuote(image));
    EXPECT_EQ(fix.status, 0) << fix.output;
    const std::string fls = test::RunTool("fls " + test::ShellQuote(image) + " 65").output;
    int listed = 0;
    for (size_t at = fls.find('\n'); at != std::string::npos; at = fls.find('\n', at + 1)) ++listed;
    EXPECT_EQ(listed, names) << fls.substr(0, 400);
}

}  // namespace
}  // namespace ntfs
