// Changes of a real directory's index in memory: names go into an empty
// directory until its root moves down into a first index record (the
// directory grows $INDEX_ALLOCATION and $BITMAP for it) and records split at
// several levels; then they come out again by every path of removal. After
// each step the index is checked whole: key order across all nodes, the
// parent links, every remaining name found and the walk equal to the set.
// The byte images after splits are checked against the format.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "index/index_test_util.h"
#include "support/mounted_volume.h"

namespace ntfs {
namespace {

using test::FindName;
using test::MakeEntry;
using test::MountedVolume;
using test::Narrow;

constexpr int64_t kEmptyDirRecord = 66;

// Names of 100 to 129 units, so that a record takes a dozen of them and the
// file record's root two.
std::u16string NameNumber(int number) {
    char text[160];
    std::snprintf(
        text, sizeof(text), "Entry %04d of the directory index test%.*s", number, 60 + number % 30,
        "..........................................................................................");
    return std::u16string(text, text + std::char_traits<char>::length(text));
}

// An empty directory of a fresh copy of a volume, changed the way the file
// layer changes it, with the set of names it must hold.
class ScratchIndex {
public:
    ScratchIndex() : mounted("c4k") {
        ready = mounted.Mount() == 1 && mounted.Volume()->ReferenceDirectory(kEmptyDirRecord, u"\\EmptyDir",
                                                                             &directory) == ERROR_SUCCESS;
        if (ready) directory->LockExclusive();
        ready = ready && directory->GetIndexRoot() != nullptr;
    }
    ~ScratchIndex() {
        if (directory != nullptr) {
            directory->UnlockExclusive();
            directory->Release();
        }
        mounted.Volume()->Umount();
    }

    // One change: the work lists start empty, as the file layer leaves them.
    unsigned int Insert(const std::u16string& name) {
        ClearWorkLists();
        CIndexEntry* entry = MakeEntry(name, 1000 + static_cast<int64_t>(present.size()));
        const unsigned int code = directory->InsertEntry(directory->GetIndexRoot(), entry);
        delete entry;
        if (code == ERROR_SUCCESS) present.insert(name);
        return code;
    }

    unsigned int Remove(const std::u16string& name) {
        ClearWorkLists();
        CIndexEntry* entry = nullptr;
        unsigned int code = FindName(directory, name, &entry);
        if (code != ERROR_SUCCESS) return code;
        code = directory->Remove(entry);
        if (code == ERROR_SUCCESS) present.erase(name);
        return code;
    }

    // The whole index against `present`: structure, walk and searches.
    ::testing::AssertionResult IndexMatches() {
        test::IndexChecker checker(directory);
        const std::string problem = checker.Check();
        if (!problem.empty()) return ::testing::AssertionFailure() << problem;
        if (checker.Keys != static_cast<int>(present.size())) {
            return ::testing::AssertionFailure()
                   << checker.Keys << " keys for " << present.size() << " names";
        }
        unsigned int end = 0;
        const std::vector<std::u16string> walked = test::WalkNames(directory, &end);
        std::vector<std::u16string> expected(present.begin(), present.end());
        std::sort(expected.begin(), expected.end(), test::IndexLess);
        if (end != ERROR_FILE_NOT_FOUND || walked != expected) {
            return ::testing::AssertionFailure()
                   << "walk gives " << walked.size() << " names, ended by " << end;
        }
        for (const std::u16string& name : present) {
            if (FindName(directory, name) != ERROR_SUCCESS) {
                return ::testing::AssertionFailure() << "not found: " << Narrow(name);
            }
        }
        return ::testing::AssertionSuccess();
    }

    uint32_t RootBytesInUse() { return ReadU32(directory->RootValue, kRootBytesInUseOffset); }
    int Depth() {
        test::IndexChecker checker(directory);
        checker.Check();
        return checker.Depth;
    }
    // The record below the root's item at `index` (-1: the end entry).
    CIndexRecord* RecordBelowRoot(int index) {
        CIndexRoot* root = directory->GetIndexRoot();
        CBPlusTreeItem* item = root->GetItem(index < 0 ? root->GetItemCount() + index : index);
        CBPlusTreeNode* node = nullptr;
        if (item == nullptr || item->GetChildNode(&node) != ERROR_SUCCESS) return nullptr;
        return static_cast<CIndexRecord*>(node);
    }

    MountedVolume mounted;
    CDirectory* directory = nullptr;
    bool ready = false;
    std::set<std::u16string> present;

private:
    void ClearWorkLists() {
        directory->ModifiedRecords.Clear();
        directory->AbateRecords.Clear();
        directory->NewRecords.Clear();
    }
};

class IndexChanges : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(index.ready);
        directory = index.directory;
    }
    unsigned int Insert(const std::u16string& name) { return index.Insert(name); }
    ::testing::AssertionResult IndexMatches() { return index.IndexMatches(); }
    int Depth() { return index.Depth(); }

    ScratchIndex index;
    CDirectory* directory = nullptr;
    std::set<std::u16string>& present = index.present;
};

TEST_F(IndexChanges, FirstRootSplitMovesTheEntriesIntoANewRecord) {
    int number = 0;
    while (directory->GetIndexRoot()->IsLeaf()) {
        ASSERT_EQ(Insert(NameNumber(number++)), ERROR_SUCCESS);
        ASSERT_LT(number, 20);
    }
    ASSERT_TRUE(IndexMatches());
    // The root keeps one end entry of 24 bytes that leads to the record.
    const uint8_t* value = directory->RootValue;
    EXPECT_EQ(ReadU32(value, kRootBytesInUseOffset), 40u);
    EXPECT_EQ(ReadU32(value, kRootBytesAllocatedOffset), 40u);
    EXPECT_EQ(ReadU32(value, kRootFlagsOffset), kRootLargeIndex);
    const uint8_t* end = value + kRootEntriesOffset;
    EXPECT_EQ(EntryLength(end), kEndEntryWithSubNodeSize);
    EXPECT_EQ(EntryFlags(end), kEntryIsLast | kEntryHasSubNode);
    const int64_t vcn = EntrySubNodeVcn(end);
    EXPECT_EQ(vcn, 0);

    // The directory has become a large one with one record in use.
    CFullFileRecord* record = directory->GetFileRecord();
    CAttribute* bitmap = record->FindAttribute(AttributeBitmap, kIndexName, kIndexNameLength, 0);
    CAttribute* allocation = record->FindAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, 0);
    ASSERT_NE(bitmap, nullptr);
    ASSERT_NE(allocation, nullptr);
    EXPECT_EQ(bitmap->Size, 40);
    EXPECT_EQ(bitmap->GetDataSize(), 8);
    EXPECT_EQ(ReadU8(bitmap->GetValue(), 0), 1);
    EXPECT_EQ(allocation->GetDataSize(), 4096);
    EXPECT_EQ(ReadU16(allocation->Header, kNonResidentRunListOffsetOffset), 72);
    EXPECT_EQ(static_cast<CBitmapData*>(directory)->GetItemCount(), 1);

    // The record: the header of a new record and every name in one leaf.
    CIndexRecord* first = directory->FindOpenRecord(vcn);
    ASSERT_NE(first, nullptr);
    const uint8_t* image = first->Image;
    EXPECT_EQ(ReadU32(image, kIndexMagicOffset), kIndexRecordMagic);
    EXPECT_EQ(ReadU16(image, kIndexUpdateSequenceOffsetOffset), 40);
    EXPECT_EQ(ReadU16(image, kIndexUpdateSequenceCountOffset), 9);
    EXPECT_EQ(ReadU16(image, kIndexUpdateSequenceArrayOffset), 0);  // the number, never raised
    EXPECT_EQ(ReadU64(image, kIndexLogSequenceNumberOffset), 0u);
    EXPECT_EQ(ReadU32(image, kIndexFirstEntryOffset), 40u);
    EXPECT_EQ(ReadU32(image, kIndexBytesAllocatedOffset), 4072u);
    EXPECT_EQ(ReadU32(image, kIndexFlagsOffset), 0u);
    uint32_t bytes = 40 + kEntryHeaderSize;
    for (const std::u16string& name : present) bytes += IndexEntrySize(static_cast<int>(name.size()));
    EXPECT_EQ(first->GetBytesInUse(), bytes);
    EXPECT_EQ(first->GetItemCount(), number + 1);
    EXPECT_EQ(first->GetParentItem(), directory->GetIndexRoot()->GetItem(0));
    EXPECT_TRUE(first->IsLeaf());
}

TEST_F(IndexChanges, RecordsSplitAtSeveralLevelsAndEveryNameStaysReachable) {
    std::vector<int> order(320);
    for (int i = 0; i < static_cast<int>(order.size()); ++i) order[i] = i;
    std::shuffle(order.begin(), order.end(), std::mt19937(7));
    for (size_t i = 0; i < order.size(); ++i) {
        ASSERT_EQ(Insert(NameNumber(order[i])), ERROR_SUCCESS) << i;
        if (i % 8 == 0 || i + 1 == order.size()) {
            ASSERT_TRUE(IndexMatches()) << "after insertion " << i;
        }
    }
    // Root, interior records, leaves; a level of interior records has more
    // than one node, which only an interior split makes.
    test::IndexChecker checker(directory);
    ASSERT_EQ(checker.Check(), "");
    ASSERT_GE(checker.Depth, 3);
    int splitLevels = 0;
    for (int level = 1; level + 1 < checker.Depth; ++level) splitLevels += checker.NodesPerLevel[level] > 1;
    EXPECT_GT(splitLevels, 0);
    // A name that is there already is refused with the index's message.
    testing::internal::CaptureStdout();
    EXPECT_EQ(Insert(NameNumber(order[5])), ERROR_FILE_CORRUPT);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("New entry has exist in record!"), std::string::npos);
    CIndexEntry* shouted = MakeEntry(test::Folded(NameNumber(order[9])), 5);
    EXPECT_EQ(directory->InsertEntry(directory->GetIndexRoot(), shouted), ERROR_FILE_CORRUPT);
    delete shouted;
}

// What a removal meets, as seen before it runs.
std::string RemovalCase(CDirectory* directory, CIndexEntry* entry) {
    CBPlusTreeNode* node = entry->GetNode();
    if (!entry->HasChild()) {
        if (node->GetItemCount() > 2 || node->GetParentItem() == directory->PseudoItem) return "leaf entry";
        CBPlusTreeItem* parent = node->GetParentItem();
        if (!static_cast<CIndexEntry*>(parent)->IsLast()) return "emptied leaf under a real entry";
        return parent->GetNode()->IndexOfItem(parent) > 0 ? "emptied leaf under an end entry"
                                                          : "emptied leaf under a lone end entry";
    }
    CBPlusTreeNode* child = nullptr;
    if (entry->GetChildNode(&child) != ERROR_SUCCESS) return "unloadable";
    if (!child->IsLeaf()) return "entry over an interior record";
    return child->GetItemCount() > 2 ? "entry over a leaf" : "entry over a leaf that empties";
}

TEST(IndexRemoval, EveryPathKeepsTheIndexWhole) {
    std::set<std::string> cases;
    for (int round = 0; round < 3; ++round) {
        // A fresh volume each round: without the flush, records retired in
        // memory keep their bits.
        ScratchIndex index;
        ASSERT_TRUE(index.ready);
        std::vector<int> order(200);
        for (int i = 0; i < static_cast<int>(order.size()); ++i) order[i] = i;
        std::shuffle(order.begin(), order.end(), std::mt19937(11 + round));
        for (int number : order) ASSERT_EQ(index.Insert(NameNumber(number)), ERROR_SUCCESS);
        ASSERT_TRUE(index.IndexMatches());
        ASSERT_EQ(index.Depth(), 3);
        // Ascending, descending and shuffled removal reach different cases.
        if (round == 0) std::sort(order.begin(), order.end());
        if (round == 1) std::sort(order.rbegin(), order.rend());
        if (round == 2) std::shuffle(order.begin(), order.end(), std::mt19937(5));
        for (size_t i = 0; i < order.size(); ++i) {
            const std::u16string name = NameNumber(order[i]);
            CIndexEntry* entry = nullptr;
            ASSERT_EQ(FindName(index.directory, name, &entry), ERROR_SUCCESS) << Narrow(name);
            const std::string kind = RemovalCase(index.directory, entry);
            cases.insert(kind);
            ASSERT_EQ(index.Remove(name), ERROR_SUCCESS) << kind << " " << Narrow(name);
            ASSERT_EQ(FindName(index.directory, name), ERROR_FILE_NOT_FOUND) << Narrow(name);
            ASSERT_TRUE(index.IndexMatches())
                << "round " << round << ", removal " << i << " (" << kind << ")";
        }
        // Empty again: the root is back to its small form; the allocation
        // attributes stay.
        EXPECT_EQ(index.RootBytesInUse(), 32u);
        EXPECT_TRUE(index.directory->GetIndexRoot()->IsLeaf());
        EXPECT_NE(index.directory->GetFileRecord()->FindAttribute(AttributeIndexAllocation, kIndexName,
                                                                  kIndexNameLength, 0),
                  nullptr);
    }
    for (const char* expected :
         {"leaf entry", "emptied leaf under a real entry", "emptied leaf under an end entry",
          "entry over a leaf", "entry over a leaf that empties", "entry over an interior record"}) {
        EXPECT_EQ(cases.count(expected), 1u) << expected;
    }
    for (const std::string& kind : cases) std::printf("removal case reached: %s\n", kind.c_str());
}

// Ascending names all go to the rightmost leaf.
CIndexRecord* FillFirstLeaf(ScratchIndex* index) {
    CDirectory* directory = index->directory;
    int number = 0;
    while (directory->GetIndexRoot()->IsLeaf()) EXPECT_EQ(index->Insert(NameNumber(number++)), ERROR_SUCCESS);
    CBPlusTreeNode* node = nullptr;
    EXPECT_EQ(directory->GetIndexRoot()->GetItem(0)->GetChildNode(&node), ERROR_SUCCESS);
    auto* record = static_cast<CIndexRecord*>(node);
    while (record->GetBytesInUse() < 3000) EXPECT_EQ(index->Insert(NameNumber(number++)), ERROR_SUCCESS);
    return record;
}

TEST_F(IndexChanges, LeafSplitGivesALongerMedianAndALeftRecordWithAPlainEnd) {
    CIndexRecord* record = FillFirstLeaf(&index);
    ASSERT_TRUE(record->IsLeaf());
    directory->ModifiedRecords.Clear();
    const int count = record->GetItemCount();
    std::vector<std::u16string> names;
    std::vector<int> lengths;
    for (int i = 0; i < count - 1; ++i) {
        names.push_back(test::NameOf(record->GetItem(i)));
        lengths.push_back(static_cast<CIndexEntry*>(record->GetItem(i))->GetLength());
    }

    CBPlusTreeItem* item = nullptr;
    ASSERT_EQ(record->Split(&item), ERROR_SUCCESS);
    auto* median = static_cast<CIndexEntry*>(item);
    const std::u16string middle = test::NameOf(median);
    const int at = static_cast<int>(std::find(names.begin(), names.end(), middle) - names.begin());
    ASSERT_LT(at, count - 1);
    // The byte middle: the lengths up to the median and up to the one before
    // it together reach the record size, not earlier.
    int upTo = 0;
    for (int i = 0; i <= at; ++i) upTo += lengths[i];
    EXPECT_GE(upTo + (upTo - lengths[at]), 4096);
    EXPECT_EQ(median->GetLength(), lengths[at] + kEntryVcnSize);
    EXPECT_TRUE(median->HasChild());

    CIndexRecord* left = directory->FindOpenRecord(EntrySubNodeVcn(median->GetEntry()));
    ASSERT_NE(left, nullptr);
    EXPECT_NE(left, record);
    ASSERT_EQ(left->GetItemCount(), at + 1);
    for (int i = 0; i < at; ++i) EXPECT_TRUE(test::NameOf(left->GetItem(i)) == names[i]) << i;
    const uint8_t* end = static_cast<CIndexEntry*>(left->GetItem(at))->GetEntry();
    EXPECT_EQ(EntryLength(end), kEntryHeaderSize);
    EXPECT_EQ(EntryFlags(end), kEntryIsLast);
    EXPECT_TRUE(left->IsLeaf());
    EXPECT_EQ(left->GetShadowVcn(), left->GetVcn());
    // The upper half stays under the old VCN.
    ASSERT_EQ(record->GetItemCount(), count - at - 1);
    EXPECT_TRUE(test::NameOf(record->GetItem(0)) == names[at + 1]);
    EXPECT_EQ(directory->ModifiedRecords.GetCount(), 2);
    EXPECT_EQ(directory->ModifiedRecords.At<CIndexRecord>(0), left);
    EXPECT_EQ(directory->ModifiedRecords.At<CIndexRecord>(1), record);
    delete median;
}

TEST_F(IndexChanges, InteriorSplitHandsTheMediansSubNodeToTheLeftEnd) {
    for (int i = 0; Depth() < 3; ++i) {
        ASSERT_EQ(Insert(NameNumber(i)), ERROR_SUCCESS);
        ASSERT_LT(i, 400);
    }
    // Ascending names send every median to the rightmost interior record.
    CIndexRoot* root = directory->GetIndexRoot();
    CBPlusTreeNode* node = nullptr;
    ASSERT_EQ(root->GetItem(root->GetItemCount() - 1)->GetChildNode(&node), ERROR_SUCCESS);
    auto* interior = static_cast<CIndexRecord*>(node);
    ASSERT_FALSE(interior->IsLeaf());
    for (int i = 400; interior->GetBytesInUse() < 3000; ++i) {
        ASSERT_EQ(Insert(NameNumber(i)), ERROR_SUCCESS);
        ASSERT_LT(i, 2000);
    }
    std::vector<std::u16string> names;
    std::vector<int> lengths;
    for (int i = 0; i + 1 < interior->GetItemCount(); ++i) {
        names.push_back(test::NameOf(interior->GetItem(i)));
        lengths.push_back(static_cast<CIndexEntry*>(interior->GetItem(i))->GetLength());
    }

    CBPlusTreeItem* item = nullptr;
    ASSERT_EQ(interior->Split(&item), ERROR_SUCCESS);
    auto* median = static_cast<CIndexEntry*>(item);
    const int at =
        static_cast<int>(std::find(names.begin(), names.end(), test::NameOf(median)) - names.begin());
    ASSERT_LT(at, static_cast<int>(names.size()));
    CIndexRecord* left = directory->FindOpenRecord(EntrySubNodeVcn(median->GetEntry()));
    ASSERT_NE(left, nullptr);
    EXPECT_FALSE(left->IsLeaf());
    auto* end = static_cast<CIndexEntry*>(left->GetItem(left->GetItemCount() - 1));
    EXPECT_EQ(end->GetLength(), kEndEntryWithSubNodeSize);
    EXPECT_EQ(EntryFlags(end->GetEntry()), kEntryIsLast | kEntryHasSubNode);
    // The median's old sub-node now hangs under the left record's end.
    CBPlusTreeNode* handed = nullptr;
    ASSERT_EQ(end->GetChildNode(&handed), ERROR_SUCCESS);
    ASSERT_NE(handed, nullptr);
    EXPECT_EQ(handed->GetParentItem(), end);
    // An interior median keeps its length; its VCN now names the left record.
    EXPECT_EQ(median->GetLength(), lengths[at]);
    delete median;
}

}  // namespace
}  // namespace ntfs
