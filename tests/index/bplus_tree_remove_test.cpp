// Removal from the index tree through every case of Remove, on hand-built
// toy trees: a leaf item with others left, a leaf emptied (the parent item
// taken back as a leaf entry, or the end item taking over its neighbour's
// sub-node, or the emptiness walking up to the root's small form), an
// interior item replaced by the greatest key of a leaf or interior subtree,
// and subtrees that run out of keys. After each removal the structure holds,
// the walk is in order and every remaining key is found. Then removals deep
// in grown trees and a fixed-seed random mix checked against std::set.
#include "index/bplus_tree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "foundation/log.h"
#include "index/bplus_tree_toy.h"

namespace ntfs {
namespace {

using toy::AsToy;
using toy::Key;
using toy::ToyItem;
using toy::ToyNode;
using toy::ToyTree;

using Names = std::vector<std::u16string>;

Names NodeNames(CBPlusTreeNode* node) {
    Names names;
    for (ToyItem* item : static_cast<ToyNode*>(node)->List()) {
        names.push_back(item->End ? u"<end>" : item->Name);
    }
    return names;
}

// The tree holds exactly `keys`: structure, walk, and an exact search of each.
void ExpectHolds(ToyTree& tree, const Names& keys) {
    ASSERT_EQ(tree.Check(), "");
    unsigned int end = ERROR_SUCCESS;
    EXPECT_EQ(tree.Walk(u"", &end), keys);
    EXPECT_EQ(end, ERROR_FILE_NOT_FOUND);
    for (const auto& key : keys) {
        CBPlusTreeItem* item = nullptr;
        ASSERT_EQ(tree.Find(key, &item), ERROR_SUCCESS) << toy::Narrow(key);
        EXPECT_EQ(AsToy(item)->Name, key);
    }
}

std::set<CBPlusTreeNode*> Retired(const ToyTree& tree) {
    return std::set<CBPlusTreeNode*>(tree.Abated.begin(), tree.Abated.end());
}

class BPlusTreeRemove : public ::testing::Test {
protected:
    // Removes `name`, which must then be gone, quietly.
    unsigned int Erase(const std::u16string& name) {
        unsigned int error;
        {
            toy::QuietStdout quiet;
            error = tree_.Erase(name);
        }
        CBPlusTreeItem* item = nullptr;
        if (error == ERROR_SUCCESS) {
            EXPECT_EQ(tree_.Find(name, &item), ERROR_FILE_NOT_FOUND);
        }
        return error;
    }
    ToyTree tree_{8, 4};
};

TEST_F(BPlusTreeRemove, LeafItemWithOthersLeft) {
    ToyNode* right = tree_.Record({{u"C"}, {u"D"}});
    tree_.SetRoot({{u"B", tree_.Record({{u"A"}})}}, right);
    ASSERT_EQ(Erase(u"D"), ERROR_SUCCESS);
    EXPECT_EQ(NodeNames(right), (Names{u"C", u"<end>"}));
    EXPECT_TRUE(tree_.Abated.empty());
    ExpectHolds(tree_, {u"A", u"B", u"C"});
}

TEST_F(BPlusTreeRemove, ItemsOfASmallRoot) {
    tree_.SetRoot({{u"A"}, {u"B"}});
    ASSERT_EQ(Erase(u"A"), ERROR_SUCCESS);
    ExpectHolds(tree_, {u"B"});
    ASSERT_EQ(Erase(u"B"), ERROR_SUCCESS);
    EXPECT_EQ(NodeNames(tree_.Root), (Names{u"<end>"}));
    EXPECT_TRUE(tree_.Root->IsLeaf());
    ExpectHolds(tree_, {});
    EXPECT_EQ(Erase(u"B"), ERROR_FILE_NOT_FOUND);
}

// The record under D loses its only key: it goes, and D leaves the root to
// come back by key order as a leaf entry of the record after it.
TEST_F(BPlusTreeRemove, EmptiedLeafHandsBackARealParentItem) {
    ToyNode* a = tree_.Record({{u"A"}});
    ToyNode* c = tree_.Record({{u"C"}});
    ToyNode* e = tree_.Record({{u"E"}});
    tree_.SetRoot({{u"B", a}, {u"D", c}}, e);
    ASSERT_EQ(Erase(u"C"), ERROR_SUCCESS);
    EXPECT_EQ(Retired(tree_), std::set<CBPlusTreeNode*>{c});
    EXPECT_EQ(NodeNames(tree_.Root), (Names{u"B", u"<end>"}));
    EXPECT_EQ(NodeNames(e), (Names{u"D", u"E", u"<end>"}));
    ExpectHolds(tree_, {u"A", u"B", u"D", u"E"});
}

// The emptied record hung under the root's end item: the end item takes over
// the sub-node of B, and B comes back as a leaf entry.
TEST_F(BPlusTreeRemove, EmptiedLeafUnderAnEndItemTakesOverTheNeighbour) {
    ToyNode* a = tree_.Record({{u"A"}});
    ToyNode* c = tree_.Record({{u"C"}});
    tree_.SetRoot({{u"B", a}}, c);
    ASSERT_EQ(Erase(u"C"), ERROR_SUCCESS);
    EXPECT_EQ(Retired(tree_), std::set<CBPlusTreeNode*>{c});
    EXPECT_EQ(NodeNames(tree_.Root), (Names{u"<end>"}));
    EXPECT_EQ(tree_.Root->GetItem(0)->GetChild(), a);
    EXPECT_EQ(NodeNames(a), (Names{u"A", u"B", u"<end>"}));
    ExpectHolds(tree_, {u"A", u"B"});
}

// Under a record that is only a link (an end item and nothing else) the
// emptiness walks up: the link goes too, and the root's end item takes over.
TEST_F(BPlusTreeRemove, EmptinessWalksUpThroughALink) {
    ToyNode* a = tree_.Record({{u"A"}});
    ToyNode* c = tree_.Record({{u"C"}});
    ToyNode* link = tree_.Record({}, c);
    tree_.SetRoot({{u"B", a}}, link);
    ASSERT_EQ(tree_.Check(), "");
    ASSERT_EQ(Erase(u"C"), ERROR_SUCCESS);
    EXPECT_EQ(Retired(tree_), (std::set<CBPlusTreeNode*>{c, link}));
    EXPECT_EQ(tree_.Root->GetItem(0)->GetChild(), a);
    ExpectHolds(tree_, {u"A", u"B"});
}

TEST_F(BPlusTreeRemove, LastRecordGoneReturnsTheRootToItsSmallForm) {
    ToyNode* a = tree_.Record({{u"A"}});
    tree_.SetRoot({}, a);
    ASSERT_EQ(Erase(u"A"), ERROR_SUCCESS);
    EXPECT_EQ(Retired(tree_), std::set<CBPlusTreeNode*>{a});
    EXPECT_EQ(NodeNames(tree_.Root), (Names{u"<end>"}));
    EXPECT_TRUE(tree_.Root->IsLeaf());
    ExpectHolds(tree_, {});
}

// C has a leaf below that keeps keys: its greatest key B takes C's place and
// keeps the removed item's sub-node.
TEST_F(BPlusTreeRemove, InteriorItemReplacedByTheGreatestKeyOfItsLeaf) {
    ToyNode* ab = tree_.Record({{u"A"}, {u"B"}});
    tree_.SetRoot({{u"C", ab}}, tree_.Record({{u"D"}}));
    ASSERT_EQ(Erase(u"C"), ERROR_SUCCESS);
    EXPECT_EQ(NodeNames(tree_.Root), (Names{u"B", u"<end>"}));
    EXPECT_EQ(tree_.Root->GetItem(0)->GetChild(), ab);
    EXPECT_EQ(NodeNames(ab), (Names{u"A", u"<end>"}));
    EXPECT_TRUE(tree_.Abated.empty());
    ExpectHolds(tree_, {u"A", u"B", u"D"});
}

// B's leaf gives up its only key: the leaf goes and A comes back as a leaf
// entry by key order.
TEST_F(BPlusTreeRemove, InteriorItemWhoseLeafEmpties) {
    ToyNode* a = tree_.Record({{u"A"}});
    ToyNode* cd = tree_.Record({{u"C"}, {u"D"}});
    tree_.SetRoot({{u"B", a}}, cd);
    ASSERT_EQ(Erase(u"B"), ERROR_SUCCESS);
    EXPECT_EQ(Retired(tree_), std::set<CBPlusTreeNode*>{a});
    EXPECT_EQ(NodeNames(tree_.Root), (Names{u"<end>"}));
    EXPECT_EQ(NodeNames(cd), (Names{u"A", u"C", u"D", u"<end>"}));
    ExpectHolds(tree_, {u"A", u"C", u"D"});
}

TEST_F(BPlusTreeRemove, InteriorItemOverAnEmptyLeaf) {
    ToyNode* empty = tree_.Record({});
    tree_.SetRoot({{u"B", empty}}, tree_.Record({{u"C"}}));
    ASSERT_EQ(Erase(u"B"), ERROR_SUCCESS);
    EXPECT_EQ(Retired(tree_), std::set<CBPlusTreeNode*>{empty});
    ExpectHolds(tree_, {u"C"});
}

// F leads to an interior record; the greatest key below, D, takes F's place.
TEST_F(BPlusTreeRemove, InteriorSubtreeGivesUpItsGreatestKey) {
    ToyNode* cd = tree_.Record({{u"C"}, {u"D"}});
    ToyNode* inner = tree_.Record({{u"B", tree_.Record({{u"A"}})}}, cd);
    tree_.SetRoot({{u"F", inner}}, tree_.Record({{u"G"}}));
    ASSERT_EQ(Erase(u"F"), ERROR_SUCCESS);
    EXPECT_EQ(NodeNames(tree_.Root), (Names{u"D", u"<end>"}));
    EXPECT_EQ(tree_.Root->GetItem(0)->GetChild(), inner);
    EXPECT_EQ(NodeNames(cd), (Names{u"C", u"<end>"}));
    ExpectHolds(tree_, {u"A", u"B", u"C", u"D", u"G"});
}

// C was the last key of the right side of `inner`: C moves up, the emptied
// leaf goes, inner's end item takes over B's leaf and B moves down into it.
TEST_F(BPlusTreeRemove, InteriorSubtreeWhoseRightSideRunsOut) {
    ToyNode* a = tree_.Record({{u"A"}});
    ToyNode* c = tree_.Record({{u"C"}});
    ToyNode* inner = tree_.Record({{u"B", a}}, c);
    tree_.SetRoot({{u"F", inner}}, tree_.Record({{u"G"}}));
    ASSERT_EQ(Erase(u"F"), ERROR_SUCCESS);
    EXPECT_EQ(Retired(tree_), std::set<CBPlusTreeNode*>{c});
    EXPECT_EQ(NodeNames(tree_.Root), (Names{u"C", u"<end>"}));
    EXPECT_EQ(NodeNames(inner), (Names{u"<end>"}));
    EXPECT_EQ(inner->GetItem(0)->GetChild(), a);
    EXPECT_EQ(NodeNames(a), (Names{u"A", u"B", u"<end>"}));
    ExpectHolds(tree_, {u"A", u"B", u"C", u"G"});
}

// The only key below F sat at the bottom of a chain of links: the whole
// chain goes and C comes back as a leaf entry.
TEST_F(BPlusTreeRemove, InteriorSubtreeLeftWithoutKeys) {
    ToyNode* c = tree_.Record({{u"C"}});
    ToyNode* link = tree_.Record({}, c);
    ToyNode* g = tree_.Record({{u"G"}});
    tree_.SetRoot({{u"F", link}}, g);
    ASSERT_EQ(Erase(u"F"), ERROR_SUCCESS);
    EXPECT_EQ(Retired(tree_), (std::set<CBPlusTreeNode*>{link, c}));
    EXPECT_EQ(NodeNames(g), (Names{u"C", u"G", u"<end>"}));
    ExpectHolds(tree_, {u"C", u"G"});
}

// The interior record that holds the greatest key has an empty end side: its
// last real item comes up, and its end item takes that item's sub-node.
TEST_F(BPlusTreeRemove, GreatestKeyInAnInteriorRecord) {
    ToyNode* a = tree_.Record({{u"A"}});
    ToyNode* empty = tree_.Record({});
    ToyNode* inner = tree_.Record({{u"B", a}}, empty);
    tree_.SetRoot({{u"F", inner}}, tree_.Record({{u"G"}}));
    ASSERT_EQ(Erase(u"F"), ERROR_SUCCESS);
    EXPECT_EQ(Retired(tree_), std::set<CBPlusTreeNode*>{empty});
    EXPECT_EQ(NodeNames(tree_.Root), (Names{u"B", u"<end>"}));
    EXPECT_EQ(tree_.Root->GetItem(0)->GetChild(), inner);
    EXPECT_EQ(inner->GetItem(0)->GetChild(), a);
    ExpectHolds(tree_, {u"A", u"B", u"G"});
}

TEST_F(BPlusTreeRemove, SubtreeWithNoKeysAtAllIsRetiredWhole) {
    ToyNode* empty = tree_.Record({});
    ToyNode* link = tree_.Record({}, empty);
    tree_.SetRoot({{u"F", link}}, tree_.Record({{u"G"}}));
    ASSERT_EQ(Erase(u"F"), ERROR_SUCCESS);
    EXPECT_EQ(Retired(tree_), (std::set<CBPlusTreeNode*>{link, empty}));
    ExpectHolds(tree_, {u"G"});
}

TEST_F(BPlusTreeRemove, FailedCloneIsOutOfMemory) {
    ToyNode* inner = tree_.Record({{u"B", tree_.Record({{u"A"}})}}, tree_.Record({}));
    tree_.SetRoot({{u"F", inner}}, tree_.Record({{u"G"}}));
    ToyItem::FailClones = 1;
    EXPECT_EQ(Erase(u"F"), ERROR_NOT_ENOUGH_MEMORY);
    ToyItem::FailClones = 0;
}

// Keys that stand in interior nodes of a grown tree, removed one by one.
TEST(BPlusTreeRemoveGrown, InteriorKeysOfADeepTree) {
    ToyTree tree(4, 3);
    std::set<int> keys;
    toy::QuietStdout quiet;
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(tree.Insert(Key(i)), ERROR_SUCCESS);
        keys.insert(i);
    }
    ASSERT_GE(tree.Depth(), 3);
    int interior = 0;
    for (int i = 0; i < 200; i += 3) {
        CBPlusTreeItem* item = nullptr;
        ASSERT_EQ(tree.Find(Key(i), &item), ERROR_SUCCESS);
        if (item->HasChild()) ++interior;
        ASSERT_EQ(tree.Erase(Key(i)), ERROR_SUCCESS) << i;
        keys.erase(i);
        ASSERT_EQ(tree.Check(), "") << "after removing " << i;
        Names expected;
        for (int key : keys) expected.push_back(Key(key));
        ASSERT_EQ(tree.Walk(), expected) << "after removing " << i;
    }
    EXPECT_GE(interior, 10);
}

TEST(BPlusTreeRemoveGrown, EmptyingATreeLeavesTheSmallRoot) {
    ToyTree tree(5, 3);
    std::vector<int> order(300);
    for (int i = 0; i < 300; ++i) order[i] = i;
    toy::QuietStdout quiet;
    for (int i : order) ASSERT_EQ(tree.Insert(Key(i)), ERROR_SUCCESS);
    std::shuffle(order.begin(), order.end(), std::mt19937(11));
    for (int i : order) {
        ASSERT_EQ(tree.Erase(Key(i)), ERROR_SUCCESS) << i;
        ASSERT_EQ(tree.Check(), "") << "after removing " << i;
    }
    EXPECT_EQ(NodeNames(tree.Root), (Names{u"<end>"}));
    EXPECT_TRUE(tree.Root->IsLeaf());
    EXPECT_EQ(Retired(tree).size(), tree.Nodes.size() - 1);
}

// Inserts and removals in a fixed-seed random mix, against std::set.
TEST(BPlusTreeRemoveGrown, RandomMixAgreesWithASet) {
    struct Shape {
        int record, root;
        unsigned seed;
    };
    for (const Shape shape : {Shape{4, 3, 1}, Shape{5, 4, 2}, Shape{7, 3, 3}}) {
        ToyTree tree(shape.record, shape.root);
        std::set<int> model;
        std::mt19937 random(shape.seed);
        toy::QuietStdout quiet;
        for (int step = 0; step < 3000; ++step) {
            const int key = static_cast<int>(random() % 400);
            // Lean towards growth first, then towards shrinking.
            const bool insert = static_cast<int>(random() % 100) < (step < 1500 ? 65 : 35);
            const unsigned int result = insert ? tree.Insert(Key(key)) : tree.Erase(Key(key));
            const bool present = model.count(key) != 0;
            if (insert) {
                ASSERT_EQ(result, present ? ERROR_FILE_CORRUPT : ERROR_SUCCESS) << step;
                model.insert(key);
            } else {
                ASSERT_EQ(result, present ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND) << step;
                model.erase(key);
            }
            ASSERT_EQ(tree.Check(), "") << "seed " << shape.seed << " step " << step;
            if (step % 50 == 0 || step == 2999) {
                Names expected;
                for (int k : model) expected.push_back(Key(k));
                ASSERT_EQ(tree.Walk(), expected) << "seed " << shape.seed << " step " << step;
            }
        }
        for (int key = 0; key < 400; ++key) {
            CBPlusTreeItem* item = nullptr;
            EXPECT_EQ(tree.Find(Key(key), &item),
                      model.count(key) != 0 ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND)
                << key;
        }
    }
}

}  // namespace
}  // namespace ntfs
