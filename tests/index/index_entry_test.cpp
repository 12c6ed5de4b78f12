// Index entries on their own: the key order (ASCII letters fold, nothing
// else does, units compare unsigned; a prefix is smaller in a whole-name
// search and equal in a prefix walk), the bounds a damaged name length is
// held to, and the bytes of a leaf copy and of detaching a sub-node.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "index/index_test_util.h"

namespace ntfs {
namespace {

using test::MakeEntry;

int Compare(const std::u16string& entryName, const std::u16string& key, int compareLength = -1) {
    std::unique_ptr<CIndexEntry> entry(MakeEntry(entryName, 70));
    const std::u16string folded = test::Folded(key);
    const int length = compareLength < 0 ? static_cast<int>(key.size()) + 1 : compareLength;
    const _INDEX_SEARCH_KEY search{1, folded.c_str(), nullptr, 0, length};
    return entry->CompareKey(&search);
}

TEST(IndexKeyOrder, AsciiLettersFoldAndPrefixesCompareByTheKind) {
    EXPECT_EQ(Compare(u"readme.TXT", u"README.txt"), 0);
    // Latin-1 and Greek letters keep their case.
    EXPECT_NE(Compare(u"caf\u00e9", u"CAF\u00c9"), 0);
    EXPECT_GT(Compare(u"\u03c9", u"\u03a9"), 0);
    // Folding is to upper case: '_' (0x5F) and '[' (0x5B) sort after letters.
    EXPECT_GT(Compare(u"a_", u"az"), 0);
    EXPECT_GT(Compare(u"[", u"z"), 0);
    EXPECT_GT(Compare(u"\xD83D\xDE00", u"\u65E5"), 0);
    // A prefix is smaller as a whole name and equal over its own length.
    EXPECT_GT(Compare(u"abcdef", u"ABC"), 0);
    EXPECT_EQ(Compare(u"abcdef", u"ABC", 3), 0);
    EXPECT_LT(Compare(u"abc", u"ABCDEF"), 0);
    // Insertion compares twice the units: equal names stay equal.
    EXPECT_EQ(Compare(u"same name", u"SAME NAME", 18), 0);
    EXPECT_GT(Compare(u"same names", u"SAME NAME", 18), 0);
    EXPECT_GT(Compare(u"a", u""), 0);

    uint8_t end[kEntryHeaderSize] = {};
    WriteU16(end, kEntryLengthOffset, kEntryHeaderSize);
    WriteU16(end, kEntryFlagsOffset, kEntryIsLast);
    CIndexEntry last(end, nullptr, nullptr, nullptr);
    const _INDEX_SEARCH_KEY key{1, u"\uFFFF\uFFFF", nullptr, 0, 3};
    EXPECT_EQ(last.CompareKey(&key), 1);
    // The raw comparison does not fold.
    std::unique_ptr<CIndexEntry> entry(MakeEntry(u"Name", 70));
    EXPECT_EQ(entry->CompareName(u"Name"), 0);
    EXPECT_NE(entry->CompareName(u"NAME"), 0);
    EXPECT_LT(entry->CompareName(u"Names"), 0);
}

TEST(IndexEntryBytes, DamagedNameLengthsLeafCopiesAndDetach) {
    std::unique_ptr<CIndexEntry> entry(MakeEntry(u"abc", 70));  // 88 bytes: room for 3 units
    WriteU8(entry->GetEntry(), kEntryNameLengthOffset, 255);
    EXPECT_EQ(entry->GetNameLength(), 3);
    const _INDEX_SEARCH_KEY key{1, u"ABC", nullptr, 0, 600};
    EXPECT_EQ(entry->CompareKey(&key), 0);
    WriteU16(entry->GetEntry(), kEntryLengthOffset, 24);
    EXPECT_EQ(entry->GetNameLength(), 0);

    entry.reset(MakeEntry(u"abc", 70));
    WriteU16(entry->GetEntry(), kEntryFlagsOffset, kEntryHasSubNode);
    SetEntrySubNodeVcn(entry->GetEntry(), 12);
    // A leaf copy leaves the VCN behind.
    std::unique_ptr<CIndexEntry> leaf(MakeLeafCopy(entry.get(), nullptr));
    EXPECT_EQ(leaf->GetLength(), 80);
    EXPECT_EQ(EntryFlags(leaf->GetEntry()), 0);
    // Detaching drops the flag and the eight VCN bytes, never below a header.
    EXPECT_EQ(entry->DetachChild(), nullptr);
    EXPECT_FALSE(entry->HasChild());
    EXPECT_EQ(entry->GetLength(), 80);
    WriteU16(entry->GetEntry(), kEntryLengthOffset, kEntryHeaderSize);
    entry->DetachChild();
    EXPECT_EQ(entry->GetLength(), kEntryHeaderSize);
}

}  // namespace
}  // namespace ntfs
