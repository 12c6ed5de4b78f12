// Removal of one item anywhere in the index tree. The item's node unlinks it;
// what happens next depends on the sub-node the item leaves behind:
//
//   no sub-node            the node keeps its other keys, or, when it held no
//                          other, is retired and its parent item is taken back
//                          from interior status (ReinsertDetached);
//   a leaf sub-node        the greatest key of that leaf replaces the item, or
//                          the leaf is retired when it is, or becomes, empty;
//   an interior sub-node   the greatest key of the subtree replaces the item;
//                          parts of the subtree that run out of keys on their
//                          right side are retired and their last real item is
//                          pushed down to a leaf.
//
// Every replacement is a free-standing item owned here and deleted once it has
// been put into a node (the nodes store copies). Items of stored nodes are
// rebuilt by RemoveItem, so no item pointer is kept across those calls; nodes
// themselves stay. Nothing is undone after an error: the caller restores the
// nodes from their images. The tree object runs this under the exclusive use
// of its directory.
#include "index/bplus_tree.h"

#include "foundation/log.h"

namespace ntfs {

unsigned int CBPlusTreeNode::Remove(CBPlusTreeItem* item) {
    CBPlusTreeNode* node = item->GetNode();
    if (node == nullptr) return ERROR_INTERNAL_ERROR;
    int position = node->IndexOfItem(item);
    if (position < 0) position = 0;

    CBPlusTreeNode* child = nullptr;
    const unsigned int error = node->RemoveItem(item, &child);
    if (error != ERROR_SUCCESS) return error;
    if (child == nullptr) return RemoveFromLeaf(node);
    if (child->IsLeaf()) return ReplaceFromLeafChild(node, position, child);
    return ReplaceFromInteriorChild(node, position, child);
}

// The removed item had no sub-node. A node left without a real key goes, and
// the item that led to it is taken back from interior status.
unsigned int CBPlusTreeNode::RemoveFromLeaf(CBPlusTreeNode* node) {
    if (!node->IsEmpty()) return ERROR_SUCCESS;
    CBPlusTreeItem* parentItem = node->GetParentItem();
    const unsigned int error = RetireNode(node);
    if (error != ERROR_SUCCESS) return error;
    CBPlusTreeNode* parentNode = parentItem != nullptr ? parentItem->GetNode() : nullptr;
    if (parentNode == nullptr) return ERROR_INTERNAL_ERROR;
    return parentNode->ReinsertDetached(parentItem);
}

// The removed item led to a leaf. Its greatest key takes the item's place and
// keeps the leaf below it, unless that empties the leaf.
unsigned int CBPlusTreeNode::ReplaceFromLeafChild(CBPlusTreeNode* node, int position, CBPlusTreeNode* child) {
    if (child->IsEmpty()) return RetireNode(child);
    CBPlusTreeItem* replacement = nullptr;
    const unsigned int error = child->TakeLastEntry(&replacement);
    if (error != ERROR_SUCCESS) return error;
    if (replacement == nullptr) return ERROR_INTERNAL_ERROR;
    if (!child->IsEmpty()) {
        replacement->AttachChild(child);
        return PutReplacement(node, position, replacement);
    }
    // The leaf gave up its last key: it goes, and the key returns to the
    // tree as a leaf entry, by key order.
    replacement->DetachChild();
    const unsigned int retired = RetireNode(child);
    if (retired != ERROR_SUCCESS) {
        delete replacement;
        return retired;
    }
    return PutAtInsertPosition(node, replacement);
}

// The removed item led to an interior node. The node that holds the greatest
// key of that subtree decides the case.
unsigned int CBPlusTreeNode::ReplaceFromInteriorChild(CBPlusTreeNode* node, int position, CBPlusTreeNode* child) {
    CBPlusTreeNode* last = nullptr;
    unsigned int error = child->FindLastNode(&last);
    if (error != ERROR_SUCCESS) return error;

    if (last == nullptr) {
        // No real key anywhere below: the subtree is one chain of end items.
        CBPlusTreeItem* first = child->GetItem(0);
        if (first == nullptr) return ERROR_INTERNAL_ERROR;
        error = RetireChain(first);
        if (error != ERROR_SUCCESS) return error;
        return RetireNode(child);
    }

    if (!last->IsLeaf()) {
        // An interior node whose right side ran out of keys: its last real
        // item comes up, and its end item takes that item's sub-node.
        CBPlusTreeItem* clone = nullptr;
        error = HandOverPenultimate(last, &clone);
        if (error != ERROR_SUCCESS) return error;
        clone->AttachChild(child);
        return PutReplacement(node, position, clone);
    }

    CBPlusTreeItem* replacement = nullptr;
    error = last->TakeLastEntry(&replacement);
    if (error != ERROR_SUCCESS) return error;
    if (replacement == nullptr) return ERROR_INTERNAL_ERROR;
    if (!last->IsEmpty()) {
        replacement->AttachChild(child);
        return PutReplacement(node, position, replacement);
    }

    // The last leaf is empty now. Where the greatest key of the subtree stands
    // decides what is left of it.
    CBPlusTreeNode* second = nullptr;
    error = child->FindLastNode(&second);
    if (error != ERROR_SUCCESS) {
        delete replacement;
        return error;
    }
    replacement->AttachChild(child);
    if (second == nullptr) {
        // Nothing is left below: the whole chain goes and the key returns to
        // the tree as a leaf entry.
        error = RetireChain(replacement);
        if (error != ERROR_SUCCESS) {
            delete replacement;
            return error;
        }
        replacement->DetachChild();
        return PutAtInsertPosition(node, replacement);
    }

    error = PutReplacement(node, position, replacement);
    if (error != ERROR_SUCCESS) return error;
    // `second` ran out of keys on its right side: its last real item moves
    // down to a leaf of its own sub-node, which the end item takes over.
    CBPlusTreeItem* clone = nullptr;
    error = HandOverPenultimate(second, &clone);
    if (error != ERROR_SUCCESS) return error;
    clone->DetachChild();
    return PutAtInsertPosition(second, clone);
}

// In a node whose end item leads only to retired ground, the item before the
// end item leaves the node as a clone; the end item's old chain is retired
// and the end item takes over the departed item's sub-node. *clone is the
// caller's.
unsigned int CBPlusTreeNode::HandOverPenultimate(CBPlusTreeNode* exhausted, CBPlusTreeItem** clone) {
    const int count = exhausted->GetItemCount();
    CBPlusTreeItem* penultimate = count >= 2 ? exhausted->GetItem(count - 2) : nullptr;
    if (penultimate == nullptr) return ERROR_INTERNAL_ERROR;
    // In an interior node every item leads down; one that does not leaves the
    // end item nothing to take over.
    if (!penultimate->HasChild()) return ERROR_FILE_CORRUPT;
    CBPlusTreeItem* copy = penultimate->Clone();
    if (copy == nullptr) return ERROR_NOT_ENOUGH_MEMORY;

    CBPlusTreeNode* orphan = nullptr;
    unsigned int error = exhausted->RemoveItem(penultimate, &orphan);
    CBPlusTreeItem* endItem = exhausted->GetItem(exhausted->GetItemCount() - 1);
    if (error == ERROR_SUCCESS && endItem == nullptr) error = ERROR_INTERNAL_ERROR;
    if (error == ERROR_SUCCESS) error = RetireChain(endItem);
    if (error != ERROR_SUCCESS) {
        delete copy;
        return error;
    }
    endItem->AttachChild(orphan);
    *clone = copy;
    return ERROR_SUCCESS;
}

// Puts `replacement` at `position` of `node` and deletes it: the node keeps
// its own copy.
unsigned int CBPlusTreeNode::PutReplacement(CBPlusTreeNode* node, int position, CBPlusTreeItem* replacement) {
    CBPlusTreeItem* stored = nullptr;
    const unsigned int error = node->InsertItem(position, replacement, &stored);
    delete replacement;
    return error;
}

// Puts the leaf entry `replacement` where its key belongs below `start`, and
// deletes it.
unsigned int CBPlusTreeNode::PutAtInsertPosition(CBPlusTreeNode* start, CBPlusTreeItem* replacement) {
    CBPlusTreeNode* target = nullptr;
    int index = 0;
    const unsigned int error = start->FindInsertPosition(replacement, &target, &index);
    if (error != ERROR_SUCCESS) {
        delete replacement;
        return error;
    }
    return PutReplacement(target, index, replacement);
}

}  // namespace ntfs
