// The index tree's search, walk and insertion: the base behaviours of items
// and nodes, the cursor, the ordered scan of one node, the descent to an
// insertion point, and insertion with the split carried upward through the
// parent items. Removal lives in bplus_tree_remove.cpp.
//
// Nodes own only their item blocks; cursor frames belong to the tree object
// whose Cursor reaches them. The item list's own lock is taken for position
// searches and list changes only, never across a call into another node.
#include "index/bplus_tree.h"

#include <cstdlib>

#include "foundation/log.h"

namespace ntfs {

namespace {

// The ordered scan of one node from position `start`: the first item that
// compares not less than the key. *position is its index, or -1 when a null
// item ends the scan (a node without its end item); *found tells whether that
// item equals the key, by a second comparison.
CBPlusTreeItem* ScanNode(CBPlusTreeNode* node, int start, const _INDEX_SEARCH_KEY* key, int* position, bool* found) {
    *found = false;
    for (int index = start;; ++index) {
        CBPlusTreeItem* item = node->GetItem(index);
        if (item == nullptr) {
            *position = -1;
            return nullptr;
        }
        if (item->CompareKey(key) >= 0) {
            *position = index;
            *found = item->CompareKey(key) == 0;
            return item;
        }
    }
}

}  // namespace

// ---------------------------------------------------------------- items

CBPlusTreeItem* CBPlusTreeItem::GetPrevious() {
    return Previous;
}

CBPlusTreeItem* CBPlusTreeItem::GetNext() {
    return Next;
}

CBPlusTreeNode* CBPlusTreeItem::GetNode() {
    return Node;
}

CBPlusTreeItem* CBPlusTreeItem::SetPrevious(CBPlusTreeItem* item) {
    CBPlusTreeItem* old = Previous;
    Previous = item;
    return old;
}

CBPlusTreeItem* CBPlusTreeItem::SetNext(CBPlusTreeItem* item) {
    CBPlusTreeItem* old = Next;
    Next = item;
    return old;
}

CBPlusTreeNode* CBPlusTreeItem::SetNode(CBPlusTreeNode* node) {
    Node = node;
    return node;
}

CBPlusTreeNode* CBPlusTreeItem::AttachChild(CBPlusTreeNode* node) {
    CBPlusTreeNode* old = Child;
    Child = node;
    if (node != nullptr) node->SetParentItem(this);
    return old;
}

CBPlusTreeNode* CBPlusTreeItem::DetachChild() {
    CBPlusTreeNode* old = Child;
    Child = nullptr;
    if (old != nullptr) old->SetParentItem(nullptr);
    return old;
}

bool CBPlusTreeItem::HasChild() {
    return Child != nullptr;
}

// ---------------------------------------------------------------- nodes

CBPlusTreeNode::CBPlusTreeNode() : ParentItem(nullptr), Cursor(nullptr) {}

CBPlusTreeNode::~CBPlusTreeNode() = default;

CBPlusTreeItem* CBPlusTreeNode::SetParentItem(CBPlusTreeItem* item) {
    CBPlusTreeItem* old = ParentItem;
    ParentItem = item;
    return old;
}

unsigned int CBPlusTreeNode::FindInsertPosition(CBPlusTreeItem*, CBPlusTreeNode**, int*) {
    return ERROR_NOT_SUPPORTED;
}

bool CBPlusTreeNode::IsEmpty() {
    return Items.GetCount() == 0;
}

unsigned int CBPlusTreeNode::RemoveItem(CBPlusTreeItem* item, CBPlusTreeNode** child) {
    return UnlinkItem(item, child);
}

unsigned int CBPlusTreeNode::UnlinkItem(CBPlusTreeItem* item, CBPlusTreeNode** child) {
    CBPlusTreeItem* previous = item->GetPrevious();
    CBPlusTreeItem* next = item->GetNext();
    if (next != nullptr) next->SetPrevious(previous);
    if (previous != nullptr) previous->SetNext(next);
    const int position = Items.IndexOf(item);
    if (position >= 0) Items.RemoveAt(position);
    CBPlusTreeNode* ignored = nullptr;
    return item->GetChildNode(child != nullptr ? child : &ignored);
}

unsigned int CBPlusTreeNode::RetireChain(CBPlusTreeItem* item) {
    CBPlusTreeNode* node = nullptr;
    unsigned int error = item->GetChildNode(&node);
    if (error != ERROR_SUCCESS) return error;
    for (int depth = 0; node != nullptr; ++depth) {
        if (depth >= kMaxTreeDepth) return ERROR_FILE_CORRUPT;
        // A chain node holds at least its end item; one without is not a
        // chain this walk can follow.
        CBPlusTreeItem* first = node->GetItem(0);
        if (first == nullptr) return ERROR_INTERNAL_ERROR;
        CBPlusTreeNode* next = nullptr;
        error = first->GetChildNode(&next);
        if (error != ERROR_SUCCESS) return error;
        error = RetireNode(node);
        if (error != ERROR_SUCCESS) return error;
        node = next;
    }
    return ERROR_SUCCESS;
}

// ---------------------------------------------------------------- cursor

void CBPlusTreeNode::FreeCursor() {
    while (Cursor != nullptr) {
        _TREE_CURSOR_FRAME* up = Cursor->Previous;
        std::free(Cursor);
        Cursor = up;
    }
}

int CBPlusTreeNode::ResetCursor() {
    FreeCursor();
    auto* frame = static_cast<_TREE_CURSOR_FRAME*>(std::calloc(1, sizeof(_TREE_CURSOR_FRAME)));
    if (frame == nullptr) return 0;
    frame->Node = this;
    Cursor = frame;
    return 1;
}

// Opens a frame below the current one on `item`'s sub-node. On an error the
// cursor is as it was.
unsigned int CBPlusTreeNode::DescendCursor(CBPlusTreeItem* item) {
    auto* frame = static_cast<_TREE_CURSOR_FRAME*>(std::calloc(1, sizeof(_TREE_CURSOR_FRAME)));
    if (frame == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    frame->Previous = Cursor;
    const unsigned int error = item->GetChildNode(&frame->Node);
    if (error != ERROR_SUCCESS || frame->Node == nullptr) {
        std::free(frame);
        // An item that leads down but yields no node (a short read of the
        // node's storage, say) is damage, not an end of the walk.
        return error != ERROR_SUCCESS ? error : ERROR_FILE_CORRUPT;
    }
    Cursor->Next = frame;
    Cursor = frame;
    return ERROR_SUCCESS;
}

// Returns to the parent frame, which remembers that its sub-node is done.
void CBPlusTreeNode::AscendCursor() {
    _TREE_CURSOR_FRAME* up = Cursor->Previous;
    up->Next = nullptr;
    up->Backtracked = 1;
    CBPlusTreeNode* passed = Cursor->Node;
    std::free(Cursor);
    Cursor = up;
    NodePassed(passed);
}

unsigned int CBPlusTreeNode::FindNextItem(CBPlusTreeItem** item, const _INDEX_SEARCH_KEY* key) {
    if (Cursor == nullptr || Cursor->Node == nullptr) return ERROR_INTERNAL_ERROR;
    int depth = 0;
    for (const _TREE_CURSOR_FRAME* frame = Cursor; frame != nullptr; frame = frame->Previous) {
        ++depth;
    }
    for (;;) {
        _TREE_CURSOR_FRAME* frame = Cursor;
        bool found = false;
        int position = -1;
        CBPlusTreeItem* current = ScanNode(frame->Node, frame->Index, key, &position, &found);
        frame->Index = position;

        bool descend;
        if (found) {
            if (AcceptItem(current, frame->Backtracked != 0, key)) {
                frame->Backtracked = 0;
                *item = current;
                return ERROR_SUCCESS;
            }
            descend = true;
        } else {
            descend = current != nullptr && current->HasChild() && frame->Backtracked == 0;
        }

        if (descend) {
            if (depth >= kMaxTreeDepth) return ERROR_FILE_CORRUPT;
            const unsigned int error = DescendCursor(current);
            if (error != ERROR_SUCCESS) return error;
            ++depth;
            continue;
        }
        if (frame->Previous == nullptr || key->Exact != 0) return ERROR_FILE_NOT_FOUND;
        AscendCursor();
        --depth;
    }
}

// ---------------------------------------------------------------- descent

unsigned int CBPlusTreeNode::LocatePosition(CBPlusTreeNode* node, const _INDEX_SEARCH_KEY* key, CBPlusTreeNode** found,
                                            int* index) {
    for (int depth = 0; depth < kMaxTreeDepth; ++depth) {
        bool equal = false;
        int position = -1;
        CBPlusTreeItem* item = ScanNode(node, 0, key, &position, &equal);
        // Every well-formed node stops the scan at its end item at the latest.
        if (item == nullptr) return ERROR_FILE_CORRUPT;
        if (equal) return LogFailure("New entry has exist in record!", ERROR_FILE_CORRUPT);
        if (!item->HasChild()) {
            *found = node;
            *index = position;
            return ERROR_SUCCESS;
        }
        CBPlusTreeNode* child = nullptr;
        const unsigned int error = item->GetChildNode(&child);
        if (error != ERROR_SUCCESS) return error;
        if (child == nullptr) return ERROR_FILE_CORRUPT;
        node = child;
    }
    return ERROR_FILE_CORRUPT;
}

// ---------------------------------------------------------------- insertion

unsigned int CBPlusTreeNode::InsertItem(int index, CBPlusTreeItem* item, CBPlusTreeItem** inserted) {
    CBPlusTreeNode* target = this;
    if (!HasSpaceFor(item)) {
        const unsigned int error = SplitAndPromote(&target, &index);
        if (error != ERROR_SUCCESS) return error;
    }
    return PlaceItem(target, index, item, inserted);
}

// Splits this node, inserts the median in front of this node's parent item
// (the root's pseudo parent item stands in no node, so a root's median goes
// to position 0 of the root itself), and turns `index` into a position in
// the half that now covers it: the new left node or what stays here.
unsigned int CBPlusTreeNode::SplitAndPromote(CBPlusTreeNode** target, int* index) {
    LogMessage("There is not enough space for new entry.\n");
    CBPlusTreeItem* parentItem = ParentItem;
    CBPlusTreeNode* parentNode = parentItem != nullptr ? parentItem->GetNode() : nullptr;
    // A node without a place in a tree has nowhere to send its median.
    if (parentNode == nullptr) return ERROR_INTERNAL_ERROR;

    CBPlusTreeItem* median = nullptr;
    unsigned int error = Split(&median);
    if (error != ERROR_SUCCESS) return error;
    if (median == nullptr) return ERROR_INTERNAL_ERROR;

    int parentPosition = parentNode->IndexOfItem(parentItem);
    if (parentPosition < 0) parentPosition = 0;
    CBPlusTreeItem* parentEntry = nullptr;
    error = parentNode->InsertItem(parentPosition, median, &parentEntry);
    delete median;
    if (error != ERROR_SUCCESS) return error;
    if (parentEntry == nullptr) return ERROR_INTERNAL_ERROR;

    CBPlusTreeNode* left = nullptr;
    error = parentEntry->GetChildNode(&left);
    if (error != ERROR_SUCCESS) return error;
    if (left == nullptr) return ERROR_INTERNAL_ERROR;
    const int leftCount = left->GetItemCount();
    if (*index < leftCount) {
        *target = left;
    } else {
        *index -= leftCount;
    }
    return ERROR_SUCCESS;
}

// Stores `item` at `index` of `target` without a room test (a node just split
// is taken to have room) and links the stored item to its neighbours, for
// nodes whose InsertRaw does not rebuild the links itself.
unsigned int CBPlusTreeNode::PlaceItem(CBPlusTreeNode* target, int index, CBPlusTreeItem* item,
                                       CBPlusTreeItem** inserted) {
    CBPlusTreeItem* previous = index > 0 ? target->GetItem(index - 1) : nullptr;
    CBPlusTreeItem* stored = nullptr;
    const int position = target->InsertRaw(previous, item, &stored);
    if (inserted != nullptr) *inserted = stored;
    CBPlusTreeItem* placed = target->GetItem(position);
    if (placed == nullptr) return ERROR_INTERNAL_ERROR;
    if (position != 0) {
        CBPlusTreeItem* before = target->GetItem(position - 1);
        before->SetNext(placed);
        placed->SetPrevious(before);
    }
    if (position != target->GetItemCount() - 1) {
        CBPlusTreeItem* behind = target->GetItem(position + 1);
        behind->SetPrevious(placed);
        placed->SetNext(behind);
    }
    return ERROR_SUCCESS;
}

bool CBPlusTreeNode::AppendItem(CBPlusTreeItem* item) {
    if (item != nullptr && Items.InsertAfter(GetItemCount(), item) != -2) return true;
    delete item;
    return false;
}

}  // namespace ntfs
