// The table of traced sources: its keys and their order, its pool.
#include <algorithm>
#include <array>
#include <cstring>
#include <random>

#include "core_test.h"

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

using Ip = std::array<uint8_t, 4>;
using Mac = std::array<uint8_t, 6>;

static constexpr Ip ip0{10, 0, 0, 1};
static constexpr Mac mac0{2, 0, 0, 0, 0, 1};

/** The four keys of a source. */
struct Key {
    uint32_t ifUnit = 7;
    Ip ip = ip0;
    uint32_t pktType = 1;
    Mac mac = mac0;
};

class SrcTraceTable : public CoreTest
{
protected:
    static tCpuDefendSrcTraceEntry *add(const Key &key)
    {
        return cpuDefendSrcTraceEntryAdd(key.ifUnit, key.ip.data(), key.pktType, key.mac.data());
    }

    static tCpuDefendSrcTraceEntry *get(const Key &key)
    {
        return cpuDefendSrcTraceEntryGet(key.ifUnit, key.ip.data(), key.pktType, key.mac.data());
    }

    static int compare(const Key &a, const Key &b)
    {
        const auto record = [](const Key &key) {
            tCpuDefendSrcTraceEntry entry{};
            entry.ifUnit = key.ifUnit;
            memcpy(entry.srcIp, key.ip.data(), key.ip.size());
            entry.pktType = static_cast<uint8_t>(key.pktType);
            memcpy(entry.srcMac, key.mac.data(), key.mac.size());
            return entry;
        };
        const tCpuDefendSrcTraceEntry first = record(a), second = record(b);
        return cpuDefendSrcTraceCmp(&first, &second);
    }

    static std::vector<tCpuDefendSrcTraceEntry *> listed()
    {
        std::vector<tCpuDefendSrcTraceEntry *> found;
        for (void *at = avl_first(&gCpuDefend.srcTraceList); at;
             at = avl_next(&gCpuDefend.srcTraceList, at))
            found.push_back(static_cast<tCpuDefendSrcTraceEntry *>(at));
        return found;
    }

    static void fill()
    {
        for (uint32_t unit = 0; unit < gCpuDefend.maxSrcTraceNum; unit++)
            ASSERT_NE(add({.ifUnit = unit}), nullptr);
    }
};

/* ---- Order -------------------------------------------------------------------------------- */

TEST_F(SrcTraceTable, KeysAreComparedInTurn)
{
    const struct {
        const char *what;
        Key a, b; // a before b
    } rows[] = {
        {"unit", {.ifUnit = 1}, {.ifUnit = 2}},
        {"unit before all else",
         {1, {255, 255, 255, 255}, 255, {255, 255, 255, 255, 255, 255}},
         {2, {0, 0, 0, 0}, 0, {0, 0, 0, 0, 0, 0}}},
        {"first byte of the address", {.ip = {9, 255, 255, 255}}, {.ip = {10, 0, 0, 0}}},
        {"last byte of the address", {.ip = {10, 0, 0, 1}}, {.ip = {10, 0, 0, 2}}},
        {"address bytes are unsigned", {.ip = {127, 0, 0, 1}}, {.ip = {128, 0, 0, 1}}},
        {"address before type",
         {.ip = {1, 1, 1, 1}, .pktType = 9},
         {.ip = {1, 1, 1, 2}, .pktType = 1}},
        {"type", {.pktType = 1}, {.pktType = 2}},
        {"types are unsigned", {.pktType = 127}, {.pktType = 200}},
        {"type before MAC",
         {.pktType = 1, .mac = {9, 9, 9, 9, 9, 9}},
         {.pktType = 2, .mac = {0, 0, 0, 0, 0, 0}}},
        {"first byte of the MAC", {.mac = {1, 9, 9, 9, 9, 9}}, {.mac = {2, 0, 0, 0, 0, 0}}},
        {"last byte of the MAC", {.mac = {1, 2, 3, 4, 5, 6}}, {.mac = {1, 2, 3, 4, 5, 7}}},
        {"MAC bytes are unsigned", {.mac = {0x7f, 0, 0, 0, 0, 0}}, {.mac = {0x80, 0, 0, 0, 0, 0}}},
        {"units by their distance", {.ifUnit = 0}, {.ifUnit = 0x7fffffff}},
        {"units across the wrap", {.ifUnit = 0xffffffff}, {.ifUnit = 0}},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(compare(row.a, row.b), -1) << row.what;
        EXPECT_EQ(compare(row.b, row.a), 1) << row.what;
        EXPECT_EQ(compare(row.a, row.a), 0) << row.what;
    }
}

TEST_F(SrcTraceTable, UnitsFarApartCompareInTheOppositeSense)
{
    EXPECT_EQ(compare({.ifUnit = 0}, {.ifUnit = 0x80000001}), 1);
    EXPECT_EQ(compare({.ifUnit = 0x80000001}, {.ifUnit = 0}), -1);
    EXPECT_EQ(compare({.ifUnit = 1}, {.ifUnit = 0xfffffff0}), 1);
    EXPECT_EQ(compare({.ifUnit = 0xfffffff0}, {.ifUnit = 1}), -1);
}

TEST_F(SrcTraceTable, UnitsExactlyHalfTheRangeApartAreEachBeforeTheOther)
{
    EXPECT_EQ(compare({.ifUnit = 0}, {.ifUnit = 0x80000000}), -1);
    EXPECT_EQ(compare({.ifUnit = 0x80000000}, {.ifUnit = 0}), -1);
    EXPECT_EQ(compare({.ifUnit = 5}, {.ifUnit = 0x80000005}), -1);
    EXPECT_EQ(compare({.ifUnit = 0x80000005}, {.ifUnit = 5}), -1);
}

TEST_F(SrcTraceTable, WhatIsNoKeyIsNotCompared)
{
    tCpuDefendSrcTraceEntry a{}, b{};
    memset(b.dstIp, 1, sizeof b.dstIp);
    b.sysId = b.slotId = 1;
    b.outerVlan = b.innerVlan = 1;
    memset(b.pktData, 1, sizeof b.pktData);
    memset(b.res, 1, sizeof b.res);
    b.totalNum = 1;
    EXPECT_EQ(cpuDefendSrcTraceCmp(&a, &b), 0);
    EXPECT_EQ(cpuDefendSrcTraceCmp(&b, &a), 0);
}

// Units that go round in a circle have no order at all: whatever is found or not, the table holds.
TEST_F(SrcTraceTable, UnitsInACircleNeverBreakTheTable)
{
    restart(64, 2);
    const uint32_t units[] = {0, 0x60000000, 0xC0000000, 0x80000000, 0x20000000, 0xE0000000};
    std::mt19937 random(1);
    for (int step = 0; step < 2000; step++) {
        Key key{.ifUnit = units[random() % std::size(units)]};
        key.ip[3] = static_cast<uint8_t>(random() % 16);
        if (random() % 2)
            add(key);
        else if (tCpuDefendSrcTraceEntry *entry = get(key))
            cpuDefendSrcTraceEntryDel(entry);
        ASSERT_EQ(listed().size(), gCpuDefend.useSrcTraceNum);
        ASSERT_EQ(length(gCpuDefend.srcTraceFreeList),
                  gCpuDefend.maxSrcTraceNum - gCpuDefend.useSrcTraceNum);
    }
}

/* ---- Get and Add -------------------------------------------------------------------------- */

TEST_F(SrcTraceTable, NewEntryHasItsKeysAndIsZeroOtherwise)
{
    const tCpuDefendSrcTraceEntry *entry = add({9, {1, 2, 3, 4}, 14, {6, 5, 4, 3, 2, 1}});
    ASSERT_NE(entry, nullptr);
    tCpuDefendSrcTraceEntry expected{};
    expected.node = entry->node;
    expected.ifUnit = 9;
    memcpy(expected.srcIp, "\1\2\3\4", 4);
    expected.pktType = 14;
    memcpy(expected.srcMac, "\6\5\4\3\2\1", 6);
    EXPECT_EQ(memcmp(entry, &expected, offsetof(tCpuDefendSrcTraceEntry, totalNum) + 4), 0);
    EXPECT_EQ(gCpuDefend.useSrcTraceNum, 1u);
    EXPECT_EQ(length(gCpuDefend.srcTraceFreeList), gCpuDefend.maxSrcTraceNum - 1);
    EXPECT_EQ(seam::semTakes, 0);
}

TEST_F(SrcTraceTable, GetNeedsEveryKey)
{
    const tCpuDefendSrcTraceEntry *entry = add({});
    EXPECT_EQ(get({}), entry);
    EXPECT_EQ(get({.ifUnit = 8}), nullptr);
    EXPECT_EQ(get({.ip = {10, 0, 0, 2}}), nullptr);
    EXPECT_EQ(get({.pktType = 2}), nullptr);
    EXPECT_EQ(get({.mac = {2, 0, 0, 0, 0, 2}}), nullptr);
    EXPECT_EQ(gCpuDefend.useSrcTraceNum, 1u);
}

TEST_F(SrcTraceTable, KeyThatExistsGivesTheSameEntryUnchanged)
{
    tCpuDefendSrcTraceEntry *entry = add({});
    memset(entry->dstIp, 3, sizeof entry->dstIp);
    memset(entry->pktData, 4, sizeof entry->pktData);
    entry->totalNum = 5;
    entry->outerVlan = 6;
    entry->sysId = 7;
    const std::string before = image(*entry);
    EXPECT_EQ(add({}), entry);
    EXPECT_EQ(image(*entry), before);
    EXPECT_EQ(gCpuDefend.useSrcTraceNum, 1u);
}

TEST_F(SrcTraceTable, TypeIsCutTo8Bits)
{
    const tCpuDefendSrcTraceEntry *entry = add({.pktType = 0x10C});
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->pktType, 12);
    EXPECT_EQ(get({.pktType = 12}), entry);
    EXPECT_EQ(get({.pktType = 0xFFFFFF0C}), entry);
    EXPECT_EQ(add({.pktType = 12}), entry);
    EXPECT_EQ(gCpuDefend.useSrcTraceNum, 1u);
}

TEST_F(SrcTraceTable, MessageOfAFullPoolNamesTheCarTable)
{
    fill();
    const struct {
        uint8_t debug;
        std::string text;
    } rows[] = {{0, ""}, {1, "[cpuDefend] no memery to add carPkt!\r\n"}, {2, ""}};
    for (const auto &row : rows) {
        gCpuDefend.cpuDefendDebug = row.debug;
        CaptureStderr();
        EXPECT_EQ(add({.ifUnit = 100}), nullptr);
        EXPECT_EQ(GetCapturedStderr(), row.text) << +row.debug;
    }
}

/* ---- Del ---------------------------------------------------------------------------------- */

TEST_F(SrcTraceTable, EntryJustFreedIsTheOneThatTheNextSourceGets)
{
    fill();
    for (uint32_t unit : {5u, 0u, 7u, 3u}) {
        tCpuDefendSrcTraceEntry *entry = get({.ifUnit = unit});
        EXPECT_EQ(cpuDefendSrcTraceEntryDel(entry), 0);
        EXPECT_EQ(gCpuDefend.useSrcTraceNum, gCpuDefend.maxSrcTraceNum - 1);
        EXPECT_EQ(add({.ifUnit = 100 + unit}), entry);
    }
}

TEST_F(SrcTraceTable, FreedEntryIsZeroBehindItsLink)
{
    fill();
    tCpuDefendSrcTraceEntry *entry = get({.ifUnit = 4});
    memset(entry->dstIp, 0xFF, sizeof entry->dstIp);
    memset(entry->pktData, 0xFF, sizeof entry->pktData);
    entry->sysId = entry->slotId = 0xFF;
    entry->outerVlan = entry->innerVlan = 0xFFFF;
    entry->totalNum = 0xFFFFFFFF;
    cpuDefendSrcTraceEntryDel(entry);
    const std::string bytes = image(*entry);
    EXPECT_EQ(bytes.find_first_not_of('\0', sizeof(list_head)), std::string::npos);
    EXPECT_EQ(gCpuDefend.srcTraceFreeList.next, &entry->freeNode);
    EXPECT_EQ(get({.ifUnit = 4}), nullptr);
}
