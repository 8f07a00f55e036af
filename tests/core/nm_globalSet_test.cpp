// Sets of the global attributes that reach beyond the system's record: slots, levels, traces.
#include <functional>

#include "nm_test.h"

using scripted::Call;

static constexpr int32_t noName = 0x041E0004;
static constexpr uint32_t octetsFlag = 0x80000000u;

using Programmed = std::vector<std::string>;

class GlobalSet : public CoreTest
{
protected:
    void SetUp() override
    {
        CoreTest::SetUp();
        restart(8, 6);
        a = addOneCallPolicy("a", 101);
        b = addOneCallPolicy("b", 102);
        c = addOneCallPolicy("c", 103);
        scripted::reset();
    }
    void TearDown() override
    {
        cpuDefendTest = 0;
        CoreTest::TearDown();
    }

    static int32_t set(uint32_t attr, uint32_t value)
    {
        Cell cell(value);
        return cpuDefendGlobalSetApi(0, attr, &cell);
    }
    static int32_t set(uint32_t attr, const std::string &text)
    {
        Cell cell(text);
        return cpuDefendGlobalSetApi(0, attr, &cell);
    }

    /** Slots 1/1 to 1/3, the second with a policy of its own, c. */
    void addSlots()
    {
        for (uint32_t slotId = 1; slotId <= 3; slotId++)
            slots[slotId - 1] = cpuDefendSlotEntryAdd(1, slotId);
        tcpuDefendSlotIdx idx{1, 2};
        Cell name("c");
        ASSERT_EQ(cpuDefendSlotSetApi(&idx, CPUDEFEND_SLOT_POLICY, &name), 0);
        scripted::reset();
    }

    static void bind(const std::string &name)
    {
        ASSERT_EQ(set(CPUDEFEND_GLOBAL_POLICY, name), 0);
        scripted::reset();
    }

    std::string state() const { return image(gCpuDefend) + image(*a) + image(*b) + image(*c); }

    tCpuDefendPolicyEntry *a, *b, *c;
    tCpuDefendSlotEntry *slots[3];
};

/* ---- The system's policy with slots --------------------------------------------------- */

TEST_F(GlobalSet, PolicyIsBoundOnlyToSlotsWithoutOneOfTheirOwn)
{
    addSlots();
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_POLICY, "a"), 0);
    EXPECT_EQ(programmed(), (Programmed{"+101 1/1", "+101 1/3"}));
    EXPECT_EQ(a->refCount, 2u);
    for (const tCpuDefendSlotEntry *slot : {slots[0], slots[2]})
        EXPECT_EQ(slot->policyNameLen, 0); // the binding is the system's
    EXPECT_EQ(slots[1]->policyEntry, c);
}

TEST_F(GlobalSet, AnotherPolicyIsRemovedFromAllBeforeItIsBoundToAny)
{
    addSlots();
    bind("a");
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_POLICY, "b"), 0);
    EXPECT_EQ(programmed(), (Programmed{"-101 1/1", "-101 1/3", "+102 1/1", "+102 1/3"}));
    EXPECT_EQ(a->refCount, 0u);
    EXPECT_EQ(b->refCount, 2u);
}

TEST_F(GlobalSet, EmptyPolicyUnbindsFromEverySlotWithoutItsOwn)
{
    addSlots();
    bind("a");
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_POLICY, ""), 0);
    EXPECT_EQ(programmed(), (Programmed{"-101 1/1", "-101 1/3"}));
    EXPECT_EQ(gCpuDefend.policyNameLen, 0);
    EXPECT_EQ(c->refCount, 1u);
}

TEST_F(GlobalSet, SlotsInCpuRateModeFollowTheSystemsPolicyToo)
{
    addSlots();
    slots[0]->policyMode = CPUDEFEND_CPURAT_CONTROL;
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_POLICY, "a"), 0);
    EXPECT_EQ(programmed(), (Programmed{"+101 1/1", "+101 1/3"}));
}

TEST_F(GlobalSet, ResultIsThatOfTheLastSlot)
{
    addSlots();
    scripted::script.failAt[1] = 5; // slot 1/1, behind the synchronisation
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_POLICY, "a"), 0);
    scripted::reset();
    scripted::script.failAt[2] = 6; // slot 1/3
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_POLICY, ""), 6);
    EXPECT_EQ(gCpuDefend.policyNameLen, 0); // unbound all the same
    scripted::reset();
    scripted::script.failAt[2] = 7;
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_POLICY, "b"), 7);
    EXPECT_EQ(gCpuDefend.policyNameLen, 1); // and bound
}

TEST_F(GlobalSet, ResultIs0WhenEverySlotKeepsItsOwn)
{
    tCpuDefendSlotEntry *slot = cpuDefendSlotEntryAdd(1, 1);
    slot->policyNameLen = 1;
    slot->policyName[0] = 'c';
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_POLICY, "a"), 0);
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_POLICY, ""), 0);
    EXPECT_TRUE(programmed().empty());
    EXPECT_EQ(a->refCount, 0u);
}

/* ---- Mode ----------------------------------------------------------------------------- */

TEST_F(GlobalSet, CpuRateModeUnbindsAndBackRestoresNothing)
{
    bind("a");
    gCpuDefend.selectedPosition = 2;
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_POLICYMODE, 1), 0);
    EXPECT_EQ(programmed(), Programmed{"-101"});
    EXPECT_EQ(gCpuDefend.policyMode, 1);
    EXPECT_EQ(gCpuDefend.selectedPosition, 0);
    EXPECT_EQ(gCpuDefend.policyNameLen, 0);
    EXPECT_EQ(image(gCpuDefend.policyName), std::string(32, '\0'));
    scripted::reset();
    gCpuDefend.selectedPosition = 3;
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_POLICYMODE, 0), 0);
    EXPECT_TRUE(programmed().empty());
    EXPECT_EQ(gCpuDefend.policyMode, 0);
    EXPECT_EQ(gCpuDefend.selectedPosition, 3); // the level stays in force
    EXPECT_EQ(gCpuDefend.policyNameLen, 0);
}

TEST_F(GlobalSet, CpuRateModeUnbindsFromSlotsWithoutTheirOwn)
{
    addSlots();
    bind("a");
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_POLICYMODE, 1), 0);
    EXPECT_EQ(programmed(), (Programmed{"-101 1/1", "-101 1/3"}));
    EXPECT_EQ(scripted::count(Call::ScalarSync), 1u); // the name is not synchronised on its own
}

TEST_F(GlobalSet, CpuRateModeWithNothingBoundProgramsNothing)
{
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_POLICYMODE, 1), 0);
    EXPECT_TRUE(programmed().empty());
}

TEST_F(GlobalSet, ModeReturnsTheLastRemovalsResult)
{
    bind("a");
    scripted::script.failAll[Call::AclDel] = 45;
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_POLICYMODE, 1), 45);
    EXPECT_EQ(gCpuDefend.policyMode, 1);
    EXPECT_EQ(gCpuDefend.policyNameLen, 0);
}

TEST_F(GlobalSet, CurrentModeIsNoChange)
{
    gCpuDefend.selectedPosition = 2;
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_POLICYMODE, 0), 0);
    gCpuDefend.policyMode = 1;
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_POLICYMODE, 1), 0);
    EXPECT_EQ(gCpuDefend.selectedPosition, 2);
    EXPECT_TRUE(scripted::calls.empty());
}

TEST_F(GlobalSet, ModeIsItsLowByte)
{
    bind("a");
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_POLICYMODE, 0x7702), 0);
    EXPECT_EQ(gCpuDefend.policyMode, 2); // neither mode: nothing is unbound
    EXPECT_TRUE(programmed().empty());
    EXPECT_EQ(gCpuDefend.policyNameLen, 1);
}

TEST_F(GlobalSet, ModeWhoseLowByteIs1IsCpuRateMode)
{
    bind("a");
    gCpuDefend.selectedPosition = 2;
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_POLICYMODE, 0x101), 0);
    EXPECT_EQ(gCpuDefend.policyMode, 1);
    EXPECT_EQ(gCpuDefend.policyNameLen, 0);
    EXPECT_EQ(gCpuDefend.selectedPosition, 0);
}

TEST_F(GlobalSet, NumbersAreEqualInAllTheirBitsOrNot)
{
    for (uint32_t attr : {CPUDEFEND_GLOBAL_POLICYMODE, CPUDEFEND_GLOBAL_L1CPURAT,
                          CPUDEFEND_GLOBAL_L2CPURAT, CPUDEFEND_GLOBAL_L3CPURAT}) {
        ASSERT_EQ(set(attr, 1), 0);
        scripted::reset();
        for (uint32_t other : {0x101u, 0x10001u, 0x80000001u}) {
            EXPECT_EQ(set(attr, other), 0);
            ASSERT_FALSE(synced().empty()) << attr << " is not what it was";
            EXPECT_EQ(synced().back().number, other);
            EXPECT_EQ(getGlobal(attr), (Answer<uint32_t>{0, 1}));
        }
        scripted::reset();
        EXPECT_EQ(set(attr, 1), 0);
        EXPECT_TRUE(synced().empty()) << attr;
    }
}

/* ---- Thresholds ----------------------------------------------------------------------- */

TEST_F(GlobalSet, ThresholdsAreCutTo8Bits)
{
    for (uint32_t i = 0; i < 3; i++) {
        const uint32_t attr = CPUDEFEND_GLOBAL_L1CPURAT + 2 * i;
        EXPECT_EQ(set(attr, 300 + i), 0);
        EXPECT_EQ(gCpuDefend.cpuRatControl[i].cpuRat, 44 + i);
        EXPECT_EQ(gCpuDefend.cpuRatControl[i].policyNameLen, 0); // the byte beside it
        EXPECT_EQ(synced().back().number, 300 + i);
        EXPECT_EQ(set(attr, 90 + i), 0);
        scripted::reset();
        EXPECT_EQ(set(attr, 90 + i), 0);
        EXPECT_TRUE(scripted::calls.empty()); // no change
    }
}

TEST_F(GlobalSet, ThresholdIsPrintedWhenTestingIsOn)
{
    cpuDefendTest = 1;
    EXPECT_EQ(output([] { set(CPUDEFEND_GLOBAL_L2CPURAT, 300); }), "cpuRat=300,ret=0,\r\n");
    EXPECT_EQ(output([] { set(CPUDEFEND_GLOBAL_L2CPURAT, 44); }), ""); // no change
    scripted::script.failAll[Call::ScalarSync] = 77;
    EXPECT_EQ(output([] { set(CPUDEFEND_GLOBAL_L2CPURAT, 45); }), "cpuRat=45,ret=77,\r\n");
    cpuDefendTest = 0;
    EXPECT_EQ(output([] { set(CPUDEFEND_GLOBAL_L2CPURAT, 46); }), "");
}

/* ---- Levels --------------------------------------------------------------------------- */

struct GlobalLevelRow {
    const char *name;
    uint8_t position;
    uint32_t nameAttr;
    const char *removed; /**< on the system, while levels L1 to L3 are a, b, c */
    const char *onSlots; /**< and on a slot: L2 names L1's policy there */
};

class GlobalLevel : public GlobalSet, public testing::WithParamInterface<GlobalLevelRow>
{
protected:
    const GlobalLevelRow &param = GetParam();
    int32_t rename(const std::string &name) const { return set(param.nameAttr, name); }
    tCpuDefendCpuRatControl &level() { return gCpuDefend.cpuRatControl[param.position - 1]; }

    void SetUp() override
    {
        GlobalSet::SetUp();
        const char *const names[] = {"a", "b", "c"};
        for (int i = 0; i < 3; i++)
            storeLevel(gCpuDefend.cpuRatControl[i], names[i]);
        gCpuDefend.selectedPosition = param.position;
    }
};

TEST_P(GlobalLevel, NameInForceIsRemovedFromTheSystemAndTheSelectionReset)
{
    EXPECT_EQ(rename("default"), 0);
    EXPECT_EQ(programmed(), Programmed{param.removed});
    EXPECT_EQ(callKinds(), (std::vector<Call>{Call::ScalarSync, Call::AclDel}));
    EXPECT_EQ(gCpuDefend.selectedPosition, 0);
    EXPECT_EQ(levelName(level()), "default");
    EXPECT_EQ(findPolicy("default")->refCount, 0u); // the next sample programs it
}

TEST_P(GlobalLevel, NameInForceIsRemovedFromSlotsInFixedMode)
{
    for (uint32_t slotId = 1; slotId <= 4; slotId++)
        slots[0] = cpuDefendSlotEntryAdd(1, slotId);
    cpuDefendSlotEntryGet(1, 2)->policyMode = CPUDEFEND_CPURAT_CONTROL;
    cpuDefendSlotEntryGet(1, 4)->policyMode = 2; // neither mode
    slots[0] = cpuDefendSlotEntryGet(1, 3);
    slots[0]->policyNameLen = 1; // a policy of its own makes no difference here
    slots[0]->policyName[0] = 'c';
    EXPECT_EQ(rename("default"), 0);
    EXPECT_EQ(programmed(), (Programmed{param.onSlots + std::string(" 1/1"),
                                        param.onSlots + std::string(" 1/3")}));
    EXPECT_EQ(gCpuDefend.selectedPosition, 0);
    EXPECT_EQ(levelName(level()), "default");
}

TEST_P(GlobalLevel, NameNotInForceRemovesNothing)
{
    for (uint8_t selected : {0, 1, 2, 3, 4, 255}) {
        if (selected == param.position)
            continue;
        storeLevel(level(), "a");
        gCpuDefend.selectedPosition = selected;
        EXPECT_EQ(rename("default"), 0);
        EXPECT_EQ(gCpuDefend.selectedPosition, selected);
        EXPECT_EQ(levelName(level()), "default");
    }
    EXPECT_TRUE(programmed().empty());
}

TEST_P(GlobalLevel, RemovalsResultIsReturnedAndTheNameStoredAllTheSame)
{
    scripted::script.failAll[Call::AclDel] = 66;
    EXPECT_EQ(rename("default"), 66);
    EXPECT_EQ(levelName(level()), "default");
    EXPECT_EQ(gCpuDefend.selectedPosition, 0);
}

TEST_P(GlobalLevel, EmptyNameClearsTheLevel)
{
    gCpuDefend.selectedPosition = 0;
    EXPECT_EQ(rename(""), 0);
    EXPECT_EQ(image(level().policyName), std::string(32, '\0'));
    EXPECT_EQ(level().policyNameLen, 0);
    scripted::reset();
    EXPECT_EQ(rename(""), 0);
    EXPECT_TRUE(scripted::calls.empty());
}

TEST_P(GlobalLevel, CurrentOrUnknownNameChangesNothing)
{
    const std::string before = state();
    EXPECT_EQ(rename(levelName(level())), 0);
    EXPECT_EQ(rename("nobody"), noName);
    EXPECT_EQ(rename(std::string(33, 'a')), noName);
    EXPECT_EQ(state(), before);
    EXPECT_TRUE(scripted::calls.empty());
}

TEST_P(GlobalLevel, NameOf32BytesIsStoredWhole)
{
    const std::string name(32, 'n');
    addPolicy(name);
    gCpuDefend.selectedPosition = 0;
    EXPECT_EQ(rename(name), 0);
    EXPECT_EQ(levelName(level()), name);
}

static const GlobalLevelRow levels[] = {
    {"L1", 1, 15, "-101", "-101"}, {"L2", 2, 17, "-102", "-101"}, {"L3", 3, 19, "-103", "-103"}};

INSTANTIATE_TEST_SUITE_P(GlobalSet, GlobalLevel, testing::ValuesIn(levels),
                         [](const testing::TestParamInfo<GlobalLevelRow> &row) {
                             return std::string(row.param.name);
                         });

TEST_F(GlobalSet, L2NameOnSlotsNamesL1sPolicyAndOnTheSystemItsOwn)
{
    storeLevel(gCpuDefend.cpuRatControl[0], "a");
    storeLevel(gCpuDefend.cpuRatControl[1], "b");
    gCpuDefend.selectedPosition = 2;
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_L2POLICYNAME, ""), 0);
    EXPECT_EQ(programmed(), Programmed{"-102"});
    scripted::reset();

    cpuDefendSlotEntryAdd(1, 1);
    storeLevel(gCpuDefend.cpuRatControl[1], "b");
    gCpuDefend.selectedPosition = 2;
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_L2POLICYNAME, ""), 0);
    EXPECT_EQ(programmed(), Programmed{"-101 1/1"});
}

TEST_F(GlobalSet, L2NameOnSlotsWithoutAnL1RemovesNothingAndSaysSo)
{
    cpuDefendSlotEntryAdd(1, 1);
    storeLevel(gCpuDefend.cpuRatControl[1], "b");
    gCpuDefend.selectedPosition = 2;
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_L2POLICYNAME, ""), noName);
    EXPECT_TRUE(programmed().empty());
    EXPECT_EQ(gCpuDefend.selectedPosition, 0);
    EXPECT_EQ(gCpuDefend.cpuRatControl[1].policyNameLen, 0);
}

/* ---- Synchronisation ------------------------------------------------------------------ */

struct GlobalSyncRow {
    const char *name;
    uint32_t attr;
    bool octets;
};

static const GlobalSyncRow changes[] = {
    {"Policy", 0, true},        {"ResetSrcTrace", 11, false}, {"PolicyMode", 13, false},
    {"L1CpuRat", 14, false},    {"L1PolicyName", 15, true},   {"L2CpuRat", 16, false},
    {"L2PolicyName", 17, true}, {"L3CpuRat", 18, false},      {"L3PolicyName", 19, true},
};

class GlobalSync : public GlobalSet, public testing::WithParamInterface<GlobalSyncRow>
{
protected:
    const GlobalSyncRow &change = GetParam();
    Cell value() const { return change.octets ? Cell("b") : Cell(1); }
};

TEST_P(GlobalSync, IsIdentified8000PlusTheAttributeWithBit31ForNames)
{
    for (uint32_t flag : {3u, 1u}) {
        scripted::reset();
        gCpuDefend.policyMode = 0; // so that the replay is a change, too
        const std::string name = flag == 3 ? "b" : "";
        Cell cell = change.octets ? Cell(name) : Cell(flag);
        EXPECT_EQ(flag == 3 ? cpuDefendGlobalSetApi(0, change.attr, &cell)
                            : cpuDefendGlobalSyncApi(0, change.attr, &cell),
                  0);
        ASSERT_EQ(synced().size(), 1u);
        const scripted::Record sync = synced().front();
        EXPECT_EQ(sync.call, Call::ScalarSync);
        EXPECT_EQ(sync.cmd, 8000 + change.attr);
        EXPECT_EQ(sync.flag, flag | (change.octets ? octetsFlag : 0));
        EXPECT_EQ(sync.octets, change.octets ? name : "");
        EXPECT_EQ(sync.number, change.octets ? 0 : flag);
    }
}

TEST_P(GlobalSync, FailingChangesNothing)
{
    addSlots();
    bind("a");
    for (tCpuDefendCpuRatControl &level : gCpuDefend.cpuRatControl)
        storeLevel(level, "a");
    gCpuDefend.selectedPosition = 2;
    const uint8_t ip[4] = {}, mac[6] = {};
    cpuDefendSrcTraceEntryAdd(1, ip, 1, mac);
    const std::string before = state();
    for (int32_t result : {77, -5}) {
        scripted::script.failAll[Call::ScalarSync] = result;
        Cell cell = value();
        EXPECT_EQ(cpuDefendGlobalSetApi(0, change.attr, &cell), result);
        EXPECT_EQ(state(), before);
        EXPECT_TRUE(programmed().empty());
    }
}

INSTANTIATE_TEST_SUITE_P(GlobalSet, GlobalSync, testing::ValuesIn(changes),
                         [](const testing::TestParamInfo<GlobalSyncRow> &row) {
                             return std::string(row.param.name);
                         });

/* ---- Traces and the standby's state --------------------------------------------------- */

TEST_F(GlobalSet, ResetDeletesEveryTracedSource)
{
    for (uint32_t unit : {3u, 1u, 0x80000001u, 7u, 2u}) {
        const uint8_t ip[4] = {10, 0, 0, 1}, mac[6] = {};
        cpuDefendSrcTraceEntryAdd(unit, ip, 0, mac);
    }
    ASSERT_EQ(gCpuDefend.useSrcTraceNum, 5u);
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_RESETSRCTRACE, 0), 0);
    EXPECT_EQ(gCpuDefend.useSrcTraceNum, 0u);
    EXPECT_EQ(avl_first(&gCpuDefend.srcTraceList), nullptr);
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_RESETSRCTRACE, 0), 0); // of an empty table
    EXPECT_EQ(scripted::count(Call::ScalarSync), 2u);     // never "no change"
}

/** A record as the peer sends it. */
static std::string record(uint32_t sysId, uint32_t slotId, uint32_t position)
{
    std::string bytes;
    for (uint32_t word : {sysId, slotId, position})
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes += static_cast<char>(word >> shift);
    return bytes;
}

class GlobalSyncState : public GlobalSet
{
protected:
    void SetUp() override
    {
        GlobalSet::SetUp();
        addSlots();
    }

    static int32_t apply(const std::string &bytes)
    {
        return set(CPUDEFEND_GLOBAL_SYNCSTATE, bytes);
    }

    /** Selected positions of the system and of the slots. */
    std::vector<int> positions() const
    {
        return {gCpuDefend.selectedPosition, slots[0]->selectedPosition, slots[1]->selectedPosition,
                slots[2]->selectedPosition};
    }
    using Positions = std::vector<int>;
};

TEST_F(GlobalSyncState, RecordsOfTheSystemAndOfSlotsAreApplied)
{
    EXPECT_EQ(apply(record(0, 0, 3) + record(1, 3, 2) + record(1, 1, 1)), 0);
    EXPECT_EQ(positions(), (Positions{3, 1, 0, 2}));
    EXPECT_TRUE(scripted::calls.empty()); // neither synchronised nor programmed
}

TEST_F(GlobalSyncState, OnlyThePositionsLowByteCounts)
{
    EXPECT_EQ(apply(record(0, 0, 0xA1B2C3FE)), 0);
    EXPECT_EQ(gCpuDefend.selectedPosition, 0xFE);
}

TEST_F(GlobalSyncState, UnknownSlotsAreSkipped)
{
    EXPECT_EQ(apply(record(1, 4, 3) + record(0, 1, 3) + record(1, 0, 3) + record(0x101, 1, 3) +
                    record(1, 0x80000001, 3) + record(1, 2, 2)),
              0);
    EXPECT_EQ(positions(), (Positions{0, 0, 2, 0}));
}

TEST_F(GlobalSyncState, ALastRecordThatIsNotWholeIsIgnored)
{
    const std::string two = record(0, 0, 3) + record(1, 1, 2);
    for (size_t length = 0; length <= two.size(); length++) {
        gCpuDefend.selectedPosition = slots[0]->selectedPosition = 0;
        EXPECT_EQ(apply(two.substr(0, length)), 0);
        EXPECT_EQ(positions(), (Positions{length >= 12 ? 3 : 0, length >= 24 ? 2 : 0, 0, 0}));
    }
}

TEST_F(GlobalSyncState, TheLastRecordOfAPlaceWins)
{
    EXPECT_EQ(apply(record(1, 1, 1) + record(1, 1, 3)), 0);
    EXPECT_EQ(positions(), (Positions{0, 3, 0, 0}));
}

TEST_F(GlobalSyncState, ReplayedIsTheSame)
{
    Cell cell(record(0, 0, 2));
    EXPECT_EQ(cpuDefendGlobalSyncApi(0, CPUDEFEND_GLOBAL_SYNCSTATE, &cell), 0);
    EXPECT_EQ(gCpuDefend.selectedPosition, 2);
}

TEST_F(GlobalSyncState, NoBytesAreStillASuccess)
{
    Cell cell("");
    *&cell = {nullptr, 12};
    EXPECT_EQ(cpuDefendGlobalSetApi(0, CPUDEFEND_GLOBAL_SYNCSTATE, &cell), 0);
    EXPECT_EQ(positions(), (Positions{0, 0, 0, 0}));
}

/* ---- Semaphore ------------------------------------------------------------------------ */

TEST_F(GlobalSet, SemaphoreIsTakenOnceByEverySet)
{
    for (uint32_t attr : {0u, 15u, 17u, 19u, 20u}) {
        seam::semTakes = 0;
        EXPECT_EQ(set(attr, "a"), 0);
        EXPECT_EQ(seam::semTakes, 1) << attr;
        EXPECT_EQ(seam::semDepth, 0) << attr;
    }
    for (uint32_t attr : {1u, 11u, 12u, 13u, 14u, 16u, 18u, 21u}) {
        seam::semTakes = 0;
        set(attr, 9);
        EXPECT_EQ(seam::semTakes, 1) << attr;
        EXPECT_EQ(seam::semDepth, 0) << attr;
    }
    gCpuDefend.cpuDefendDebug = 0;
}
