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
#include "refusals.h"
#include "zynacl.h"

namespace
{

std::string trail;
layer::tCarCounts told;
int32_t answer;
const char *why;
std::vector<layer::tDropped> drops;
uint64_t clockReading; // in ms

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

const layer::tDropped *layer::dropped(uint32_t n) noexcept
{
    return n < drops.size() ? &drops[n] : nullptr;
}

const char *layer::reason() noexcept
{
    return why;
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
        why = nullptr;
        drops.clear();
        clockReading = 1000000;
        osClockSet([] { return clockReading; });
        refusals::forget();
    }
    ~Layer() override
    {
        contractFailNone();
        osClockSet(nullptr);
    }
};

uint64_t whole(const U_INT8 &number)
{
    return uint64_t{number.high} << 32 | number.low;
}

} // namespace

using LayerChange = Layer;
using LayerCount = Layer;
using LayerRefusal = Layer;

/* ---- Changes -------------------------------------------------------------------------- */

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

TEST_F(LayerChange, WhatWasDroppedAtItsEndIsToldAsOftenAsAsked)
{
    drops.resize(2);
    drops[0].entry.acl = 2000;
    drops[1].entry.acl = 2001;
    for (int i = 0; i < 2; i++) {
        tHwDropped dropped = {};
        EXPECT_EQ(zynHwDropped(1, &dropped), 0);
        EXPECT_EQ(dropped.acl, 2001);
        EXPECT_EQ(zynHwDropped(0, &dropped), 0);
        EXPECT_EQ(dropped.acl, 2000);
        EXPECT_EQ(zynHwDropped(2, &dropped), ENOENT);
        EXPECT_EQ(dropped.acl, 2000) << "untouched";
    }
}

/* ---- Refusals are said ---------------------------------------------------------------- */

/** What is said on standard error by @a work. */
template <class Work> std::string said(Work work)
{
    testing::internal::CaptureStderr();
    work();
    return testing::internal::GetCapturedStderr();
}

/** What is said when an ACL is asked for and the layer answers so. */
std::string asked(int32_t result, uint16_t number = 2000)
{
    answer = result;
    return said([&] { EXPECT_EQ(aclSet(true, number), answer); });
}

/** What is said when it is asked for in a change, at whose end it is dropped or not. */
std::string askedInChange(bool isDropped, uint16_t number = 2000)
{
    answer = 0;
    zynHwChangeBegin();
    std::string text = said([&] { EXPECT_EQ(aclSet(true, number), 0); });
    EXPECT_EQ(text, "");
    drops.clear();
    if (isDropped) {
        layer::tDropped &dropped = drops.emplace_back();
        dropped.reason = "it is too big";
        dropped.entry.result = ENOSPC;
        dropped.entry.isAcl = 1;
        dropped.entry.acl = number;
        dropped.entry.action = ZYN_HW_OP_PERMIT;
        dropped.entry.cir = 16;
        dropped.entry.cbs = dropped.entry.ebs = 6400;
    }
    return said([] { EXPECT_EQ(zynHwChangeEnd(), 0); });
}

const std::string lost = "[platform] ACL 2000 (permit) is not put in force on the system: ";
const std::string lostForSpace = lost + "No space left on device\n";

TEST_F(LayerRefusal, IsSaidWithPlaceEntryAndReason)
{
    answer = ENOSPC;
    EXPECT_EQ(said([] { aclSet(true); }), lostForSpace);
    EXPECT_EQ(said([] { carSet(true); }),
              "[platform] CAR entry for packet type 1 (permit) is not put in force on slot 1/2: "
              "No space left on device\n");
    why = "it is too big";
    EXPECT_EQ(said([] { systemSet(); }),
              "[platform] CAR entry for packet type 1 (permit) is not put in force on the system: "
              "it is too big\n");
    EXPECT_EQ(said([] { acl_cpudefend_add(&slot, 7, ZYN_HW_OP_DENY, 0, 0, 0); }),
              "[platform] ACL 7 (deny) is not put in force on slot 1/2: it is too big\n");
}

TEST_F(LayerRefusal, WhatIsTakenOrRemovedIsNotTalkedAbout)
{
    EXPECT_EQ(asked(0), "");
    EXPECT_EQ(said([] { aclSet(false); }), "");
    EXPECT_EQ(said([] { carSet(true), carSet(false), systemSet(); }), "");
    answer = ENOENT;
    EXPECT_EQ(said([] { aclSet(false), carSet(false); }), "") << "it is not there any more";
}

TEST_F(LayerRefusal, RemovalThatFailsIsSaid)
{
    answer = EIO;
    const std::string stays = "[platform] ACL 2000 (permit) is not removed on the system: "
                              "Input/output error\n";
    EXPECT_EQ(said([] { aclSet(false); }), stays);
    EXPECT_EQ(said([] { aclSet(false); }), "");
    clockReading += 60000;
    EXPECT_EQ(said([] { aclSet(false); }), stays);
    EXPECT_NE(asked(EIO), "") << "that is something else";
    refusals::forget();
    EXPECT_NE(asked(EIO), "");
    EXPECT_EQ(said([] { aclSet(false); }), stays);
}

TEST_F(LayerRefusal, OrderedFailureIsOneWithoutTheLayersReason)
{
    why = "it is too big";
    asked(EFBIG);
    contractFailAt(1, ENOSPC);
    EXPECT_EQ(said([] { EXPECT_EQ(aclSet(true), ENOSPC); }), lostForSpace);
}

TEST_F(LayerRefusal, WhatNoHardwareCouldDoIsNone)
{
    tHwCpuDefendPktCarEntry entry = car(), odd = car();
    odd.pktType = 59;
    const tSlotIndex itself = {0, 0, 0};
    for (const auto &[place, arg] :
         {std::pair{&slot, &odd}, {&itself, &entry}, {nullptr, &entry}, {&slot, nullptr}})
        EXPECT_EQ(said([&, to = place, what = arg] {
                      EXPECT_EQ(zynHwSlotSet(to, HW_SLOT_CPUDEFENDPKTCARADD, what, 3), EINVAL);
                  }),
                  "");
    EXPECT_EQ(said([] { EXPECT_EQ(aclSet(true, 0), EINVAL); }), "");
    EXPECT_EQ(said([] { EXPECT_EQ(zynScalarSetApi(0, 0, nullptr), EINVAL); }), "");
}

TEST_F(LayerRefusal, IsSaidOnceHoweverOftenItIsAskedForAgain)
{
    EXPECT_EQ(asked(ENOSPC), lostForSpace);
    for (int i = 0; i < 5; i++) {
        clockReading += 3600000;
        EXPECT_EQ(asked(ENOSPC), "");
    }
}

TEST_F(LayerRefusal, IsSaidAgainForAnotherReason)
{
    EXPECT_EQ(asked(ENOSPC), lostForSpace);
    EXPECT_EQ(asked(ENOMEM), lost + "Cannot allocate memory\n");
    EXPECT_EQ(asked(ENOMEM), "");
}

TEST_F(LayerRefusal, IsSaidAgainOnceItHadBeenTaken)
{
    EXPECT_EQ(asked(ENOSPC), lostForSpace);
    EXPECT_EQ(asked(0), "");
    EXPECT_EQ(asked(ENOSPC), lostForSpace);
}

TEST_F(LayerRefusal, IsSaidAgainAMinuteAfterItWasWithdrawn)
{
    EXPECT_EQ(asked(ENOSPC), lostForSpace);
    answer = ENOENT;
    aclSet(false);
    clockReading += 59999;
    EXPECT_EQ(asked(ENOSPC), "") << "so that one which comes and goes is not said each time";
    answer = ENOENT;
    aclSet(false);
    clockReading += 60000;
    EXPECT_EQ(asked(ENOSPC), lostForSpace);
}

TEST_F(LayerRefusal, WhatAChangesEndDropsIsOne)
{
    EXPECT_EQ(askedInChange(true), lost + "it is too big\n");
    EXPECT_EQ(askedInChange(true), "") << "it was taken only until the end";
    EXPECT_EQ(askedInChange(false), "");
    EXPECT_EQ(askedInChange(true), lost + "it is too big\n");
}

TEST_F(LayerRefusal, TakenByAChangeThatFailsCountsNot)
{
    EXPECT_EQ(asked(ENOSPC), lostForSpace);
    zynHwChangeBegin();
    answer = 0;
    aclSet(true);
    answer = EIO;
    EXPECT_EQ(zynHwChangeEnd(), EIO);
    EXPECT_EQ(asked(ENOSPC), "");
}

TEST_F(LayerRefusal, WhatWasWithdrawnLongAgoMakesRoom)
{
    const auto askAndWithdraw = [](uint16_t number) {
        asked(ENOSPC, number);
        answer = ENOENT;
        aclSet(false, number);
    };
    asked(ENOSPC, 60001);
    for (uint16_t number = 1; number <= 2000; number++) {
        askAndWithdraw(number);
        clockReading += 1000;
    }
    EXPECT_EQ(asked(ENOSPC, 60001), "");
    EXPECT_LE(refusals::count(), 128u);
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
