#include <gtest/gtest.h>

#include "policy/car_table.h"

using zynlinux::CarTable;
using Entry = tHwCpuDefendPktCarEntry;

namespace
{

Entry entry(uint32_t type, uint32_t pps)
{
    Entry e{};
    e.pktType = type;
    e.cir = 16;
    e.cbs = 6400;
    e.pps = pps;
    e.queue = 2;
    e.priority = 2;
    e.op = ZYN_HW_OP_PERMIT;
    return e;
}

uint32_t ppsInForce(const CarTable &table, uint32_t type)
{
    const zynlinux::CarEntry *e = table.inForce(type);
    return e ? e->settings.pps : 0;
}

TEST(CarTable, NothingIsInForceAtFirst)
{
    CarTable table;
    EXPECT_EQ(table.inForce(1), nullptr);
}

TEST(CarTable, NewestEntryCoversTheOlderAndUncoversIt)
{
    CarTable table;
    table.add(entry(1, 100));
    table.add(entry(1, 200));
    EXPECT_EQ(ppsInForce(table, 1), 200u);
    EXPECT_TRUE(table.remove(entry(1, 200)));
    EXPECT_EQ(ppsInForce(table, 1), 100u);
    EXPECT_TRUE(table.remove(entry(1, 100)));
    EXPECT_EQ(table.inForce(1), nullptr);
}

TEST(CarTable, RemovingACoveredEntryChangesNothingInForce)
{
    CarTable table;
    table.add(entry(1, 100));
    table.add(entry(1, 200));
    EXPECT_TRUE(table.remove(entry(1, 100)));
    EXPECT_EQ(ppsInForce(table, 1), 200u);
    EXPECT_TRUE(table.remove(entry(1, 200)));
    EXPECT_EQ(table.inForce(1), nullptr);
}

TEST(CarTable, SameEntryTwiceMakesTwo)
{
    CarTable table;
    table.add(entry(1, 100));
    table.add(entry(1, 100));
    EXPECT_TRUE(table.remove(entry(1, 100)));
    EXPECT_EQ(ppsInForce(table, 1), 100u);
    EXPECT_TRUE(table.remove(entry(1, 100)));
    EXPECT_FALSE(table.remove(entry(1, 100)));
}

TEST(CarTable, RemovalTakesTheNewestOfTheSame)
{
    CarTable table;
    table.add(entry(1, 100));
    table.add(entry(1, 200));
    table.add(entry(1, 100));
    EXPECT_TRUE(table.remove(entry(1, 100)));
    EXPECT_EQ(ppsInForce(table, 1), 200u);
}

TEST(CarTable, TypesDoNotCoverEachOther)
{
    CarTable table;
    table.add(entry(1, 100));
    table.add(entry(2, 200));
    EXPECT_EQ(ppsInForce(table, 1), 100u);
    EXPECT_FALSE(table.remove(entry(2, 100)));
    EXPECT_TRUE(table.remove(entry(2, 200)));
    EXPECT_EQ(ppsInForce(table, 1), 100u);
}

TEST(CarTable, EverySettingCountsInRemovalAndNoCounterDoes)
{
    const Entry added = entry(1, 100);
    void (*const changes[])(Entry &) = {
        [](Entry &e) { e.cir++; },
        [](Entry &e) { e.cbs++; },
        [](Entry &e) { e.pps++; },
        [](Entry &e) { e.queue++; },
        [](Entry &e) { e.priority++; },
        [](Entry &e) { e.op = ZYN_HW_OP_DENY; },
        [](Entry &e) { e.res = ZYN_HW_CAR_PPS; },
    };
    CarTable table;
    table.add(added);
    for (auto change : changes) {
        Entry other = added;
        change(other);
        EXPECT_FALSE(table.remove(other));
    }
    Entry counted = added;
    counted.PassPkt.low = counted.DropPkt.high = counted.PassOct.low = counted.DropOct.low = 9;
    EXPECT_TRUE(table.remove(counted));
}

} // namespace
