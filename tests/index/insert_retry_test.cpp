// The retry of an insertion after making room in the directory's base
// record. The first attempt needs a new index record while the base record
// has no byte to spare, fails with 122 and is undone; the room is made by
// moving $INDEX_ALLOCATION to an extension record, and the attribute list
// that this brings goes into the base record ahead of $INDEX_ROOT, so the
// root's bytes move in the record's image. The retry must work on the root
// at its new place: the names all there in order, in memory and after a
// remount.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "data/bitmap_data.h"
#include "index/index_test_util.h"
#include "support/cluster_audit.h"

namespace ntfs {
namespace {

std::u16string RetryName(int number) {
    std::string text = "Retry test name " + std::to_string(10000 + number) + " ";
    text.append(100, 'r');
    return std::u16string(text.begin(), text.end());
}

CAttribute* IndexAllocation(CDirectory* directory) {
    return directory->GetFileRecord()->FindAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, 0);
}

// The index record under the root's end entry.
CIndexRecord* LastLeaf(CDirectory* directory) {
    CIndexRoot* root = directory->GetIndexRoot();
    CBPlusTreeItem* end = root->GetItem(root->GetItemCount() - 1);
    CBPlusTreeNode* child = nullptr;
    if (end == nullptr || end->GetChildNode(&child) != ERROR_SUCCESS) return nullptr;
    return static_cast<CIndexRecord*>(child);
}

TEST(InsertRetry, RootMovedByANewAttributeListIsTakenAtItsNewPlace) {
    test::ScratchDirectory scratch("c4k");
    ASSERT_TRUE(scratch.ready);
    CDirectory* directory = scratch.directory;
    CFullFileRecord* file = directory->GetFileRecord();
    std::vector<std::u16string> names;

    // A large directory whose one record takes exactly one more name.
    while (IndexAllocation(directory) == nullptr) {
        ASSERT_LT(names.size(), 40u);
        names.push_back(RetryName(static_cast<int>(names.size())));
        ASSERT_EQ(scratch.InsertName(names.back()), ERROR_SUCCESS);
    }
    const int entryLength = IndexEntrySize(static_cast<int>(RetryName(0).size()));
    for (;;) {
        CIndexRecord* leaf = LastLeaf(directory);
        ASSERT_NE(leaf, nullptr);
        ASSERT_TRUE(leaf->IsLeaf());
        if (static_cast<int>(leaf->GetBytesAllocated() - leaf->GetBytesInUse()) < 2 * entryLength) break;
        names.push_back(RetryName(static_cast<int>(names.size())));
        ASSERT_EQ(scratch.InsertName(names.back()), ERROR_SUCCESS);
    }
    names.push_back(RetryName(static_cast<int>(names.size())));
    ASSERT_EQ(scratch.InsertName(names.back()), ERROR_SUCCESS);
    ASSERT_EQ(file->FindAttribute(AttributeAttributeList, nullptr, 0, 0), nullptr);

    // The base record without a free byte; then growths of the index, each
    // in a run of its own, until the run list has no room left either; then
    // every index record in use and the cluster behind the last run taken,
    // so that the split needs a growth, and that growth a new run that does
    // not fit in the base record.
    const int free = file->GetFreeSpace();
    ASSERT_GE(free, 40);
    auto* pad = new CAttribute(free, 1, u"pad");
    ASSERT_TRUE(pad->Valid);
    WriteU32(pad->Header, kAttributeTypeOffset, AttributeData);
    ASSERT_NE(file->CFileRecord::InsertAttribute(pad), nullptr);
    delete pad;
    file->RebuildMergedTable();
    ASSERT_EQ(file->GetFreeSpace(), 0);
    ASSERT_EQ(directory->WriteDirectoryRecord(), ERROR_SUCCESS);
    file->Commit();
    auto fillBitmap = [&] {
        int64_t bit = 0;
        int got = 0;
        while (directory->AllocateUnits(1, &bit, &got, 0) == ERROR_SUCCESS) {
        }
    };
    auto takeClusterBehindLastRun = [&] {
        int runCount = 0;
        int64_t* runs = IndexAllocation(directory)->GetRunList(&runCount);
        const int64_t behind = runCount > 0 ? runs[2 * (runCount - 1)] + runs[2 * (runCount - 1) + 1] : 0;
        std::free(runs);
        for (int taken = 0; taken < 4096; ++taken) {
            int64_t lcn = 0;
            int clusters = 0;
            if (scratch.mounted.Volume()->SearchSpareClusterAndAllocate(1, &lcn, &clusters, 0) != ERROR_SUCCESS ||
                lcn >= behind) {
                break;
            }
        }
    };
    unsigned int grown = ERROR_SUCCESS;
    for (int round = 0; round < 40 && grown == ERROR_SUCCESS; ++round) {
        fillBitmap();
        takeClusterBehindLastRun();
        grown = directory->GrowIndexAllocation(1);
        directory->NewClusterRuns.Clear();
        directory->RecordsAdded = 0;
        if (grown == ERROR_SUCCESS) {
            fillBitmap();
            ASSERT_EQ(directory->WriteDirectoryRecord(), ERROR_SUCCESS);
            file->Commit();
        }
    }
    ASSERT_EQ(grown, static_cast<unsigned int>(ERROR_INSUFFICIENT_BUFFER));
    file->Revert();
    ASSERT_NE(directory->GetIndexRoot(), nullptr);
    fillBitmap();
    ASSERT_EQ(directory->WriteDirectoryRecord(), ERROR_SUCCESS);
    file->Commit();
    takeClusterBehindLastRun();

    // The insertion that splits the record: refused once for room, then done
    // after $INDEX_ALLOCATION moved out and the list came in ahead of the root.
    testing::internal::CaptureStdout();
    names.push_back(RetryName(static_cast<int>(names.size())));
    const unsigned int code = scratch.InsertName(names.back());
    const std::string log = testing::internal::GetCapturedStdout();
    ASSERT_EQ(code, ERROR_SUCCESS) << log;
    EXPECT_NE(log.find("There is no space to store new data in FileRecord, Adjust it."), std::string::npos);
    EXPECT_NE(file->FindAttribute(AttributeAttributeList, nullptr, 0, 0), nullptr);
    EXPECT_EQ(test::CheckIndex(directory), "");
    std::sort(names.begin(), names.end(), test::IndexLess);
    EXPECT_EQ(test::WalkNames(directory), names);

    test::MountedVolume again(scratch.Unmount());
    ASSERT_EQ(again.Mount(), 1);
    CDirectory* reopened = nullptr;
    ASSERT_EQ(again.Volume()->ReferenceDirectory(66, u"\\EmptyDir", &reopened), ERROR_SUCCESS);
    reopened->LockShared();
    EXPECT_EQ(test::CheckIndex(reopened), "");
    EXPECT_EQ(test::WalkNames(reopened), names);
    reopened->UnlockShared();
    reopened->Release();
}

}  // namespace
}  // namespace ntfs
