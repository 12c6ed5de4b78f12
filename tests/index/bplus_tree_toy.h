// In-memory forms of the index tree for the tree framework's tests: items
// holding a short name and nodes of small capacity, so that splits come
// quickly. They behave as the stored nodes do where the framework can tell:
// the root moves all its items down when it splits, a record splits at its
// middle item and keeps the upper half, removed items are deleted, an emptied
// record hands its parent item back to the tree, and insertion stores copies.
// The tree object owns every node it made; nodes own their items.
#pragma once

#include <cstdio>
#include <cstring>
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "index/bplus_tree.h"
#include "index/index_test_util.h"

namespace ntfs {
namespace toy {

class ToyTree;

// Holds standard output for a scope (the tree logs every split), and gives
// it back when the test has failed, with the failures in it.
class QuietStdout {
public:
    QuietStdout() { testing::internal::CaptureStdout(); }
    ~QuietStdout() {
        const std::string text = taken_ ? "" : testing::internal::GetCapturedStdout();
        if (::testing::Test::HasFailure()) std::cout << text;
    }
    std::string Take() {
        taken_ = true;
        return testing::internal::GetCapturedStdout();
    }

private:
    bool taken_ = false;
};

inline std::u16string Key(int number) {
    char text[16];
    std::snprintf(text, sizeof(text), "K%05d", number);
    return std::u16string(text, text + std::strlen(text));
}

class ToyItem : public CBPlusTreeItem {
public:
    ToyItem(std::u16string name, bool end) : Name(std::move(name)), End(end) {}
    ~ToyItem() override {
        if (Child != nullptr && Child->GetParentItem() == this) Child->SetParentItem(nullptr);
    }
    unsigned int GetChildNode(CBPlusTreeNode** child) override {
        *child = Child;
        return ERROR_SUCCESS;
    }
    CBPlusTreeItem* Clone() override { return new ToyItem(Name, End); }
    int CompareName(const char16_t* name) override { return Name.compare(name); }
    // Over the compare length, a name that ends first being the smaller.
    int CompareKey(const _INDEX_SEARCH_KEY* key) override {
        if (End) return 1;
        return Name.substr(0, key->CompareLength).compare(std::u16string(key->Name).substr(0, key->CompareLength));
    }
    void ForgetChild() { Child = nullptr; }

    std::u16string Name;
    bool End;
};

inline ToyItem* AsToy(CBPlusTreeItem* item) {
    return static_cast<ToyItem*>(item);
}

class ToyNode : public CBPlusTreeNode {
public:
    ToyNode(ToyTree* tree, int capacity, bool root) : Tree(tree), Capacity(capacity), Root(root) {}
    ~ToyNode() override {
        for (ToyItem* item : List()) delete item;
    }

    int MarkModified() override { return 1; }
    int ClearModified() override { return 1; }
    unsigned int FindInsertPosition(CBPlusTreeItem* item, CBPlusTreeNode** node, int* index) override {
        const std::u16string& name = AsToy(item)->Name;
        const _INDEX_SEARCH_KEY key{1, name.c_str(), nullptr, 0, static_cast<int>(name.size()) + 1};
        return LocatePosition(this, &key, node, index);
    }
    unsigned int ReinsertDetached(CBPlusTreeItem* item) override;
    bool IsEmpty() override { return Root ? GetItemCount() == 0 : GetItemCount() < 2; }
    unsigned int FindLastNode(CBPlusTreeNode** node) override;
    bool IsLeaf() override {
        CBPlusTreeItem* last = GetItem(GetItemCount() - 1);
        return last == nullptr || !last->HasChild();
    }
    unsigned int Split(CBPlusTreeItem** median) override;
    unsigned int RetireNode(CBPlusTreeNode* node) override;
    bool HasSpaceFor(CBPlusTreeItem*) override { return GetItemCount() < Capacity; }
    int InsertRaw(CBPlusTreeItem* previous, CBPlusTreeItem* item, CBPlusTreeItem** inserted) override {
        std::vector<ToyItem*> items = List();
        const int position = previous != nullptr ? IndexOfItem(previous) + 1 : 0;
        auto* copy = new ToyItem(AsToy(item)->Name, AsToy(item)->End);
        if (item->GetChild() != nullptr) copy->AttachChild(item->GetChild());
        items.insert(items.begin() + position, copy);
        Store(items, false);
        *inserted = copy;
        return position;
    }
    unsigned int TakeLastEntry(CBPlusTreeItem** item) override {
        if (Root) return ERROR_SUCCESS;
        ToyItem* last = AsToy(GetItem(GetItemCount() - 2));
        if (last == nullptr) return ERROR_FILE_CORRUPT;
        *item = new ToyItem(last->Name, false);
        CBPlusTreeNode* child = nullptr;
        return RemoveItem(last, &child);
    }
    unsigned int RemoveItem(CBPlusTreeItem* item, CBPlusTreeNode** child) override {
        if (IndexOfItem(item) < 0) return ERROR_INTERNAL_ERROR;
        const unsigned int error = UnlinkItem(item, child);
        delete item;
        return error;
    }
    bool AcceptItem(CBPlusTreeItem*, bool, const _INDEX_SEARCH_KEY*) override { return true; }

    std::vector<ToyItem*> List() const {
        std::vector<ToyItem*> items;
        for (int i = 0; i < GetItemCount(); ++i) items.push_back(AsToy(GetItem(i)));
        return items;
    }
    // Replaces the item list; `link` rebuilds the neighbour links the way a
    // node parse does (insertion leaves them to the framework).
    void Store(const std::vector<ToyItem*>& items, bool link) {
        Items.Clear();
        for (size_t i = 0; i < items.size(); ++i) {
            Items.InsertAfter(Items.GetCount(), items[i]);
            items[i]->SetNode(this);
            if (!link) continue;
            items[i]->SetPrevious(i > 0 ? items[i - 1] : nullptr);
            items[i]->SetNext(i + 1 < items.size() ? items[i + 1] : nullptr);
        }
    }

    ToyTree* Tree;
    int Capacity;
    bool Root;
};

// The tree object (no items, the cursor, the retired list) and the
// operations the tests drive.
class ToyTree : public CBPlusTreeNode {
public:
    ToyTree(int recordCapacity, int rootCapacity) : RecordCapacity(recordCapacity) {
        Root = NewNode(rootCapacity, true);
        Root->Store({new ToyItem(u"", true)}, true);
        Pseudo = new ToyItem(u"", true);
        Pseudo->SetNode(Root);
        Root->SetParentItem(Pseudo);
    }
    ~ToyTree() override {
        FreeCursor();
        for (ToyNode* node : Nodes) {
            for (ToyItem* item : node->List()) item->ForgetChild();
        }
        for (ToyNode* node : Nodes) delete node;
        delete Pseudo;
    }

    int MarkModified() override { return 1; }
    int ClearModified() override { return 1; }
    unsigned int ReinsertDetached(CBPlusTreeItem*) override { return ERROR_SUCCESS; }
    unsigned int FindLastNode(CBPlusTreeNode**) override { return ERROR_SUCCESS; }
    bool IsLeaf() override { return false; }
    unsigned int Split(CBPlusTreeItem**) override { return ERROR_SUCCESS; }
    unsigned int RetireNode(CBPlusTreeNode* node) override {
        if (node == Root) return ERROR_SUCCESS;
        // Far more retirements than nodes: a walk that does not end.
        if (++Retirements > 100000) return ERROR_INTERNAL_ERROR;
        Retired.insert(node);
        node->SetParentItem(nullptr);
        return ERROR_SUCCESS;
    }
    bool HasSpaceFor(CBPlusTreeItem*) override { return false; }
    int InsertRaw(CBPlusTreeItem*, CBPlusTreeItem*, CBPlusTreeItem**) override { return -1; }
    unsigned int TakeLastEntry(CBPlusTreeItem**) override { return ERROR_SUCCESS; }
    bool AcceptItem(CBPlusTreeItem* item, bool backtracked, const _INDEX_SEARCH_KEY* key) override {
        return !item->HasChild() || backtracked || key->Exact != 0;
    }

    ToyNode* NewNode(int capacity, bool root) {
        Nodes.push_back(new ToyNode(this, capacity, root));
        return Nodes.back();
    }
    // A node built by hand: `keys`, then the end item; `below` gives the
    // sub-node of each item (none for a leaf). A new record unless `node`.
    ToyNode* Build(const std::vector<std::u16string>& keys, const std::vector<ToyNode*>& below = {},
                   ToyNode* node = nullptr) {
        if (node == nullptr) node = NewNode(RecordCapacity, false);
        for (ToyItem* item : node->List()) delete item;
        std::vector<ToyItem*> items;
        for (size_t i = 0; i <= keys.size(); ++i) {
            items.push_back(i < keys.size() ? new ToyItem(keys[i], false) : new ToyItem(u"", true));
            if (i < below.size()) items.back()->AttachChild(below[i]);
        }
        node->Store(items, true);
        return node;
    }
    unsigned int InsertEntry(CBPlusTreeNode* start, const std::u16string& name) {
        ToyItem item(name, false);
        CBPlusTreeNode* node = nullptr;
        int index = 0;
        const unsigned int error = start->FindInsertPosition(&item, &node, &index);
        return error != ERROR_SUCCESS ? error : node->InsertItem(index, &item, nullptr);
    }
    unsigned int Insert(const std::u16string& name) { return InsertEntry(Root, name); }
    unsigned int Find(const std::u16string& name, CBPlusTreeItem** item) {
        if (!ResetCursor()) return ERROR_NOT_ENOUGH_MEMORY;
        Cursor->Node = Root;
        const _INDEX_SEARCH_KEY key{1, name.c_str(), nullptr, 0, static_cast<int>(name.size()) + 1};
        return FindNextItem(item, &key);
    }
    unsigned int Erase(const std::u16string& name) {
        CBPlusTreeItem* item = nullptr;
        const unsigned int error = Find(name, &item);
        return error != ERROR_SUCCESS ? error : Remove(item);
    }
    // The in-order walk, stepping the deepest frame past each delivered item
    // as enumeration does. *end receives the code that ended it.
    std::vector<std::u16string> Walk(unsigned int* end) {
        std::vector<std::u16string> keys;
        *end = ERROR_NOT_ENOUGH_MEMORY;
        if (!ResetCursor()) return keys;
        Cursor->Node = Root;
        const _INDEX_SEARCH_KEY key{0, u"", nullptr, 0, 0};
        CBPlusTreeItem* item = nullptr;
        while ((*end = FindNextItem(&item, &key)) == ERROR_SUCCESS && keys.size() < 100000) {
            keys.push_back(AsToy(item)->Name);
            ++Cursor->Index;
        }
        return keys;
    }

    // The structure as CheckTree sees it, retired nodes out of the tree and
    // no node lost. Depth receives the levels of the tree.
    std::string Check() {
        if (Pseudo->GetNode() != Root) return "pseudo item does not point at the root";
        test::TreeShape shape;
        auto key = [](CBPlusTreeItem* item, std::u16string* name) {
            *name = AsToy(item)->Name;
            return !AsToy(item)->End;
        };
        const std::string problem = test::CheckTree(Root, Pseudo, key, &shape);
        if (!problem.empty()) return problem;
        for (CBPlusTreeNode* node : Retired) {
            if (shape.Nodes.count(node) != 0 || node->GetParentItem() != nullptr) return "a retired node in the tree";
        }
        if (shape.Nodes.size() + Retired.size() != Nodes.size()) return "a node was lost";
        Depth = shape.Depth;
        return "";
    }

    ToyNode* Root;
    ToyItem* Pseudo;
    int RecordCapacity;
    int Depth = 0;
    std::vector<ToyNode*> Nodes;
    std::set<CBPlusTreeNode*> Retired;
    int Retirements = 0;
};

inline unsigned int ToyNode::RetireNode(CBPlusTreeNode* node) {
    return Tree->RetireNode(node);
}

inline unsigned int ToyNode::FindLastNode(CBPlusTreeNode** node) {
    CBPlusTreeItem* last = GetItem(GetItemCount() - 1);
    *node = nullptr;
    if (Root) return last != nullptr && last->HasChild() ? last->GetChild()->FindLastNode(node) : ERROR_SUCCESS;
    if (IsEmpty() && IsLeaf()) return ERROR_SUCCESS;
    if (last->HasChild()) {
        const unsigned int error = last->GetChild()->FindLastNode(node);
        if (error != ERROR_SUCCESS || IsEmpty() || *node != nullptr) return error;
    }
    *node = this;
    return ERROR_SUCCESS;
}

// The root moves everything into one new record and keeps nothing: the item
// it gives up is an end item leading to that record. A record keeps the items
// above its middle item and moves those below it to a new left record.
inline unsigned int ToyNode::Split(CBPlusTreeItem** median) {
    std::vector<ToyItem*> items = List();
    ToyNode* left = Tree->NewNode(Tree->RecordCapacity, false);
    if (Root) {
        left->Store(items, true);
        Store({}, true);
        *median = new ToyItem(u"", true);
        (*median)->AttachChild(left);
        return ERROR_SUCCESS;
    }
    const size_t middle = (items.size() - 1) / 2;
    ToyItem* chosen = items[middle];
    std::vector<ToyItem*> lower(items.begin(), items.begin() + middle);
    lower.push_back(new ToyItem(u"", true));
    if (chosen->GetChild() != nullptr) lower.back()->AttachChild(chosen->GetChild());
    left->Store(lower, true);
    Store(std::vector<ToyItem*>(items.begin() + middle + 1, items.end()), true);
    *median = new ToyItem(chosen->Name, false);
    (*median)->AttachChild(left);
    delete chosen;
    return ERROR_SUCCESS;
}

// A real item comes back as a leaf entry by key order from the root; an end
// item takes over the sub-node of the item before it, which comes back from
// this node; an end item alone means this node is empty too: a record goes
// and asks its own parent, the root returns to its small form.
inline unsigned int ToyNode::ReinsertDetached(CBPlusTreeItem* item) {
    const int position = IndexOfItem(item);
    CBPlusTreeNode* child = nullptr;
    if (!AsToy(item)->End) {
        const std::u16string name = AsToy(item)->Name;
        const unsigned int error = RemoveItem(item, &child);
        return error != ERROR_SUCCESS ? error : Tree->InsertEntry(Tree->Root, name);
    }
    if (position > 0) {
        ToyItem* before = AsToy(GetItem(position - 1));
        const std::u16string name = before->Name;
        unsigned int error = RemoveItem(before, &child);
        if (error != ERROR_SUCCESS) return error;
        GetItem(position - 1)->AttachChild(child);
        error = Tree->InsertEntry(this, name);
        return Root ? ERROR_SUCCESS : error;
    }
    if (Root) {
        item->DetachChild();
        return ERROR_SUCCESS;
    }
    CBPlusTreeItem* parent = GetParentItem();
    const unsigned int error = RetireNode(this);
    return error != ERROR_SUCCESS ? error : parent->GetNode()->ReinsertDetached(parent);
}

}  // namespace toy
}  // namespace ntfs
