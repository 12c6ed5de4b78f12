// In-memory forms of the index tree for the tree framework's tests: items
// holding a short name, nodes with a small fixed capacity so that splits come
// quickly, and a tree object with the root's pseudo parent item. The nodes
// behave as the stored nodes do where the framework can tell: the root moves
// all its items down when it splits, a record splits at its middle item and
// keeps the upper half, removed items are deleted, an emptied record hands
// its parent item back to the tree, and insertion stores copies, leaving the
// neighbour links to the framework.
//
// The tree object owns every node it made (retired or not) and frees them at
// the end; nodes own their items. Single-threaded.
#pragma once

#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/log.h"
#include "index/bplus_tree.h"

namespace ntfs {
namespace toy {

class ToyTree;

// Holds standard output for the length of a scope (the tree logs every
// split), so that a failed assertion inside cannot leave the capture open.
class QuietStdout {
public:
    QuietStdout() { testing::internal::CaptureStdout(); }
    ~QuietStdout() {
        if (!taken_) testing::internal::GetCapturedStdout();
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
    return std::u16string(text, text + std::char_traits<char>::length(text));
}

inline std::string Narrow(const std::u16string& text) { return std::string(text.begin(), text.end()); }

class ToyItem : public CBPlusTreeItem {
public:
    ToyItem(std::u16string name, bool end) : Name(std::move(name)), End(end) {}
    ~ToyItem() override {
        if (Child != nullptr && Child->GetParentItem() == this) Child->SetParentItem(nullptr);
    }

    unsigned int GetChildNode(CBPlusTreeNode** child) override {
        if (FailChild != ERROR_SUCCESS) {
            *child = nullptr;
            return FailChild;
        }
        *child = Child;
        return ERROR_SUCCESS;
    }
    // Copies the key only; the copy leads nowhere until it is given a child.
    CBPlusTreeItem* Clone() override {
        if (FailClones > 0) {
            --FailClones;
            return nullptr;
        }
        return new ToyItem(Name, End);
    }
    int CompareName(const char16_t* name) override { return Name.compare(name); }
    // Units behind either terminator count as zero.
    int CompareKey(const _INDEX_SEARCH_KEY* key) override {
        if (End) return 1;
        bool keyEnded = false;
        for (int i = 0; i < key->CompareLength; ++i) {
            const int mine = i < static_cast<int>(Name.size()) ? Name[i] : 0;
            const int theirs = keyEnded ? 0 : key->Name[i];
            if (theirs == 0) keyEnded = true;
            if (mine != theirs) return mine - theirs;
        }
        return 0;
    }
    void ForgetChild() { Child = nullptr; }

    std::u16string Name;
    bool End;
    unsigned int FailChild = ERROR_SUCCESS;
    static inline int FailClones = 0;
};

inline ToyItem* AsToy(CBPlusTreeItem* item) { return static_cast<ToyItem*>(item); }

class ToyNode : public CBPlusTreeNode {
public:
    ToyNode(ToyTree* tree, int capacity, bool root) : Tree(tree), Capacity(capacity), Root(root) {}
    ~ToyNode() override {
        for (int i = 0; i < GetItemCount(); ++i) delete GetItem(i);
    }

    int MarkModified() override { return Swap(1); }
    int ClearModified() override { return Swap(0); }
    unsigned int FindInsertPosition(CBPlusTreeItem* item, CBPlusTreeNode** node,
                                    int* index) override {
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
    int InsertRaw(CBPlusTreeItem* previous, CBPlusTreeItem* item,
                  CBPlusTreeItem** inserted) override {
        int position = previous != nullptr ? IndexOfItem(previous) + 1 : 0;
        auto* copy = new ToyItem(AsToy(item)->Name, AsToy(item)->End);
        copy->SetNode(this);
        if (item->GetChild() != nullptr) copy->AttachChild(item->GetChild());
        std::vector<ToyItem*> items = List();
        items.insert(items.begin() + position, copy);
        Store(items, false);
        Modified = 1;
        *inserted = copy;
        return position;
    }
    unsigned int TakeLastEntry(CBPlusTreeItem** item) override {
        if (Root) return ERROR_SUCCESS;
        ToyItem* last = AsToy(GetItem(GetItemCount() - 2));
        if (last == nullptr) return ERROR_FILE_CORRUPT;
        auto* copy = new ToyItem(last->Name, false);
        CBPlusTreeNode* child = nullptr;
        const unsigned int error = RemoveItem(last, &child);
        if (error != ERROR_SUCCESS) {
            delete copy;
            return error;
        }
        *item = copy;
        return ERROR_SUCCESS;
    }
    unsigned int RemoveItem(CBPlusTreeItem* item, CBPlusTreeNode** child) override {
        if (IndexOfItem(item) < 0) return ERROR_INTERNAL_ERROR;
        const unsigned int error = UnlinkItem(item, child);
        delete item;
        Modified = 1;
        return error;
    }
    bool AcceptItem(CBPlusTreeItem*, bool, const _INDEX_SEARCH_KEY*) override { return true; }

    std::vector<ToyItem*> List() const {
        std::vector<ToyItem*> items;
        for (int i = 0; i < GetItemCount(); ++i) items.push_back(AsToy(GetItem(i)));
        return items;
    }
    // Replaces the item list; `link` rebuilds the neighbour links the way a
    // node parse does.
    void Store(const std::vector<ToyItem*>& items, bool link) {
        Items.Clear();
        for (ToyItem* item : items) {
            Items.InsertAfter(Items.GetCount(), item);
            item->SetNode(this);
        }
        if (!link) return;
        for (size_t i = 0; i < items.size(); ++i) {
            items[i]->SetPrevious(i > 0 ? items[i - 1] : nullptr);
            items[i]->SetNext(i + 1 < items.size() ? items[i + 1] : nullptr);
        }
    }

    ToyTree* Tree;
    int Capacity;
    bool Root;
    int Modified = 0;
    unsigned int FailSplit = ERROR_SUCCESS;

private:
    int Swap(int value) {
        const int old = Modified;
        Modified = value;
        return old;
    }
};

// The tree object: no items, the cursor, the retired list, and the harness
// operations the tests drive (insert by key, exact find, removal, walks).
class ToyTree : public CBPlusTreeNode {
public:
    explicit ToyTree(int recordCapacity = 4, int rootCapacity = 3)
        : RecordCapacity(recordCapacity) {
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
        Abated.push_back(node);
        node->SetParentItem(nullptr);
        return ERROR_SUCCESS;
    }
    bool HasSpaceFor(CBPlusTreeItem*) override { return false; }
    int InsertRaw(CBPlusTreeItem*, CBPlusTreeItem*, CBPlusTreeItem**) override { return -1; }
    unsigned int TakeLastEntry(CBPlusTreeItem**) override { return ERROR_SUCCESS; }
    bool AcceptItem(CBPlusTreeItem* item, bool backtracked,
                    const _INDEX_SEARCH_KEY* key) override {
        return !item->HasChild() || backtracked || key->Exact != 0;
    }

    ToyNode* NewNode(int capacity, bool root) {
        auto* node = new ToyNode(this, capacity, root);
        Nodes.push_back(node);
        return node;
    }

    struct Entry {
        const char16_t* Name;
        ToyNode* Child = nullptr;
    };
    // Builds a record from keys and sub-nodes; `end` leads to the greatest keys.
    ToyNode* Record(std::vector<Entry> entries, ToyNode* end = nullptr) {
        ToyNode* node = NewNode(RecordCapacity, false);
        Fill(node, entries, end);
        return node;
    }
    void SetRoot(std::vector<Entry> entries, ToyNode* end = nullptr) {
        for (ToyItem* item : Root->List()) delete item;
        Fill(Root, entries, end);
    }

    unsigned int InsertEntry(CBPlusTreeNode* start, CBPlusTreeItem* item) {
        const std::u16string& name = AsToy(item)->Name;
        const _INDEX_SEARCH_KEY key{1, name.c_str(), nullptr, 0, static_cast<int>(name.size()) + 1};
        CBPlusTreeNode* node = nullptr;
        int index = 0;
        unsigned int error = LocatePosition(start, &key, &node, &index);
        if (error != ERROR_SUCCESS) return error;
        CBPlusTreeItem* stored = nullptr;
        return node->InsertItem(index, item, &stored);
    }
    unsigned int Insert(const std::u16string& name) {
        ToyItem item(name, false);
        return InsertEntry(Root, &item);
    }
    unsigned int Find(const std::u16string& name, CBPlusTreeItem** item) {
        if (!ResetCursor()) return ERROR_NOT_ENOUGH_MEMORY;
        Cursor->Node = Root;
        const _INDEX_SEARCH_KEY key{1, name.c_str(), nullptr, 0, static_cast<int>(name.size()) + 1};
        return FindNextItem(item, &key);
    }
    unsigned int Erase(const std::u16string& name) {
        CBPlusTreeItem* item = nullptr;
        const unsigned int error = Find(name, &item);
        if (error != ERROR_SUCCESS) return error;
        return Remove(item);
    }
    // The in-order walk of every key beginning with `prefix`, advancing the
    // cursor between deliveries the way enumeration does. *end receives the
    // code that ended the walk.
    std::vector<std::u16string> Walk(const std::u16string& prefix = u"",
                                     unsigned int* end = nullptr) {
        std::vector<std::u16string> keys;
        unsigned int error = ERROR_NOT_ENOUGH_MEMORY;
        if (ResetCursor()) {
            Cursor->Node = Root;
            const _INDEX_SEARCH_KEY key{0, prefix.c_str(), nullptr, 0,
                                        static_cast<int>(prefix.size())};
            CBPlusTreeItem* item = nullptr;
            for (error = FindNextItem(&item, &key); error == ERROR_SUCCESS && keys.size() < 100000;
                 error = FindNextItem(&item, &key)) {
                keys.push_back(AsToy(item)->Name);
                Advance();
            }
        }
        if (end != nullptr) *end = error;
        return keys;
    }
    // Steps the deepest frame past the item it stands on.
    void Advance() {
        while (Cursor->Previous != nullptr && Cursor->Index >= Cursor->Node->GetItemCount()) {
            _TREE_CURSOR_FRAME* up = Cursor->Previous;
            std::free(Cursor);
            Cursor = up;
            Cursor->Next = nullptr;
        }
        const int count = Cursor->Node->GetItemCount();
        if (++Cursor->Index >= count) Cursor->Index = count - 1;
    }
    int Depth() {
        int depth = 1;
        for (CBPlusTreeNode* node = Root; !node->IsLeaf(); ++depth) {
            node = node->GetItem(node->GetItemCount() - 1)->GetChild();
        }
        return depth;
    }

    // Every structural promise of the tree, or a description of the first
    // broken one: key order within and across nodes, end items last, parent
    // and neighbour links, items leading down all or none, no empty leaf
    // below the root, retired nodes out of the tree and no node lost.
    std::string Check() {
        std::set<CBPlusTreeNode*> seen;
        if (Pseudo->GetNode() != Root) return "pseudo item does not point at the root";
        std::string problem = Visit(Root, Pseudo, nullptr, nullptr, 0, &seen);
        if (!problem.empty()) return problem;
        std::set<CBPlusTreeNode*> retired(Abated.begin(), Abated.end());
        for (CBPlusTreeNode* node : Abated) {
            if (seen.count(node) != 0) return "a retired node is still in the tree";
            if (node->GetParentItem() != nullptr) return "a retired node keeps a parent item";
        }
        for (ToyNode* node : Nodes) {
            if (seen.count(node) == 0 && retired.count(node) == 0) return "a node was lost";
        }
        return "";
    }

    ToyNode* Root;
    ToyItem* Pseudo;
    int RecordCapacity;
    std::vector<ToyNode*> Nodes;
    std::vector<CBPlusTreeNode*> Abated;

private:
    void Fill(ToyNode* node, const std::vector<Entry>& entries, ToyNode* end) {
        std::vector<ToyItem*> items;
        for (const Entry& entry : entries) {
            items.push_back(new ToyItem(entry.Name, false));
            if (entry.Child != nullptr) items.back()->AttachChild(entry.Child);
        }
        items.push_back(new ToyItem(u"", true));
        if (end != nullptr) items.back()->AttachChild(end);
        node->Store(items, true);
    }

    std::string Visit(CBPlusTreeNode* node, CBPlusTreeItem* parent, const std::u16string* low,
                      const std::u16string* high, int depth, std::set<CBPlusTreeNode*>* seen) {
        if (depth > 64) return "tree too deep";
        if (!seen->insert(node).second) return "a node is reached twice";
        if (node->GetParentItem() != parent) return "wrong parent item";
        const int count = node->GetItemCount();
        if (count < 1) return "node without items";
        if (node != Root && node->IsLeaf() && count < 2) return "empty leaf left in the tree";
        const std::u16string* before = low;
        const bool leads = node->GetItem(0)->HasChild();
        for (int i = 0; i < count; ++i) {
            ToyItem* item = AsToy(node->GetItem(i));
            if (item->GetNode() != node) return "item names the wrong node";
            if (item->GetPrevious() != node->GetItem(i - 1)) return "broken previous link";
            if (item->GetNext() != node->GetItem(i + 1)) return "broken next link";
            if (item->End != (i == count - 1)) return "end item not last";
            if (item->HasChild() != leads) return "mixed leaf and interior items";
            const std::u16string* after = item->End ? high : &item->Name;
            if (!item->End) {
                if (before != nullptr && !(*before < item->Name)) {
                    return "key order broken at " + Narrow(item->Name);
                }
                if (high != nullptr && !(item->Name < *high)) {
                    return "key above its bound: " + Narrow(item->Name);
                }
            }
            if (item->HasChild()) {
                std::string problem = Visit(item->GetChild(), item, before, after, depth + 1, seen);
                if (!problem.empty()) return problem;
            }
            if (!item->End) before = &item->Name;
        }
        return "";
    }
};

inline unsigned int ToyNode::RetireNode(CBPlusTreeNode* node) { return Tree->RetireNode(node); }

inline unsigned int ToyNode::FindLastNode(CBPlusTreeNode** node) {
    CBPlusTreeItem* last = GetItem(GetItemCount() - 1);
    if (Root) {
        if (last != nullptr && last->HasChild()) return last->GetChild()->FindLastNode(node);
        *node = nullptr;
        return ERROR_SUCCESS;
    }
    if (IsEmpty() && IsLeaf()) {
        *node = nullptr;
        return ERROR_SUCCESS;
    }
    if (last->HasChild()) {
        const unsigned int error = last->GetChild()->FindLastNode(node);
        if (error != ERROR_SUCCESS) return error;
        if (IsEmpty() || *node != nullptr) return ERROR_SUCCESS;
    }
    *node = this;
    return ERROR_SUCCESS;
}

// The root moves everything into one new record and keeps nothing: the item
// it gives up is an end item leading to that record. A record keeps the items
// above its middle item and moves those below it to a new left record.
inline unsigned int ToyNode::Split(CBPlusTreeItem** median) {
    if (FailSplit != ERROR_SUCCESS) return FailSplit;
    std::vector<ToyItem*> items = List();
    ToyNode* left = Tree->NewNode(Tree->RecordCapacity, false);
    if (Root) {
        left->Store(items, true);
        Store({}, true);
        auto* end = new ToyItem(u"", true);
        end->AttachChild(left);
        *median = end;
        return ERROR_SUCCESS;
    }
    const size_t middle = (items.size() - 1) / 2;
    ToyItem* chosen = items[middle];
    std::vector<ToyItem*> lower(items.begin(), items.begin() + middle);
    lower.push_back(new ToyItem(u"", true));
    if (chosen->GetChild() != nullptr) lower.back()->AttachChild(chosen->GetChild());
    left->Store(lower, true);
    Store(std::vector<ToyItem*>(items.begin() + middle + 1, items.end()), true);
    auto* copy = new ToyItem(chosen->Name, false);
    copy->AttachChild(left);
    delete chosen;
    *median = copy;
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
        ToyItem copy(AsToy(item)->Name, false);
        unsigned int error = RemoveItem(item, &child);
        if (error != ERROR_SUCCESS) return error;
        return Tree->InsertEntry(Tree->Root, &copy);
    }
    if (position > 0) {
        ToyItem* before = AsToy(GetItem(position - 1));
        ToyItem copy(before->Name, false);
        unsigned int error = RemoveItem(before, &child);
        if (error != ERROR_SUCCESS) return error;
        GetItem(position - 1)->AttachChild(child);
        error = Tree->InsertEntry(this, &copy);
        return Root ? ERROR_SUCCESS : error;
    }
    if (Root) {
        item->DetachChild();
        return ERROR_SUCCESS;
    }
    CBPlusTreeItem* parent = GetParentItem();
    const unsigned int error = RetireNode(this);
    if (error != ERROR_SUCCESS) return error;
    return parent->GetNode()->ReinsertDetached(parent);
}

}  // namespace toy
}  // namespace ntfs
