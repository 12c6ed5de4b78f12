// The abstract index tree: ordered items in nodes, a key search, insertion
// with node split, removal with replacement by a predecessor, and an in-order
// walk with a cursor.
//
// The tree has the shape of an on-disk directory index, not of a textbook B+
// tree: real keys live at every level, an item of an interior node is a real
// key that also leads to the sub-node of the smaller keys, and every node ends
// in an end item without a key whose sub-node holds the keys greater than all
// others. Nodes are never merged or evened out; a node goes away only once it
// holds no real key. This layer knows no disk bytes: every format detail is a
// virtual operation of the item and node subclasses (the index entry, the
// index root and the index records), and the tree-level objects (the directory
// and the find handle) are nodes without items of their own that own a cursor.
//
// Ownership: a node owns the block of its item list, never the items; deleting
// items is the subclasses' task. Items do not own their sub-nodes. Cursor
// frames belong to the tree object whose Cursor reaches them; the base
// destructor frees none of them (FreeCursor does, for owners that want it).
//
// Locking: the node's lock is the lock of its item list and covers the list
// only, for one position search or one list change at a time. Scans of the
// items take no lock at all: callers exclude concurrent changes of a tree by
// the share lock of the directory.
#pragma once

#include <cstdint>

#include "foundation/pointer_array.h"

namespace ntfs {

// Sets `*flag` to `value` and returns what it held: the body of the nodes'
// MarkModified and ClearModified.
inline int ExchangeFlag(int* flag, int value) {
    const int old = *flag;
    *flag = value;
    return old;
}

class CBPlusTreeNode;

// The key of one search, on the caller's stack. Name is NUL-terminated and
// already folded by the caller the way the items fold their own names.
struct _INDEX_SEARCH_KEY {
    // Non-zero for a search of one whole name, zero for a prefix walk.
    uint32_t Exact;
    const char16_t* Name;
    // Read by enumeration only (the literal stretches of a pattern); zero for
    // every other caller.
    const void* Segments;
    int32_t SegmentCount;
    // Units of Name that CompareKey compares.
    int32_t CompareLength;
};

// One level of a cursor walk. Frames come from the C allocator and form a
// doubly linked stack; the tree object's Cursor points at the deepest one.
struct _TREE_CURSOR_FRAME {
    _TREE_CURSOR_FRAME* Previous;  // towards the root
    _TREE_CURSOR_FRAME* Next;      // towards the bottom
    CBPlusTreeNode* Node;
    // Set when the walk has come back to this level from a sub-node.
    uint32_t Backtracked;
    // The position in Node the walk stands on; -1 after a scan found nothing.
    int32_t Index;
};

// Bound on the levels of any descent (searches, walks, retired chains). A
// tree grows one level per root split and each level multiplies the keys it
// takes, so valid data stays far below this; deeper means a cycle or damage,
// reported as ERROR_FILE_CORRUPT.
constexpr int kMaxTreeDepth = 256;

// One key of a node. The item is linked to its neighbours and knows its node
// and, when loaded, its sub-node.
class CBPlusTreeItem {
public:
    CBPlusTreeItem() = default;
    CBPlusTreeItem(const CBPlusTreeItem&) = delete;
    CBPlusTreeItem& operator=(const CBPlusTreeItem&) = delete;

    // Does not touch the sub-node or the neighbours.
    virtual ~CBPlusTreeItem() = default;
    virtual CBPlusTreeItem* GetPrevious();
    virtual CBPlusTreeItem* GetNext();
    virtual CBPlusTreeNode* GetNode();
    // The sub-node of the smaller keys, loaded when needed. On success *child
    // is the sub-node, or null for an item without one.
    [[nodiscard]] virtual unsigned int GetChildNode(CBPlusTreeNode** child) = 0;
    // SetPrevious and SetNext return the previous value.
    virtual CBPlusTreeItem* SetPrevious(CBPlusTreeItem* item);
    virtual CBPlusTreeItem* SetNext(CBPlusTreeItem* item);
    // Returns the node given.
    virtual CBPlusTreeNode* SetNode(CBPlusTreeNode* node);
    // Makes `node` the sub-node and this item its parent item. Returns the
    // previous sub-node, which is left as it is.
    virtual CBPlusTreeNode* AttachChild(CBPlusTreeNode* node);
    // Drops the sub-node, whose parent item becomes null. Returns it.
    virtual CBPlusTreeNode* DetachChild();
    // A free-standing copy with its own storage, in no node; null when out
    // of memory.
    virtual CBPlusTreeItem* Clone() = 0;
    virtual bool HasChild();
    // Raw comparison with a name, no folding: item minus name.
    virtual int CompareName(const char16_t* name) = 0;
    // The key order: item minus key, over key->CompareLength units. An end
    // item compares greater than every key.
    virtual int CompareKey(const _INDEX_SEARCH_KEY* key) = 0;

    // The sub-node as loaded so far, without loading.
    CBPlusTreeNode* GetChild() const { return Child; }

protected:
    CBPlusTreeNode* Node = nullptr;
    CBPlusTreeNode* Child = nullptr;
    CBPlusTreeItem* Previous = nullptr;
    CBPlusTreeItem* Next = nullptr;
};

// A node: its items in key order with the end item last, and the item of the
// parent node that leads here. Tree objects use the same class for the cursor
// and for the tree-level operations (RetireNode, RetireChain, Remove).
class CBPlusTreeNode {
public:
    CBPlusTreeNode();
    CBPlusTreeNode(const CBPlusTreeNode&) = delete;
    CBPlusTreeNode& operator=(const CBPlusTreeNode&) = delete;

    // Frees the item block; deletes no items and frees no cursor frames.
    virtual ~CBPlusTreeNode();
    // Both return the previous modified flag.
    virtual int MarkModified() = 0;
    virtual int ClearModified() = 0;
    // Returns the previous parent item.
    virtual CBPlusTreeItem* SetParentItem(CBPlusTreeItem* item);
    // Puts `item` at `index` of this node, splitting it first when
    // HasSpaceFor refuses; a split sends the median up through the parent
    // item, recursively. *inserted (may be null) receives the item as it now
    // stands in its node. The caller keeps `item`.
    [[nodiscard]] virtual unsigned int InsertItem(int index, CBPlusTreeItem* item, CBPlusTreeItem** inserted) final;
    // The leaf and position where `item` belongs, searching from this node.
    // Nodes without positions return ERROR_NOT_SUPPORTED.
    [[nodiscard]] virtual unsigned int FindInsertPosition(CBPlusTreeItem* item, CBPlusTreeNode** node, int* index);
    // Takes `item` of this node back from interior status after its sub-node
    // was retired.
    [[nodiscard]] virtual unsigned int ReinsertDetached(CBPlusTreeItem* item) = 0;
    virtual bool IsEmpty();
    // The node of this subtree that gives up the greatest key, or null when
    // the subtree holds no real key.
    [[nodiscard]] virtual unsigned int FindLastNode(CBPlusTreeNode** node) = 0;
    // Retires the left spine below `item` through RetireNode of this object.
    [[nodiscard]] virtual unsigned int RetireChain(CBPlusTreeItem* item) final;
    virtual bool IsLeaf() = 0;
    // Moves part of this node to a new node and gives the item that must go
    // up into the parent, owned by the caller.
    [[nodiscard]] virtual unsigned int Split(CBPlusTreeItem** median) = 0;
    // Takes `node` out of the tree (the node is freed later by its owner).
    [[nodiscard]] virtual unsigned int RetireNode(CBPlusTreeNode* node) = 0;
    virtual bool HasSpaceFor(CBPlusTreeItem* item) = 0;
    // Stores a copy of `item` behind `previous` (null: at the front) without
    // a room test. Returns the position of the new item and stores it in
    // *inserted; negative when nothing was stored.
    virtual int InsertRaw(CBPlusTreeItem* previous, CBPlusTreeItem* item, CBPlusTreeItem** inserted) = 0;
    // Gives up the greatest key of this leaf as a free-standing item that
    // the caller owns.
    [[nodiscard]] virtual unsigned int TakeLastEntry(CBPlusTreeItem** item) = 0;
    // Takes `item` out of this node; *child receives its sub-node.
    [[nodiscard]] virtual unsigned int RemoveItem(CBPlusTreeItem* item, CBPlusTreeNode** child);
    // Whether the cursor search stops at an item equal to the key.
    virtual bool AcceptItem(CBPlusTreeItem* item, bool backtracked, const _INDEX_SEARCH_KEY* key) = 0;

    // Frees the whole cursor and starts a new one of one frame standing on
    // this object at position 0. Returns 1, or 0 with Cursor null when out of
    // memory. The caller then points the frame at the tree's root.
    [[nodiscard]] int ResetCursor();
    // Frees every frame of the cursor and leaves Cursor null.
    void FreeCursor();
    // The cursor search, from the deepest frame on: an exact key stops at the
    // first equal item at any level; a prefix key walks in order, an item
    // with a sub-node coming after that sub-node. *item receives the item
    // found and the deepest frame stays on it. ERROR_FILE_NOT_FOUND when no
    // (further) item matches; ERROR_NOT_ENOUGH_MEMORY when a frame cannot be
    // had; ERROR_FILE_CORRUPT for an item that leads to no node or a descent
    // deeper than kMaxTreeDepth; ERROR_INTERNAL_ERROR without a cursor.
    [[nodiscard]] unsigned int FindNextItem(CBPlusTreeItem** item, const _INDEX_SEARCH_KEY* key);
    // Descends from `node` to the leaf position where `key` belongs: the
    // position of the first item greater than the key. ERROR_FILE_CORRUPT,
    // logged as "New entry has exist in record!", when the key is already
    // there; unlogged for a node without an end item, an item that leads to
    // no node, or a descent deeper than kMaxTreeDepth.
    [[nodiscard]] static unsigned int LocatePosition(CBPlusTreeNode* node, const _INDEX_SEARCH_KEY* key,
                                                     CBPlusTreeNode** found, int* index);
    // Removes `item` from wherever it stands in the tree of this tree object.
    // Items of stored nodes are not valid after this call.
    [[nodiscard]] unsigned int Remove(CBPlusTreeItem* item);
    // Takes `item` out of this node's list and out of its neighbours' links,
    // without deleting it; the result is that of its GetChildNode(child).
    [[nodiscard]] unsigned int UnlinkItem(CBPlusTreeItem* item, CBPlusTreeNode** child);

    CBPlusTreeItem* GetParentItem() const { return ParentItem; }
    int GetItemCount() const { return Items.GetCount(); }
    // The item at `index`, or null out of range.
    CBPlusTreeItem* GetItem(int index) const { return Items.At<CBPlusTreeItem>(index); }
    // The position of `item` under the node's lock, or -1.
    int IndexOfItem(CBPlusTreeItem* item) { return Items.IndexOf(item); }
    _TREE_CURSOR_FRAME* GetCursor() const { return Cursor; }
    // Told when this object's cursor has left `node` upwards: the walk is
    // past everything below it. Nothing in the base.
    virtual void NodePassed(CBPlusTreeNode* node) { static_cast<void>(node); }

protected:
    // Appends `item` (which may be null: no memory) at the end of the list;
    // false, with the item deleted, when it is null or the list cannot grow.
    bool AppendItem(CBPlusTreeItem* item);

    CBPlusTreeItem* ParentItem;
    CPointerArray Items;
    _TREE_CURSOR_FRAME* Cursor;

private:
    unsigned int SplitAndPromote(CBPlusTreeNode** target, int* index);
    static unsigned int PlaceItem(CBPlusTreeNode* target, int index, CBPlusTreeItem* item, CBPlusTreeItem** inserted);
    unsigned int DescendCursor(CBPlusTreeItem* item);
    void AscendCursor();

    // Steps of Remove (bplus_tree_remove.cpp).
    unsigned int RemoveFromLeaf(CBPlusTreeNode* node);
    unsigned int ReplaceFromLeafChild(CBPlusTreeNode* node, int position, CBPlusTreeNode* child);
    unsigned int ReplaceFromInteriorChild(CBPlusTreeNode* node, int position, CBPlusTreeNode* child);
    unsigned int HandOverPenultimate(CBPlusTreeNode* exhausted, CBPlusTreeItem** clone);
    static unsigned int PutReplacement(CBPlusTreeNode* node, int position, CBPlusTreeItem* replacement);
    static unsigned int PutAtInsertPosition(CBPlusTreeNode* start, CBPlusTreeItem* replacement);
};

}  // namespace ntfs
