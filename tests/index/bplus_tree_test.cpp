// The index tree's search, walk and insertion over the in-memory toy nodes:
// exact search at every level, in-order and prefix walks, splits of the root
// and of records at several levels with the median's way up through the
// parent item, the exact log texts, the base behaviours of items and nodes,
// and the bounds that keep a damaged (cyclic or truncated) tree from hanging
// the search.
#include "index/bplus_tree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
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

std::vector<std::u16string> Keys(const std::vector<int>& numbers) {
    std::vector<std::u16string> keys;
    for (int number : numbers) keys.push_back(Key(number));
    return keys;
}

std::vector<std::u16string> Names(ToyNode* node) {
    std::vector<std::u16string> names;
    for (ToyItem* item : node->List()) names.push_back(item->End ? u"<end>" : item->Name);
    return names;
}

int CountLines(const std::string& text, const std::string& line) {
    int count = 0;
    for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1)) {
        ++count;
    }
    return count;
}

// Three levels by hand: root [H, <end>], H leads to [D, <end>] whose items
// lead to leaves [A B] and [E F]; the root's end leads to [K, <end>] with
// leaves [I J] and [L M].
class HandBuiltTree : public ::testing::Test {
protected:
    void SetUp() override {
        ToyNode* left = tree_.Record({{u"D", tree_.Record({{u"A"}, {u"B"}})}},
                                     tree_.Record({{u"E"}, {u"F"}}));
        ToyNode* right = tree_.Record({{u"K", tree_.Record({{u"I"}, {u"J"}})}},
                                      tree_.Record({{u"L"}, {u"M"}}));
        tree_.SetRoot({{u"H", left}}, right);
        ASSERT_EQ(tree_.Check(), "");
    }
    ToyTree tree_{8, 4};
};

TEST(BPlusTreeSearch, RootWithOnlyItsEndItem) {
    ToyTree tree;
    CBPlusTreeItem* item = nullptr;
    EXPECT_EQ(tree.Find(u"A", &item), ERROR_FILE_NOT_FOUND);

    const _INDEX_SEARCH_KEY key{1, u"A", nullptr, 0, 2};
    CBPlusTreeNode* node = nullptr;
    int index = -1;
    ASSERT_EQ(CBPlusTreeNode::LocatePosition(tree.Root, &key, &node, &index), ERROR_SUCCESS);
    EXPECT_EQ(node, tree.Root);
    EXPECT_EQ(index, 0);

    unsigned int end = ERROR_SUCCESS;
    EXPECT_TRUE(tree.Walk(u"", &end).empty());
    EXPECT_EQ(end, ERROR_FILE_NOT_FOUND);
}

TEST_F(HandBuiltTree, ExactSearchStopsAtTheFirstEqualItemOnAnyLevel) {
    for (const char16_t* name : {u"A", u"B", u"D", u"E", u"F", u"H", u"I", u"J", u"K", u"L", u"M"}) {
        CBPlusTreeItem* item = nullptr;
        ASSERT_EQ(tree_.Find(name, &item), ERROR_SUCCESS) << toy::Narrow(name);
        EXPECT_EQ(AsToy(item)->Name, name);
        EXPECT_EQ(tree_.GetCursor()->Node, item->GetNode());
    }
    CBPlusTreeItem* item = nullptr;
    ASSERT_EQ(tree_.Find(u"H", &item), ERROR_SUCCESS);
    EXPECT_EQ(item->GetNode(), tree_.Root);
    EXPECT_EQ(tree_.GetCursor()->Previous, nullptr);
    ASSERT_EQ(tree_.Find(u"D", &item), ERROR_SUCCESS);
    EXPECT_TRUE(item->HasChild());

    // Below all, between two leaves, inside a leaf's gap, above all, and a
    // proper prefix of nothing: a miss anywhere is 2 at once.
    for (const char16_t* name : {u"0", u"C", u"G", u"HA", u"Z", u""}) {
        EXPECT_EQ(tree_.Find(name, &item), ERROR_FILE_NOT_FOUND) << toy::Narrow(name);
    }
}

TEST_F(HandBuiltTree, FoundItemStaysUnderTheCursor) {
    CBPlusTreeItem* first = nullptr;
    ASSERT_EQ(tree_.Find(u"J", &first), ERROR_SUCCESS);
    const _INDEX_SEARCH_KEY key{1, u"J", nullptr, 0, 2};
    CBPlusTreeItem* again = nullptr;
    ASSERT_EQ(tree_.FindNextItem(&again, &key), ERROR_SUCCESS);
    EXPECT_EQ(again, first);
    EXPECT_EQ(tree_.GetCursor()->Index, 1);
}

TEST_F(HandBuiltTree, LocatePositionGivesTheLeafPlaceOrTheDuplicate) {
    const _INDEX_SEARCH_KEY between{1, u"EE", nullptr, 0, 3};
    CBPlusTreeNode* node = nullptr;
    int index = -1;
    ASSERT_EQ(CBPlusTreeNode::LocatePosition(tree_.Root, &between, &node, &index), ERROR_SUCCESS);
    EXPECT_EQ(Names(static_cast<ToyNode*>(node)), (std::vector<std::u16string>{u"E", u"F", u"<end>"}));
    EXPECT_EQ(index, 1);

    const _INDEX_SEARCH_KEY last{1, u"Z", nullptr, 0, 2};
    ASSERT_EQ(CBPlusTreeNode::LocatePosition(tree_.Root, &last, &node, &index), ERROR_SUCCESS);
    EXPECT_EQ(Names(static_cast<ToyNode*>(node)), (std::vector<std::u16string>{u"L", u"M", u"<end>"}));
    EXPECT_EQ(index, 2);

    // An interior key is a duplicate as much as a leaf key.
    for (const char16_t* name : {u"K", u"B"}) {
        const _INDEX_SEARCH_KEY present{1, name, nullptr, 0, 2};
        toy::QuietStdout quiet;
        EXPECT_EQ(CBPlusTreeNode::LocatePosition(tree_.Root, &present, &node, &index),
                  ERROR_FILE_CORRUPT);
        EXPECT_EQ(quiet.Take(),
                  "New entry has exist in record! ErrorCode = 00000570H.\n");
    }
}

TEST_F(HandBuiltTree, WalksDeliverInOrderAndByPrefix) {
    unsigned int end = ERROR_SUCCESS;
    EXPECT_EQ(tree_.Walk(u"", &end),
              (std::vector<std::u16string>{u"A", u"B", u"D", u"E", u"F", u"H", u"I", u"J", u"K",
                                           u"L", u"M"}));
    EXPECT_EQ(end, ERROR_FILE_NOT_FOUND);
    EXPECT_TRUE(tree_.Walk(u"G", &end).empty());
    EXPECT_EQ(end, ERROR_FILE_NOT_FOUND);
}

TEST(BPlusTreeWalk, PrefixWalkSpansLevels) {
    ToyTree tree(4, 3);
    const std::vector<std::u16string> names = {u"AA", u"ABA", u"ABB", u"ABC", u"AB", u"AC",
                                               u"B",  u"ABD", u"ABE", u"AAZ", u"ABZZ", u"A"};
    {
        toy::QuietStdout quiet;
        for (const auto& name : names) ASSERT_EQ(tree.Insert(name), ERROR_SUCCESS);
    }
    ASSERT_EQ(tree.Check(), "");
    ASSERT_GE(tree.Depth(), 3);

    EXPECT_EQ(tree.Walk(u"AB"), (std::vector<std::u16string>{u"AB", u"ABA", u"ABB", u"ABC", u"ABD",
                                                            u"ABE", u"ABZZ"}));
    EXPECT_EQ(tree.Walk(u"ABZ"), (std::vector<std::u16string>{u"ABZZ"}));
    EXPECT_EQ(tree.Walk(u"A").size(), names.size() - 1);
    std::vector<std::u16string> sorted = names;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(tree.Walk(), sorted);
}

TEST(BPlusTreeInsert, RootSplitMovesItsItemsDownAndTakesTheMedianAtPositionZero) {
    ToyTree tree(4, 3);
    {
        toy::QuietStdout quiet;
        ASSERT_EQ(tree.Insert(u"A"), ERROR_SUCCESS);
        ASSERT_EQ(tree.Insert(u"C"), ERROR_SUCCESS);
        EXPECT_EQ(quiet.Take(), "");
    }
    {
        toy::QuietStdout quiet;
        ASSERT_EQ(tree.Insert(u"B"), ERROR_SUCCESS);
        EXPECT_EQ(quiet.Take(), "There is not enough space for new entry.\n");
    }
    ASSERT_EQ(tree.Check(), "");
    ASSERT_EQ(tree.Root->GetItemCount(), 1);
    auto* below = static_cast<ToyNode*>(tree.Root->GetItem(0)->GetChild());
    ASSERT_NE(below, nullptr);
    EXPECT_EQ(Names(below), (std::vector<std::u16string>{u"A", u"B", u"C", u"<end>"}));

    // The full record splits at its middle item B; the median goes in front
    // of the root's end item, the record's parent item.
    {
        toy::QuietStdout quiet;
        ASSERT_EQ(tree.Insert(u"D"), ERROR_SUCCESS);
        EXPECT_EQ(quiet.Take(), "There is not enough space for new entry.\n");
    }
    ASSERT_EQ(tree.Check(), "");
    EXPECT_EQ(Names(tree.Root), (std::vector<std::u16string>{u"B", u"<end>"}));
    EXPECT_EQ(Names(static_cast<ToyNode*>(tree.Root->GetItem(0)->GetChild())),
              (std::vector<std::u16string>{u"A", u"<end>"}));
    EXPECT_EQ(Names(below), (std::vector<std::u16string>{u"C", u"D", u"<end>"}));
}

// A full record [A C E] splits at C into a new left [A] and [E] staying; the
// insertion position falls on the side that covers it.
TEST(BPlusTreeInsert, PositionAfterSplitFallsIntoTheCoveringHalf) {
    struct Case {
        const char16_t* name;
        std::vector<std::u16string> left, right;
    };
    const Case cases[] = {
        {u"B", {u"A", u"B", u"<end>"}, {u"E", u"<end>"}},  // index 1: left node
        {u"D", {u"A", u"<end>"}, {u"D", u"E", u"<end>"}},  // index 2 = left count: right, 0
        {u"F", {u"A", u"<end>"}, {u"E", u"F", u"<end>"}},  // index 3: right, 1
    };
    for (const Case& c : cases) {
        ToyTree tree(4, 4);
        ToyNode* record = tree.Record({{u"A"}, {u"C"}, {u"E"}});
        tree.SetRoot({}, record);
        {
            toy::QuietStdout quiet;
            ASSERT_EQ(tree.Insert(c.name), ERROR_SUCCESS);
        }
        ASSERT_EQ(tree.Check(), "") << toy::Narrow(c.name);
        ASSERT_EQ(Names(tree.Root), (std::vector<std::u16string>{u"C", u"<end>"}));
        EXPECT_EQ(Names(static_cast<ToyNode*>(tree.Root->GetItem(0)->GetChild())), c.left);
        EXPECT_EQ(Names(record), c.right);
    }
}

TEST(BPlusTreeInsert, ManyInsertsSplitAtEveryLevel) {
    std::vector<int> ascending(600);
    for (int i = 0; i < 600; ++i) ascending[i] = i;
    std::vector<int> descending(ascending.rbegin(), ascending.rend());
    std::vector<int> shuffled = ascending;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(7));

    for (const auto& order : {ascending, descending, shuffled}) {
        ToyTree tree(5, 3);
        std::string log;
        {
            toy::QuietStdout quiet;
            for (int number : order) ASSERT_EQ(tree.Insert(Key(number)), ERROR_SUCCESS);
            log = quiet.Take();
        }
        ASSERT_EQ(tree.Check(), "");
        EXPECT_GE(tree.Depth(), 4);
        // Each split, of the root or of a record, makes exactly one node.
        EXPECT_EQ(CountLines(log, "There is not enough space for new entry.\n"),
                  static_cast<int>(tree.Nodes.size()) - 1);
        EXPECT_EQ(tree.Walk(), Keys(ascending));
        for (int number : order) {
            CBPlusTreeItem* item = nullptr;
            ASSERT_EQ(tree.Find(Key(number), &item), ERROR_SUCCESS);
            EXPECT_EQ(AsToy(item)->Name, Key(number));
        }
        toy::QuietStdout quiet;
        EXPECT_EQ(tree.Insert(Key(order[300])), ERROR_FILE_CORRUPT);
        EXPECT_EQ(quiet.Take(),
                  "New entry has exist in record! ErrorCode = 00000570H.\n");
    }
}

TEST(BPlusTreeInsert, SplitFailurePassesThrough) {
    ToyTree tree(4, 3);
    ASSERT_EQ(tree.Insert(u"A"), ERROR_SUCCESS);
    ASSERT_EQ(tree.Insert(u"B"), ERROR_SUCCESS);
    tree.Root->FailSplit = ERROR_NOT_ENOUGH_MEMORY;
    toy::QuietStdout quiet;
    EXPECT_EQ(tree.Insert(u"C"), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(quiet.Take(), "There is not enough space for new entry.\n");
}

TEST(BPlusTreeInsert, FullNodeOutsideATreeIsNotSplit) {
    ToyTree tree(4, 3);
    ToyNode* loose = tree.Record({{u"A"}, {u"B"}, {u"C"}});
    ToyItem item(u"D", false);
    {
        toy::QuietStdout quiet;
        EXPECT_EQ(loose->InsertItem(3, &item, nullptr), ERROR_INTERNAL_ERROR);
    }
    EXPECT_EQ(tree.Nodes.size(), 2u);
    EXPECT_EQ(loose->GetItemCount(), 4);
}

TEST(BPlusTreeBase, ChildLinksAndUnlink) {
    ToyTree tree;
    ToyNode* node = tree.Record({{u"A"}, {u"B"}, {u"C"}});
    ToyNode* sub = tree.Record({});
    ToyNode* other = tree.Record({});
    CBPlusTreeItem* b = node->GetItem(1);

    EXPECT_EQ(b->AttachChild(sub), nullptr);
    EXPECT_EQ(sub->GetParentItem(), b);
    EXPECT_EQ(b->AttachChild(other), sub);
    EXPECT_EQ(other->GetParentItem(), b);
    EXPECT_EQ(b->DetachChild(), other);
    EXPECT_EQ(other->GetParentItem(), nullptr);
    EXPECT_FALSE(b->HasChild());
    EXPECT_EQ(b->DetachChild(), nullptr);

    b->AttachChild(sub);
    CBPlusTreeNode* child = nullptr;
    ASSERT_EQ(node->UnlinkItem(b, &child), ERROR_SUCCESS);
    EXPECT_EQ(child, sub);
    EXPECT_EQ(node->GetItemCount(), 3);
    EXPECT_EQ(node->GetItem(0)->GetNext(), node->GetItem(1));
    EXPECT_EQ(node->GetItem(1)->GetPrevious(), node->GetItem(0));
    // An item already gone from the list still reports its sub-node.
    AsToy(b)->FailChild = ERROR_IO_DEVICE;
    EXPECT_EQ(node->UnlinkItem(b, &child), ERROR_IO_DEVICE);
    EXPECT_EQ(node->GetItemCount(), 3);
    AsToy(b)->FailChild = ERROR_SUCCESS;
    delete b;

    // The tree object has no positions of its own.
    CBPlusTreeNode* found = nullptr;
    int index = 0;
    EXPECT_EQ(tree.FindInsertPosition(node->GetItem(0), &found, &index), ERROR_NOT_SUPPORTED);
}

TEST(BPlusTreeBase, ResetCursorStartsOneFrameOnTheTreeObject) {
    ToyTree tree(4, 3);
    {
        toy::QuietStdout quiet;
        for (int i = 0; i < 40; ++i) ASSERT_EQ(tree.Insert(Key(i)), ERROR_SUCCESS);
    }
    CBPlusTreeItem* item = nullptr;
    ASSERT_EQ(tree.Find(Key(0), &item), ERROR_SUCCESS);
    ASSERT_NE(tree.GetCursor()->Previous, nullptr);  // a deep cursor to free

    ASSERT_EQ(tree.ResetCursor(), 1);
    const _TREE_CURSOR_FRAME* frame = tree.GetCursor();
    EXPECT_EQ(frame->Previous, nullptr);
    EXPECT_EQ(frame->Next, nullptr);
    EXPECT_EQ(frame->Node, &tree);
    EXPECT_EQ(frame->Backtracked, 0u);
    EXPECT_EQ(frame->Index, 0);
    tree.FreeCursor();
    EXPECT_EQ(tree.GetCursor(), nullptr);
    const _INDEX_SEARCH_KEY key{1, u"A", nullptr, 0, 2};
    EXPECT_EQ(tree.FindNextItem(&item, &key), ERROR_INTERNAL_ERROR);
}

TEST_F(HandBuiltTree, SubNodeLoadFailurePassesThroughAndKeepsTheCursor) {
    CBPlusTreeItem* h = tree_.Root->GetItem(0);
    AsToy(h)->FailChild = ERROR_IO_DEVICE;
    CBPlusTreeItem* item = nullptr;
    EXPECT_EQ(tree_.Find(u"B", &item), ERROR_IO_DEVICE);
    EXPECT_EQ(tree_.GetCursor()->Previous, nullptr);
    EXPECT_EQ(tree_.GetCursor()->Next, nullptr);
    EXPECT_EQ(tree_.Insert(u"C"), ERROR_IO_DEVICE);
    unsigned int end = ERROR_SUCCESS;
    EXPECT_TRUE(tree_.Walk(u"", &end).empty());
    EXPECT_EQ(end, ERROR_IO_DEVICE);
    // The other side of the tree does not need the failing sub-node.
    EXPECT_EQ(tree_.Find(u"L", &item), ERROR_SUCCESS);
    AsToy(h)->FailChild = ERROR_SUCCESS;
}

TEST(BPlusTreeDamage, CyclicTreeEndsWithCorruptInsteadOfHanging) {
    ToyTree tree;
    ToyNode* loop = tree.Record({});
    tree.SetRoot({}, loop);
    // The record's end item leads back to the record itself.
    loop->GetItem(0)->AttachChild(loop);

    CBPlusTreeItem* item = nullptr;
    EXPECT_EQ(tree.Find(u"Z", &item), ERROR_FILE_CORRUPT);
    EXPECT_EQ(tree.Insert(u"Z"), ERROR_FILE_CORRUPT);
    unsigned int end = ERROR_SUCCESS;
    EXPECT_TRUE(tree.Walk(u"", &end).empty());
    EXPECT_EQ(end, ERROR_FILE_CORRUPT);
    EXPECT_EQ(tree.RetireChain(tree.Root->GetItem(0)), ERROR_FILE_CORRUPT);
}

TEST(BPlusTreeDamage, NodeWithoutEndItem) {
    ToyTree tree;
    ToyNode* broken = tree.Record({{u"M"}});
    tree.SetRoot({}, broken);
    const std::vector<ToyItem*> items = broken->List();
    broken->Store({}, true);
    for (ToyItem* gone : items) delete gone;

    CBPlusTreeItem* item = nullptr;
    EXPECT_EQ(tree.Find(u"Z", &item), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(tree.Insert(u"Z"), ERROR_FILE_CORRUPT);
    // A chain whose node has no first item cannot be followed.
    EXPECT_EQ(tree.RetireChain(tree.Root->GetItem(0)), ERROR_INTERNAL_ERROR);
}

}  // namespace
}  // namespace ntfs
