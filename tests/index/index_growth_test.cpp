// Growth of a directory's index on a volume with little contiguous room
// ("c1k": four clusters per index record). Every free cluster is taken
// first, then a few single clusters and pairs are given back: the growth of
// the conversion walks down the free extents, appends each run on its own
// and writes a record that straddles them; when the extents run out midway
// the growth gives back every cluster it took and the directory stays small.
// On a volume whose clusters hold two records, a growth into the slack behind
// the data takes no cluster.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "data/bitmap_data.h"
#include "index/index_test_util.h"
#include "support/cluster_audit.h"

namespace ntfs {
namespace {

std::u16string ConversionName(int number) {
    std::string text = "Fragmented growth name " + std::to_string(10000 + number) + " ";
    text.append(100, 'f');
    return std::u16string(text.begin(), text.end());
}

// Takes every free cluster of the volume; the runs taken, as (LCN, count).
std::vector<std::pair<int64_t, int>> TakeAllClusters(CNTFSVolume* volume) {
    std::vector<std::pair<int64_t, int>> taken;
    int wanted = 4096;
    while (wanted > 0 && taken.size() < 100000) {
        int64_t lcn = 0;
        int got = 0;
        const unsigned int code = volume->SearchSpareClusterAndAllocate(wanted, &lcn, &got, 0);
        if (code == ERROR_SUCCESS) {
            taken.emplace_back(lcn, got < wanted ? got : wanted);
        } else {
            wanted = code == ERROR_HANDLE_DISK_FULL ? got : 0;
        }
    }
    return taken;
}

// A cluster of `taken` with `span` taken clusters behind it, and another
// taken one behind them that stays taken, at or after `from`.
int64_t FindSpan(const std::vector<std::pair<int64_t, int>>& taken, int span, int64_t from) {
    for (const auto& [lcn, count] : taken) {
        for (int64_t at = std::max(lcn, from); at + span < lcn + count; ++at) return at;
    }
    return -1;
}

bool ClusterUsed(CNTFSVolume* volume, int64_t lcn) {
    bool used = false;
    EXPECT_EQ(volume->GetClusterBitmap()->IsItemInUse(lcn, &used), ERROR_SUCCESS);
    return used;
}

// \EmptyDir of "c1k" with the volume full but for the extents of `pieces`
// clusters each, separated by taken clusters.
class FragmentedVolume {
public:
    explicit FragmentedVolume(const std::vector<int>& pieces) : scratch("c1k") {
        if (!scratch.ready) return;
        CNTFSVolume* volume = scratch.mounted.Volume();
        taken = TakeAllClusters(volume);
        int64_t from = 0;
        for (int piece : pieces) {
            const int64_t at = FindSpan(taken, piece, from);
            if (at < 0) return;
            int64_t start = at;
            if (volume->FreeClusters(&start, piece) != ERROR_SUCCESS) return;
            for (int i = 0; i < piece; ++i) freed.push_back(at + i);
            from = at + piece + 1;
        }
        ready = true;
    }
    // Gives back what was taken for the setup and is not used by the index.
    void GiveBackTheRest() {
        CNTFSVolume* volume = scratch.mounted.Volume();
        for (const auto& [lcn, count] : taken) {
            for (int64_t at = lcn; at < lcn + count; ++at) {
                if (std::find(freed.begin(), freed.end(), at) != freed.end()) continue;
                int64_t start = at;
                EXPECT_EQ(volume->FreeClusters(&start, 1), ERROR_SUCCESS);
            }
        }
    }

    test::ScratchDirectory scratch;
    std::vector<std::pair<int64_t, int>> taken;
    std::vector<int64_t> freed;  // the clusters left free for the growth
    bool ready = false;
};

TEST(FragmentedIndexGrowth, ConversionTakesRunsOfDecreasingLengthAndARecordStraddlesThem) {
    FragmentedVolume fragmented({2, 1, 1});
    ASSERT_TRUE(fragmented.ready);
    test::ScratchDirectory& scratch = fragmented.scratch;
    std::vector<std::u16string> names;
    while (!scratch.Large()) {
        ASSERT_LT(names.size(), 20u);
        names.push_back(ConversionName(static_cast<int>(names.size())));
        ASSERT_EQ(scratch.InsertName(names.back()), ERROR_SUCCESS) << names.size();
    }
    CAttribute* allocation =
        scratch.directory->GetFileRecord()->FindAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, 0);
    int runCount = 0;
    int64_t* runs = allocation->GetRunList(&runCount);
    std::vector<std::pair<int64_t, int64_t>> mapped;
    for (int i = 0; i < runCount; ++i) mapped.emplace_back(runs[2 * i], runs[2 * i + 1]);
    std::free(runs);
    const std::vector<std::pair<int64_t, int64_t>> expected = {
        {fragmented.freed[0], 2}, {fragmented.freed[2], 1}, {fragmented.freed[3], 1}};
    EXPECT_EQ(mapped, expected);
    EXPECT_EQ(allocation->GetDataSize(), 4096);
    for (int64_t lcn : fragmented.freed) EXPECT_TRUE(ClusterUsed(scratch.mounted.Volume(), lcn)) << lcn;

    // The record over the three runs reads back whole.
    std::vector<uint8_t> bytes(4096);
    int64_t offset = 0;
    uint32_t read = 0;
    ASSERT_EQ(scratch.directory->GetFileRecord()->ReadAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength,
                                                                &offset, 4096, bytes.data(), &read),
              ERROR_SUCCESS);
    int64_t vcn = 0;
    auto* image = static_cast<uint8_t*>(std::malloc(4096));
    std::copy(bytes.begin(), bytes.end(), image);
    auto* record = new CIndexRecord(&vcn, image, scratch.mounted.Volume(), scratch.directory);
    EXPECT_TRUE(record->IsValid());
    EXPECT_EQ(record->GetItemCount(), static_cast<int>(names.size()) + 1);
    record->Release();

    fragmented.GiveBackTheRest();
    std::sort(names.begin(), names.end(), test::IndexLess);
    test::ScratchDirectory again(scratch.Unmount());
    ASSERT_TRUE(again.ready);
    EXPECT_EQ(test::CheckIndex(again.directory), "");
    EXPECT_EQ(test::WalkNames(again.directory), names);
    const test::ClusterAudit audit = test::AuditClusters(again.mounted.Volume());
    EXPECT_TRUE(audit.Clean()) << audit.First;
}

TEST(FragmentedIndexGrowth, ClustersRunningOutMidwayAreAllGivenBack) {
    FragmentedVolume fragmented({2, 1});
    ASSERT_TRUE(fragmented.ready);
    test::ScratchDirectory& scratch = fragmented.scratch;
    std::vector<std::u16string> names;
    unsigned int code = ERROR_SUCCESS;
    testing::internal::CaptureStdout();
    while (code == ERROR_SUCCESS && names.size() < 20) {
        const std::u16string name = ConversionName(static_cast<int>(names.size()));
        code = scratch.InsertName(name);
        if (code == ERROR_SUCCESS) names.push_back(name);
    }
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_EQ(code, static_cast<unsigned int>(ERROR_HANDLE_DISK_FULL));
    EXPECT_NE(log.find("Allocate cluster for new IndexRecord fail."), std::string::npos);
    EXPECT_FALSE(scratch.Large());
    for (int64_t lcn : fragmented.freed) EXPECT_FALSE(ClusterUsed(scratch.mounted.Volume(), lcn)) << lcn;
    EXPECT_EQ(scratch.directory->NewClusterRuns.GetCount(), 0);

    fragmented.GiveBackTheRest();
    std::sort(names.begin(), names.end(), test::IndexLess);
    EXPECT_EQ(test::WalkNames(scratch.directory), names);
    test::ScratchDirectory again(scratch.Unmount());
    ASSERT_TRUE(again.ready);
    EXPECT_FALSE(again.Large());
    EXPECT_EQ(test::WalkNames(again.directory), names);
    const test::ClusterAudit audit = test::AuditClusters(again.mounted.Volume());
    EXPECT_TRUE(audit.Clean()) << audit.First;
}

// On "c8k" a cluster holds two index records. When $INDEX_ALLOCATION has
// room behind its data (allocated beyond the data size), a growth uses that
// slack: the sizes grow, the new record is written through the attribute,
// and no cluster is taken.
TEST(IndexGrowthSlack, AGrowthIntoSlackTakesNoCluster) {
    test::ScratchDirectory scratch("c8k");
    ASSERT_TRUE(scratch.ready);
    CDirectory* directory = scratch.directory;
    for (int i = 0; !scratch.Large(); ++i) {
        ASSERT_LT(i, 20);
        ASSERT_EQ(scratch.InsertName(ConversionName(i)), ERROR_SUCCESS);
    }
    CFullFileRecord* file = directory->GetFileRecord();
    CAttribute* allocation = file->FindAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, 0);
    ASSERT_EQ(ReadI64(allocation->Header, kNonResidentAllocatedSizeOffset), 8192);
    // The second record of the cluster is wiped and left out of the data.
    std::vector<uint8_t> zeros(4096, 0);
    int64_t offset = 4096;
    uint32_t written = 0;
    ASSERT_EQ(file->WriteAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, &offset, 4096, zeros.data(),
                                   &written),
              ERROR_SUCCESS);
    allocation = file->FindAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, 0);
    WriteU64(allocation->Header, kNonResidentDataSizeOffset, 4096);
    WriteU64(allocation->Header, kNonResidentInitializedSizeOffset, 4096);
    allocation->Mark();
    ASSERT_EQ(directory->WriteDirectoryRecord(), ERROR_SUCCESS);
    file->Commit();

    int64_t freeBefore = 0;
    ASSERT_EQ(scratch.mounted.Volume()->GetClusterBitmap()->CountFreeItems(&freeBefore), ERROR_SUCCESS);
    ASSERT_EQ(directory->GrowIndexAllocation(1), ERROR_SUCCESS);
    int64_t freeAfter = 0;
    ASSERT_EQ(scratch.mounted.Volume()->GetClusterBitmap()->CountFreeItems(&freeAfter), ERROR_SUCCESS);
    EXPECT_EQ(freeAfter, freeBefore);
    EXPECT_EQ(directory->NewClusterRuns.GetCount(), 0);
    EXPECT_EQ(directory->RecordsAdded, 1);
    EXPECT_EQ(directory->CBitmapData::GetItemCount(), 2);
    allocation = file->FindAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, 0);
    EXPECT_EQ(ReadI64(allocation->Header, kNonResidentAllocatedSizeOffset), 8192);
    EXPECT_EQ(ReadI64(allocation->Header, kNonResidentDataSizeOffset), 8192);
    EXPECT_EQ(ReadI64(allocation->Header, kNonResidentInitializedSizeOffset), 8192);

    // The new record is an empty one at its place.
    std::vector<uint8_t> bytes(4096);
    offset = 4096;
    uint32_t read = 0;
    ASSERT_EQ(
        file->ReadAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, &offset, 4096, bytes.data(), &read),
        ERROR_SUCCESS);
    int64_t vcn = directory->BitToVcn(1);
    auto* image = static_cast<uint8_t*>(std::malloc(4096));
    std::copy(bytes.begin(), bytes.end(), image);
    auto* record = new CIndexRecord(&vcn, image, scratch.mounted.Volume(), directory);
    EXPECT_TRUE(record->IsValid());
    EXPECT_EQ(record->GetVcn(), vcn);
    EXPECT_EQ(record->GetItemCount(), 1);
    record->Release();
}

}  // namespace
}  // namespace ntfs
