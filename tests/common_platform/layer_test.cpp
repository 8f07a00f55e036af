/**
 * What the contract asks of the layer behind it, and when: changes and counters. The layer here
 * notes what it is asked.
 */
#include "layer.h"

#include <cerrno>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "contract.h"
#include "journal.h"
#include "memory/scratch.h"
#include "zynacl.h"

namespace
{

std::string trail;
layer::tCarCounts told;
int32_t answer;

void note(const char *what, const tSlotIndex *slot = nullptr)
{
    trail += (trail.empty() ? "" : " ") + std::string(what);
    if (slot != nullptr)
        trail += '@' + std::to_string(slot->sys) + '/' + std::to_string(slot->slot);
}

} // namespace

int32_t layer::carAdd(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &) noexcept
{
    note("+car", slot);
    return answer;
}

int32_t layer::carDel(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &) noexcept
{
    note("-car", slot);
    return answer;
}

int32_t layer::aclAdd(const tSlotIndex *slot, const tAclSetting &) noexcept
{
    note("+acl", slot);
    return answer;
}

int32_t layer::aclDel(const tSlotIndex *slot, const tAclSetting &) noexcept
{
    note("-acl", slot);
    return answer;
}

int32_t layer::carCount(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry,
                        tCarCounts *counts) noexcept
{
    note(entry.pktType == 1 ? "count" : "other", slot);
    *counts = told;
    return answer;
}

void layer::changeBegin() noexcept
{
    note("(");
}

int32_t layer::changeEnd() noexcept
{
    note(")");
    return answer;
}

bool layer::isSlave() noexcept
{
    return false;
}

int32_t layer::cpuUsage(uint32_t, uint32_t *) noexcept
{
    return EIO;
}

int32_t layer::place(uint32_t, tPhyIfInfo *) noexcept
{
    return ENODEV;
}

namespace
{

const tSlotIndex slot = {1, 2, 0};

tHwCpuDefendPktCarEntry car()
{
    tHwCpuDefendPktCarEntry entry = {};
    entry.pktType = 1;
    entry.op = ZYN_HW_OP_PERMIT;
    return entry;
}

int32_t carSet(bool add)
{
    tHwCpuDefendPktCarEntry entry = car();
    return zynHwSlotSet(&slot, add ? HW_SLOT_CPUDEFENDPKTCARADD : HW_SLOT_CPUDEFENDPKTCARDEL,
                        &entry, 3);
}

int32_t systemSet()
{
    tHwCpuDefendPktCarEntry entry = car();
    tHwApiFunc func = {HW_SYS_CPUDEFENDPKTCARADD, &entry, 0, 0, 0, 0};
    return zynScalarSetApi(0, 0, &func);
}

int32_t aclSet(bool add, uint16_t number = 2000)
{
    return add ? acl_cpudefend_add(nullptr, number, ZYN_HW_OP_PERMIT, 16, 6400, 6400)
               : acl_cpudefend_del(nullptr, number, ZYN_HW_OP_PERMIT, 16, 6400, 6400);
}

struct Layer : testing::Test {
    Layer()
    {
        trail.clear();
        told = {};
        answer = 0;
    }
    ~Layer() override { contractFailNone(); }
};

uint64_t whole(const U_INT8 &number)
{
    return uint64_t{number.high} << 32 | number.low;
}

} // namespace

using LayerChange = Layer;
using LayerCount = Layer;

/* ---- Changes -------------------------------------------------------------------------- */

TEST_F(LayerChange, CallOutsideOfOneStandsByItself)
{
    carSet(true);
    carSet(false);
    systemSet();
    aclSet(true);
    aclSet(false);
    EXPECT_EQ(trail, "+car@1/2 -car@1/2 +car +acl -acl");
}

TEST_F(LayerChange, CallsWithinOneAreTogether)
{
    zynHwChangeBegin();
    carSet(true);
    aclSet(true);
    carSet(false);
    zynHwChangeEnd();
    EXPECT_EQ(trail, "( +car@1/2 +acl -car@1/2 )");
}

TEST_F(LayerChange, OutermostOneCounts)
{
    zynHwChangeBegin();
    zynHwChangeBegin();
    aclSet(true);
    zynHwChangeEnd();
    zynHwChangeBegin();
    zynHwChangeBegin();
    zynHwChangeEnd();
    zynHwChangeEnd();
    aclSet(false);
    EXPECT_EQ(trail, "( +acl -acl");
    zynHwChangeEnd();
    EXPECT_EQ(trail, "( +acl -acl )");
}

TEST_F(LayerChange, EndWithoutABeginningIsIgnored)
{
    zynHwChangeEnd();
    zynHwChangeEnd();
    EXPECT_EQ(trail, "");
    zynHwChangeBegin();
    aclSet(true);
    zynHwChangeEnd();
    zynHwChangeEnd();
    aclSet(true);
    EXPECT_EQ(trail, "( +acl ) +acl");
}

TEST_F(LayerChange, EndOfTheOutermostOneSaysWhatTheLayerSays)
{
    answer = EIO;
    zynHwChangeBegin();
    zynHwChangeBegin();
    EXPECT_EQ(zynHwChangeEnd(), 0);
    EXPECT_EQ(zynHwChangeEnd(), EIO);
    EXPECT_EQ(zynHwChangeEnd(), 0) << "it had ended";
}

TEST_F(LayerChange, WhatIsRefusedOrFailsAsOrderedIsNone)
{
    EXPECT_EQ(aclSet(true, 0), EINVAL);
    contractFailAt(1, EIO);
    EXPECT_EQ(carSet(true), EIO);
    EXPECT_EQ(trail, "");
}

TEST_F(LayerChange, AsksForNothingByItself)
{
    Scratch scratch;
    ASSERT_EQ(journalOpen(scratch.path("journal").c_str()), 0);
    contractFailAt(1, EIO);
    zynHwChangeBegin();
    zynHwChangeEnd();
    journalClose();
    EXPECT_EQ(scratch.read("journal"), "");
    EXPECT_EQ(trail, "( )");
    EXPECT_EQ(aclSet(true), EIO) << "it was no call that fails";
}

/* ---- Counters ------------------------------------------------------------------------- */

TEST_F(LayerCount, NumbersAreToldInHalves)
{
    told = {0x0000000100000002, UINT64_MAX, 0xFFFFFFFF, 0x8000000000000000};
    tHwCpuDefendPktCarEntry entry = car();
    EXPECT_EQ(zynHwCarCount(&slot, &entry), 0);
    EXPECT_EQ(trail, "count@1/2");
    EXPECT_EQ(entry.PassPkt.high, 1u);
    EXPECT_EQ(entry.PassPkt.low, 2u);
    EXPECT_EQ(whole(entry.DropPkt), UINT64_MAX);
    EXPECT_EQ(entry.PassOct.high, 0u);
    EXPECT_EQ(whole(entry.PassOct), 0xFFFFFFFFu);
    EXPECT_EQ(whole(entry.DropOct), 0x8000000000000000u);
    EXPECT_EQ(zynHwCarCount(nullptr, &entry), 0);
    EXPECT_EQ(trail, "count@1/2 count");
}

TEST_F(LayerCount, AreInTheJournalWithAllTheirBits)
{
    Scratch scratch;
    ASSERT_EQ(journalOpen(scratch.path("journal").c_str()), 0);
    told = {1, UINT64_MAX, 4294967296, 0};
    tHwCpuDefendPktCarEntry entry = car();
    zynHwCarCount(nullptr, &entry);
    journalClose();
    const std::string line = scratch.read("journal");
    EXPECT_NE(line.find(R"("call":"zynHwCarCount","slot":null,"entry":{"pktType":1,"cir":0,)"
                        R"("cbs":0,"pps":0,"queue":0,"priority":0,"op":11,"bit":0},"passPkt":1,)"
                        R"("dropPkt":18446744073709551615,"passOct":4294967296,"dropOct":0,)"
                        R"("result":0})"),
              std::string::npos)
        << line;
}

TEST_F(LayerCount, FailureLeavesTheEntryAsItWas)
{
    told = {1, 2, 3, 4};
    answer = ENOENT;
    tHwCpuDefendPktCarEntry entry = car();
    entry.PassPkt = entry.DropOct = {7, 8};
    EXPECT_EQ(zynHwCarCount(&slot, &entry), ENOENT);
    EXPECT_EQ(whole(entry.PassPkt), 0x0000000700000008u);
    EXPECT_EQ(whole(entry.DropPkt), 0u);
    EXPECT_EQ(whole(entry.PassOct), 0u);
    EXPECT_EQ(whole(entry.DropOct), 0x0000000700000008u);
}

TEST_F(LayerCount, NothingIsTakenByAFailureThatWasOrdered)
{
    tHwCpuDefendPktCarEntry entry = car();
    contractFailAt(1, EIO);
    EXPECT_EQ(zynHwCarCount(&slot, &entry), EIO);
    EXPECT_EQ(trail, "");
    EXPECT_EQ(zynHwCarCount(&slot, &entry), 0);
    EXPECT_EQ(trail, "count@1/2");
}
