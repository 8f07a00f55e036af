// Sets of the global attributes that reach beyond the system's record: slots, levels, traces.
#include <functional>

#include "nm_test.h"

using scripted::Call;

static constexpr int32_t noName = 0x041E0004;

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

/* ---- The system's policy -------------------------------------------------------------- */

TEST_F(GlobalSet, PolicyIsSynchronisedThenProgrammed)
{
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_POLICY, "a"), 0);
    EXPECT_EQ(callKinds(), (std::vector<Call>{Call::ScalarSync, Call::AclAdd}));
    EXPECT_EQ(programmed(), Programmed{"+101"});
    EXPECT_EQ(a->refCount, 1u);
    scripted::reset();
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_POLICY, "b"), 0);
    EXPECT_EQ(programmed(), (Programmed{"-101", "+102"}));
    EXPECT_EQ(a->refCount, 0u);
    scripted::reset();
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_POLICY, ""), 0);
    EXPECT_EQ(programmed(), Programmed{"-102"});
    EXPECT_EQ(image(gCpuDefend.policyName), std::string(32, '\0'));
    EXPECT_EQ(b->refCount, 0u);
}

TEST_F(GlobalSet, SlaveBindsTheNameAndProgramsNothing)
{
    scripted::script.slave = true;
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_POLICY, "a"), 0);
    EXPECT_EQ(getGlobal(CPUDEFEND_GLOBAL_POLICY, 32), (Answer<std::string>{0, "a"}));
    EXPECT_TRUE(programmed().empty());
    EXPECT_EQ(a->refCount, 0u);
}

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

TEST_F(GlobalSet, ModeWhoseLowByteIs1IsCpuRateMode)
{
    bind("a");
    gCpuDefend.selectedPosition = 2;
    EXPECT_EQ(set(CPUDEFEND_GLOBAL_POLICYMODE, 0x101), 0);
    EXPECT_EQ(gCpuDefend.policyMode, 1);
    EXPECT_EQ(gCpuDefend.policyNameLen, 0);
    EXPECT_EQ(gCpuDefend.selectedPosition, 0);
}

/* ---- Thresholds ----------------------------------------------------------------------- */

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

static const GlobalLevelRow levels[] = {
    {"L1", 1, 15, "-101", "-101"}, {"L2", 2, 17, "-102", "-101"}, {"L3", 3, 19, "-103", "-103"}};

INSTANTIATE_TEST_SUITE_P(GlobalSet, GlobalLevel, testing::ValuesIn(levels),
                         [](const testing::TestParamInfo<GlobalLevelRow> &row) {
                             return std::string(row.param.name);
                         });

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

TEST_F(GlobalSet, StateOfThePeerIsAppliedAndNeverFails)
{
    addSlots();
    std::string records(24, '\0');
    records[11] = 3; // of the system
    records[15] = 1;
    records[19] = 2;
    records[23] = 1; // of slot 1/2
    for (const auto call : {cpuDefendGlobalSetApi, cpuDefendGlobalSyncApi}) {
        gCpuDefend.selectedPosition = slots[1]->selectedPosition = 0;
        Cell cell(records);
        EXPECT_EQ(call(0, CPUDEFEND_GLOBAL_SYNCSTATE, &cell), 0);
        EXPECT_EQ(gCpuDefend.selectedPosition, 3);
        EXPECT_EQ(slots[1]->selectedPosition, 1);
    }
    Cell none("");
    *&none = {nullptr, 12};
    EXPECT_EQ(cpuDefendGlobalSetApi(0, CPUDEFEND_GLOBAL_SYNCSTATE, &none), 0);
    EXPECT_TRUE(scripted::calls.empty());
}
