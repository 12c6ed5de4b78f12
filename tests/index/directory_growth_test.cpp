// A directory through its whole life, on every fixture's cluster size:
// names go into an empty directory until its root moves down into a first
// index record, then until the tree is three levels deep, then all of them
// leave in a random order (the seed is printed; NTFSKIT_SEED replays one).
// After each phase the volume is unmounted and mounted again, and what the
// device holds is checked: the index walks in key order with exactly the
// expected names, $BITMAP "$I30" marks exactly the index records the tree
// uses, the cluster accounting is clean, and on volumes with clusters of
// 4 KiB or less ntfsls, fls and ntfsfix agree.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "index/index_test_util.h"
#include "support/cluster_audit.h"
#include "support/tools.h"

namespace ntfs {
namespace {

using test::Narrow;

constexpr int kMaxNames = 600;

// Names of 120 to 239 units in mixed case, so that a record takes a handful
// and the root in the file record one or two.
std::u16string GrowthName(int number) {
    std::string text = (number % 3 == 0   ? "Growth "
                        : number % 3 == 1 ? "GROWTH "
                                          : "growth ") +
                       std::to_string(10000 + (number * 7919) % 90000) + " ";
    const char* fill = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789 -";
    for (int i = 0; i < 105 + (number * 37) % 120; ++i) text += fill[(number + i * 11) % 64];
    return std::u16string(text.begin(), text.end());
}

std::string NarrowName(const std::u16string& name) {
    return Narrow(name);
}

// Lines of `text` from the one after `header` up to the first empty one.
std::vector<std::string> Section(const std::string& text, const std::string& header) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    bool inside = false;
    while (std::getline(in, line)) {
        if (!inside) {
            inside = line == header;
            continue;
        }
        if (line.empty()) break;
        if (line != "." && line != "..") lines.push_back(line);
    }
    return lines;
}

// What the independent tools make of the saved image: empty when they agree
// with `expected`; `removed` holds the names taken out before.
std::string CheckWithTools(const std::string& image, const std::vector<std::string>& expected,
                           const std::set<std::string>& removed) {
    std::string problem;
    // The tools list an index in an order of their own (ntfsls the root's
    // entries first, then the records by their place): names are compared
    // as sets.
    std::vector<std::string> sorted = expected;
    std::sort(sorted.begin(), sorted.end());
    const test::ToolResult ls = test::RunTool("ntfsls -R " + test::ShellQuote(image));
    if (ls.status != 0) problem += "ntfsls failed; ";
    std::vector<std::string> listed = Section(ls.output, "/EmptyDir:");
    std::sort(listed.begin(), listed.end());
    if (listed != sorted) {
        problem +=
            "ntfsls lists " + std::to_string(listed.size()) + " names for " + std::to_string(sorted.size()) + "; ";
    }

    const test::ToolResult fls = test::RunTool("fls -r -p " + test::ShellQuote(image));
    if (fls.status != 0) problem += "fls failed; ";
    listed.clear();
    std::istringstream in(fls.output);
    std::string line;
    const std::string prefix = "\tEmptyDir/";
    while (std::getline(in, line)) {
        const size_t at = line.find(prefix);
        // Names fls finds in the slack of records and in freed records are
        // marked deleted ("r/r * ..."): stale bytes, not entries.
        const bool deleted = line.find(" * ") < at;
        if (at != std::string::npos && !deleted) listed.push_back(line.substr(at + prefix.size()));
    }
    // fls reads every record of $INDEX_ALLOCATION, also those whose bit is
    // clear: a freed record keeps its last bytes on disk, and fls lists the
    // names in it as live. So it must list every name there is, and beyond
    // them only names that have been removed.
    const std::set<std::string> seen(listed.begin(), listed.end());
    for (const std::string& name : expected) {
        if (seen.count(name) == 0) problem += "fls misses " + name.substr(0, 24) + "; ";
    }
    for (const std::string& name : seen) {
        if (!std::binary_search(sorted.begin(), sorted.end(), name) && removed.count(name) == 0)
            problem += "fls lists unknown " + name.substr(0, 24) + "; ";
    }

    const test::ToolResult fix = test::RunTool("ntfsfix -n " + test::ShellQuote(image));
    if (fix.status != 0) problem += "ntfsfix -n: " + fix.output.substr(0, 300) + "; ";
    return problem;
}

// Mounts `image` afresh and checks everything the device holds about the
// directory against `present`. Empty when all is well.
std::string CheckOnDisk(const std::vector<uint8_t>& image, const std::set<std::u16string>& present,
                        const std::set<std::u16string>& removed, bool tools, test::TreeShape* shape) {
    test::ScratchDirectory check(image);
    if (!check.ready) return "mount failed";
    CDirectory* directory = check.directory;
    std::string problem = test::CheckIndex(directory, shape);
    if (!problem.empty()) return "index: " + problem;
    std::vector<std::u16string> expected(present.begin(), present.end());
    std::sort(expected.begin(), expected.end(), test::IndexLess);
    unsigned int end = 0;
    if (test::WalkNames(directory, &end) != expected || end != ERROR_FILE_NOT_FOUND) problem += "walk differs; ";
    if (shape->Keys != static_cast<int>(present.size())) problem += "key count differs; ";

    // $BITMAP "$I30": a bit for each index record of the tree, no other.
    std::set<int64_t> used;
    for (CBPlusTreeNode* node : shape->Nodes) {
        if (node != static_cast<CBPlusTreeNode*>(directory->GetIndexRoot())) {
            used.insert(directory->VcnToBit(static_cast<CIndexRecord*>(node)->GetVcn()));
        }
    }
    for (int64_t bit = 0; bit < directory->CBitmapData::GetItemCount(); ++bit) {
        bool inUse = false;
        if (directory->IsItemInUse(bit, &inUse) != ERROR_SUCCESS) {
            problem += "bitmap unreadable; ";
            break;
        }
        if (inUse != (used.count(bit) != 0)) problem += "bit " + std::to_string(bit) + " wrong; ";
    }
    for (int64_t bit : used) {
        if (bit >= directory->CBitmapData::GetItemCount()) problem += "record beyond the bitmap; ";
    }
    const test::ClusterAudit audit = test::AuditClusters(check.mounted.Volume());
    if (!audit.Clean()) problem += "clusters: " + audit.First + "; ";

    if (tools) {
        const std::string saved = check.UnmountToFile();
        std::vector<std::string> names;
        for (const std::u16string& name : expected) names.push_back(NarrowName(name));
        std::set<std::string> gone;
        for (const std::u16string& name : removed) gone.insert(NarrowName(name));
        problem += CheckWithTools(saved, names, gone);
    }
    return problem;
}

unsigned int Seed() {
    const char* given = std::getenv("NTFSKIT_SEED");
    return given != nullptr ? static_cast<unsigned int>(std::strtoul(given, nullptr, 10)) : std::random_device{}();
}

class DirectoryGrowth : public ::testing::TestWithParam<const char*> {};

TEST_P(DirectoryGrowth, GrowsToThreeLevelsAndEmptiesAgain) {
    const std::string fixture = GetParam();
    const unsigned int seed = Seed();
    std::printf("fixture %s, removal seed %u\n", fixture.c_str(), seed);
    SCOPED_TRACE("fixture " + fixture + ", NTFSKIT_SEED=" + std::to_string(seed));
    std::vector<uint8_t> image = test::LoadImage(fixture);
    const bool tools = std::stoi(test::VolumeInfo(test::FixturePath(fixture))["Cluster Size"]) <= 4096;
    std::set<std::u16string> present;
    std::set<std::u16string> removed;
    int next = 0;
    test::TreeShape shape;

    // Phase 1: until the root moves down into a first index record.
    {
        test::ScratchDirectory growing(image);
        ASSERT_TRUE(growing.ready);
        while (!growing.Large()) {
            ASSERT_LT(next, kMaxNames);
            ASSERT_EQ(growing.InsertName(GrowthName(next)), ERROR_SUCCESS) << next;
            present.insert(GrowthName(next++));
        }
        EXPECT_NE(ReadU32(growing.directory->RootValue, kRootFlagsOffset) & kRootLargeIndex, 0u);
        image = growing.Unmount();
    }
    ASSERT_EQ(CheckOnDisk(image, present, removed, tools, &shape), "") << "after the conversion, " << next << " names";
    EXPECT_EQ(shape.Depth, 2);

    // Phase 2: until three levels, with more than one interior record.
    {
        test::ScratchDirectory growing(image);
        ASSERT_TRUE(growing.ready);
        for (;;) {
            test::TreeShape now;
            ASSERT_EQ(test::CheckIndex(growing.directory, &now), "");
            if (now.Depth >= 3 && now.NodesPerLevel[1] > 1) break;
            ASSERT_LT(next, kMaxNames);
            ASSERT_EQ(growing.InsertName(GrowthName(next)), ERROR_SUCCESS) << next;
            present.insert(GrowthName(next++));
        }
        image = growing.Unmount();
    }
    shape = test::TreeShape();
    ASSERT_EQ(CheckOnDisk(image, present, removed, tools, &shape), "") << "at three levels, " << next << " names";
    EXPECT_EQ(shape.Depth, 3);

    // Phase 3: all names leave, in a random order.
    {
        test::ScratchDirectory growing(image);
        ASSERT_TRUE(growing.ready);
        std::vector<std::u16string> order(present.begin(), present.end());
        std::shuffle(order.begin(), order.end(), std::mt19937(seed));
        for (size_t i = 0; i < order.size(); ++i) {
            ASSERT_EQ(growing.RemoveName(order[i]), ERROR_SUCCESS) << i << " " << NarrowName(order[i]);
            present.erase(order[i]);
            removed.insert(order[i]);
            if (i % 16 == 0) {
                std::vector<std::u16string> expected(present.begin(), present.end());
                std::sort(expected.begin(), expected.end(), test::IndexLess);
                ASSERT_EQ(test::CheckIndex(growing.directory), "") << "removal " << i;
                ASSERT_EQ(test::WalkNames(growing.directory), expected) << "removal " << i;
            }
        }
        EXPECT_EQ(growing.RemoveName(GrowthName(0)), ERROR_FILE_NOT_FOUND);
        image = growing.Unmount();
    }
    shape = test::TreeShape();
    ASSERT_EQ(CheckOnDisk(image, present, removed, tools, &shape), "") << "emptied";
    test::ScratchDirectory empty(image);
    ASSERT_TRUE(empty.ready);
    EXPECT_EQ(ReadU32(empty.directory->RootValue, kRootBytesInUseOffset), 32u);
    EXPECT_EQ(ReadU32(empty.directory->RootValue, kRootFlagsOffset) & kRootLargeIndex, 0u);
    EXPECT_TRUE(empty.Large());
}

INSTANTIATE_TEST_SUITE_P(Fixtures, DirectoryGrowth, ::testing::Values("c512", "c1k", "c4k", "c8k", "c64k"));

}  // namespace
}  // namespace ntfs
