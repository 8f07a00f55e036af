#include "zynosal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <numeric>
#include <random>
#include <vector>

namespace
{

struct Record {
    uint32_t key;
    avl_node_t node; // not first: the offset counts
    uint32_t payload;
};

int compare(const void *a, const void *b)
{
    const uint32_t left = static_cast<const Record *>(a)->key;
    const uint32_t right = static_cast<const Record *>(b)->key;
    return left < right ? -7 : left > right ? 9 : 0; // any negative, any positive number serves
}

Record keyOf(uint32_t key)
{
    Record record;
    memset(&record, 0xee, sizeof record); // only the key counts
    record.key = key;
    return record;
}

avl_tree_t emptyTree()
{
    avl_tree_t tree;
    avl_create(&tree, compare, sizeof(Record), offsetof(Record, node));
    return tree;
}

const Record *recordOf(const avl_node_t *node)
{
    return reinterpret_cast<const Record *>(reinterpret_cast<const char *>(node) -
                                            offsetof(Record, node));
}

/** What a walk over the links of a whole tree finds. */
struct Shape {
    uint32_t count = 0;
    int height = 0;
    bool sound = true; // parents, balances
    std::vector<uint32_t> keys;
};

int measure(const avl_node_t *node, const avl_node_t *parent, Shape *shape)
{
    if (!node)
        return 0;
    const int smaller = measure(node->child[0], node, shape);
    shape->keys.push_back(recordOf(node)->key);
    const int greater = measure(node->child[1], node, shape);
    shape->count++;
    shape->sound = shape->sound && node->parent == parent && node->balance == greater - smaller &&
                   std::abs(node->balance) <= 1;
    return 1 + std::max(smaller, greater);
}

Shape shapeOf(const avl_tree_t &tree)
{
    Shape shape;
    shape.height = measure(tree.root, nullptr, &shape);
    return shape;
}

void expectSound(const avl_tree_t &tree)
{
    const Shape shape = shapeOf(tree);
    ASSERT_TRUE(shape.sound);
    ASSERT_EQ(shape.count, tree.count);
    ASSERT_TRUE(std::is_sorted(shape.keys.begin(), shape.keys.end(), std::less_equal<uint32_t>()));
    // The height of an AVL tree of n nodes is below 1.4405 log2(n + 2) - 0.3277.
    ASSERT_LT(shape.height, 1.4405 * std::log2(shape.count + 2.0) - 0.3276);
}

bool sameNode(const avl_node_t &a, const avl_node_t &b)
{
    return a.child[0] == b.child[0] && a.child[1] == b.child[1] && a.parent == b.parent &&
           a.balance == b.balance;
}

bool isZero(const avl_node_t &node)
{
    return sameNode(node, {});
}

/** A pool of records, one a key, and what should be in the tree. */
class Model
{
public:
    Model(uint32_t keys, uint64_t seed) : pool_(keys), random_(seed)
    {
        for (uint32_t key = 0; key < keys; key++)
            pool_[key] = {key, {}, ~key};
    }

    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_() % limit); }

    /** One operation on any key; @a growth of 100 changes are additions. */
    void step(uint32_t growth)
    {
        const uint32_t key = below(static_cast<uint32_t>(pool_.size()));
        switch (below(8)) {
        case 0:
        case 1:
        case 2: return below(100) < growth ? add(key) : remove(key);
        case 3: return find(key);
        case 4: return nearest(key, AVL_AFTER);
        case 5: return nearest(key, AVL_BEFORE);
        case 6: return next(key);
        default: return first();
        }
    }

    void checkAll()
    {
        expectSound(tree_);
        ASSERT_EQ(tree_.count, expected_.size());
        void *record = avl_first(&tree_);
        for (const auto &[key, wanted] : expected_) {
            ASSERT_EQ(record, wanted);
            ASSERT_EQ(wanted->key, key);
            ASSERT_EQ(wanted->payload, ~key);
            record = avl_next(&tree_, record);
        }
        ASSERT_EQ(record, nullptr);
    }

    size_t size() const { return expected_.size(); }
    size_t poolSize() const { return pool_.size(); }

private:
    using Map = std::map<uint32_t, Record *>;

    void add(uint32_t key)
    {
        const bool isNew = expected_.count(key) == 0;
        Record twin = pool_[key];
        ASSERT_EQ(avl_add(&tree_, isNew ? &pool_[key] : &twin), isNew ? 0 : -1);
        expected_[key] = &pool_[key];
    }

    void remove(uint32_t key)
    {
        const Map::iterator at = expected_.lower_bound(key);
        if (at == expected_.end())
            return;
        Record *record = at->second;
        avl_remove(&tree_, record);
        ASSERT_TRUE(isZero(record->node));
        expected_.erase(at);
    }

    Record *wanted(Map::const_iterator at) const
    {
        return at == expected_.end() ? nullptr : at->second;
    }

    void find(uint32_t key)
    {
        const Record probe = keyOf(key);
        ASSERT_EQ(avl_find(&tree_, &probe, nullptr), wanted(expected_.find(key)));
    }

    void nearest(uint32_t key, int direction)
    {
        const Record probe = keyOf(key);
        avl_index_t where;
        void *found = avl_find(&tree_, &probe, &where);
        ASSERT_EQ(found, wanted(expected_.find(key)));
        if (found)
            return;
        const Map::const_iterator after = expected_.lower_bound(key);
        const Record *before = after == expected_.begin() ? nullptr : std::prev(after)->second;
        ASSERT_EQ(avl_nearest(&tree_, where, direction),
                  direction == AVL_AFTER ? wanted(after) : before);
    }

    void next(uint32_t key)
    {
        const Map::const_iterator at = expected_.find(key);
        if (at == expected_.end())
            return;
        ASSERT_EQ(avl_next(&tree_, at->second), wanted(std::next(at)));
    }

    void first() { ASSERT_EQ(avl_first(&tree_), wanted(expected_.begin())); }

    std::vector<Record> pool_;
    std::mt19937_64 random_;
    avl_tree_t tree_ = emptyTree();
    Map expected_;
};

/** Run @a steps operations in tides: the tree fills up, empties, and again. */
void agreeWithMap(uint32_t keys, uint32_t steps, uint32_t tide, uint32_t sample)
{
    Model model(keys, 20240229 + keys);
    bool growing = true;
    size_t most = 0;
    size_t least = keys;
    for (uint32_t step = 0; step < steps; step++) {
        if (step != 0 && step % tide == 0)
            growing = !growing;
        model.step(growing ? 90 : 5);
        if (step % sample == 0)
            model.checkAll();
        if (testing::Test::HasFatalFailure())
            FAIL() << "at step " << step;
        most = std::max(most, model.size());
        least = step > tide ? std::min(least, model.size()) : least;
    }
    model.checkAll();
    EXPECT_GT(most, keys / 2); // the tides did move
    EXPECT_LT(least, keys / 10 + 1);
}

/** Call @a each with every order of the keys 0 to count - 1. */
template <typename F> void forEveryOrder(uint32_t count, F each)
{
    std::vector<uint32_t> order(count);
    std::iota(order.begin(), order.end(), 0);
    do {
        each(order);
    } while (!testing::Test::HasFatalFailure() &&
             std::next_permutation(order.begin(), order.end()));
}

/** A tree of the keys of @a order, added in that order, in @a records. */
avl_tree_t treeOf(const std::vector<uint32_t> &order, std::vector<Record> *records)
{
    avl_tree_t tree = emptyTree();
    records->resize(order.size());
    for (uint32_t key : order) {
        (*records)[key] = {key, {}, 0};
        EXPECT_EQ(avl_add(&tree, &(*records)[key]), 0);
    }
    return tree;
}

} // namespace

TEST(AvlTree, IsEmptyAtFirst)
{
    avl_tree_t tree = emptyTree();
    const Record probe = keyOf(5);
    avl_index_t where = {reinterpret_cast<avl_node_t *>(&tree), 1};
    EXPECT_EQ(tree.count, 0u);
    EXPECT_EQ(avl_first(&tree), nullptr);
    EXPECT_EQ(avl_find(&tree, &probe, nullptr), nullptr);
    EXPECT_EQ(avl_find(&tree, &probe, &where), nullptr);
    EXPECT_EQ(where.node, nullptr);
    EXPECT_EQ(avl_nearest(&tree, where, AVL_AFTER), nullptr);
    EXPECT_EQ(avl_nearest(&tree, where, AVL_BEFORE), nullptr);
}

TEST(AvlTree, AddIgnoresWhatTheNodeHeldBefore)
{
    avl_tree_t tree = emptyTree();
    Record record = keyOf(3); // its node is rubbish, as after a stay in a free list
    EXPECT_EQ(avl_add(&tree, &record), 0);
    EXPECT_TRUE(isZero(record.node));
    expectSound(tree);
}

TEST(AvlTree, AddOfAnEqualRecordChangesNothing)
{
    std::vector<Record> records;
    avl_tree_t tree = treeOf({1, 0, 2}, &records);
    const std::vector<Record> before = records;
    Record twin = keyOf(1);
    const Record twinBefore = twin;

    EXPECT_EQ(avl_add(&tree, &twin), -1);
    EXPECT_TRUE(sameNode(twin.node, twinBefore.node));
    for (uint32_t key = 0; key < 3; key++)
        EXPECT_TRUE(sameNode(records[key].node, before[key].node)) << key;
    EXPECT_EQ(tree.count, 3u);
    EXPECT_EQ(avl_find(&tree, &twin, nullptr), &records[1]);
}

TEST(AvlTree, FindLeavesThePlaceAloneWhenItFinds)
{
    std::vector<Record> records;
    avl_tree_t tree = treeOf({1, 0, 2}, &records);
    avl_index_t where = {&records[2].node, 5};
    EXPECT_EQ(avl_find(&tree, &records[0], &where), &records[0]);
    EXPECT_EQ(where.node, &records[2].node);
    EXPECT_EQ(where.child, 5);
}

TEST(AvlTree, StaysBalancedWhicheverRecordIsRemovedFromWhateverTree)
{
    constexpr uint32_t COUNT = 7;
    forEveryOrder(COUNT, [](const std::vector<uint32_t> &order) {
        for (uint32_t key = 0; key < COUNT; key++) {
            std::vector<Record> records;
            avl_tree_t tree = treeOf(order, &records);
            avl_remove(&tree, &records[key]);
            expectSound(tree);
            ASSERT_EQ(tree.count, COUNT - 1);
        }
    });
}

TEST(AvlTree, SmallTreeAgreesWithMapAtEveryStep)
{
    agreeWithMap(24, 200000, 500, 1);
}
