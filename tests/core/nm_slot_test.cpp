// The slot API: binding, modes and levels of a slot, resetting its traces, the walk, the console.
#include <functional>

#include "nm_test.h"

using namespace cpudefend;

using scripted::Call;

static constexpr uint32_t octetsFlag = 0x80000000u;

static int32_t setSlot(uint32_t sysId, uint32_t slotId, uint32_t attr, Cell value)
{
    tcpuDefendSlotIdx idx{sysId, slotId};
    return cpuDefendSlotSetApi(&idx, attr, &value);
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

TEST_F(SlotApi, ModeWhoseLowByteIs1IsCpuRateMode)
{
    setGlobal(CPUDEFEND_GLOBAL_POLICY, std::string("a"));
    slot->selectedPosition = 2;
    EXPECT_EQ(set(CPUDEFEND_SLOT_POLICYMODE, 0x101), 0);
    EXPECT_EQ(slot->policyMode, 1);
    EXPECT_EQ(gCpuDefend.policyNameLen, 0);
    EXPECT_EQ(slot->selectedPosition, 0);
}

/* ---- Levels --------------------------------------------------------------------------- */

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
