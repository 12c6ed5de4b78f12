// The index tree framework over the in-memory toy nodes: trees grown in
// ascending, descending or shuffled order split at every level, then a random
// mix of insertions and removals agrees with std::set, and the tree drains
// back to its small root; removals over empty leaves and links, which only a
// volume's own history makes, keep the tree whole.
#include "index/bplus_tree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "index/bplus_tree_toy.h"

namespace ntfs {
namespace {

using toy::AsToy;
using toy::Key;
using toy::ToyTree;
using Names = std::vector<std::u16string>;

// The tree holds exactly `keys`: structure, walk to its end, exact searches.
::testing::AssertionResult Holds(ToyTree& tree, const std::set<int>& keys) {
    const std::string problem = tree.Check();
    if (!problem.empty()) return ::testing::AssertionFailure() << problem;
    Names expected;
    for (int key : keys) expected.push_back(Key(key));
    unsigned int end = ERROR_SUCCESS;
    if (tree.Walk(&end) != expected || end != ERROR_FILE_NOT_FOUND)
        return ::testing::AssertionFailure() << "walk differs, ended by " << end;
    for (int key : keys) {
        CBPlusTreeItem* item = nullptr;
        if (tree.Find(Key(key), &item) != ERROR_SUCCESS || AsToy(item)->Name != Key(key))
            return ::testing::AssertionFailure() << "not found: " << key;
    }
    return ::testing::AssertionSuccess();
}

TEST(BPlusTree, GrowthRandomMixAndDrainAgreeWithASet) {
    struct Shape {
        int record, root;
        unsigned seed;
    };
    for (const Shape shape : {Shape{4, 3, 1}, Shape{5, 4, 2}, Shape{7, 3, 3}}) {
        SCOPED_TRACE(shape.seed);
        ToyTree tree(shape.record, shape.root);
        std::mt19937 random(shape.seed);
        std::vector<int> order;
        for (int i = 0; i < 800; i += 2) order.push_back(i);
        if (shape.seed == 2) std::reverse(order.begin(), order.end());
        if (shape.seed == 3) std::shuffle(order.begin(), order.end(), random);
        std::set<int> model(order.begin(), order.end());
        toy::QuietStdout quiet;
        for (int number : order) ASSERT_EQ(tree.Insert(Key(number)), ERROR_SUCCESS);
        ASSERT_TRUE(Holds(tree, model));
        EXPECT_GE(tree.Depth, 4);
        for (int step = 0; step < 3000; ++step) {
            const int key = static_cast<int>(random() % 800);
            // Lean towards shrinking first, then towards growth.
            const bool insert = static_cast<int>(random() % 100) < (step < 1500 ? 35 : 65);
            const bool present = model.count(key) != 0;
            if (insert) {
                ASSERT_EQ(tree.Insert(Key(key)), present ? ERROR_FILE_CORRUPT : ERROR_SUCCESS) << step;
                model.insert(key);
            } else {
                ASSERT_EQ(tree.Erase(Key(key)), present ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND) << step;
                model.erase(key);
            }
            ASSERT_EQ(tree.Check(), "") << "step " << step;
            if (step % 50 == 0) {
                ASSERT_TRUE(Holds(tree, model)) << "step " << step;
            }
        }

        std::vector<int> rest(model.begin(), model.end());
        std::shuffle(rest.begin(), rest.end(), random);
        for (int key : rest) {
            ASSERT_EQ(tree.Erase(Key(key)), ERROR_SUCCESS) << key;
            model.erase(key);
            ASSERT_EQ(tree.Check(), "") << "after removing " << key;
        }
        ASSERT_TRUE(Holds(tree, model));
        EXPECT_EQ(tree.Root->GetItemCount(), 1);
        EXPECT_TRUE(tree.Root->IsLeaf());
        EXPECT_EQ(tree.Retired.size(), tree.Nodes.size() - 1);
    }
}

// Shapes the framework does not make itself but a volume may hold: empty
// leaves and records that are only an end item leading down. Removing the
// key above them retires them and keeps every other key. A cycle of them
// ends in ERROR_FILE_CORRUPT instead of hanging.
TEST(BPlusTree, RemovalOverEmptyLeavesAndLinksAndACycle) {
    for (int shape = 0; shape < 5; ++shape) {
        SCOPED_TRACE(shape);
        ToyTree tree(8, 4);
        Names left = {u"G"};
        switch (shape) {
            case 0:  // a key over an empty leaf
                tree.Build({u"F"}, {tree.Build({}), tree.Build({u"G"})}, tree.Root);
                break;
            case 1:  // a key over a chain of end items
                tree.Build({u"F"}, {tree.Build({}, {tree.Build({})}), tree.Build({u"G"})}, tree.Root);
                break;
            case 2:  // the greatest key below in an interior record with an empty end side
                tree.Build({u"F"}, {tree.Build({u"B"}, {tree.Build({u"A"}), tree.Build({})}), tree.Build({u"G"})},
                           tree.Root);
                left = {u"A", u"B", u"G"};
                break;
            case 3:  // the only key below under a link
                tree.Build({u"F"}, {tree.Build({}, {tree.Build({u"C"})}), tree.Build({u"G"})}, tree.Root);
                left = {u"C", u"G"};
                break;
            default:  // a leaf emptied under a link
                tree.Build({u"B"}, {tree.Build({u"A"}), tree.Build({}, {tree.Build({u"F"})})}, tree.Root);
                left = {u"A", u"B"};
        }
        toy::QuietStdout quiet;
        ASSERT_EQ(tree.Erase(u"F"), ERROR_SUCCESS);
        EXPECT_EQ(tree.Check(), "");
        unsigned int end = ERROR_SUCCESS;
        EXPECT_EQ(tree.Walk(&end), left);
        for (const auto& key : left) {
            CBPlusTreeItem* item = nullptr;
            EXPECT_EQ(tree.Find(key, &item), ERROR_SUCCESS);
        }
    }
    // A chain of end items that leads back into itself ends every descent.
    ToyTree tree(8, 4);
    toy::ToyNode* loop = tree.Build({});
    tree.Build({}, {loop}, tree.Root);
    loop->GetItem(0)->AttachChild(loop);
    CBPlusTreeItem* item = nullptr;
    EXPECT_EQ(tree.Find(u"A", &item), ERROR_FILE_CORRUPT);
    EXPECT_EQ(tree.Insert(u"A"), ERROR_FILE_CORRUPT);
    EXPECT_EQ(tree.RetireChain(tree.Root->GetItem(0)), ERROR_FILE_CORRUPT);
}

}  // namespace
}  // namespace ntfs
