// The end of a change: whose result its code is, and what comes of it.
#include <cerrno>
#include <functional>
#include <ostream>

#include "cards.h"
#include "cpuDefend/cpuDefend_change.h"
#include "nm_test.h"

using namespace cpudefend;

using Programmed = std::vector<std::string>;

class ChangeEnd : public CoreTest
{
protected:
    void SetUp() override
    {
        CoreTest::SetUp();
        addOneCallPolicy("a", 101);
        addOneCallPolicy("b", 102);
        addPolicy("c");
        addRule("c", 1);
    }

    /** A slot, as a card makes it, or as the debugging entry does. */
    tCpuDefendSlotEntry *haveSlot(bool byCard)
    {
        if (byCard)
            comes(PORT, 1, 5);
        else
            cpuDefendSlotEntryAdd(1, 5);
        scripted::reset();
        return cpuDefendSlotEntryGet(1, 5);
    }

    static std::string boundTo(const tCpuDefendSlotEntry *slot)
    {
        return std::string(reinterpret_cast<const char *>(slot->policyName), slot->policyNameLen) +
               (slot->policyEntry ? "=" + nameOf(slot->policyEntry) : "");
    }
};

static int32_t setSlot(uint32_t attr, Cell value)
{
    tcpuDefendSlotIdx idx{1, 5};
    return cpuDefendSlotSetApi(&idx, attr, &value);
}

static int32_t setGlobalTo(uint32_t attr, Cell value)
{
    return cpuDefendGlobalSetApi(0, attr, &value);
}

static int32_t setRule(uint32_t attr, uint32_t value)
{
    tcpuDefendUserDefinedIdx idx{};
    idx.policyName[0] = 'c';
    idx.policyNameLen = 1;
    idx.index = 1;
    return cpuDefendUserDefinedSetApi(&idx, attr, &value);
}

/** A set, with what is bound before it. */
struct Set {
    const char *name;
    std::function<void()> before;
    std::function<int32_t()> make;
};

static void PrintTo(const Set &set, std::ostream *out)
{
    *out << set.name;
}

static void nothing() {}

static void bindSystem()
{
    setGlobalTo(CPUDEFEND_GLOBAL_POLICY, Cell("a"));
}

static void selectSystemLevel()
{
    setGlobalTo(CPUDEFEND_GLOBAL_L1POLICYNAME, Cell("a"));
    gCpuDefend.selectedPosition = 1;
}

static void selectSlotLevel()
{
    setSlot(CPUDEFEND_SLOT_L3POLICYNAME, Cell("a"));
    cpuDefendSlotEntryGet(1, 5)->selectedPosition = 3;
}

class Programs : public ChangeEnd, public testing::WithParamInterface<Set>
{
};

TEST_P(Programs, SoTheCodeOfTheEndIsItsOwn)
{
    haveSlot(false);
    GetParam().before();
    scripted::reset();
    scripted::script.changeEnds = {EIO};
    EXPECT_EQ(GetParam().make(), EIO);
    EXPECT_FALSE(programmed().empty());
    EXPECT_EQ(scripted::changeDepth, 0u);
}

TEST_P(Programs, ButTheResultOfItsOwnCallGoesFirst)
{
    haveSlot(false);
    GetParam().before();
    scripted::reset();
    scripted::script.failAll = {{scripted::Call::AclAdd, 7}, {scripted::Call::AclDel, 7}};
    scripted::script.changeEnds = {EIO};
    EXPECT_EQ(GetParam().make(), 7);
}

static const Set programs[] = {
    {"BindingTheSystem", nothing, [] { return setGlobalTo(CPUDEFEND_GLOBAL_POLICY, Cell("a")); }},
    {"UnbindingTheSystem", bindSystem,
     [] { return setGlobalTo(CPUDEFEND_GLOBAL_POLICY, Cell("")); }},
    {"SystemIntoCpuRateMode", bindSystem,
     [] { return setGlobalTo(CPUDEFEND_GLOBAL_POLICYMODE, Cell(1)); }},
    {"SystemsLevelInForce", selectSystemLevel,
     [] { return setGlobalTo(CPUDEFEND_GLOBAL_L1POLICYNAME, Cell("b")); }},
    {"BindingASlot", nothing, [] { return setSlot(CPUDEFEND_SLOT_POLICY, Cell("a")); }},
    {"SlotIntoCpuRateMode", bindSystem, [] { return setSlot(CPUDEFEND_SLOT_POLICYMODE, Cell(1)); }},
    {"SlotsLevelInForce", selectSlotLevel,
     [] { return setSlot(CPUDEFEND_SLOT_L3POLICYNAME, Cell("b")); }},
};

INSTANTIATE_TEST_SUITE_P(Sets, Programs, testing::ValuesIn(programs),
                         [](const auto &each) { return each.param.name; });

class ProgramsNothing : public ChangeEnd, public testing::WithParamInterface<Set>
{
};

TEST_P(ProgramsNothing, SoTheCodeOfTheEndIsNotItsOwn)
{
    haveSlot(false);
    GetParam().before();
    scripted::reset();
    scripted::script.changeEnds = {EIO, EIO};
    EXPECT_EQ(GetParam().make(), 0);
    EXPECT_TRUE(programmed().empty());
}

static const Set programsNothing[] = {
    {"Debug", nothing, [] { return setGlobalTo(CPUDEFEND_GLOBAL_DEBUG, Cell(2)); }},
    {"BoundAlready", bindSystem, [] { return setGlobalTo(CPUDEFEND_GLOBAL_POLICY, Cell("a")); }},
    {"SystemsThreshold", nothing, [] { return setGlobalTo(CPUDEFEND_GLOBAL_L2CPURAT, Cell(50)); }},
    {"SystemsLevelNotInForce", selectSystemLevel,
     [] { return setGlobalTo(CPUDEFEND_GLOBAL_L2POLICYNAME, Cell("b")); }},
    {"SystemsModeWithNothingBound", nothing,
     [] { return setGlobalTo(CPUDEFEND_GLOBAL_POLICYMODE, Cell(1)); }},
    {"SystemsTraces", nothing, [] { return setGlobalTo(CPUDEFEND_GLOBAL_RESETSRCTRACE, Cell(0)); }},
    {"SystemsState", nothing,
     [] { return setGlobalTo(CPUDEFEND_GLOBAL_SYNCSTATE, Cell(std::string(12, '\0'))); }},
    {"SlotsThreshold", nothing, [] { return setSlot(CPUDEFEND_SLOT_L1CPURAT, Cell(50)); }},
    {"SlotsTraces", nothing, [] { return setSlot(CPUDEFEND_SLOT_RESETSRCTRACE, Cell(0)); }},
    {"SlotBackToFixedMode", [] { setSlot(CPUDEFEND_SLOT_POLICYMODE, Cell(1)); },
     [] { return setSlot(CPUDEFEND_SLOT_POLICYMODE, Cell(0)); }},
    {"Description", nothing, [] { return setPolicy("a", CPUDEFEND_POLICY_DESCRIPTION, "what"); }},
    {"CreatingAPolicy", nothing,
     [] { return setPolicy("new", CPUDEFEND_POLICY_ENTRYSTATUS, CPUDEFEND_ROW_CREATE); }},
    {"DestroyingAPolicy", nothing,
     [] { return setPolicy("b", CPUDEFEND_POLICY_ENTRYSTATUS, CPUDEFEND_ROW_DESTROY); }},
    {"Rule", nothing, [] { return setRule(CPUDEFEND_USERDEFINED_IP4ACL, 7); }},
    {"CarEntry", nothing, [] { return setCar("c", 1, CPUDEFEND_CARPKT_PPS, 7); }},
};

INSTANTIATE_TEST_SUITE_P(Sets, ProgramsNothing, testing::ValuesIn(programsNothing),
                         [](const auto &each) { return each.param.name; });

TEST_F(ChangeEnd, WhatOnlyFollowsFromASetIsNotItsProgramming)
{
    haveSlot(true);
    tCpuDefendSlotEntry *slot = cpuDefendSlotEntryGet(1, 5);
    setSlot(CPUDEFEND_SLOT_POLICYMODE, Cell(1));
    setGlobalTo(CPUDEFEND_GLOBAL_L1POLICYNAME, Cell("a"));
    gCpuDefend.selectedPosition = 1;
    scripted::reset();
    scripted::script.changeEnds = {EIO};
    EXPECT_EQ(setSlot(CPUDEFEND_SLOT_POLICYMODE, Cell(0)), 0);
    EXPECT_EQ(programmed(), Programmed{"+101 1/5"}) << "the system's level";
    EXPECT_EQ(slot->policyMode, CPUDEFEND_FIXED);
}

/* ---- Slots: what can't be programmed is not bound --------------------------------------- */

TEST_F(ChangeEnd, BindingThatFailsAtTheEndLeavesTheSlotUnbound)
{
    const tCpuDefendSlotEntry *slot = haveSlot(false);
    scripted::script.changeEnds = {ENOSPC};
    EXPECT_EQ(setSlot(CPUDEFEND_SLOT_POLICY, Cell("a")), ENOSPC);
    EXPECT_EQ(boundTo(slot), "");
    EXPECT_EQ(image(slot->policyName), std::string(32, '\0'));
    EXPECT_EQ(setSlot(CPUDEFEND_SLOT_POLICY, Cell("a")), 0) << "it is no change to none";
    EXPECT_EQ(boundTo(slot), "a=a");
}

TEST_F(ChangeEnd, UnbindingThatFailsAtTheEndLeavesTheSlotBound)
{
    const tCpuDefendSlotEntry *slot = haveSlot(false);
    ASSERT_EQ(setSlot(CPUDEFEND_SLOT_POLICY, Cell("a")), 0);
    scripted::script.changeEnds = {EIO};
    EXPECT_EQ(setSlot(CPUDEFEND_SLOT_POLICY, Cell("")), EIO);
    EXPECT_EQ(boundTo(slot), "a=a");
    EXPECT_EQ(setSlot(CPUDEFEND_SLOT_POLICY, Cell("")), 0);
    EXPECT_EQ(boundTo(slot), "");
}

TEST_F(ChangeEnd, WhatIsProgrammedFollowsTheBindingThatFailed)
{
    const tCpuDefendSlotEntry *slot = haveSlot(true);
    bindSystem();
    scripted::reset();
    scripted::script.changeEnds = {ENOSPC};
    EXPECT_EQ(setSlot(CPUDEFEND_SLOT_POLICY, Cell("b")), ENOSPC);
    EXPECT_EQ(programmed(), (Programmed{"+102 1/5", "-102 1/5", "-101 1/5", "+102 1/5", // bound
                                        "-102 1/5", "+101 1/5"}));                      // not
    EXPECT_EQ(scripted::changes, 2u);
    EXPECT_EQ(scripted::changesEnded, 2u);
    EXPECT_EQ(boundTo(slot), "");
    EXPECT_EQ(findPolicy("a")->refCount, 1u);
    EXPECT_EQ(findPolicy("b")->refCount, 0u);
}

/* ---- What the hardware drops at the end --------------------------------------------------- */

/** The end drops the ACL of a policy made by addOneCallPolicy. */
static tHwDropped acl(uint16_t number, const tCpuDefendSlotEntry *slot = nullptr)
{
    tHwDropped dropped{};
    dropped.result = ENOSPC;
    dropped.isAcl = 1;
    dropped.acl = number;
    dropped.action = ZYN_HW_OP_DENY;
    dropped.isSlot = slot != nullptr;
    if (slot)
        dropped.slot = cpuDefendSlotIndex(slot);
    return dropped;
}

/** What the event loop does at its next turn. */
static Programmed retried()
{
    scripted::calls.clear();
    {
        const Change change;
        cpuDefendRetry();
    }
    return programmed();
}

static int32_t bindSystemTo(Cell value)
{
    return setGlobalTo(CPUDEFEND_GLOBAL_POLICY, std::move(value));
}

TEST_F(ChangeEnd, DroppedEntryIsAskedForAgainAfterTheNextChange)
{
    scripted::script.drops = {{acl(101)}};
    EXPECT_EQ(bindSystemTo(Cell("a")), ENOSPC);
    EXPECT_EQ(getGlobal(CPUDEFEND_GLOBAL_POLICY, 32), (Answer<std::string>{0, "a"}));
    scripted::script.drops = {{acl(101)}};
    EXPECT_EQ(gCpuDefend.retryDue, 1);
    EXPECT_EQ(retried(), Programmed{"+101"}) << "dropped again";
    EXPECT_EQ(gCpuDefend.retryDue, 0);
    EXPECT_EQ(setGlobalTo(CPUDEFEND_GLOBAL_DEBUG, Cell(2)), 0);
    EXPECT_EQ(gCpuDefend.retryDue, 0) << "that has made no room";
    cpuDefendHwDel(nullptr, bytes("b"), 1);
    EXPECT_EQ(gCpuDefend.retryDue, 1);
    EXPECT_EQ(retried(), Programmed{"+101"});
    gCpuDefend.retryDue = 1;
    EXPECT_EQ(retried(), Programmed{}) << "it is in force";
    EXPECT_EQ(findPolicy("a")->refCount, 1u);
    EXPECT_EQ(findPolicy("b")->refCount, 0u);
}

TEST_F(ChangeEnd, DroppedEntryReturnsToItsPlaceInTheOrder)
{
    engine::nameLevel(gCpuDefend.cpuRatControl[0], "b");
    scripted::script.drops = {{acl(101)}};
    EXPECT_EQ(bindSystemTo(Cell("a")), ENOSPC);
    gCpuDefend.selectedPosition = 1;
    cpuDefendHwAdd(nullptr, findPolicy("b"));
    EXPECT_EQ(retried(), (Programmed{"-102", "+101", "+102"}));
    gCpuDefend.selectedPosition = 0;
    cpuDefendHwDel(nullptr, bytes("b"), 1);
}

TEST_F(ChangeEnd, OfEqualOnesTheNewestIsDropped)
{
    const auto *slot = haveSlot(true);
    findPolicy("b")->blackListIp4Acl = 101;
    bindSystem();
    engine::nameLevel(gCpuDefend.cpuRatControl[0], "b");
    scripted::reset();
    scripted::script.drops = {{acl(101, slot)}};
    {
        const Change change;
        gCpuDefend.selectedPosition = 1;
    }
    EXPECT_EQ(programmed(), Programmed{"+101 1/5"});
    {
        const Change change;
        gCpuDefend.selectedPosition = 0;
    }
    EXPECT_EQ(programmed().size(), 1u) << "there is nothing to remove";
    EXPECT_EQ(retried(), Programmed{});
}

TEST_F(ChangeEnd, DroppedCarEntryIsAskedForAgain)
{
    scripted::script.drops = {{}};
    tHwDropped &dropped = scripted::script.drops[0].emplace_back();
    dropped.result = ENOMEM;
    const tCpuDefendCarPktEntry *car = findCar("default", 3);
    dropped.car = {
        3,        car->cir, car->cbs, car->pps, car->queue, car->priority, ZYN_HW_OP_PERMIT,
        car->bit, {},       {},       {},       {}};
    EXPECT_EQ(bindSystemTo(Cell("default")), ENOMEM);
    retried();
    const auto calls = scripted::programming();
    ASSERT_EQ(calls.size(), 13u) << "those behind it are removed, and follow it";
    EXPECT_EQ(calls[0].car.pktType, 9u);
    EXPECT_EQ(calls[6].car.pktType, 3u);
    EXPECT_EQ(calls[6].cmd, uint32_t{HW_SYS_CPUDEFENDPKTCARADD});
}

TEST_F(ChangeEnd, SlotWhoseEntryIsDroppedIsLeftUnbound)
{
    const tCpuDefendSlotEntry *slot = haveSlot(true);
    scripted::script.drops = {{acl(101, slot)}};
    EXPECT_EQ(setSlot(CPUDEFEND_SLOT_POLICY, Cell("a")), ENOSPC);
    EXPECT_EQ(boundTo(slot), "");
    EXPECT_EQ(retried(), Programmed{});
}

TEST_F(ChangeEnd, SetIsNotBlamedForWhatIsDroppedOfAnother)
{
    const tCpuDefendSlotEntry *slot = haveSlot(true);
    bindSystem(); // asks for it too, but earlier
    ASSERT_EQ(setSlot(CPUDEFEND_SLOT_POLICY, Cell("b")), 0);
    scripted::reset();
    scripted::script.drops = {{acl(101, slot)}};
    EXPECT_EQ(setSlot(CPUDEFEND_SLOT_POLICY, Cell("")), 0);
    EXPECT_EQ(programmed(), (Programmed{"-102 1/5", "+101 1/5"})) << "the system's";
    EXPECT_EQ(boundTo(slot), "");
    EXPECT_EQ(retried(), Programmed{"+101 1/5"});
}

TEST_F(ChangeEnd, SlaveDoesNotAskAgainButWillAsMaster)
{
    scripted::script.drops = {{acl(101)}};
    EXPECT_EQ(bindSystemTo(Cell("a")), ENOSPC);
    scripted::script.slave = true;
    EXPECT_EQ(retried(), Programmed{});
    EXPECT_EQ(gCpuDefend.retryDue, 1);
    scripted::script.slave = false;
    EXPECT_EQ(retried(), Programmed{"+101"});
}

TEST_F(ChangeEnd, CountersAreNotAskedOfWhatIsNotThere)
{
    scripted::script.drops = {{}};
    tHwDropped &dropped = scripted::script.drops[0].emplace_back();
    const tCpuDefendCarPktEntry *car = findCar("default", 3);
    dropped.result = ENOMEM;
    dropped.car = {
        3,        car->cir, car->cbs, car->pps, car->queue, car->priority, ZYN_HW_OP_PERMIT,
        car->bit, {},       {},       {},       {}};
    EXPECT_EQ(bindSystemTo(Cell("default")), ENOMEM);
    scripted::counted.clear();
    cpuDefendHwCarCount(car);
    EXPECT_TRUE(scripted::counted.empty());
    cpuDefendHwCarCount(findCar("default", 4));
    EXPECT_EQ(scripted::counted.size(), 1u);
}
