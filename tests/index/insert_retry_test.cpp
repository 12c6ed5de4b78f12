// The retry of an insertion after making room in the directory's base
// record, and its absence inside a removal. The first attempt needs a new index record while the base record
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

// Every index record of `directory` marked in use.
void FillIndexBitmap(CDirectory* directory) {
    int64_t bit = 0;
    int got = 0;
    while (directory->AllocateUnits(1, &bit, &got, 0) == ERROR_SUCCESS) {
    }
}

// The directory's base record without a free byte: a named $DATA stream
// takes the room. Written and committed.
void FillBaseRecord(CDirectory* directory) {
    CFullFileRecord* file = directory->GetFileRecord();
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
}

// Leaves the next growth of the index one that fails for room in the base
// record: the base record without a free byte; growths of the index, each in
// a run of its own, until the run list has no room left either; every index
// record in use, so that the next record needs a growth; and the cluster
// behind the last run taken, so that the growth makes a new run. The state
// is written and committed as the change's starting point.
void StarveIndexGrowth(test::ScratchDirectory& scratch) {
    CDirectory* directory = scratch.directory;
    CFullFileRecord* file = directory->GetFileRecord();
    ASSERT_NO_FATAL_FAILURE(FillBaseRecord(directory));
    auto fillBitmap = [&] { FillIndexBitmap(directory); };
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

    ASSERT_NO_FATAL_FAILURE(StarveIndexGrowth(scratch));

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

// A removal whose entry comes back through a nested insertion, and that
// insertion needs room the base record does not have: the removal fails as
// a whole, and the directory stays as it was, in memory and on disk. The failed attempt has
// undone the removal too, so the entry must not be added again by a retry.
TEST(InsertRetry, NestedInsertionOfARemovalIsNotRetried) {
    test::ScratchDirectory scratch("c4k");
    ASSERT_TRUE(scratch.ready);
    CDirectory* directory = scratch.directory;
    std::vector<std::u16string> names;
    // Three levels: root, interior records, leaves.
    for (;;) {
        test::TreeShape shape;
        ASSERT_EQ(test::CheckIndex(directory, &shape), "");
        if (shape.Depth >= 3) break;
        ASSERT_LT(names.size(), 200u);
        names.push_back(RetryName(static_cast<int>(names.size())));
        ASSERT_EQ(scratch.InsertName(names.back()), ERROR_SUCCESS);
    }
    // The leftmost leaf, under the first (real) entry of an interior record,
    // keeps one name; the leaf behind that entry is filled with names just
    // above it, so that the entry's return splits it.
    CBPlusTreeNode* interior = nullptr;
    ASSERT_EQ(directory->GetIndexRoot()->GetItem(0)->GetChildNode(&interior), ERROR_SUCCESS);
    ASSERT_FALSE(interior->IsLeaf());
    ASSERT_GE(interior->GetItemCount(), 2);
    const std::u16string parent = test::NameOf(interior->GetItem(0));
    CBPlusTreeNode* leaf = nullptr;
    ASSERT_EQ(interior->GetItem(0)->GetChildNode(&leaf), ERROR_SUCCESS);
    std::vector<std::u16string> leafNames;
    for (int i = 0; i + 1 < leaf->GetItemCount(); ++i) leafNames.push_back(test::NameOf(leaf->GetItem(i)));
    for (size_t i = 0; i + 1 < leafNames.size(); ++i) {
        ASSERT_EQ(scratch.RemoveName(leafNames[i]), ERROR_SUCCESS);
        names.erase(std::find(names.begin(), names.end(), leafNames[i]));
    }
    CBPlusTreeNode* next = nullptr;
    ASSERT_EQ(interior->GetItem(1)->GetChildNode(&next), ERROR_SUCCESS);
    auto* nextLeaf = static_cast<CIndexRecord*>(next);
    ASSERT_TRUE(nextLeaf->IsLeaf());
    const int parentLength = IndexEntrySize(static_cast<int>(parent.size()));
    for (char16_t last = u'A';
         nextLeaf->GetBytesAllocated() - nextLeaf->GetBytesInUse() >= static_cast<uint32_t>(parentLength); ++last) {
        ASSERT_LT(last, u'Z');
        std::u16string above = parent;
        above.back() = last;
        above[above.size() - 2] = u'z';
        names.push_back(above);
        ASSERT_EQ(scratch.InsertName(above), ERROR_SUCCESS);
        ASSERT_EQ(interior->GetItem(1)->GetChildNode(&next), ERROR_SUCCESS);
        ASSERT_EQ(next, static_cast<CBPlusTreeNode*>(nextLeaf)) << "the leaf split early";
    }
    ASSERT_NO_FATAL_FAILURE(StarveIndexGrowth(scratch));

    const unsigned int code = scratch.RemoveName(leafNames.back());
    EXPECT_TRUE(code == ERROR_INSUFFICIENT_BUFFER || code == ERROR_HANDLE_DISK_FULL) << code;
    std::sort(names.begin(), names.end(), test::IndexLess);
    EXPECT_EQ(test::CheckIndex(directory), "");
    EXPECT_EQ(test::WalkNames(directory), names);

    test::MountedVolume again(scratch.Unmount());
    ASSERT_EQ(again.Mount(), 1);
    CDirectory* reopened = nullptr;
    ASSERT_EQ(again.Volume()->ReferenceDirectory(test::ScratchDirectory::kRecord, u"\\EmptyDir", &reopened),
              ERROR_SUCCESS);
    reopened->LockShared();
    EXPECT_EQ(test::CheckIndex(reopened), "");
    EXPECT_EQ(test::WalkNames(reopened), names);
    reopened->UnlockShared();
    reopened->Release();
}

// A growth whose bitmap must grow in a full base record: the resize fails,
// the retry moves $BITMAP out to an extension record instead of
// $INDEX_ALLOCATION, and the insertion then goes through.
TEST(InsertRetry, AFailedBitmapResizeMovesTheBitmapOut) {
    test::ScratchDirectory scratch("c4k");
    ASSERT_TRUE(scratch.ready);
    CDirectory* directory = scratch.directory;
    CFullFileRecord* file = directory->GetFileRecord();
    std::vector<std::u16string> names;
    while (!scratch.Large()) {
        ASSERT_LT(names.size(), 40u);
        names.push_back(RetryName(static_cast<int>(names.size())));
        ASSERT_EQ(scratch.InsertName(names.back()), ERROR_SUCCESS);
    }
    // 64 records, all in use: the bitmap's 8 bytes are full, and the next
    // record needs 8 more in a base record without a free byte.
    while (directory->CBitmapData::GetItemCount() < 64) {
        ASSERT_EQ(directory->GrowIndexAllocation(1), ERROR_SUCCESS);
        directory->NewClusterRuns.Clear();
        directory->RecordsAdded = 0;
    }
    ASSERT_EQ(directory->CBitmapData::GetItemCount(), 64);
    FillIndexBitmap(directory);
    ASSERT_NO_FATAL_FAILURE(FillBaseRecord(directory));

    // Names until one needs a new index record.
    testing::internal::CaptureStdout();
    unsigned int code = ERROR_SUCCESS;
    const int before = directory->CBitmapData::GetItemCount();
    while (code == ERROR_SUCCESS && directory->CBitmapData::GetItemCount() == before && names.size() < 80) {
        names.push_back(RetryName(static_cast<int>(names.size())));
        code = scratch.InsertName(names.back());
    }
    const std::string log = testing::internal::GetCapturedStdout();
    ASSERT_EQ(code, ERROR_SUCCESS) << log;
    EXPECT_GT(directory->CBitmapData::GetItemCount(), 64);
    EXPECT_NE(log.find("Change bitmap size fail."), std::string::npos);
    EXPECT_NE(log.find("There is no space to store new data in FileRecord, Adjust it."), std::string::npos);
    CAttribute* bitmap = file->FindAttribute(AttributeBitmap, kIndexName, kIndexNameLength, 0);
    ASSERT_NE(bitmap, nullptr);
    EXPECT_NE(bitmap->Record, static_cast<CFileRecord*>(file));
    EXPECT_EQ(directory->GrowFailed, 0);
    std::sort(names.begin(), names.end(), test::IndexLess);
    EXPECT_EQ(test::CheckIndex(directory), "");
    EXPECT_EQ(test::WalkNames(directory), names);

    test::ScratchDirectory again(scratch.Unmount());
    ASSERT_TRUE(again.ready);
    EXPECT_EQ(test::CheckIndex(again.directory), "");
    EXPECT_EQ(test::WalkNames(again.directory), names);
}

}  // namespace
}  // namespace ntfs
