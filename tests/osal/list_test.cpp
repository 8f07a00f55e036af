#include "zynosal.h"

#include <gtest/gtest.h>

#include <vector>

namespace
{

struct Item {
    int number;
    list_head link;
};

std::vector<int> numbers(const list_head *head)
{
    std::vector<int> result;
    list_for_each_entry(Item, item, head, link) result.push_back(item->number);
    return result;
}

/** Every link's two directions agree. */
void expectConsistent(const list_head *head)
{
    const list_head *link = head;
    do {
        EXPECT_EQ(link->next->prev, link);
        link = link->next;
    } while (link != head);
}

class List : public testing::Test
{
protected:
    void SetUp() override { INIT_LIST_HEAD(&head); }
    void TearDown() override { expectConsistent(&head); }

    list_head head;
    Item a = {1, {}};
    Item b = {2, {}};
    Item c = {3, {}};
};

using Numbers = std::vector<int>;

} // namespace

TEST_F(List, IsEmptyAtFirst)
{
    EXPECT_TRUE(list_empty(&head));
    EXPECT_EQ(numbers(&head), Numbers{});
}

TEST_F(List, AddInsertsAtTheHead)
{
    list_add(&a.link, &head);
    list_add(&b.link, &head);
    list_add(&c.link, &head);
    EXPECT_FALSE(list_empty(&head));
    EXPECT_EQ(numbers(&head), (Numbers{3, 2, 1}));
}

TEST_F(List, AddTailInsertsAtTheEnd)
{
    list_add_tail(&a.link, &head);
    list_add_tail(&b.link, &head);
    list_add_tail(&c.link, &head);
    EXPECT_EQ(numbers(&head), (Numbers{1, 2, 3}));
}

TEST_F(List, AddTailOnAnElementInsertsBeforeIt)
{
    list_add_tail(&a.link, &head);
    list_add_tail(&c.link, &head);
    list_add_tail(&b.link, &c.link);
    EXPECT_EQ(numbers(&head), (Numbers{1, 2, 3}));
}

TEST_F(List, DelInitUnlinksAndPointsToItself)
{
    for (Item *item : {&a, &b, &c})
        list_add_tail(&item->link, &head);
    list_del_init(&b.link);
    EXPECT_EQ(numbers(&head), (Numbers{1, 3}));
    EXPECT_EQ(b.link.next, &b.link);
    EXPECT_EQ(b.link.prev, &b.link);

    list_del_init(&b.link); // on no list but its own: nothing to undo
    list_del_init(&a.link);
    list_del_init(&c.link);
    EXPECT_TRUE(list_empty(&head));
}

TEST_F(List, EntryLeadsFromLinkToRecord)
{
    EXPECT_EQ(list_entry(&b.link, Item, link), &b);
}
