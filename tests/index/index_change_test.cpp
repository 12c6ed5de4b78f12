// Changes of a real directory's index in memory: names go into an empty
// directory until its root moves down into a first index record and records
// split at several levels; then they come out again by every path of removal,
// the index checked whole after each step (structure, walk, every name
// found). The byte images after splits are checked against the format.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "index/index_test_util.h"

namespace ntfs {
namespace {

using test::FindName;
using test::Narrow;

// Names of 100 to 129 units, so that a record takes a dozen of them and the
// file record's root two.
std::u16string NameNumber(int number) {
    char text[160];
    std::snprintf(text, sizeof(text), "Entry %04d of the directory index test%.*s", number, 60 + number % 30,
                  "..........................................................................................");
    return std::u16string(text, text + std::char_traits<char>::length(text));
}

// The empty directory of a fresh copy of "c4k", changed the way the file
// layer changes it, with the set of names it must hold.
class ScratchIndex : public test::ScratchDirectory {
public:
    ScratchIndex() : ScratchDirectory("c4k") {}

    // The work lists start empty, as the file layer leaves them.
    unsigned int Insert(const std::u16string& name) {
        ClearWorkLists();
        std::unique_ptr<CIndexEntry> entry(test::MakeEntry(name, 1000 + static_cast<int64_t>(present.size())));
        const unsigned int code = directory->InsertEntry(directory->GetIndexRoot(), entry.get());
        if (code == ERROR_SUCCESS) present.insert(name);
        return code;
    }
    unsigned int Remove(const std::u16string& name) {
        ClearWorkLists();
        CIndexEntry* entry = nullptr;
        unsigned int code = FindName(directory, name, &entry);
        if (code == ERROR_SUCCESS) code = directory->Remove(entry);
        if (code == ERROR_SUCCESS) present.erase(name);
        return code;
    }

    // The whole index against `present`: structure, walk and searches.
    ::testing::AssertionResult IndexMatches() {
        test::TreeShape shape;
        const std::string problem = test::CheckIndex(directory, &shape);
        if (!problem.empty()) return ::testing::AssertionFailure() << problem;
        if (shape.Keys != static_cast<int>(present.size()))
            return ::testing::AssertionFailure() << shape.Keys << " keys for " << present.size() << " names";
        unsigned int end = 0;
        std::vector<std::u16string> expected(present.begin(), present.end());
        std::sort(expected.begin(), expected.end(), test::IndexLess);
        if (test::WalkNames(directory, &end) != expected || end != ERROR_FILE_NOT_FOUND)
            return ::testing::AssertionFailure() << "walk differs, ended by " << end;
        for (const std::u16string& name : present) {
            if (FindName(directory, name) != ERROR_SUCCESS)
                return ::testing::AssertionFailure() << "not found: " << Narrow(name);
        }
        return ::testing::AssertionSuccess();
    }
    test::TreeShape Shape() {
        test::TreeShape shape;
        test::CheckIndex(directory, &shape);
        return shape;
    }

    std::set<std::u16string> present;

private:
    void ClearWorkLists() {
        directory->ModifiedRecords.Clear();
        directory->AbateRecords.Clear();
        directory->NewRecords.Clear();
    }
};

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

TEST(IndexChanges, SplitsAtSeveralLevelsAndEveryRemovalPathKeepTheIndexWhole) {
    std::set<std::string> cases;
    for (int round = 0; round < 3; ++round) {
        // A fresh volume each round: without the flush, records retired in
        // memory keep their bits.
        ScratchIndex index;
        ASSERT_TRUE(index.ready);
        std::vector<int> order(200);
        for (int i = 0; i < static_cast<int>(order.size()); ++i) order[i] = i;
        std::shuffle(order.begin(), order.end(), std::mt19937(11 + round));
        for (size_t i = 0; i < order.size(); ++i) {
            ASSERT_EQ(index.Insert(NameNumber(order[i])), ERROR_SUCCESS) << i;
            if (i % 8 == 0) {
                ASSERT_TRUE(index.IndexMatches()) << "round " << round << ", insertion " << i;
            }
        }
        ASSERT_TRUE(index.IndexMatches());
        // Root, interior records, leaves; more than one interior record,
        // which only an interior split makes.
        const test::TreeShape shape = index.Shape();
        ASSERT_EQ(shape.Depth, 3);
        EXPECT_GT(shape.NodesPerLevel[1], 1);
        // A name that is there already, in any case of its letters, is refused.
        {
            testing::internal::CaptureStdout();
            EXPECT_EQ(index.Insert(NameNumber(order[5])), ERROR_FILE_CORRUPT);
            EXPECT_EQ(index.Insert(test::Folded(NameNumber(order[9]))), ERROR_FILE_CORRUPT);
            EXPECT_NE(testing::internal::GetCapturedStdout().find("New entry has exist in record!"), std::string::npos);
        }

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
            ASSERT_TRUE(index.IndexMatches()) << "round " << round << ", removal " << i << " (" << kind << ")";
        }
        // Empty again: the root is back to its small form.
        EXPECT_EQ(ReadU32(index.directory->RootValue, kRootBytesInUseOffset), 32u);
        EXPECT_TRUE(index.directory->GetIndexRoot()->IsLeaf());
    }
    for (const char* expected :
         {"leaf entry", "emptied leaf under a real entry", "emptied leaf under an end entry", "entry over a leaf",
          "entry over a leaf that empties", "entry over an interior record"}) {
        EXPECT_EQ(cases.count(expected), 1u) << expected;
    }
}

// Splits `record` directly: the left record holds the names below the median
// and ends in an end entry that leads where the median led; the record keeps
// the names above; a leaf's median copy gains the eight bytes of its VCN.
void ExpectSplit(CDirectory* directory, CIndexRecord* record) {
    const bool leaf = record->IsLeaf();
    const int count = record->GetItemCount();
    std::vector<std::u16string> names;
    std::vector<int> lengths;
    for (int i = 0; i + 1 < count; ++i) {
        names.push_back(test::NameOf(record->GetItem(i)));
        lengths.push_back(static_cast<CIndexEntry*>(record->GetItem(i))->GetLength());
    }
    CBPlusTreeItem* item = nullptr;
    ASSERT_EQ(record->Split(&item), ERROR_SUCCESS);
    std::unique_ptr<CIndexEntry> median(static_cast<CIndexEntry*>(item));
    const int at = static_cast<int>(std::find(names.begin(), names.end(), test::NameOf(median.get())) - names.begin());
    ASSERT_LT(at, count - 1);
    EXPECT_TRUE(median->HasChild());
    EXPECT_EQ(median->GetLength(), lengths[at] + (leaf ? kEntryVcnSize : 0));
    // The byte middle: the lengths up to the median and up to the one before
    // it together reach the record size, not earlier.
    int upTo = 0;
    for (int i = 0; i <= at; ++i) upTo += lengths[i];
    EXPECT_TRUE(!leaf || upTo + (upTo - lengths[at]) >= 4096) << upTo;

    CIndexRecord* left = directory->FindOpenRecord(EntrySubNodeVcn(median->GetEntry()));
    ASSERT_NE(left, nullptr);
    EXPECT_NE(left, record);
    EXPECT_EQ(left->IsLeaf(), leaf);
    ASSERT_EQ(left->GetItemCount(), at + 1);
    for (int i = 0; i < at; ++i) EXPECT_TRUE(test::NameOf(left->GetItem(i)) == names[i]) << i;
    auto* end = static_cast<CIndexEntry*>(left->GetItem(at));
    EXPECT_EQ(end->GetLength(), leaf ? kEntryHeaderSize : kEndEntryWithSubNodeSize);
    EXPECT_EQ(EntryFlags(end->GetEntry()), leaf ? kEntryIsLast : kEntryIsLast | kEntryHasSubNode);
    if (!leaf) {
        CBPlusTreeNode* handed = nullptr;
        ASSERT_EQ(end->GetChildNode(&handed), ERROR_SUCCESS);
        ASSERT_NE(handed, nullptr);
        EXPECT_EQ(handed->GetParentItem(), end);
    }
    ASSERT_EQ(record->GetItemCount(), count - at - 1);
    EXPECT_TRUE(test::NameOf(record->GetItem(0)) == names[at + 1]);
}

TEST(IndexChanges, SplitImagesOfTheRootALeafAndAnInteriorRecord) {
    for (const int depth : {2, 3}) {
        ScratchIndex index;
        ASSERT_TRUE(index.ready);
        CDirectory* directory = index.directory;
        // Ascending names all go to the rightmost node of each level.
        int number = 0;
        while (index.Shape().Depth < depth) ASSERT_EQ(index.Insert(NameNumber(number++)), ERROR_SUCCESS);
        ASSERT_TRUE(index.IndexMatches());
        CIndexRoot* root = directory->GetIndexRoot();
        CBPlusTreeNode* node = nullptr;
        ASSERT_EQ(root->GetItem(root->GetItemCount() - 1)->GetChildNode(&node), ERROR_SUCCESS);
        auto* record = static_cast<CIndexRecord*>(node);
        ASSERT_EQ(record->IsLeaf(), depth == 2);
        if (depth == 2) {
            // The root keeps one end entry of 24 bytes that leads to a new
            // record at VCN 0, a leaf holding every name.
            const uint8_t* value = directory->RootValue;
            EXPECT_EQ(ReadU32(value, kRootBytesInUseOffset), 40u);
            EXPECT_EQ(ReadU32(value, kRootFlagsOffset), kRootLargeIndex);
            EXPECT_EQ(EntryLength(value + kRootEntriesOffset), kEndEntryWithSubNodeSize);
            EXPECT_EQ(EntryFlags(value + kRootEntriesOffset), kEntryIsLast | kEntryHasSubNode);
            EXPECT_EQ(record->GetVcn(), 0);
            EXPECT_EQ(static_cast<CBitmapData*>(directory)->GetItemCount(), 1);
            uint32_t bytes = 40 + kEntryHeaderSize;
            for (const std::u16string& name : index.present) bytes += IndexEntrySize(static_cast<int>(name.size()));
            EXPECT_EQ(record->GetBytesInUse(), bytes);
            EXPECT_EQ(record->GetItemCount(), number + 1);
        }
        while (record->GetBytesInUse() < 3000) ASSERT_EQ(index.Insert(NameNumber(number++)), ERROR_SUCCESS);
        ASSERT_NO_FATAL_FAILURE(ExpectSplit(directory, record));
    }
}

}  // namespace
}  // namespace ntfs
