// Index records and the root as nodes: room accounting (strict in a record,
// inclusive in the root), revert and commit of the live image, the root made
// anew when its attribute moves, and the allocation of index records from the
// directory's bitmap, growing a small directory into a large one on volumes
// whose clusters are smaller and larger than a record.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "data/bitmap_data.h"
#include "index/index_test_util.h"

namespace ntfs {
namespace {

using test::MakeEntry;
constexpr int kRecordSize = 4096;

// The record at `vcn` read from `disk`, or a new empty one.
CIndexRecord* LoadRecord(test::ScratchDirectory& scratch, int64_t vcn, const uint8_t* disk = nullptr) {
    auto* buffer = static_cast<uint8_t*>(std::malloc(kRecordSize));
    if (disk != nullptr) {
        std::memcpy(buffer, disk, kRecordSize);
    } else {
        EXPECT_EQ(CIndexRecord::InitializeRecord(buffer, kRecordSize, 512, vcn), 1);
        ProtectIndexRecord(buffer, kRecordSize);
    }
    return new CIndexRecord(&vcn, buffer, scratch.mounted.Volume(), scratch.directory);
}

TEST(IndexNodes, RoomRevertCommitAndTheMovedRoot) {
    test::ScratchDirectory scratch("c4k");
    ASSERT_TRUE(scratch.ready);
    CIndexRecord* record = LoadRecord(scratch, 1);
    ASSERT_TRUE(record->IsValid());
    std::unique_ptr<CIndexEntry> entry(MakeEntry(u"abc", 70));  // 88 bytes
    WriteU32(record->Image, kIndexBytesInUseOffset, 4072 - 88);
    EXPECT_FALSE(record->HasSpaceFor(entry.get()));
    WriteU32(record->Image, kIndexBytesInUseOffset, 4072 - 96);
    EXPECT_TRUE(record->HasSpaceFor(entry.get()));
    CFullFileRecord* file = scratch.directory->GetFileRecord();
    const uint32_t inUse = ReadU32(file->Image, kFileBytesInUseOffset);
    const int free = file->GetFreeSpace();
    WriteU32(file->Image, kFileBytesInUseOffset, inUse + static_cast<uint32_t>(free - 88));
    EXPECT_TRUE(scratch.directory->GetIndexRoot()->HasSpaceFor(entry.get()));
    WriteU32(file->Image, kFileBytesInUseOffset, inUse + static_cast<uint32_t>(free - 80));
    EXPECT_FALSE(scratch.directory->GetIndexRoot()->HasSpaceFor(entry.get()));
    WriteU32(file->Image, kFileBytesInUseOffset, inUse);

    // Revert goes back to the last commit.
    ASSERT_EQ(record->Revert(), 1);
    CBPlusTreeItem* stored = nullptr;
    std::unique_ptr<CIndexEntry> second(MakeEntry(u"second", 71));
    EXPECT_EQ(record->InsertRaw(nullptr, entry.get(), &stored), 0);
    EXPECT_EQ(record->InsertRaw(record->GetItem(0), second.get(), &stored), 1);
    EXPECT_EQ(record->GetBytesInUse(), 56u + 88u + 96u);
    EXPECT_EQ(record->Commit(), 1);
    CBPlusTreeNode* child = nullptr;
    EXPECT_EQ(record->RemoveItem(record->GetItem(0), &child), ERROR_SUCCESS);
    EXPECT_TRUE(test::NameOf(record->GetItem(0)) == u"second");
    EXPECT_EQ(record->Revert(), 1);
    ASSERT_EQ(record->GetItemCount(), 3);
    EXPECT_TRUE(test::NameOf(record->GetItem(0)) == u"abc");
    EXPECT_EQ(record->GetBytesInUse(), 56u + 88u + 96u);
    record->Release();

    // An attribute of a lower type goes in front of $INDEX_ROOT and moves it:
    // the root is made anew under the same pseudo item.
    CIndexEntry* pseudo = scratch.directory->PseudoItem;
    uint8_t* before = scratch.directory->RootValue;
    CAttribute data(32, 1, nullptr);
    WriteU32(data.Header, kAttributeTypeOffset, AttributeData);
    ASSERT_NE(file->InsertAttribute(&data), nullptr);
    file->RebuildMergedTable();
    CIndexRoot* root = scratch.directory->GetIndexRoot();
    ASSERT_NE(root, nullptr);
    EXPECT_NE(scratch.directory->RootValue, before);
    EXPECT_EQ(root->GetValue(), scratch.directory->RootValue);
    EXPECT_EQ(scratch.directory->PseudoItem, pseudo);
    EXPECT_EQ(pseudo->GetNode(), root);
    EXPECT_EQ(root->GetParentItem(), pseudo);
    EXPECT_EQ(root->GetItemCount(), 1);
    file->Revert();
}

// First allocations of an empty directory, per cluster size: clusters the
// growth takes, records the bitmap then holds.
struct GrowthCase {
    const char* fixture;
    int clustersPerGrowth;
    int recordsPerGrowth;
};

class IndexAllocation : public ::testing::TestWithParam<GrowthCase> {};

TEST_P(IndexAllocation, FirstAllocationMakesTheDirectoryLarge) {
    const GrowthCase growth = GetParam();
    test::ScratchDirectory scratch(growth.fixture);
    ASSERT_TRUE(scratch.ready);
    CDirectory* directory = scratch.directory;
    const int vcnPerRecord = kRecordSize / directory->GetVirtualClusterSize();
    auto added = [directory] {
        int clusters = 0;
        for (int i = 1; i < directory->NewClusterRuns.GetCount(); i += 2)
            clusters += static_cast<int>(directory->NewClusterRuns.Get(i));
        return clusters;
    };
    int64_t vcn = -1;
    int count = 0;
    ASSERT_EQ(directory->AllocateIndexRecord(&vcn, &count), ERROR_SUCCESS);
    EXPECT_EQ(vcn, 0);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(directory->NewRecords.GetCount(), 1);
    EXPECT_EQ(static_cast<CBitmapData*>(directory)->GetItemCount(), growth.recordsPerGrowth);
    const int clusters = added();
    EXPECT_EQ(clusters, growth.clustersPerGrowth);
    CAttribute* allocation =
        directory->GetFileRecord()->FindAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, 0);
    ASSERT_NE(allocation, nullptr);
    EXPECT_EQ(allocation->GetDataSize(), clusters * scratch.mounted.Volume()->GetClusterSize());
    EXPECT_EQ(allocation->GetHighestVcn(), clusters - 1);

    // Every record of the new clusters is an empty record on disk already.
    for (int record = 0; record < growth.recordsPerGrowth; ++record) {
        const int64_t at = test::IndexRecordImageOffset(directory, record * vcnPerRecord);
        ASSERT_GE(at, 0);
        CIndexRecord* loaded = LoadRecord(scratch, record * vcnPerRecord, scratch.mounted.Memory().Bytes().data() + at);
        EXPECT_TRUE(loaded->IsValid()) << record;
        EXPECT_EQ(loaded->GetVcn(), record * vcnPerRecord);
        EXPECT_EQ(loaded->GetItemCount(), 1);
        loaded->Release();
    }

    // The next record comes from the bitmap, or from a growth of its own
    // when the first one is used up.
    ASSERT_EQ(directory->AllocateIndexRecord(&vcn, &count), ERROR_SUCCESS);
    EXPECT_EQ(vcn, vcnPerRecord);
    EXPECT_EQ(directory->NewRecords.GetCount(), 2);
    EXPECT_EQ(added(), growth.recordsPerGrowth == 1 ? 2 * clusters : clusters);
}

INSTANTIATE_TEST_SUITE_P(ClusterSizes, IndexAllocation,
                         ::testing::Values(GrowthCase{"c512", 8, 1}, GrowthCase{"c4k", 1, 1},
                                           GrowthCase{"c64k", 1, 16}),
                         [](const auto& info) { return std::string(info.param.fixture); });

TEST(IndexAllocationFaults, AFailedRecordWriteGivesTheClustersBack) {
    test::ScratchDirectory scratch("c4k");
    ASSERT_TRUE(scratch.ready);
    CBitmapData* clusters = scratch.mounted.Volume()->GetClusterBitmap();
    int64_t firstFree = 0;
    for (bool used = true; used; ++firstFree) ASSERT_EQ(clusters->IsItemInUse(firstFree, &used), ERROR_SUCCESS);
    --firstFree;
    // The first write marks the cluster, the second would be the empty record.
    auto& faults = scratch.mounted.Faults();
    faults.FailNthWrite(faults.Writes() + 2, ERROR_IO_DEVICE);
    EXPECT_EQ(scratch.directory->GrowIndexAllocation(1), ERROR_IO_DEVICE);
    bool used = true;
    ASSERT_EQ(clusters->IsItemInUse(firstFree, &used), ERROR_SUCCESS);
    EXPECT_FALSE(used);
    EXPECT_EQ(scratch.directory->RecordsAdded, 0);
    EXPECT_EQ(scratch.directory->NewClusterRuns.GetCount(), 0);
}

}  // namespace
}  // namespace ntfs
