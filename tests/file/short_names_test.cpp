// Short names: the two tests of which long names need one, the names the
// generator makes for a table of long names, the tails of a stem that is
// used again and again (past ~9, past ~Z, with names in the directory that
// block candidates), and the names valid for a rename.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "file/short_file_name_list.h"
#include "foundation/log.h"
#include "index/directory.h"
#include "index/index_test_util.h"
#include "support/mounted_volume.h"
#include "volume/ntfs_volume.h"

namespace ntfs {
namespace {

using test::Narrow;

std::string Utf8(const std::u16string& text) {
    std::string out;
    for (char16_t unit : text) {
        if (unit < 0x80) {
            out += static_cast<char>(unit);
        } else if (unit < 0x800) {
            out += static_cast<char>(0xC0 | (unit >> 6));
            out += static_cast<char>(0x80 | (unit & 0x3F));
        } else {
            out += static_cast<char>(0xE0 | (unit >> 12));
            out += static_cast<char>(0x80 | ((unit >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (unit & 0x3F));
        }
    }
    return out;
}

std::u16string LongName(const std::u16string& head, size_t units, const std::u16string& tail) {
    std::u16string name = head;
    const std::u16string fill = u"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    while (name.size() + tail.size() < units) name += fill[name.size() % fill.size()];
    return name + tail;
}

// The empty directory of a fresh mount of "c4k", exclusively locked, where
// each call generates as a creation or a rename would.
class ShortNames : public test::ScratchDirectory {
public:
    ShortNames() : ScratchDirectory("c4k") {}

    std::u16string Generate(const std::u16string& name, unsigned int* code = nullptr) {
        char16_t shortName[kShortNameUnits] = {};
        const unsigned int result = mounted.Volume()->GenerateShortName(directory, name.c_str(), shortName);
        if (code != nullptr) *code = result;
        return result == ERROR_SUCCESS ? std::u16string(shortName) : u"(" + std::u16string() + u")";
    }
    // A name in the directory, as another file's would be.
    unsigned int Block(const std::u16string& name) {
        directory->ModifiedRecords.Clear();
        directory->AbateRecords.Clear();
        directory->NewRecords.Clear();
        std::unique_ptr<CIndexEntry> entry(test::MakeEntry(name, 64));
        return directory->InsertEntry(directory->GetIndexRoot(), entry.get());
    }
};

struct NameCase {
    std::u16string Long;
    bool AtCreation;  // a short name is made when a file is created with it
    bool AtRename;    // ... when a file is renamed to it
    std::u16string Short;
};

TEST(ShortNames, TableOfLongNamesInAFreshDirectory) {
    const std::u16string longest = LongName(u"Name-of-exactly-255-UTF16-units_", 255, u".txt");
    const std::u16string longestNoDot = LongName(u"", 255, u"");
    const std::vector<NameCase> cases = {
        {u"Long File Name.txt", true, true, u"LONGF~1.TXT"},
        {u".profile", true, true, u"PROFI~1"},
        {u"abc.def.ghi", true, true, u"ABCDE~1.GHI"},
        {u"ab+c.txt", true, false, u"AB_C~1.TXT"},
        {u"a b c d e f g.txt", true, true, u"ABC~1.TXT"},
        {u"my file.tar.gz", true, true, u"MYFIL~1.GZ"},
        {u"...dots", true, true, u"~1.DOT"},
        {u"abc.", true, false, u"ABC~1"},
        {u".abc", true, false, u"AB~1"},
        {u"x[1];y=2.c,d", true, false, u"X_1__Y~1.C_D"},
        {u"file.t x", true, true, u"FILE~1.TX"},
        {u" lead.txt", true, true, u"LEAD~1.TXT"},
        {u"a b", true, true, u"AB~1"},
        {u"averyverylongname", true, true, u"AVERYV~1"},
        {u"abcdefghi.txt", true, true, u"ABCDEF~1.TXT"},
        {u"abcdefgh.text", true, true, u"ABCDEF~1.TEX"},
        {u"Grüße mit Ω.txt", true, true, u"GRüßE~1.TXT"},
        {u"Ωμέγα long.txt", true, true, u"Ωμέ~1.TXT"},
        {u"long name.日本語", true, true, u"LONGN~1.日"},
        {longest, true, true, u"NAME-O~1.TXT"},
        {longestNoDot, true, true, u"ABCDEF~1"},
        {u"readme.txt", false, false, u"README~1.TXT"},
        {u"NOTES.MD", false, false, u"NOTES~1.MD"},
        {u"abcdefgh.txt", false, false, u"ABCDEF~2.TXT"},  // the node of abcdefghi.txt
        {u"日本語.txt", false, false, u"日~1.TXT"},
    };
    ShortNames scratch;
    ASSERT_TRUE(scratch.ready);
    std::printf("%-40s %-9s %-7s %s\n", "long name", "creation", "rename", "generated");
    for (const NameCase& c : cases) {
        SCOPED_TRACE(Narrow(c.Long));
        EXPECT_EQ(CreationNeedsShortName(c.Long.c_str()), c.AtCreation);
        EXPECT_EQ(RenameNeedsShortName(c.Long.c_str()), c.AtRename);
        unsigned int code = ERROR_INTERNAL_ERROR;
        const std::u16string made = scratch.Generate(c.Long, &code);
        EXPECT_EQ(code, ERROR_SUCCESS);
        EXPECT_EQ(made, c.Short) << Utf8(made);
        std::string shown = Utf8(c.Long);
        if (shown.size() > 40) shown = shown.substr(0, 24) + "...(" + std::to_string(c.Long.size()) + " units)";
        std::printf("%-40s %-9s %-7s %s\n", shown.c_str(), c.AtCreation ? "short" : "kept",
                    c.AtRename ? "short" : "kept", Utf8(made).c_str());
    }
    // The same stem again: the node's counter gives the next tail.
    EXPECT_EQ(scratch.Generate(u"Long File Name.txt"), u"LONGF~2.TXT");
    EXPECT_EQ(scratch.Generate(u"LONG FILES.TXT"), u"LONGF~3.TXT");
}

TEST(ShortNames, SplitNameCountsWideUnitsTwiceAndSeparatorsOnce) {
    struct Split {
        std::u16string Long;
        std::u16string Base;
        std::u16string Extension;
    };
    const std::vector<Split> cases = {
        {u"a.b.c.d", u"ABC", u"D"},   {u"..", u"", u""},        {u".", u"", u""},
        {u"x.a b c d", u"X", u"ABC"}, {u"Ωx.Ωy", u"Ω", u"ΩY"},  {u"xy.ΩΩ", u"XY", u"Ω"},
        {u"aΩΩΩ", u"AΩΩ", u""},       {u"abΩΩΩ", u"ABΩΩ", u""}, {u"abcdeΩ", u"ABCDE", u""},
        {u"=#;.[],", u"___", u"___"},
    };
    for (const Split& c : cases) {
        SCOPED_TRACE(Narrow(c.Long));
        char16_t base[kShortStemPlaces + 1] = {};
        char16_t extension[kShortExtensionPlaces + 2] = {};
        CShortFileNameList::SplitName(c.Long.c_str(), base, extension);
        EXPECT_EQ(std::u16string(base), c.Base);
        EXPECT_EQ(std::u16string(extension), c.Extension);
    }
}

TEST(ShortNames, TailsRunPastNineAndZAndSkipNamesTheDirectoryHolds) {
    ShortNames scratch;
    ASSERT_TRUE(scratch.ready);
    // Any name blocks a candidate, whatever its case and whoever made it.
    ASSERT_EQ(scratch.Block(u"abcdef~5.txt"), ERROR_SUCCESS);
    ASSERT_EQ(scratch.Block(u"ABCDEF~C.TXT"), ERROR_SUCCESS);
    ASSERT_EQ(scratch.Block(u"ABCDE~11.TXT"), ERROR_SUCCESS);
    std::vector<std::u16string> made;
    for (int i = 0; i < 40; ++i) {
        // Different long names with one first two units, stem and extension
        // share one counter.
        const std::u16string name = u"ABCDEFGHIJ " + std::u16string(1, static_cast<char16_t>(u'a' + i % 26)) + u".txt";
        made.push_back(scratch.Generate(name));
        ASSERT_EQ(scratch.Block(made.back()), ERROR_SUCCESS) << Narrow(made.back());
    }
    std::vector<std::u16string> expected;
    for (int tail = 1; expected.size() < 40; ++tail) {
        if (tail == 5 || tail == 12 || tail == 37) continue;  // ~5, ~C, ~11 are taken
        const char16_t digits[] = u"0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
        if (tail < 36) {
            expected.push_back(u"ABCDEF~" + std::u16string(1, digits[tail]) + u".TXT");
        } else {
            expected.push_back(u"ABCDE~" + std::u16string(1, digits[tail / 36]) + std::u16string(1, digits[tail % 36]) +
                               u".TXT");
        }
    }
    EXPECT_EQ(made, expected);
    EXPECT_EQ(made[31], u"ABCDEF~Y.TXT");
    EXPECT_EQ(made[32], u"ABCDEF~Z.TXT");
    EXPECT_EQ(made[33], u"ABCDE~10.TXT");
    EXPECT_EQ(made[34], u"ABCDE~12.TXT");

    // Another stem in the same slots has a counter of its own, and another
    // directory a list of its own.
    EXPECT_EQ(scratch.Generate(u"ABCDEFGHIJ.doc"), u"ABCDEF~1.DOC");
    CDirectory* root = nullptr;
    ASSERT_EQ(scratch.mounted.Volume()->ReferenceDirectory(5, u"\\.", &root), ERROR_SUCCESS);
    root->LockExclusive();
    char16_t other[kShortNameUnits] = {};
    EXPECT_EQ(scratch.mounted.Volume()->GenerateShortName(root, u"ABCDEFGHIJ.txt", other), ERROR_SUCCESS);
    EXPECT_EQ(std::u16string(other), u"ABCDEF~1.TXT");
    root->UnlockExclusive();
    root->Release();
}

TEST(ShortNames, AStarInTheNameEndsTheSearchOnceACandidateIsTaken) {
    ShortNames scratch;
    ASSERT_TRUE(scratch.ready);
    // Nothing begins with "A": the first candidate is free as it stands.
    EXPECT_EQ(scratch.Generate(u"a*b c.txt"), u"A*BC~1.TXT");
    ASSERT_EQ(scratch.Block(u"ANYTHING"), ERROR_SUCCESS);
    unsigned int code = ERROR_SUCCESS;
    scratch.Generate(u"a*b c.txt", &code);
    EXPECT_EQ(code, ERROR_INVALID_PARAMETER);
}

TEST(ShortNames, ValidFileNamesRefuseOnlySevenUnits) {
    test::MountedVolume mounted("c4k");
    CNTFSVolume* volume = mounted.Volume();
    for (const char16_t* bad : {u"a\\b", u"a/b", u"c:", u"\"q\"", u"<", u">", u"a|b"}) {
        EXPECT_EQ(volume->IsValidFileName(bad), 0) << Narrow(bad);
    }
    for (const char16_t* good : {u"", u"a*b", u"a?b", u"...", u"a b.c d", u"日本語"}) {
        EXPECT_EQ(volume->IsValidFileName(good), 1) << Narrow(good);
    }
}

}  // namespace
}  // namespace ntfs
