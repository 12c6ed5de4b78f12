// Index entries on their own: the key order (ASCII letters fold, nothing
// else does; a prefix is smaller in a whole-name search and equal in a
// prefix walk; units behind the terminators count as zero), the bounds a
// damaged name-length byte is held to, and the byte effects of detaching a
// sub-node and of copying an entry.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "index/index_test_util.h"

namespace ntfs {
namespace {

using test::MakeEntry;

int Compare(const std::u16string& entryName, const std::u16string& key, int compareLength) {
    std::unique_ptr<CIndexEntry> entry(MakeEntry(entryName, 70));
    const std::u16string folded = test::Folded(key);
    const _INDEX_SEARCH_KEY search{1, folded.c_str(), nullptr, 0, compareLength};
    return entry->CompareKey(&search);
}

int WholeName(const std::u16string& entryName, const std::u16string& key) {
    return Compare(entryName, key, static_cast<int>(key.size()) + 1);
}

TEST(IndexKeyOrder, AsciiLettersFoldAndNothingElseDoes) {
    EXPECT_EQ(WholeName(u"readme.TXT", u"README.txt"), 0);
    EXPECT_EQ(WholeName(u"MiXeD", u"mixed"), 0);
    // Latin-1 and Greek letters keep their case: é is not É, ω is not Ω.
    EXPECT_NE(WholeName(u"caf\u00e9", u"CAF\u00c9"), 0);
    EXPECT_GT(WholeName(u"\u03c9", u"\u03a9"), 0);
    // Folding is to upper case: '_' (0x5F) sorts after every letter.
    EXPECT_GT(WholeName(u"a_", u"az"), 0);
    // '[' (0x5B) lies below 'z' but above 'Z'.
    EXPECT_GT(WholeName(u"[", u"z"), 0);
    // Units compare as unsigned: a surrogate sorts after everything below it.
    EXPECT_GT(WholeName(u"\xD83D\xDE00", u"\u65E5"), 0);
}

TEST(IndexKeyOrder, PrefixIsSmallerAsAWholeNameAndEqualInAPrefixWalk) {
    EXPECT_GT(WholeName(u"abcdef", u"ABC"), 0);
    EXPECT_EQ(Compare(u"abcdef", u"ABC", 3), 0);
    EXPECT_LT(WholeName(u"abc", u"ABCDEF"), 0);
    // The insertion paths compare twice the name's units: equal names still
    // compare equal, and a longer entry is still greater.
    EXPECT_EQ(Compare(u"same name", u"SAME NAME", 18), 0);
    EXPECT_GT(Compare(u"same names", u"SAME NAME", 18), 0);
    EXPECT_EQ(Compare(u"same name", u"SAME NAME", 19), 0);
}

TEST(IndexKeyOrder, EmptyKeyAndEndEntry) {
    // An empty key of length 1 is below every real name.
    EXPECT_GT(Compare(u"a", u"", 1), 0);
    EXPECT_EQ(Compare(u"a", u"", 0), 0);
    uint8_t end[kEntryHeaderSize] = {};
    WriteU16(end, kEntryLengthOffset, kEntryHeaderSize);
    WriteU16(end, kEntryFlagsOffset, kEntryIsLast);
    CIndexEntry last(end, nullptr, nullptr, nullptr);
    const _INDEX_SEARCH_KEY key{1, u"\uFFFF\uFFFF", nullptr, 0, 3};
    EXPECT_EQ(last.CompareKey(&key), 1);
    EXPECT_TRUE(last.IsLast());
    EXPECT_EQ(last.GetNameLength(), 0);
}

TEST(IndexKeyOrder, CompareNameIsRawAndOverTheLongerName) {
    std::unique_ptr<CIndexEntry> entry(MakeEntry(u"Name", 70));
    EXPECT_EQ(entry->CompareName(u"Name"), 0);
    EXPECT_NE(entry->CompareName(u"NAME"), 0);
    EXPECT_LT(entry->CompareName(u"Names"), 0);
    EXPECT_GT(entry->CompareName(u"Nam"), 0);
}

TEST(IndexEntryBytes, ANameLengthByteThatClaimsTooMuchIsBoundedByTheEntry) {
    std::unique_ptr<CIndexEntry> entry(MakeEntry(u"abc", 70));  // 88 bytes: room for 3 units
    WriteU8(entry->GetEntry(), kEntryNameLengthOffset, 255);
    EXPECT_EQ(entry->GetNameLength(), 3);
    EXPECT_EQ(WholeName(u"abc", u"ABC"), 0);
    const _INDEX_SEARCH_KEY key{1, u"ABC", nullptr, 0, 600};
    EXPECT_EQ(entry->CompareKey(&key), 0);
    // A damaged entry shorter than its name offset has no name at all.
    WriteU16(entry->GetEntry(), kEntryLengthOffset, 24);
    EXPECT_EQ(entry->GetNameLength(), 0);
}

TEST(IndexEntryBytes, DetachDropsTheFlagAndTheEightVcnBytes) {
    std::unique_ptr<CIndexEntry> entry(MakeEntry(u"abc", 70));
    WriteU16(entry->GetEntry(), kEntryFlagsOffset, kEntryHasSubNode);
    EXPECT_TRUE(entry->HasChild());
    EXPECT_EQ(entry->DetachChild(), nullptr);
    EXPECT_FALSE(entry->HasChild());
    EXPECT_EQ(entry->GetLength(), 80);
    // Without the flag the length falls all the same, but never below a
    // header.
    EXPECT_EQ(entry->DetachChild(), nullptr);
    EXPECT_EQ(entry->GetLength(), 72);
    WriteU16(entry->GetEntry(), kEntryLengthOffset, kEntryHeaderSize);
    entry->DetachChild();
    EXPECT_EQ(entry->GetLength(), kEntryHeaderSize);
}

TEST(IndexEntryBytes, CloneIsAWholeOwningCopyThatCannotLoad) {
    std::unique_ptr<CIndexEntry> entry(MakeEntry(u"abc", 70));
    WriteU16(entry->GetEntry(), kEntryFlagsOffset, kEntryHasSubNode);
    SetEntrySubNodeVcn(entry->GetEntry(), 12);
    std::unique_ptr<CIndexEntry> clone(static_cast<CIndexEntry*>(entry->Clone()));
    ASSERT_NE(clone, nullptr);
    EXPECT_NE(clone->GetEntry(), entry->GetEntry());
    EXPECT_EQ(std::memcmp(clone->GetEntry(), entry->GetEntry(), 88), 0);
    EXPECT_EQ(clone->OwnsBuffer, 1);
    EXPECT_EQ(clone->GetDirectory(), nullptr);
    EXPECT_EQ(clone->GetRecordNumber(), 70);
    // It leads down, but has no directory to read the record from.
    CBPlusTreeNode* child = reinterpret_cast<CBPlusTreeNode*>(1);
    EXPECT_EQ(clone->GetChildNode(&child), ERROR_INTERNAL_ERROR);
    EXPECT_EQ(child, nullptr);
    // A leaf copy leaves the VCN behind.
    std::unique_ptr<CIndexEntry> leaf(MakeLeafCopy(entry.get(), nullptr));
    EXPECT_EQ(leaf->GetLength(), 80);
    EXPECT_EQ(EntryFlags(leaf->GetEntry()), 0);
}

}  // namespace
}  // namespace ntfs
