// Names leaving a directory through CDirectory::RemoveEntry, each removal
// written and committed: a small directory's root shrinks by the entry and
// ends with its end entry alone; an absent name changes nothing; a directory
// that became large returns to the small form of its root when its last name
// goes, keeping $INDEX_ALLOCATION with every bit clear. What was written is
// read back from a fresh mount.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "index/index_test_util.h"

namespace ntfs {
namespace {

// Names of about 120 units: a few fill the file record's root, a dozen an
// index record.
std::u16string LongName(int number) {
    std::string text = "Removal test name " + std::to_string(10000 + number) + " ";
    text.append(100, static_cast<char>('a' + number % 26));
    return std::u16string(text.begin(), text.end());
}

std::u16string ShortName(int number) {
    const std::string text = "small " + std::to_string(number);
    return std::u16string(text.begin(), text.end());
}

// \EmptyDir with the names it must hold.
class RemovalDirectory : public test::ScratchDirectory {
public:
    using ScratchDirectory::ScratchDirectory;

    unsigned int Insert(const std::u16string& name) {
        const unsigned int code = InsertName(name);
        if (code == ERROR_SUCCESS) present.insert(name);
        return code;
    }
    unsigned int Remove(const std::u16string& name) {
        const unsigned int code = RemoveName(name);
        if (code == ERROR_SUCCESS) present.erase(name);
        return code;
    }
    bool WorkListsEmpty() const {
        return directory->ModifiedRecords.GetCount() == 0 && directory->AbateRecords.GetCount() == 0 &&
               directory->NewRecords.GetCount() == 0 && directory->NewClusterRuns.GetCount() == 0;
    }
    std::vector<std::u16string> Expected() const {
        std::vector<std::u16string> names(present.begin(), present.end());
        std::sort(names.begin(), names.end(), test::IndexLess);
        return names;
    }
    CAttribute* RootAttribute() {
        return directory->GetFileRecord()->FindAttribute(AttributeIndexRoot, kIndexName, kIndexNameLength, 0);
    }

    std::set<std::u16string> present;
};

TEST(EntryRemoval, SmallDirectoryRootShrinksByEachEntryAndEndsWithItsEndEntry) {
    RemovalDirectory small("c4k");
    ASSERT_TRUE(small.ready);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(small.Insert(ShortName(i)), ERROR_SUCCESS);
    for (int i : {1, 0, 2}) {
        const int64_t before = small.RootAttribute()->GetDataSize();
        CIndexEntry* entry = nullptr;
        ASSERT_EQ(test::FindName(small.directory, ShortName(i), &entry), ERROR_SUCCESS);
        const int length = entry->GetLength();
        ASSERT_EQ(small.Remove(ShortName(i)), ERROR_SUCCESS) << i;
        EXPECT_EQ(small.RootAttribute()->GetDataSize(), before - length);
        EXPECT_TRUE(small.WorkListsEmpty());
        EXPECT_EQ(test::WalkNames(small.directory), small.Expected());
        EXPECT_EQ(test::CheckIndex(small.directory), "");
    }
    // The root holds its end entry alone: 16 bytes of node header and 16 of
    // end entry, the large flag clear.
    EXPECT_EQ(ReadU32(small.directory->RootValue, kRootBytesInUseOffset), 32u);
    EXPECT_EQ(ReadU32(small.directory->RootValue, kRootFlagsOffset) & kRootLargeIndex, 0u);

    // An absent name: 2, nothing written, the lists empty.
    ASSERT_EQ(small.Insert(ShortName(7)), ERROR_SUCCESS);
    const int writes = small.mounted.Faults().Writes();
    EXPECT_EQ(small.Remove(ShortName(8)), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(small.mounted.Faults().Writes(), writes);
    EXPECT_TRUE(small.WorkListsEmpty());

    RemovalDirectory again(small.Unmount());
    ASSERT_TRUE(again.ready);
    EXPECT_EQ(test::WalkNames(again.directory), std::vector<std::u16string>{ShortName(7)});
}

TEST(EntryRemoval, LargeDirectoryReturnsToSmallRootWithItsBitsClear) {
    RemovalDirectory large("c4k");
    ASSERT_TRUE(large.ready);
    int inserted = 0;
    while (large.directory->GetFileRecord()->FindAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, 0) ==
           nullptr) {
        ASSERT_LT(inserted, 50);
        ASSERT_EQ(large.Insert(LongName(inserted)), ERROR_SUCCESS) << inserted;
        ++inserted;
    }
    EXPECT_NE(ReadU32(large.directory->RootValue, kRootFlagsOffset) & kRootLargeIndex, 0u);
    for (int i = 0; i < inserted; ++i) {
        ASSERT_EQ(large.Remove(LongName(i)), ERROR_SUCCESS) << i;
        EXPECT_TRUE(large.WorkListsEmpty());
        ASSERT_EQ(test::CheckIndex(large.directory), "") << i;
        ASSERT_EQ(test::WalkNames(large.directory), large.Expected()) << i;
    }
    EXPECT_EQ(ReadU32(large.directory->RootValue, kRootBytesInUseOffset), 32u);
    EXPECT_EQ(ReadU32(large.directory->RootValue, kRootFlagsOffset) & kRootLargeIndex, 0u);
    EXPECT_NE(
        large.directory->GetFileRecord()->FindAttribute(AttributeIndexAllocation, kIndexName, kIndexNameLength, 0),
        nullptr);
    for (int64_t bit = 0; bit < large.directory->CBitmapData::GetItemCount(); ++bit) {
        bool used = true;
        ASSERT_EQ(large.directory->IsItemInUse(bit, &used), ERROR_SUCCESS);
        EXPECT_FALSE(used) << "bit " << bit;
    }

    RemovalDirectory again(large.Unmount());
    ASSERT_TRUE(again.ready);
    EXPECT_TRUE(test::WalkNames(again.directory).empty());
    EXPECT_EQ(ReadU32(again.directory->RootValue, kRootFlagsOffset) & kRootLargeIndex, 0u);
}

}  // namespace
}  // namespace ntfs
