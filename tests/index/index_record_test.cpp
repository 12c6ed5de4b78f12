// Index records and the root as nodes: the checks of construction, room
// accounting (strict in a record, inclusive in the root), revert and commit
// of the live image, the root made anew when its attribute moves, and the
// allocation of index records from the directory's bitmap, with the growth
// of a small directory into a large one on volumes whose clusters are
// smaller and larger than a record.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "data/bitmap_data.h"
#include "index/index_test_util.h"
#include "support/mounted_volume.h"

namespace ntfs {
namespace {

using test::MakeEntry;
using test::MountedVolume;

constexpr int64_t kEmptyDirRecord = 66;
constexpr int kRecordSize = 4096;

class EmptyDirectory {
public:
    explicit EmptyDirectory(const std::string& fixture) : mounted(fixture) {
        ready = mounted.Mount() == 1 && mounted.Volume()->ReferenceDirectory(kEmptyDirRecord, u"\\EmptyDir",
                                                                             &directory) == ERROR_SUCCESS;
        if (ready) directory->LockExclusive();
    }
    ~EmptyDirectory() {
        if (directory != nullptr) {
            directory->UnlockExclusive();
            directory->Release();
        }
        mounted.Volume()->Umount();
    }
    // A record made new at `vcn`, protected as on disk, then read back.
    CIndexRecord* Load(int64_t vcn, const std::vector<uint8_t>& disk) {
        auto* buffer = static_cast<uint8_t*>(std::malloc(kRecordSize));
        std::memcpy(buffer, disk.data(), kRecordSize);
        return new CIndexRecord(&vcn, buffer, mounted.Volume(), directory);
    }

    MountedVolume mounted;
    CDirectory* directory = nullptr;
    bool ready = false;
};

std::vector<uint8_t> NewRecordOnDisk(int64_t vcn) {
    std::vector<uint8_t> image(kRecordSize);
    EXPECT_EQ(CIndexRecord::InitializeRecord(image.data(), kRecordSize, 512, vcn), 1);
    ProtectIndexRecord(image.data(), kRecordSize);
    return image;
}

TEST(IndexRecordChecks, ConstructionRefusesWhatFailsTheUpdateSequence) {
    EmptyDirectory scratch("c4k");
    ASSERT_TRUE(scratch.ready);
    const std::vector<uint8_t> good = NewRecordOnDisk(5);
    // The header's VCN is not compared with the one asked for.
    CIndexRecord* record = scratch.Load(99, good);
    EXPECT_TRUE(record->IsValid());
    EXPECT_EQ(record->GetVcn(), 5);
    EXPECT_EQ(record->GetShadowVcn(), 99);
    EXPECT_EQ(record->GetItemCount(), 1);
    EXPECT_TRUE(record->IsEmpty());
    EXPECT_TRUE(record->IsLeaf());
    EXPECT_EQ(scratch.directory->FindOpenRecord(5), record);
    record->Release();
    EXPECT_EQ(scratch.directory->FindOpenRecord(5), nullptr);

    std::vector<uint8_t> eight = good;
    eight.at(kIndexUpdateSequenceCountOffset) = 8;
    eight.at(kIndexUpdateSequenceCountOffset + 1) = 0;
    std::vector<uint8_t> torn = good;
    torn[5 * 512 + 511] ^= 0x80;
    std::vector<uint8_t> magic = good;
    magic[3] = 'Y';
    for (const auto* bad : {&eight, &torn, &magic}) {
        record = scratch.Load(5, *bad);
        EXPECT_FALSE(record->IsValid());
        EXPECT_EQ(scratch.directory->FindOpenRecord(5), nullptr);  // never found by its VCN
        EXPECT_EQ(record->Revert(), 0);
        EXPECT_EQ(record->Commit(), 0);
        CBPlusTreeNode* child = nullptr;
        std::unique_ptr<CIndexEntry> stray(MakeEntry(u"x", 1));
        EXPECT_EQ(record->RemoveItem(stray.get(), &child), ERROR_INTERNAL_ERROR);
        record->Release();
    }
}

TEST(IndexRecordRoom, StrictInARecordAndInclusiveInTheRoot) {
    EmptyDirectory scratch("c4k");
    ASSERT_TRUE(scratch.ready);
    CIndexRecord* record = scratch.Load(1, NewRecordOnDisk(1));
    std::unique_ptr<CIndexEntry> entry(MakeEntry(u"abc", 70));  // 88 bytes
    WriteU32(record->Image, kIndexBytesInUseOffset, 4072 - 88);
    EXPECT_FALSE(record->HasSpaceFor(entry.get()));
    WriteU32(record->Image, kIndexBytesInUseOffset, 4072 - 96);
    EXPECT_TRUE(record->HasSpaceFor(entry.get()));
    // A damaged allocated size counts no further than the record.
    WriteU32(record->Image, kIndexBytesAllocatedOffset, 0x7FFFFFFF);
    EXPECT_EQ(record->GetBytesAllocated(), 4072u);
    record->Release();

    CIndexRoot* root = scratch.directory->GetIndexRoot();
    CFullFileRecord* file = scratch.directory->GetFileRecord();
    const uint32_t inUse = ReadU32(file->Image, kFileBytesInUseOffset);
    const int free = file->GetFreeSpace();
    WriteU32(file->Image, kFileBytesInUseOffset, inUse + static_cast<uint32_t>(free - 88));
    EXPECT_TRUE(root->HasSpaceFor(entry.get()));
    WriteU32(file->Image, kFileBytesInUseOffset, inUse + static_cast<uint32_t>(free - 80));
    EXPECT_FALSE(root->HasSpaceFor(entry.get()));
    WriteU32(file->Image, kFileBytesInUseOffset, inUse);
}

TEST(IndexRecordImages, RevertGoesBackToTheLastCommit) {
    EmptyDirectory scratch("c4k");
    ASSERT_TRUE(scratch.ready);
    CIndexRecord* record = scratch.Load(2, NewRecordOnDisk(2));
    std::unique_ptr<CIndexEntry> entry(MakeEntry(u"first", 70));
    CBPlusTreeItem* stored = nullptr;
    EXPECT_EQ(record->InsertRaw(nullptr, entry.get(), &stored), 0);
    ASSERT_NE(stored, nullptr);
    EXPECT_TRUE(test::NameOf(stored) == u"first");
    EXPECT_EQ(record->IsModified(), 1);
    EXPECT_EQ(record->GetBytesInUse(), 56u + 96u);
    EXPECT_EQ(scratch.directory->ModifiedRecords.IndexOf(record), 0);
    EXPECT_EQ(record->Revert(), 1);
    EXPECT_EQ(record->IsModified(), 0);
    EXPECT_EQ(record->GetItemCount(), 1);
    EXPECT_EQ(record->GetBytesInUse(), 56u);

    EXPECT_EQ(record->InsertRaw(nullptr, entry.get(), &stored), 0);
    std::unique_ptr<CIndexEntry> second(MakeEntry(u"second", 71));
    EXPECT_EQ(record->InsertRaw(record->GetItem(0), second.get(), &stored), 1);
    EXPECT_EQ(record->Commit(), 1);
    EXPECT_EQ(std::memcmp(record->Image, record->CleanImage, kRecordSize), 0);
    CBPlusTreeNode* child = nullptr;
    EXPECT_EQ(record->RemoveItem(record->GetItem(0), &child), ERROR_SUCCESS);
    EXPECT_EQ(child, nullptr);
    EXPECT_EQ(record->GetItemCount(), 2);
    EXPECT_TRUE(test::NameOf(record->GetItem(0)) == u"second");
    EXPECT_EQ(record->GetItem(0)->GetNext(), record->GetItem(1));
    EXPECT_EQ(record->GetItem(1)->GetPrevious(), record->GetItem(0));
    EXPECT_EQ(record->Revert(), 1);
    ASSERT_EQ(record->GetItemCount(), 3);
    EXPECT_TRUE(test::NameOf(record->GetItem(0)) == u"first");
    record->Release();
}

TEST(IndexRootObject, IsMadeAnewWhenItsAttributeMovesAndKeepsThePseudoItem) {
    EmptyDirectory scratch("c4k");
    ASSERT_TRUE(scratch.ready);
    CDirectory* directory = scratch.directory;
    CIndexRoot* root = directory->GetIndexRoot();
    ASSERT_NE(root, nullptr);
    CIndexEntry* pseudo = directory->PseudoItem;
    ASSERT_NE(pseudo, nullptr);
    EXPECT_EQ(pseudo->GetLength(), 0);  // sixteen zero bytes
    EXPECT_EQ(root->GetParentItem(), pseudo);
    EXPECT_EQ(pseudo->GetNode(), root);
    EXPECT_EQ(directory->GetIndexRoot(), root);
    // A small root: one 16-byte end entry, not empty, a leaf.
    EXPECT_EQ(root->GetItemCount(), 1);
    EXPECT_FALSE(root->IsEmpty());
    EXPECT_TRUE(root->IsLeaf());
    EXPECT_EQ(root->GetBytesInUse(), 32u);

    // An attribute of a lower type goes in front of $INDEX_ROOT and moves it.
    uint8_t* before = directory->RootValue;
    CAttribute data(32, 1, nullptr);
    WriteU32(data.Header, kAttributeTypeOffset, AttributeData);
    CFullFileRecord* file = directory->GetFileRecord();
    ASSERT_NE(file->InsertAttribute(&data), nullptr);
    file->RebuildMergedTable();
    CIndexRoot* again = directory->GetIndexRoot();
    ASSERT_NE(again, nullptr);
    EXPECT_NE(directory->RootValue, before);
    EXPECT_EQ(again->GetValue(), directory->RootValue);
    EXPECT_EQ(directory->PseudoItem, pseudo);
    EXPECT_EQ(pseudo->GetNode(), again);
    EXPECT_EQ(again->GetParentItem(), pseudo);
    EXPECT_EQ(again->GetItemCount(), 1);
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
    EmptyDirectory scratch(growth.fixture);
    ASSERT_TRUE(scratch.ready);
    CDirectory* directory = scratch.directory;
    const int vcnPerRecord = kRecordSize / directory->GetVirtualClusterSize();

    testing::internal::CaptureStdout();
    int64_t vcn = -1;
    int count = 0;
    ASSERT_EQ(directory->AllocateIndexRecord(&vcn, &count), ERROR_SUCCESS);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("There is no IndexAllocation attribute in directory.\n"), std::string::npos);
    EXPECT_EQ(vcn, 0);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(directory->NewRecords.GetCount(), 1);
    EXPECT_EQ(directory->RecordsAdded, 1);
    EXPECT_EQ(static_cast<CBitmapData*>(directory)->GetItemCount(), growth.recordsPerGrowth);
    ASSERT_EQ(directory->NewClusterRuns.GetCount() % 2, 0);
    int clusters = 0;
    for (int i = 1; i < directory->NewClusterRuns.GetCount(); i += 2) {
        clusters += static_cast<int>(directory->NewClusterRuns.Get(i));
    }
    EXPECT_EQ(clusters, growth.clustersPerGrowth);
    CAttribute* allocation =
        directory->GetFileRecord()->FindAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, 0);
    ASSERT_NE(allocation, nullptr);
    const int64_t clusterSize = scratch.mounted.Volume()->GetClusterSize();
    EXPECT_EQ(allocation->GetDataSize(), clusters * clusterSize);
    EXPECT_EQ(allocation->GetHighestVcn(), clusters - 1);

    // Every record of the new clusters is an empty record on disk already.
    for (int record = 0; record < growth.recordsPerGrowth; ++record) {
        const int64_t at = test::IndexRecordImageOffset(directory, record * vcnPerRecord);
        ASSERT_GE(at, 0);
        const auto& bytes = scratch.mounted.Memory().Bytes();
        CIndexRecord* loaded =
            scratch.Load(record * vcnPerRecord,
                         std::vector<uint8_t>(bytes.begin() + at, bytes.begin() + at + kRecordSize));
        EXPECT_TRUE(loaded->IsValid()) << record;
        EXPECT_EQ(loaded->GetVcn(), record * vcnPerRecord);
        EXPECT_EQ(loaded->GetItemCount(), 1);
        loaded->Release();
    }

    // The next record comes from the bitmap, or from a growth that takes a
    // cluster of its own when the first one is used up.
    testing::internal::CaptureStdout();
    ASSERT_EQ(directory->AllocateIndexRecord(&vcn, &count), ERROR_SUCCESS);
    const std::string second = testing::internal::GetCapturedStdout();
    EXPECT_EQ(vcn, vcnPerRecord);
    EXPECT_EQ(second.find("Allocated 1 virtual cluster for new IndexRecord.\n") != std::string::npos,
              growth.recordsPerGrowth == 1);
    EXPECT_EQ(directory->NewRecords.GetCount(), 2);
}

INSTANTIATE_TEST_SUITE_P(ClusterSizes, IndexAllocation,
                         ::testing::Values(GrowthCase{"c512", 8, 1}, GrowthCase{"c4k", 1, 1},
                                           GrowthCase{"c64k", 1, 16}),
                         [](const ::testing::TestParamInfo<GrowthCase>& info) {
                             return std::string(info.param.fixture);
                         });

TEST(IndexAllocationFaults, AFailedRecordWriteGivesTheClustersBack) {
    EmptyDirectory scratch("c4k");
    ASSERT_TRUE(scratch.ready);
    CBitmapData* clusters = scratch.mounted.Volume()->GetClusterBitmap();
    int64_t firstFree = 0;
    for (bool used = true; used; ++firstFree)
        ASSERT_EQ(clusters->IsItemInUse(firstFree, &used), ERROR_SUCCESS);
    --firstFree;
    // The first write marks the cluster, the second would be the empty record.
    auto& faults = scratch.mounted.Faults();
    faults.FailNthWrite(faults.Writes() + 2, ERROR_IO_DEVICE);
    testing::internal::CaptureStdout();
    EXPECT_EQ(scratch.directory->GrowIndexAllocation(1), ERROR_IO_DEVICE);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("Initialize new allocated IndexRecord fail. ErrorCode = 0000045DH.\n"),
              std::string::npos)
        << log;
    bool used = true;
    ASSERT_EQ(clusters->IsItemInUse(firstFree, &used), ERROR_SUCCESS);
    EXPECT_FALSE(used);
    EXPECT_EQ(scratch.directory->RecordsAdded, 0);
    EXPECT_EQ(scratch.directory->NewClusterRuns.GetCount(), 0);
}

}  // namespace
}  // namespace ntfs
