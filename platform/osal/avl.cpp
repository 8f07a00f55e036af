#include "zynosal.h"

namespace
{

avl_node_t *nodeOf(const avl_tree_t *tree, void *record)
{
    return reinterpret_cast<avl_node_t *>(static_cast<char *>(record) + tree->offset);
}

void *recordOf(const avl_tree_t *tree, avl_node_t *node)
{
    return node ? reinterpret_cast<char *>(node) - tree->offset : nullptr;
}

/** The side on which @a node hangs below its parent. */
int sideOf(const avl_node_t *node)
{
    return node == node->parent->child[1];
}

/** The outermost node on @a side of the tree below @a node. */
avl_node_t *outermost(avl_node_t *node, int side)
{
    while (node->child[side])
        node = node->child[side];
    return node;
}

/** The next node in order, to @a side, or null. */
avl_node_t *neighbour(avl_node_t *node, int side)
{
    if (node->child[side])
        return outermost(node->child[side], !side);
    while (node->parent && sideOf(node) == side)
        node = node->parent;
    return node->parent;
}

void hang(avl_node_t *parent, int side, avl_node_t *child)
{
    parent->child[side] = child;
    if (child)
        child->parent = parent;
}

/** Put @a by, which may be null, where @a node hangs. */
void replace(avl_tree_t *tree, avl_node_t *node, avl_node_t *by)
{
    if (node->parent) {
        hang(node->parent, sideOf(node), by);
    } else {
        tree->root = by;
        if (by)
            by->parent = nullptr;
    }
}

/**
 * Sink @a node to @a side; its child on the other side takes its place.
 *
 * With m = -1 for side 0 and 1 for side 1, the excess of a node is m times its balance: how much
 * its @a side outgrows the other. The node loses a level on the other side, or more where the
 * child leans outward, and the child gains on @a side in turn.
 * @return the child
 */
avl_node_t *rotate(avl_tree_t *tree, avl_node_t *node, int side)
{
    avl_node_t *top = node->child[!side];
    replace(tree, node, top);
    hang(node, !side, top->child[side]);
    hang(top, side, node);

    const int mirror = side ? 1 : -1;
    const int topExcess = mirror * top->balance;
    const int excess = mirror * node->balance + 1 + (topExcess < 0 ? -topExcess : 0);
    node->balance = mirror * excess;
    top->balance = mirror * (topExcess + 1 + (excess > 0 ? excess : 0));
    return top;
}

/** Even out @a node, whose balance is 2 or -2. @return the new root of its subtree */
avl_node_t *rebalance(avl_tree_t *tree, avl_node_t *node)
{
    const int high = node->balance > 0;
    avl_node_t *child = node->child[high];
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): the higher side is not empty
    if (child->balance == (high ? -1 : 1))
        rotate(tree, child, high);
    return rotate(tree, node, !high);
}

bool outOfBalance(const avl_node_t *node)
{
    return node->balance > 1 || node->balance < -1;
}

/** Restore the balance after the subtree at @a node has grown by a level. */
void grown(avl_tree_t *tree, avl_node_t *node)
{
    while (node->parent) {
        const int side = sideOf(node);
        node = node->parent;
        node->balance += side ? 1 : -1;
        if (outOfBalance(node))
            node = rebalance(tree, node);
        if (node->balance == 0)
            return;
    }
}

/** Restore the balance after the subtree on @a side of @a node has lost a level. */
void shrunk(avl_tree_t *tree, avl_node_t *node, int side)
{
    for (;;) {
        node->balance += side ? -1 : 1;
        if (outOfBalance(node))
            node = rebalance(tree, node);
        if (node->balance != 0 || !node->parent)
            return;
        side = sideOf(node);
        node = node->parent;
    }
}

/** Take @a node, which has at most one child, out of the tree. */
void unlinkOuter(avl_tree_t *tree, avl_node_t *node)
{
    avl_node_t *parent = node->parent;
    const int side = parent ? sideOf(node) : 0;
    replace(tree, node, node->child[node->child[1] != nullptr]);
    if (parent)
        shrunk(tree, parent, side);
}

/** Put @a by where @a node stands, with all of its links and its balance. */
void substitute(avl_tree_t *tree, avl_node_t *node, avl_node_t *by)
{
    replace(tree, node, by);
    hang(by, 0, node->child[0]);
    hang(by, 1, node->child[1]);
    by->balance = node->balance;
}

} // namespace

void avl_create(avl_tree_t *tree, avl_cmp_t cmp, size_t, size_t offset)
{
    *tree = {.root = nullptr, .cmp = cmp, .offset = offset, .count = 0};
}

void *avl_find(avl_tree_t *tree, const void *key, avl_index_t *where)
{
    avl_index_t place = {};
    for (avl_node_t *node = tree->root; node; node = node->child[place.child]) {
        const int order = tree->cmp(key, recordOf(tree, node));
        if (order == 0)
            return recordOf(tree, node);
        place = {.node = node, .child = order > 0};
    }
    if (where)
        *where = place;
    return nullptr;
}

int avl_add(avl_tree_t *tree, void *record)
{
    avl_index_t where;
    if (avl_find(tree, record, &where))
        return -1;
    avl_node_t *node = nodeOf(tree, record);
    *node = {};
    if (where.node)
        hang(where.node, where.child, node);
    else
        tree->root = node;
    grown(tree, node);
    tree->count++;
    return 0;
}

void avl_remove(avl_tree_t *tree, void *record)
{
    avl_node_t *node = nodeOf(tree, record);
    if (node->child[0] && node->child[1]) {
        // Between its neighbours there is nothing: the next one leaves its place for this one's.
        avl_node_t *next = outermost(node->child[1], 0);
        unlinkOuter(tree, next);
        substitute(tree, node, next);
    } else {
        unlinkOuter(tree, node);
    }
    *node = {};
    tree->count--;
}

void *avl_first(avl_tree_t *tree)
{
    return tree->root ? recordOf(tree, outermost(tree->root, 0)) : nullptr;
}

void *avl_next(avl_tree_t *tree, void *record)
{
    return recordOf(tree, neighbour(nodeOf(tree, record), 1));
}

void *avl_nearest(avl_tree_t *tree, avl_index_t where, int direction)
{
    if (!where.node)
        return nullptr;
    // Smaller than the node above it: that node is the next greater; and the other way round.
    const int side = direction == AVL_AFTER;
    return recordOf(tree, where.child == side ? neighbour(where.node, side) : where.node);
}
