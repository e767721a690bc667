// Stand-in for the platform's AVL trees (PAL_AVL_Insert_Or_Find, PAL_AVL_Find, PAL_AVL_Delete,
// PAL_AVL_Next): a height-balanced search tree over node records the caller owns.
//
// Nodes are the caller's memory and carry its payload through pKey, so the tree only ever relinks
// nodes: it never moves a key from one node to another and never touches pSelf. A node's iHeight is
// its height while it is in a tree (a leaf is 1) and -1 otherwise. The tree record's pstFirst and
// pstLast are kept at the smallest and largest node, both null exactly when the tree is empty.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "qvplatform/pal.h"

// The records live inside records of the caller's: their layout is fixed.
static_assert(offsetof(PAL_AVL_NODE_S, pstParent) == 0);
static_assert(offsetof(PAL_AVL_NODE_S, pstLeft) == 8);
static_assert(offsetof(PAL_AVL_NODE_S, pstRight) == 16);
static_assert(offsetof(PAL_AVL_NODE_S, iHeight) == 24);
static_assert(offsetof(PAL_AVL_NODE_S, pSelf) == 28);
static_assert(offsetof(PAL_AVL_NODE_S, pKey) == 36);
static_assert(sizeof(PAL_AVL_NODE_S) == 44);
static_assert(offsetof(PAL_AVL_TREE_S, pfnCompare) == 0);
static_assert(offsetof(PAL_AVL_TREE_S, pstRoot) == 8);
static_assert(offsetof(PAL_AVL_TREE_S, pstFirst) == 16);
static_assert(offsetof(PAL_AVL_TREE_S, pstLast) == 24);
static_assert(sizeof(PAL_AVL_TREE_S) == 32);

namespace {

using Node = PAL_AVL_NODE_S;
using Tree = PAL_AVL_TREE_S;

constexpr int32_t kNotInTree = -1;

int32_t HeightOf(const Node *node) {
    return node != nullptr ? node->iHeight : 0;
}

int32_t BalanceOf(const Node *node) {
    return HeightOf(node->pstLeft) - HeightOf(node->pstRight);
}

void UpdateHeight(Node *node) {
    node->iHeight = 1 + std::max(HeightOf(node->pstLeft), HeightOf(node->pstRight));
}

Node *Leftmost(Node *node) {
    while (node->pstLeft != nullptr) {
        node = node->pstLeft;
    }
    return node;
}

Node *Rightmost(Node *node) {
    while (node->pstRight != nullptr) {
        node = node->pstRight;
    }
    return node;
}

// The in-order predecessor, the mirror of PAL_AVL_Next.
Node *Previous(Node *node) {
    if (node->pstLeft != nullptr) {
        return Rightmost(node->pstLeft);
    }
    while (node->pstParent != nullptr && node == node->pstParent->pstLeft) {
        node = node->pstParent;
    }
    return node->pstParent;
}

// Hangs `to` where `from` hung: under parent (from's parent), or as the root.
void Replace(Tree *tree, Node *parent, const Node *from, Node *to) {
    if (parent == nullptr) {
        tree->pstRoot = to;
    } else if (parent->pstLeft == from) {
        parent->pstLeft = to;
    } else {
        parent->pstRight = to;
    }
    if (to != nullptr) {
        to->pstParent = parent;
    }
}

// Rotations return the node now at the top of the rotated subtree.
Node *RotateLeft(Tree *tree, Node *top) {
    Node *pivot = top->pstRight;
    top->pstRight = pivot->pstLeft;
    if (top->pstRight != nullptr) {
        top->pstRight->pstParent = top;
    }
    Replace(tree, top->pstParent, top, pivot);
    pivot->pstLeft = top;
    top->pstParent = pivot;
    UpdateHeight(top);
    UpdateHeight(pivot);
    return pivot;
}

Node *RotateRight(Tree *tree, Node *top) {
    Node *pivot = top->pstLeft;
    top->pstLeft = pivot->pstRight;
    if (top->pstLeft != nullptr) {
        top->pstLeft->pstParent = top;
    }
    Replace(tree, top->pstParent, top, pivot);
    pivot->pstRight = top;
    top->pstParent = pivot;
    UpdateHeight(top);
    UpdateHeight(pivot);
    return pivot;
}

// Recomputes heights from node up to the root, rotating wherever the two sides differ by two.
void Rebalance(Tree *tree, Node *node) {
    while (node != nullptr) {
        UpdateHeight(node);
        const int32_t balance = BalanceOf(node);
        if (balance > 1) {
            if (BalanceOf(node->pstLeft) < 0) {
                RotateLeft(tree, node->pstLeft);
            }
            node = RotateRight(tree, node);
        } else if (balance < -1) {
            if (BalanceOf(node->pstRight) > 0) {
                RotateRight(tree, node->pstRight);
            }
            node = RotateLeft(tree, node);
        }
        node = node->pstParent;
    }
}

// True when node hangs in tree: it is marked as in a tree and its parent links lead to tree's root.
bool IsInTree(const Tree *tree, const Node *node) {
    if (node->iHeight <= 0) {
        return false;
    }
    while (node->pstParent != nullptr) {
        node = node->pstParent;
    }
    return node == tree->pstRoot;
}

// Takes node out of the links of tree and gives the lowest node whose height may have changed.
Node *Unlink(Tree *tree, Node *node) {
    Node *parent = node->pstParent;
    if (node->pstLeft == nullptr || node->pstRight == nullptr) {
        Replace(tree, parent, node, node->pstLeft != nullptr ? node->pstLeft : node->pstRight);
        return parent;
    }
    // Two children: the successor, the leftmost node of the right subtree, takes node's place.
    Node *heir = Leftmost(node->pstRight);
    Node *lowest = heir;
    if (heir != node->pstRight) {
        lowest = heir->pstParent;
        Replace(tree, lowest, heir, heir->pstRight);
        heir->pstRight = node->pstRight;
        heir->pstRight->pstParent = heir;
    }
    heir->pstLeft = node->pstLeft;
    heir->pstLeft->pstParent = heir;
    Replace(tree, parent, node, heir);
    return lowest;
}

}  // namespace

// Inserts node (its pKey set, the rest of its links free) unless a node with an equal key is in the
// tree: null when inserted, else the node already there, with the tree unchanged. Null as well, with
// nothing inserted, for a null tree, node or compare function.
extern "C" PAL_AVL_NODE_S *PAL_AVL_Insert_Or_Find(PAL_AVL_TREE_S *tree, PAL_AVL_NODE_S *node) {
    if (tree == nullptr || node == nullptr || tree->pfnCompare == nullptr) {
        return nullptr;
    }
    Node *parent = nullptr;
    int32_t order = 0;
    bool smallest = true;
    bool largest = true;
    for (Node *at = tree->pstRoot; at != nullptr; at = order < 0 ? at->pstLeft : at->pstRight) {
        order = tree->pfnCompare(node->pKey, at->pKey);
        if (order == 0) {
            return at;
        }
        parent = at;
        smallest = smallest && order < 0;
        largest = largest && order > 0;
    }
    node->pstParent = parent;
    node->pstLeft = nullptr;
    node->pstRight = nullptr;
    node->iHeight = 1;
    if (parent == nullptr) {
        tree->pstRoot = node;
    } else if (order < 0) {
        parent->pstLeft = node;
    } else {
        parent->pstRight = node;
    }
    if (smallest) {
        tree->pstFirst = node;
    }
    if (largest) {
        tree->pstLast = node;
    }
    Rebalance(tree, parent);
    return nullptr;
}

// The node whose key compares equal to key (compare(key, node key) == 0), or null; null also for a
// null tree or a tree without a compare function.
extern "C" PAL_AVL_NODE_S *PAL_AVL_Find(PAL_AVL_TREE_S *tree, const void *key) {
    if (tree == nullptr || tree->pfnCompare == nullptr) {
        return nullptr;
    }
    Node *at = tree->pstRoot;
    while (at != nullptr) {
        const int32_t order = tree->pfnCompare(key, at->pKey);
        if (order == 0) {
            return at;
        }
        at = order < 0 ? at->pstLeft : at->pstRight;
    }
    return nullptr;
}

// Unlinks node from tree, leaving its links null and iHeight -1; the caller frees it afterwards.
// Every other node keeps its key and payload. Nothing happens for a null argument or a node that is
// not in this tree.
extern "C" void PAL_AVL_Delete(PAL_AVL_TREE_S *tree, PAL_AVL_NODE_S *node) {
    if (tree == nullptr || node == nullptr || !IsInTree(tree, node)) {
        return;
    }
    // The neighbours keep their order, so they become the new ends.
    if (tree->pstFirst == node) {
        tree->pstFirst = PAL_AVL_Next(node);
    }
    if (tree->pstLast == node) {
        tree->pstLast = Previous(node);
    }
    Node *lowest = Unlink(tree, node);
    node->pstParent = nullptr;
    node->pstLeft = nullptr;
    node->pstRight = nullptr;
    node->iHeight = kNotInTree;
    Rebalance(tree, lowest);
}

// The in-order successor of node, found through the parent links, or null after the last node (and
// for null). Take it before deleting node when deleting during a walk.
extern "C" PAL_AVL_NODE_S *PAL_AVL_Next(PAL_AVL_NODE_S *node) {
    if (node == nullptr) {
        return nullptr;
    }
    if (node->pstRight != nullptr) {
        return Leftmost(node->pstRight);
    }
    while (node->pstParent != nullptr && node == node->pstParent->pstRight) {
        node = node->pstParent;
    }
    return node->pstParent;
}
