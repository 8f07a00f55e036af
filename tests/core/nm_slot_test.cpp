// The slot API: binding, modes and levels of a slot, resetting its traces, the walk, the console.
#include <functional>

#include "nm_test.h"

using scripted::Call;

static constexpr int32_t noSlot = 19, noName = 0x041E0004;
static constexpr uint32_t octetsFlag = 0x80000000u;

static int32_t setSlot(uint32_t sysId, uint32_t slotId, uint32_t attr, Cell value)
{
    tcpuDefendSlotIdx idx{sysId, slotId};
    return cpuDefendSlotSetApi(&idx, attr, &value);
}

static Answer<uint32_t> getSlot(uint32_t sysId, uint32_t slotId, uint32_t attr)
{
    tcpuDefendSlotIdx idx{sysId, slotId};
    Cell value(untouched);
    const int32_t code = cpuDefendSlotGetApi(&idx, attr, &value);
    return {code, value.number()};
}

static Answer<std::string> getSlot(uint32_t sysId, uint32_t slotId, uint32_t attr, uint32_t room)
{
    tcpuDefendSlotIdx idx{sysId, slotId};
    Cell value = Cell::room(room);
    const int32_t code = cpuDefendSlotGetApi(&idx, attr, &value);
    return {code, value.text()};
}

class SlotApi : public CoreTest
{
protected:
    void SetUp() override
    {
        CoreTest::SetUp();
        restart(8, 6);
        slot = cpuDefendSlotEntryAdd(1, 5);
        a = addOneCallPolicy("a", 101);
        b = addOneCallPolicy("b", 102);
        scripted::reset();
    }

    static int32_t set(uint32_t attr, uint32_t value) { return setSlot(1, 5, attr, Cell(value)); }
    static int32_t set(uint32_t attr, const std::string &text)
    {
        return setSlot(1, 5, attr, Cell(text));
    }

    /** Bind @a name to the slot and forget the calls. */
    void bind(const std::string &name)
    {
        ASSERT_EQ(set(CPUDEFEND_SLOT_POLICY, name), 0);
        scripted::reset();
    }

    std::string boundName() const
    {
        return std::string(reinterpret_cast<const char *>(slot->policyName), slot->policyNameLen);
    }

    /** The slot's record and everything beside it. */
    std::string state() const { return image(gCpuDefend) + image(*slot) + image(*a) + image(*b); }

    tCpuDefendSlotEntry *slot;
    tCpuDefendPolicyEntry *a, *b;
};

using Programmed = std::vector<std::string>;

/* ---- Get ------------------------------------------------------------------------------ */

TEST_F(SlotApi, EveryNumberIsRead)
{
    slot->policyMode = 1;
    for (uint8_t i = 0; i < 3; i++)
        slot->cpuRatControl[i].cpuRat = static_cast<uint8_t>(200 + i);
    EXPECT_EQ(getSlot(1, 5, CPUDEFEND_SLOT_POLICYMODE), (Answer<uint32_t>{0, 1}));
    EXPECT_EQ(getSlot(1, 5, CPUDEFEND_SLOT_L1CPURAT), (Answer<uint32_t>{0, 200}));
    EXPECT_EQ(getSlot(1, 5, CPUDEFEND_SLOT_L2CPURAT), (Answer<uint32_t>{0, 201}));
    EXPECT_EQ(getSlot(1, 5, CPUDEFEND_SLOT_L3CPURAT), (Answer<uint32_t>{0, 202}));
    slot->policyMode = 0;
}

TEST_F(SlotApi, EveryNameIsReadUpToTheRoomGiven)
{
    bind("a");
    for (int i = 0; i < 3; i++)
        storeLevel(slot->cpuRatControl[i], "level " + std::to_string(i + 1));
    using Read = Answer<std::string>;
    EXPECT_EQ(getSlot(1, 5, CPUDEFEND_SLOT_POLICY, 40), (Read{0, "a"}));
    EXPECT_EQ(getSlot(1, 5, CPUDEFEND_SLOT_L1POLICYNAME, 40), (Read{0, "level 1"}));
    EXPECT_EQ(getSlot(1, 5, CPUDEFEND_SLOT_L2POLICYNAME, 7), (Read{0, "level 2"}));
    EXPECT_EQ(getSlot(1, 5, CPUDEFEND_SLOT_L3POLICYNAME, 5), (Read{0, "level"}));
    EXPECT_EQ(getSlot(1, 5, CPUDEFEND_SLOT_L3POLICYNAME, 0), (Read{0, ""}));
}

TEST_F(SlotApi, ResetAndUnknownAttributesReadAsNothing)
{
    for (uint32_t attr : {CPUDEFEND_SLOT_RESETSRCTRACE + 0u, 9u, 10u, 255u, 256u, 0xffffffffu})
        EXPECT_EQ(getSlot(1, 5, attr), (Answer<uint32_t>{0, untouched})) << attr;
}

TEST_F(SlotApi, UnknownSlotIs19ForEveryAttribute)
{
    const std::string before = state();
    for (const auto &[sysId, slotId] : std::vector<std::pair<uint32_t, uint32_t>>{
             {0, 0}, {1, 4}, {5, 1}, {1, 0x105}, {0x101, 5}, {1, 0xffffffff}})
        for (uint32_t attr = 0; attr < 12; attr++) {
            EXPECT_EQ(getSlot(sysId, slotId, attr), (Answer<uint32_t>{noSlot, untouched})) << attr;
            EXPECT_EQ(setSlot(sysId, slotId, attr, Cell("a")), noSlot) << attr;
        }
    EXPECT_EQ(state(), before);
    EXPECT_TRUE(scripted::calls.empty());
}

TEST_F(SlotApi, NumbersAbove255AreCutAndNeverFoundAgain)
{
    cpuDefendSlotEntryAdd(0x102, 0x107);
    EXPECT_EQ(getSlot(0x102, 0x107, CPUDEFEND_SLOT_POLICYMODE).code, noSlot);
    EXPECT_EQ(getSlot(2, 7, CPUDEFEND_SLOT_POLICYMODE).code, 0);
}

TEST_F(SlotApi, UnknownAttributesCannotBeSet)
{
    const std::string before = state();
    for (uint32_t attr : {9u, 10u, 255u, 256u, 0xffffffffu})
        EXPECT_EQ(set(attr, "a"), -1) << attr;
    EXPECT_EQ(state(), before);
    EXPECT_TRUE(scripted::calls.empty());
}

/* ---- Fixed policy --------------------------------------------------------------------- */

TEST_F(SlotApi, BindingIsSynchronisedThenProgrammed)
{
    EXPECT_EQ(set(CPUDEFEND_SLOT_POLICY, "a"), 0);
    EXPECT_EQ(boundName(), "a");
    EXPECT_EQ(slot->policyEntry, a);
    EXPECT_EQ(a->refCount, 1u);
    EXPECT_EQ(programmed(), Programmed{"+101 1/5"});
    EXPECT_EQ(callKinds(), (std::vector<Call>{Call::SlotSync, Call::AclAdd}));
    EXPECT_EQ(scripted::programming().front().slotType, 0);
    const scripted::Record sync = synced().front();
    EXPECT_EQ(sync.slot, (std::pair<uint32_t, uint32_t>{1, 5}));
    EXPECT_EQ(sync.slotType, 0);
    EXPECT_EQ(sync.cmd, 8001u);
    EXPECT_EQ(sync.flag, 3 | octetsFlag);
    EXPECT_EQ(sync.octets, "a");
}

TEST_F(SlotApi, ReplayedBindingDiffersInItsFlagOnly)
{
    tcpuDefendSlotIdx idx{1, 5};
    Cell name("a");
    EXPECT_EQ(cpuDefendSlotSyncApi(&idx, CPUDEFEND_SLOT_POLICY, &name), 0);
    EXPECT_EQ(synced().front().flag, 1 | octetsFlag);
    EXPECT_EQ(programmed(), Programmed{"+101 1/5"});
    EXPECT_EQ(boundName(), "a");
}

TEST_F(SlotApi, BindingAnotherRemovesTheOldFirst)
{
    bind("a");
    EXPECT_EQ(set(CPUDEFEND_SLOT_POLICY, "b"), 0);
    EXPECT_EQ(programmed(), (Programmed{"-101 1/5", "+102 1/5"}));
    EXPECT_EQ(boundName(), "b");
    EXPECT_EQ(slot->policyEntry, b);
    EXPECT_EQ(a->refCount, 0u);
    EXPECT_EQ(b->refCount, 1u);
}

TEST_F(SlotApi, CurrentNameIsNoChange)
{
    bind("a");
    EXPECT_EQ(set(CPUDEFEND_SLOT_POLICY, "a"), 0);
    EXPECT_TRUE(scripted::calls.empty());
    EXPECT_EQ(a->refCount, 1u);
}

TEST_F(SlotApi, EmptyNameUnbinds)
{
    bind("a");
    EXPECT_EQ(set(CPUDEFEND_SLOT_POLICY, ""), 0);
    EXPECT_EQ(programmed(), Programmed{"-101 1/5"});
    EXPECT_EQ(synced().front().octets, "");
    EXPECT_EQ(slot->policyNameLen, 0);
    EXPECT_EQ(image(slot->policyName), std::string(32, '\0'));
    EXPECT_EQ(slot->policyEntry, nullptr);
    EXPECT_EQ(a->refCount, 0u);
    scripted::reset();
    EXPECT_EQ(set(CPUDEFEND_SLOT_POLICY, ""), 0);
    EXPECT_TRUE(scripted::calls.empty());
}

TEST_F(SlotApi, UnknownNameChangesNothing)
{
    bind("a");
    const std::string before = state();
    for (const std::string &name : {std::string("aa"), std::string(33, 'a'), std::string(300, 'a')})
        EXPECT_EQ(set(CPUDEFEND_SLOT_POLICY, name), noName);
    EXPECT_EQ(state(), before);
    EXPECT_TRUE(scripted::calls.empty());
}

TEST_F(SlotApi, NameOf32BytesIsBound)
{
    const std::string name(32, 'n');
    addPolicy(name);
    EXPECT_EQ(set(CPUDEFEND_SLOT_POLICY, name), 0);
    EXPECT_EQ(boundName(), name);
    EXPECT_EQ(slot->sysId, 1); // the byte behind the name's length
}

TEST_F(SlotApi, BindingFailsAfterTheOldIsRemovedAndLeavesTheSlotUnbound)
{
    bind("a");
    scripted::script.failAll[Call::AclAdd] = 28;
    EXPECT_EQ(set(CPUDEFEND_SLOT_POLICY, "b"), 28);
    EXPECT_EQ(programmed(), (Programmed{"-101 1/5", "+102 1/5"}));
    EXPECT_EQ(slot->policyNameLen, 0);
    EXPECT_EQ(slot->policyEntry, nullptr);
    EXPECT_EQ(a->refCount, 0u);
    EXPECT_EQ(b->refCount, 1u); // counted whatever the hardware answered
}

TEST_F(SlotApi, FailedRemovalKeepsTheBinding)
{
    bind("a");
    scripted::script.failAll[Call::AclDel] = 5;
    EXPECT_EQ(set(CPUDEFEND_SLOT_POLICY, ""), 5);
    EXPECT_EQ(boundName(), "a");
    EXPECT_EQ(slot->policyEntry, a);
}

TEST_F(SlotApi, FailedRemovalDoesNotStopTheNewBinding)
{
    bind("a");
    scripted::script.failAll[Call::AclDel] = 5;
    EXPECT_EQ(set(CPUDEFEND_SLOT_POLICY, "b"), 0);
    EXPECT_EQ(programmed(), (Programmed{"-101 1/5", "+102 1/5"}));
    EXPECT_EQ(boundName(), "b");
    EXPECT_EQ(slot->policyEntry, b);
}

TEST_F(SlotApi, FailedRemovalAndProgrammingKeepTheOldName)
{
    bind("a");
    scripted::script.failAll = {{Call::AclDel, 5}, {Call::AclAdd, 6}};
    EXPECT_EQ(set(CPUDEFEND_SLOT_POLICY, "b"), 6);
    EXPECT_EQ(boundName(), "a");
}

TEST_F(SlotApi, ModeIsNotConsultedForAFixedPolicy)
{
    ASSERT_EQ(set(CPUDEFEND_SLOT_POLICYMODE, CPUDEFEND_CPURAT_CONTROL), 0);
    scripted::reset();
    EXPECT_EQ(set(CPUDEFEND_SLOT_POLICY, "a"), 0);
    EXPECT_EQ(programmed(), Programmed{"+101 1/5"});
    EXPECT_EQ(boundName(), "a");
}

TEST_F(SlotApi, SlaveBindsTheNameAndProgramsNothing)
{
    scripted::script.slave = true;
    EXPECT_EQ(set(CPUDEFEND_SLOT_POLICY, "a"), 0);
    EXPECT_TRUE(programmed().empty());
    EXPECT_EQ(boundName(), "a");
    EXPECT_EQ(a->refCount, 0u);
}

/* ---- Synchronisation ------------------------------------------------------------------ */

struct SlotSyncRow {
    const char *name;
    uint32_t attr;
    bool octets;  /**< a name, not a number */
    bool flagged; /**< its synchronisation says that it carries bytes */
};

/** A level's name travels without the flag that a slot's fixed policy has. */
static const SlotSyncRow changes[] = {
    {"Policy", 0, true, true},        {"ResetSrcTrace", 1, false, false},
    {"PolicyMode", 2, false, false},  {"L1CpuRat", 3, false, false},
    {"L1PolicyName", 4, true, false}, {"L2CpuRat", 5, false, false},
    {"L2PolicyName", 6, true, false}, {"L3CpuRat", 7, false, false},
    {"L3PolicyName", 8, true, false},
};

class SlotSync : public SlotApi, public testing::WithParamInterface<SlotSyncRow>
{
protected:
    const SlotSyncRow &change = GetParam();
    Cell value() const { return change.octets ? Cell("b") : Cell(1); }

    void SetUp() override
    {
        SlotApi::SetUp();
        a->srcTraceEnable = CPUDEFEND_DISABLE;
        bind("a");
        for (tCpuDefendCpuRatControl &level : slot->cpuRatControl)
            storeLevel(level, "a");
        slot->selectedPosition = 2;
    }
};

TEST_P(SlotSync, IsIdentified8001PlusTheAttributeAndFlagged)
{
    tcpuDefendSlotIdx idx{1, 5};
    for (uint32_t flag : {3u, 1u}) {
        scripted::reset();
        slot->policyMode = 0; // so that the replay is a change, too
        Cell cell = change.octets ? Cell(flag == 3 ? "b" : "") : Cell(flag);
        EXPECT_EQ(flag == 3 ? cpuDefendSlotSetApi(&idx, change.attr, &cell)
                            : cpuDefendSlotSyncApi(&idx, change.attr, &cell),
                  0);
        const scripted::Record sync = synced().at(0);
        EXPECT_EQ(sync.call, Call::SlotSync);
        EXPECT_EQ(sync.slot, (std::pair<uint32_t, uint32_t>{1, 5}));
        EXPECT_EQ(sync.cmd, 8001 + change.attr);
        EXPECT_EQ(sync.flag, flag | (change.flagged ? octetsFlag : 0));
        if (!change.octets) {
            EXPECT_EQ(sync.number, flag);
        }
    }
}

TEST_P(SlotSync, FailingChangesNothing)
{
    const std::string before = state();
    for (int32_t result : {77, -5}) {
        scripted::script.failAll[Call::SlotSync] = result;
        EXPECT_EQ(setSlot(1, 5, change.attr, value()), result);
        EXPECT_EQ(state(), before);
        EXPECT_TRUE(programmed().empty());
    }
}

INSTANTIATE_TEST_SUITE_P(SlotApi, SlotSync, testing::ValuesIn(changes),
                         [](const testing::TestParamInfo<SlotSyncRow> &row) {
                             return std::string(row.param.name);
                         });

/* ---- Mode ----------------------------------------------------------------------------- */

TEST_F(SlotApi, CpuRateModeUnbindsTheSystemAndLeavesTheSlotsOwnPolicyProgrammed)
{
    cpuDefendSlotEntryAdd(1, 6);
    bind("a");
    ASSERT_EQ(setGlobal(CPUDEFEND_GLOBAL_POLICY, "b"), 0);
    scripted::reset();
    slot->selectedPosition = 3;

    EXPECT_EQ(set(CPUDEFEND_SLOT_POLICYMODE, CPUDEFEND_CPURAT_CONTROL), 0);
    EXPECT_EQ(slot->policyMode, 1);
    EXPECT_EQ(slot->selectedPosition, 0);
    EXPECT_EQ(gCpuDefend.policyNameLen, 0);
    EXPECT_EQ(programmed(), Programmed{"-102 1/6"}); // 1/5 keeps its own
    EXPECT_EQ(boundName(), "a");
    EXPECT_EQ(a->refCount, 1u);
    const std::vector<scripted::Record> syncs = synced();
    ASSERT_EQ(syncs.size(), 2u);
    EXPECT_EQ(syncs[0].cmd, 8003u);
    EXPECT_EQ(syncs[1].cmd, 8000u);
    EXPECT_EQ(syncs[1].flag, 3 | octetsFlag);
    EXPECT_EQ(syncs[1].octets, "");
}

TEST_F(SlotApi, BackToFixedModeRestoresNothing)
{
    ASSERT_EQ(setGlobal(CPUDEFEND_GLOBAL_POLICY, "b"), 0);
    ASSERT_EQ(set(CPUDEFEND_SLOT_POLICYMODE, 1), 0);
    scripted::reset();
    slot->selectedPosition = 2;
    EXPECT_EQ(set(CPUDEFEND_SLOT_POLICYMODE, 0), 0);
    EXPECT_EQ(slot->policyMode, 0);
    EXPECT_EQ(slot->selectedPosition, 2);
    EXPECT_EQ(gCpuDefend.policyNameLen, 0);
    EXPECT_TRUE(programmed().empty());
    EXPECT_EQ(synced().size(), 1u);
}

TEST_F(SlotApi, ModeOnAReplayUnbindsTheSystemAsALocalChange)
{
    ASSERT_EQ(setGlobal(CPUDEFEND_GLOBAL_POLICY, "b"), 0);
    scripted::reset();
    tcpuDefendSlotIdx idx{1, 5};
    Cell mode(1);
    EXPECT_EQ(cpuDefendSlotSyncApi(&idx, CPUDEFEND_SLOT_POLICYMODE, &mode), 0);
    ASSERT_EQ(synced().size(), 2u);
    EXPECT_EQ(synced()[0].flag, 1u);
    EXPECT_EQ(synced()[1].flag, 3 | octetsFlag);
}

TEST_F(SlotApi, ModeReturnsTheUnbindingsResult)
{
    ASSERT_EQ(setGlobal(CPUDEFEND_GLOBAL_POLICY, "b"), 0);
    scripted::reset();
    scripted::script.failAll[Call::ScalarSync] = 44;
    EXPECT_EQ(set(CPUDEFEND_SLOT_POLICYMODE, 1), 44);
    EXPECT_EQ(slot->policyMode, 1);
    EXPECT_EQ(gCpuDefend.policyNameLen, 1); // still bound
    scripted::reset();
    ASSERT_EQ(set(CPUDEFEND_SLOT_POLICYMODE, 0), 0);
    scripted::script.failAll[Call::AclDel] = 45;
    EXPECT_EQ(set(CPUDEFEND_SLOT_POLICYMODE, 1), 45);
    EXPECT_EQ(gCpuDefend.policyNameLen, 0);
}

TEST_F(SlotApi, CurrentModeIsNoChange)
{
    slot->selectedPosition = 2;
    EXPECT_EQ(set(CPUDEFEND_SLOT_POLICYMODE, 0), 0);
    EXPECT_EQ(slot->selectedPosition, 2);
    EXPECT_TRUE(scripted::calls.empty());
}

TEST_F(SlotApi, ModeIsItsLowByte)
{
    EXPECT_EQ(set(CPUDEFEND_SLOT_POLICYMODE, 0x7702), 0);
    EXPECT_EQ(slot->policyMode, 2);
    EXPECT_EQ(getSlot(1, 5, CPUDEFEND_SLOT_POLICYMODE), (Answer<uint32_t>{0, 2}));
    EXPECT_EQ(slot->res[0], 0); // the byte beside it
}

TEST_F(SlotApi, ModeWhoseLowByteIs1IsCpuRateMode)
{
    setGlobal(CPUDEFEND_GLOBAL_POLICY, std::string("a"));
    slot->selectedPosition = 2;
    EXPECT_EQ(set(CPUDEFEND_SLOT_POLICYMODE, 0x101), 0);
    EXPECT_EQ(slot->policyMode, 1);
    EXPECT_EQ(gCpuDefend.policyNameLen, 0);
    EXPECT_EQ(slot->selectedPosition, 0);
}

TEST_F(SlotApi, NumbersAreEqualInAllTheirBitsOrNot)
{
    for (uint32_t attr : {CPUDEFEND_SLOT_POLICYMODE, CPUDEFEND_SLOT_L1CPURAT,
                          CPUDEFEND_SLOT_L2CPURAT, CPUDEFEND_SLOT_L3CPURAT}) {
        ASSERT_EQ(set(attr, 1), 0);
        scripted::reset();
        for (uint32_t other : {0x101u, 0x10001u, 0x80000001u}) {
            EXPECT_EQ(set(attr, other), 0);
            ASSERT_FALSE(synced().empty()) << attr << " is not what it was";
            EXPECT_EQ(synced().back().number, other);
            EXPECT_EQ(getSlot(1, 5, attr), (Answer<uint32_t>{0, 1}));
        }
        scripted::reset();
        EXPECT_EQ(set(attr, 1), 0);
        EXPECT_TRUE(synced().empty()) << attr;
    }
}

/* ---- Levels --------------------------------------------------------------------------- */

TEST_F(SlotApi, ThresholdsAreCutTo8Bits)
{
    for (uint32_t i = 0; i < 3; i++) {
        const uint32_t attr = CPUDEFEND_SLOT_L1CPURAT + 2 * i;
        EXPECT_EQ(set(attr, 300 + i), 0);
        EXPECT_EQ(slot->cpuRatControl[i].cpuRat, 44 + i);
        EXPECT_EQ(slot->cpuRatControl[i].policyNameLen, 0); // the byte beside it
        EXPECT_EQ(synced().back().number, 300 + i);
        EXPECT_EQ(set(attr, 90 + i), 0);
        EXPECT_EQ(slot->cpuRatControl[i].cpuRat, 90 + i);
    }
    scripted::reset();
    EXPECT_EQ(set(CPUDEFEND_SLOT_L3CPURAT, 92), 0);
    EXPECT_TRUE(scripted::calls.empty()); // no change
}

struct SlotLevelRow {
    const char *name;
    uint8_t position;
    uint32_t nameAttr;
};

class SlotLevel : public SlotApi, public testing::WithParamInterface<SlotLevelRow>
{
protected:
    const uint8_t position = GetParam().position;
    int32_t rename(const std::string &name) { return set(GetParam().nameAttr, name); }
    tCpuDefendCpuRatControl &level() { return slot->cpuRatControl[position - 1]; }

    void SetUp() override
    {
        SlotApi::SetUp();
        for (tCpuDefendCpuRatControl &each : slot->cpuRatControl)
            storeLevel(each, "default");
        storeLevel(level(), "a");
        a->refCount = 1; // as though the level were in force
    }
    void TearDown() override
    {
        a->refCount = 0;
        SlotApi::TearDown();
    }
};

TEST_P(SlotLevel, NameInForceIsRemovedAndTheSelectionReset)
{
    slot->selectedPosition = position;
    EXPECT_EQ(rename("b"), 0);
    EXPECT_EQ(callKinds(), (std::vector<Call>{Call::SlotSync, Call::AclDel}));
    EXPECT_EQ(programmed(), Programmed{"-101 1/5"}); // its own, for L2 as for the others
    EXPECT_EQ(slot->selectedPosition, 0);
    EXPECT_EQ(levelName(level()), "b");
    EXPECT_EQ(b->refCount, 0u); // the next sample programs it
}

TEST_P(SlotLevel, NameNotInForceRemovesNothing)
{
    for (uint8_t selected : {0, 1, 2, 3, 4, 255}) {
        if (selected == position)
            continue;
        storeLevel(level(), "a");
        slot->selectedPosition = selected;
        EXPECT_EQ(rename("b"), 0);
        EXPECT_EQ(slot->selectedPosition, selected);
        EXPECT_EQ(levelName(level()), "b");
    }
    EXPECT_TRUE(programmed().empty());
}

TEST_P(SlotLevel, RemovalsResultIsReturnedAndTheNameStoredAllTheSame)
{
    slot->selectedPosition = position;
    scripted::script.failAll[Call::AclDel] = 66;
    EXPECT_EQ(rename("b"), 66);
    EXPECT_EQ(levelName(level()), "b");
    EXPECT_EQ(slot->selectedPosition, 0);
}

TEST_P(SlotLevel, EmptyNameClearsTheLevel)
{
    EXPECT_EQ(rename(""), 0);
    EXPECT_EQ(image(level().policyName), std::string(32, '\0'));
    EXPECT_EQ(level().policyNameLen, 0);
    scripted::reset();
    EXPECT_EQ(rename(""), 0);
    EXPECT_TRUE(scripted::calls.empty());
}

TEST_P(SlotLevel, ShorterNameLeavesNothingOfTheLonger)
{
    storeLevel(level(), "default");
    EXPECT_EQ(rename("b"), 0);
    EXPECT_EQ(image(level().policyName), "b" + std::string(31, '\0'));
}

TEST_P(SlotLevel, CurrentOrUnknownNameChangesNothing)
{
    slot->selectedPosition = position;
    const std::string before = state();
    EXPECT_EQ(rename("a"), 0);
    EXPECT_EQ(rename("nobody"), noName);
    EXPECT_EQ(rename(std::string(33, 'a')), noName);
    EXPECT_EQ(state(), before);
    EXPECT_TRUE(scripted::calls.empty());
}

static const SlotLevelRow levels[] = {{"L1", 1, 4}, {"L2", 2, 6}, {"L3", 3, 8}};

INSTANTIATE_TEST_SUITE_P(SlotApi, SlotLevel, testing::ValuesIn(levels),
                         [](const testing::TestParamInfo<SlotLevelRow> &row) {
                             return std::string(row.param.name);
                         });

TEST_F(SlotApi, L2NameWithL1SelectedRemovesNothing)
{
    storeLevel(slot->cpuRatControl[0], "a");
    storeLevel(slot->cpuRatControl[1], "a");
    slot->selectedPosition = 1;
    EXPECT_EQ(set(CPUDEFEND_SLOT_L2POLICYNAME, "b"), 0);
    EXPECT_TRUE(programmed().empty());
    EXPECT_EQ(slot->selectedPosition, 1);
}

/* ---- Reset of source tracing ---------------------------------------------------------- */

class SlotReset : public SlotApi
{
protected:
    static void trace(uint32_t ifUnit, uint8_t sysId, uint8_t slotId)
    {
        const uint8_t ip[4] = {10, 0, 0, 1}, mac[6] = {2, 0, 0, 0, 0, 1};
        tCpuDefendSrcTraceEntry *entry = cpuDefendSrcTraceEntryAdd(ifUnit, ip, 1, mac);
        ASSERT_NE(entry, nullptr);
        entry->sysId = sysId;
        entry->slotId = slotId;
    }

    /** The units of the sources that are left. */
    static std::vector<uint32_t> left()
    {
        std::vector<uint32_t> units;
        for (void *at = avl_first(&gCpuDefend.srcTraceList); at;
             at = avl_next(&gCpuDefend.srcTraceList, at))
            units.push_back(static_cast<tCpuDefendSrcTraceEntry *>(at)->ifUnit);
        return units;
    }

    void SetUp() override
    {
        SlotApi::SetUp();
        trace(1, 1, 5);
        trace(2, 1, 6);
        trace(3, 1, 5);
        trace(4, 2, 5);
        trace(5, 0, 0);
        trace(6, 1, 5);
    }

    static int32_t reset() { return set(CPUDEFEND_SLOT_RESETSRCTRACE, 12345); }
    using Units = std::vector<uint32_t>;
    const Units all{1, 2, 3, 4, 5, 6}, others{2, 4, 5};
};

TEST_F(SlotReset, DeletesOnlyTheSlotsOwn)
{
    bind("a");
    a->srcTraceEnable = CPUDEFEND_ENABLE;
    EXPECT_EQ(reset(), 0);
    EXPECT_EQ(left(), others);
    EXPECT_EQ(gCpuDefend.useSrcTraceNum, 3u);
    EXPECT_EQ(synced().at(0).cmd, 8002u);
    EXPECT_EQ(synced().at(0).flag, 3u);
    EXPECT_EQ(reset(), 0); // none left: nothing to do
    EXPECT_EQ(left(), others);
    a->srcTraceEnable = 0;
}

TEST_F(SlotReset, DeletesNothingWithoutABoundPolicyThatTraces)
{
    EXPECT_EQ(reset(), 0); // nothing bound
    bind("a");
    for (uint8_t enable : {0, 2, 3, 255}) {
        a->srcTraceEnable = enable;
        EXPECT_EQ(reset(), 0);
    }
    EXPECT_EQ(left(), all);
    EXPECT_EQ(scripted::count(Call::SlotSync), 4u); // since bind forgot the first
    a->srcTraceEnable = 0;
}

TEST_F(SlotReset, GoesByTheRecordNotTheName)
{
    memcpy(slot->policyName, "a", 1);
    slot->policyNameLen = 1; // a name, but no record
    a->srcTraceEnable = CPUDEFEND_ENABLE;
    EXPECT_EQ(reset(), 0);
    EXPECT_EQ(left(), all);
    a->srcTraceEnable = 0;
}

TEST_F(SlotReset, FailingSynchronisationDeletesNothing)
{
    bind("a");
    a->srcTraceEnable = CPUDEFEND_ENABLE;
    scripted::script.failAll[Call::SlotSync] = 77;
    EXPECT_EQ(reset(), 77);
    EXPECT_EQ(left(), all);
    a->srcTraceEnable = 0;
}

TEST_F(SlotReset, FindsADestroyedPolicyCleared)
{
    bind("a");
    a->srcTraceEnable = CPUDEFEND_ENABLE;
    a->refCount = 0; // as more removals than additions leave it
    ASSERT_EQ(setPolicy("a", CPUDEFEND_POLICY_ENTRYSTATUS, CPUDEFEND_ROW_DESTROY), 0);
    ASSERT_EQ(slot->policyEntry, a);
    EXPECT_EQ(reset(), 0);
    EXPECT_EQ(left(), all);
    EXPECT_EQ(set(CPUDEFEND_SLOT_POLICY, ""), noName); // nothing to remove by that name
    EXPECT_EQ(boundName(), "a");
}

/* ---- Walk ----------------------------------------------------------------------------- */

using SlotKey = std::pair<uint32_t, uint32_t>;

static Answer<std::string> nextSlot(uint32_t sysId, uint32_t slotId)
{
    tcpuDefendSlotIdx idx{sysId, slotId}, after{77, 88};
    const int32_t code = cpuDefendSlotGetNext(&idx, &after);
    return {code, std::to_string(after.sysId) + "/" + std::to_string(after.slotId)};
}

TEST_F(SlotApi, WalkInTheOrderOfCreationNeverVisitsASlotBehindAGreaterOne)
{
    cpuDefendSlotEntryAdd(1, 2);
    cpuDefendSlotEntryAdd(1, 9);
    std::vector<SlotKey> visited;
    tcpuDefendSlotIdx idx{};
    for (int32_t code = cpuDefendSlotGetFirst(&idx); code == 0 && visited.size() < 10;
         code = cpuDefendSlotGetNext(&idx, &idx))
        visited.emplace_back(idx.sysId, idx.slotId);
    EXPECT_EQ(visited, (std::vector<SlotKey>{{1, 5}, {1, 9}})); // and never 1/2
}

TEST_F(SlotApi, WalkGoesOnAfterAPairThatDoesNotExist)
{
    cpuDefendSlotEntryAdd(2, 0);
    cpuDefendSlotEntryAdd(1, 2);
    using Next = Answer<std::string>;
    EXPECT_EQ(nextSlot(0, 0), (Next{0, "1/5"}));
    EXPECT_EQ(nextSlot(1, 1), (Next{0, "1/5"}));
    EXPECT_EQ(nextSlot(1, 5), (Next{0, "2/0"}));
    EXPECT_EQ(nextSlot(1, 0xffffffff), (Next{0, "2/0"}));
    EXPECT_EQ(nextSlot(2, 0), (Next{-1, "77/88"}));
    EXPECT_EQ(nextSlot(0xffffffff, 0), (Next{-1, "77/88"}));
    EXPECT_EQ(nextSlot(0, 0xffffffff), (Next{0, "1/5"}));
}

TEST_F(SlotApi, WalkOfAnEmptyTableEndsAtOnce)
{
    cpuDefendSlotEntryDel(slot);
    tcpuDefendSlotIdx idx{77, 88};
    EXPECT_EQ(cpuDefendSlotGetFirst(&idx), -1);
    EXPECT_EQ(idx.sysId, 77u);
    EXPECT_EQ(idx.slotId, 88u);
    EXPECT_EQ(nextSlot(0, 0), (Answer<std::string>{-1, "77/88"}));
}

/* ---- Console -------------------------------------------------------------------------- */

static void show()
{
    cpuDefendSlotShow();
}

TEST_F(SlotApi, ShowPrintsTheFailingCallsLineToo)
{
    cpuDefendSlotEntryAdd(1, 2);
    cpuDefendSlotEntryAdd(1, 9);
    EXPECT_EQ(output(show), "sysId=1,slotId=5,\r\n"
                            "sysId=1,slotId=9,ret=0,\r\n"
                            "sysId=1,slotId=9,ret=-1,\r\n");
}

TEST_F(SlotApi, ShowPrintsALineForAnEmptyTable)
{
    cpuDefendSlotEntryDel(slot);
    EXPECT_EQ(output(show), "sysId=0,slotId=0,\r\n");
}

TEST_F(SlotApi, TestMakesTwoSlotsAndBindsThePolicyTest)
{
    tCpuDefendPolicyEntry *test = addOneCallPolicy("test", 103);
    scripted::reset();
    int32_t result = -1;
    EXPECT_EQ(output([&] { result = cpuDefendSlotTest(); }), "cpuDefendSlotTest ret=0,\r\n");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(gCpuDefend.useSlotNum, 3u);
    EXPECT_EQ(programmed(), (Programmed{"+103 1/0", "+103 1/1"}));
    EXPECT_EQ(test->refCount, 2u);
    for (uint32_t slotId : {0u, 1u})
        EXPECT_EQ(getSlot(1, slotId, CPUDEFEND_SLOT_POLICY, 32), (Answer<std::string>{0, "test"}));
}

TEST_F(SlotApi, TestPrintsTheLastResultWithoutThePolicy)
{
    int32_t result = -1;
    EXPECT_EQ(output([&] { result = cpuDefendSlotTest(); }),
              "cpuDefendSlotTest ret=69074948,\r\n"); // no policy so named
    EXPECT_EQ(result, 0);
}

TEST_F(SlotApi, TestWithoutRoomSaysSoForEachSlot)
{
    restart(8, 1);
    EXPECT_EQ(output(cpuDefendSlotTest), "pSlotEntry is null!\r\n"
                                         "cpuDefendSlotTest ret=19,\r\n");
    EXPECT_EQ(gCpuDefend.useSlotNum, 1u);
    EXPECT_EQ(output(cpuDefendSlotTest), "pSlotEntry is null!\r\n"
                                         "pSlotEntry is null!\r\n"
                                         "cpuDefendSlotTest ret=19,\r\n");
}

static const char fourLines[] = "1.d=3,\r\n2.d=2,\r\n3.d=2,\r\n4.d=2,\r\n";

TEST_F(SlotApi, TestcpuDefendPrintsFourLines)
{
    EXPECT_EQ(output(testcpuDefend), fourLines);
}

TEST_F(SlotApi, AdeRunsTheTablesConsoleTestsInTheirOrder)
{
    for (tCpuDefendCarPktEntry *entry : carEntries())
        if (entry != findCar("default", 3))
            cpuDefendCarPktEntryDel(entry);
    EXPECT_EQ(output(ade), "**************************************\r\n"
                           "policyName=default,pktType=3,cbs=6400,cir=16,deny=2,pri=2" +
                               std::string(fourLines) +
                               "cpuDefendSlotTest ret=69074948,\r\n"
                               "111.ret=65536002,ifUnit=0,pktType=0.\r\n");
}

/* ---- Semaphore and kinds -------------------------------------------------------------- */

TEST_F(SlotApi, SemaphoreIsTakenByEveryCall)
{
    tcpuDefendSlotIdx idx{};
    const std::vector<std::pair<int, std::function<void()>>> all{
        {1, [] { getSlot(1, 5, 2); }},
        {1, [] { getSlot(1, 5, 99); }},
        {1, [] { getSlot(9, 9, 2); }},
        {1, [] { set(CPUDEFEND_SLOT_POLICY, "a"); }},
        {1, [] { set(CPUDEFEND_SLOT_POLICY, "nobody"); }},
        {1, [] { set(CPUDEFEND_SLOT_RESETSRCTRACE, 1); }},
        {1, [] { set(CPUDEFEND_SLOT_L1CPURAT, 5); }},
        {1, [] { set(CPUDEFEND_SLOT_L1POLICYNAME, "a"); }},
        {1, [] { set(99, 5); }},
        {1, [] { setSlot(9, 9, 2, Cell(1)); }},
        {2, [] { set(CPUDEFEND_SLOT_POLICYMODE, 1); }}, // the global handler takes it again
        {1, [] { set(CPUDEFEND_SLOT_POLICYMODE, 0); }},
        {1, [&] { cpuDefendSlotGetFirst(&idx); }},
        {1, [&] { cpuDefendSlotGetNext(&idx, &idx); }},
    };
    for (size_t i = 0; i < all.size(); i++) {
        seam::semTakes = 0;
        all[i].second();
        EXPECT_EQ(seam::semTakes, all[i].first) << i;
        EXPECT_EQ(seam::semDepth, 0) << i;
    }
}

TEST(SlotAttrKind, TellsNumbersFromNamesAndTheReset)
{
    for (uint32_t attr : {0u, 4u, 6u, 8u})
        EXPECT_EQ(cpuDefendSlotAttrKind(attr), NM_OCTETS) << attr;
    for (uint32_t attr : {2u, 3u, 5u, 7u})
        EXPECT_EQ(cpuDefendSlotAttrKind(attr), NM_NUMBER) << attr;
    for (uint32_t attr : {1u, 9u, 255u, 0xffffffffu})
        EXPECT_EQ(cpuDefendSlotAttrKind(attr), NM_ANY) << attr;
}
