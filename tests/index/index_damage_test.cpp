// Damaged directory indexes on a real volume (\many of "big", three levels of
// index records): a record with a bad magic, a torn sector, a wrong update
// sequence count or an array outside the record is refused with
// ERROR_BAD_FORMAT and leaves nothing behind, so the same search works once
// the bytes are good again; a device error passes through; a cycle ends in
// ERROR_FILE_CORRUPT; entries that run out of their node are reported and
// never read outside it; the rest of the tree stays usable throughout.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "index/index_test_util.h"
#include "support/mounted_volume.h"

namespace ntfs {
namespace {

using test::FindName;
using test::MountedVolume;

class DamagedIndex : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(mounted.Mount(), 1);
        ASSERT_EQ(mounted.Volume()->ReferenceDirectory(64, u"\\many", &directory), ERROR_SUCCESS);
        directory->LockShared();
        std::vector<std::u16string> names;
        auto directories = test::NamesByDirectory(test::LoadManifest("big"));
        for (const auto& [name, records] : directories[u"\\many"].names) names.push_back(name);
        std::sort(names.begin(), names.end(), test::IndexLess);
        smallest = names.front();
        largest = names.back();
        // The root leads to one record; the record below that one's first
        // entry holds the smallest names, and the largest lie elsewhere.
        CBPlusTreeNode* node = nullptr;
        ASSERT_EQ(directory->GetIndexRoot()->GetItem(0)->GetChildNode(&node), ERROR_SUCCESS);
        parent = static_cast<CIndexRecord*>(node);
        ASSERT_FALSE(parent->IsLeaf());
        vcn = EntrySubNodeVcn(static_cast<CIndexEntry*>(parent->GetItem(0))->GetEntry());
        offset = test::IndexRecordImageOffset(directory, vcn);
        ASSERT_GT(offset, 0);
        original.assign(Record(), Record() + 4096);
    }
    void TearDown() override {
        directory->UnlockShared();
        directory->Release();
        mounted.Volume()->Umount();
    }

    uint8_t* Record() { return mounted.Memory().Bytes().data() + offset; }
    uint8_t* FirstEntry() { return Record() + kIndexNodeHeaderOffset + ReadU32(Record(), kIndexFirstEntryOffset); }

    MountedVolume mounted{"big"};
    CDirectory* directory = nullptr;
    CIndexRecord* parent = nullptr;  // the record above the damaged one
    int64_t vcn = 0;                 // the damaged record
    std::u16string smallest;
    std::u16string largest;
    int64_t offset = 0;
    std::vector<uint8_t> original;
};

// The search into the damaged record fails, the record is not left open and
// the entry above it has no sub-node; the other side of the tree is
// untouched; and with good bytes the same search succeeds.
class RefusedIndexRecord : public DamagedIndex, public ::testing::WithParamInterface<int> {};

TEST_P(RefusedIndexRecord, LeavesNothingBehind) {
    unsigned int code = ERROR_BAD_FORMAT;
    switch (GetParam()) {
        case 0:
            Record()[0] = 'X';
            break;
        case 1:
            Record()[3 * 512 + 510] ^= 0x01;
            break;  // a torn sector
        case 2:
            WriteU16(Record(), kIndexUpdateSequenceCountOffset, 8);
            break;
        case 3:
            WriteU16(Record(), kIndexUpdateSequenceOffsetOffset, 4090);
            break;
        default:
            mounted.Faults().FailReadsOfSector(offset / 512 + 2, ERROR_IO_DEVICE);
            code = ERROR_IO_DEVICE;
    }
    EXPECT_EQ(FindName(directory, smallest), code);
    EXPECT_EQ(directory->OpenRecords.GetCount(), 1);
    EXPECT_EQ(directory->FindOpenRecord(vcn), nullptr);
    EXPECT_EQ(parent->GetItem(0)->GetChild(), nullptr);
    EXPECT_EQ(FindName(directory, smallest), code);
    EXPECT_EQ(FindName(directory, largest), ERROR_SUCCESS);
    std::copy(original.begin(), original.end(), Record());
    mounted.Faults().Heal();
    EXPECT_EQ(FindName(directory, smallest), ERROR_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(Damages, RefusedIndexRecord, ::testing::Range(0, 5));

TEST_F(DamagedIndex, CycleEndsTheDescentWithCorrupt) {
    // The first entry of the record leads back to the record itself.
    ASSERT_NE(EntryFlags(FirstEntry()) & kEntryHasSubNode, 0);
    SetEntrySubNodeVcn(FirstEntry(), vcn);
    EXPECT_EQ(FindName(directory, smallest), ERROR_FILE_CORRUPT);
    unsigned int end = 0;
    EXPECT_TRUE(test::WalkIndex(directory, &end).empty());
    EXPECT_EQ(end, ERROR_FILE_CORRUPT);
    EXPECT_EQ(FindName(directory, largest), ERROR_SUCCESS);
}

TEST_F(DamagedIndex, EntryRunningOutOfItsRecordIsBroken) {
    WriteU16(FirstEntry(), kEntryLengthOffset, 0x7FF8);
    testing::internal::CaptureStdout();
    const unsigned int code = FindName(directory, smallest);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("Entry is broken. ErrorCode = 00000000H.\n"), std::string::npos) << log;
    // The record itself is sound: open, with no items, nothing found below.
    EXPECT_EQ(code, ERROR_FILE_NOT_FOUND);
    CIndexRecord* record = directory->FindOpenRecord(vcn);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->GetItemCount(), 0);
    EXPECT_EQ(FindName(directory, largest), ERROR_SUCCESS);
}

TEST_F(DamagedIndex, UsedBytesEndingBeforeTheEndEntryAreOutOfRecord) {
    WriteU32(Record(), kIndexBytesInUseOffset, ReadU32(Record(), kIndexFirstEntryOffset) + EntryLength(FirstEntry()));
    testing::internal::CaptureStdout();
    unsigned int end = 0;
    const std::vector<test::WalkedName> walked = test::WalkIndex(directory, &end);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("Entry is out of record. ErrorCode = 00000000H.\n"), std::string::npos);
    // One entry of the record is left, with what lies below it: the walk
    // loses the rest of that subtree, stays in order and ends normally.
    EXPECT_EQ(end, ERROR_FILE_NOT_FOUND);
    EXPECT_GT(walked.size(), 0u);
    EXPECT_LT(walked.size(), 3000u);
    for (size_t i = 1; i < walked.size(); ++i) EXPECT_TRUE(test::IndexLess(walked[i - 1].name, walked[i].name));
    EXPECT_EQ(FindName(directory, smallest), ERROR_SUCCESS);
    EXPECT_EQ(FindName(directory, largest), ERROR_SUCCESS);
}

TEST(DamagedIndexRoot, BrokenRootEntryFailsTheParseAndKeepsWhatCameBefore) {
    // \unicode of "c4k" lives in its root alone, with four entries.
    MountedVolume mounted("c4k");
    ASSERT_EQ(mounted.Mount(), 1);
    CDirectory* directory = nullptr;
    const int64_t record = test::NamesByDirectory(test::LoadManifest("c4k"))[u"\\unicode"].record;
    ASSERT_EQ(mounted.Volume()->ReferenceDirectory(record, u"\\unicode", &directory), ERROR_SUCCESS);
    const std::u16string largest = u"\u65E5\u672C\u8A9E.txt";
    CIndexRoot* root = directory->GetIndexRoot();
    const int count = root->GetItemCount();
    ASSERT_GE(count, 2);
    uint8_t* second = static_cast<CIndexEntry*>(root->GetItem(1))->GetEntry();
    const uint16_t length = ReadU16(second, kEntryLengthOffset);
    WriteU16(second, kEntryLengthOffset, 0x7FF8);
    testing::internal::CaptureStdout();
    EXPECT_EQ(root->ParseEntries(), 0);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("Entry is broken. ErrorCode = 00000000H.\n"),
              std::string::npos);
    EXPECT_EQ(root->GetItemCount(), 1);
    // No end entry: a search runs off the node and finds nothing; the
    // descent for an insertion calls it damage.
    EXPECT_EQ(FindName(directory, largest), ERROR_FILE_NOT_FOUND);
    CBPlusTreeNode* node = nullptr;
    int index = 0;
    const _INDEX_SEARCH_KEY key{1, u"ZZZ", nullptr, 0, 4};
    EXPECT_EQ(CBPlusTreeNode::LocatePosition(root, &key, &node, &index), ERROR_FILE_CORRUPT);

    WriteU16(second, kEntryLengthOffset, length);
    EXPECT_EQ(root->ParseEntries(), 1);
    EXPECT_EQ(root->GetItemCount(), count);
    EXPECT_EQ(FindName(directory, largest), ERROR_SUCCESS);
    directory->Release();
    mounted.Volume()->Umount();
}

}  // namespace
}  // namespace ntfs
