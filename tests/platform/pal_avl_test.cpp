// Tests of the stand-in's AVL trees: a randomized run against std::map checking order, ends, links,
// heights, balance, stable keys and untouched duplicates.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "qvplatform/pal.h"

namespace {

// A caller's record: the key first, the tree node embedded after it.
struct Entry {
    uint32_t key;
    PAL_AVL_NODE_S node;
};

using Reference = std::map<uint32_t, Entry *>;

// Unsigned order answered as the agent's compare functions do: 1, 0 or 0xFFFFFFFF.
int32_t CompareKeys(const void *a, const void *b) {
    const uint32_t x = *static_cast<const uint32_t *>(a), y = *static_cast<const uint32_t *>(b);
    return x < y ? static_cast<int32_t>(0xFFFFFFFFu) : (x > y ? 1 : 0);
}

void Prepare(Entry &entry, uint32_t key) {
    entry.key = key;
    entry.node = PAL_AVL_NODE_S{nullptr, nullptr, nullptr, -1, &entry.node, &entry.key};
}

bool IsDetached(const PAL_AVL_NODE_S &node) {
    return node.pstParent == nullptr && node.pstLeft == nullptr && node.pstRight == nullptr && node.iHeight == -1;
}

uint32_t KeyOf(const PAL_AVL_NODE_S *node) { return *static_cast<const uint32_t *>(node->pKey); }

// Checks links, heights and balance below node; the subtree's height, or -1 with fault set.
int32_t CheckSubtree(const PAL_AVL_NODE_S *node, const PAL_AVL_NODE_S *parent, std::string &fault) {
    if (node == nullptr) return 0;
    const int32_t left = CheckSubtree(node->pstLeft, node, fault);
    const int32_t right = CheckSubtree(node->pstRight, node, fault);
    const bool linked = node->pstParent == parent && node->pSelf == node;
    if (fault.empty() && (!linked || node->iHeight != 1 + std::max(left, right) || std::abs(left - right) > 1)) {
        fault = "bad link, height or balance at key " + std::to_string(KeyOf(node));
    }
    return fault.empty() ? node->iHeight : -1;
}

// Empty when tree holds exactly the reference's entries in order and keeps every structural promise.
std::string Violation(const PAL_AVL_TREE_S &tree, const Reference &reference) {
    std::string fault;
    const int32_t height = CheckSubtree(tree.pstRoot, nullptr, fault);
    if (!fault.empty()) return fault;
    if (height >= 1.45 * std::log2(static_cast<double>(reference.size()) + 2)) return "too high";
    if (reference.empty()) return tree.pstRoot || tree.pstFirst || tree.pstLast ? "empty tree with nodes" : "";
    if (tree.pstFirst != &reference.begin()->second->node || tree.pstLast != &reference.rbegin()->second->node) {
        return "first or last is not the extreme";
    }
    const PAL_AVL_NODE_S *walk = tree.pstFirst;
    for (const auto &[key, entry] : reference) {
        // The node is the entry's own and still carries the entry's key: nothing was moved.
        if (walk != &entry->node || walk->pKey != &entry->key || entry->key != key) {
            return "in-order walk differs at key " + std::to_string(key);
        }
        walk = PAL_AVL_Next(const_cast<PAL_AVL_NODE_S *>(walk));
    }
    return walk == nullptr ? "" : "walk runs past the last node";
}

TEST(PalAvl, RandomOperationsMatchOrderedMap) {
    constexpr uint32_t kKeys = 4096;
    std::vector<Entry> entries(kKeys);
    Entry duplicate{};
    Reference reference;  // key -> the entry in the tree
    PAL_AVL_TREE_S tree{CompareKeys, nullptr, nullptr, nullptr};
    std::mt19937 random(0x5EED1234u);

    for (uint32_t op = 1; op <= 100000; ++op) {
        const uint32_t key = static_cast<uint32_t>(random() % kKeys);
        Entry &entry = entries[key];
        const bool present = reference.count(key) != 0;
        const auto kind = random() % 10;
        if (kind < 4) {  // insert-or-find; a present key hands back its node and leaves the new one alone
            Entry &candidate = present ? duplicate : entry;
            Prepare(candidate, key);
            EXPECT_EQ(PAL_AVL_Insert_Or_Find(&tree, &candidate.node), present ? &entry.node : nullptr);
            EXPECT_EQ(IsDetached(candidate.node), present);
            reference[key] = &entry;
        } else if (kind < 6 || !present) {
            EXPECT_EQ(PAL_AVL_Find(&tree, &key), present ? &entry.node : nullptr);
        } else {
            PAL_AVL_Delete(&tree, &entry.node);
            reference.erase(key);
            EXPECT_TRUE(IsDetached(entry.node));
        }
        if (op % 5000 == 0) {  // delete every other node while walking, taking the successor first
            bool drop = op % 10000 == 0;
            for (PAL_AVL_NODE_S *node = tree.pstFirst; node != nullptr; drop = !drop) {
                PAL_AVL_NODE_S *next = PAL_AVL_Next(node);
                if (drop) {
                    PAL_AVL_Delete(&tree, node);
                    reference.erase(KeyOf(node));
                }
                node = next;
            }
        }
        if (op % 1000 == 0) {
            ASSERT_EQ(Violation(tree, reference), "") << "after operation " << op;
            ASSERT_FALSE(reference.empty());
            // A duplicate insert changes no byte of the tree record or of any node.
            const std::vector<Entry> entriesBefore = entries;
            const PAL_AVL_TREE_S treeBefore = tree;
            Prepare(duplicate, reference.rbegin()->first);
            EXPECT_EQ(PAL_AVL_Insert_Or_Find(&tree, &duplicate.node), &reference.rbegin()->second->node);
            EXPECT_EQ(std::memcmp(&tree, &treeBefore, sizeof tree), 0);
            EXPECT_EQ(std::memcmp(entries.data(), entriesBefore.data(), kKeys * sizeof(Entry)), 0);
        }
    }
    while (tree.pstFirst != nullptr) PAL_AVL_Delete(&tree, tree.pstFirst);
    EXPECT_EQ(tree.pstRoot, nullptr);
    EXPECT_EQ(tree.pstLast, nullptr);
}

}  // namespace
