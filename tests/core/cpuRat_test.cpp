// CPU-rate policy switching on stepped time: the system's controller and the slots' own.
#include "engine.h"

using namespace engine;
using scripted::Call;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

static constexpr uint8_t CONTROL = CPUDEFEND_CPURAT_CONTROL;

/** One sample: where the levels stood and what the usage made of them. */
struct Sample {
    const char *what;
    std::array<uint8_t, 3> thresholds;
    uint8_t from;
    uint32_t reading;
    uint8_t to;
    std::string calls;
};

class CpuRat : public CoreTest
{
protected:
    void SetUp() override
    {
        CoreTest::SetUp();
        restart(8, 4);
        for (char letter : {'a', 'b', 'c'})
            addLetter(letter);
    }

    void TearDown() override
    {
        cpuDefendTest = 0;
        CoreTest::TearDown();
    }

    /** Let the next sample read @a reading. @return the calls it led to */
    std::string sample(uint32_t selector, uint32_t reading)
    {
        scripted::script.cpu[selector] = {reading};
        scripted::calls.clear();
        advance(500);
        return trail();
    }

    static std::vector<scripted::Record> made(Call kind)
    {
        std::vector<scripted::Record> found;
        for (const scripted::Record &call : scripted::calls)
            if (call.call == kind)
                found.push_back(call);
        return found;
    }
};

/** Have every role query and reading note whether @a node is armed for a whole period then. */
static std::vector<bool> *noteArmed(const tTimerNode *node)
{
    static std::vector<bool> armed;
    armed.clear();
    scripted::script.queried = [node](const scripted::Record &) {
        armed.push_back(node->link.next != nullptr && node->expiry == osClockNow() + 500);
    };
    return &armed;
}

/* ---- The system's controller ---------------------------------------------------------------- */

class CpuRatSystem : public CpuRat
{
protected:
    void SetUp() override
    {
        CpuRat::SetUp();
        setLevels(gCpuDefend.cpuRatControl, {30, 60, 90});
        gCpuDefend.policyMode = CONTROL;
        cpuDefendCpuRatControlSysTimerStart();
    }

    std::string sample(uint32_t reading) { return CpuRat::sample(1, reading); }

    static tCpuDefendSlotEntry *addSlot(uint32_t slotId, uint8_t mode)
    {
        tCpuDefendSlotEntry *slot = cpuDefendSlotEntryAdd(1, slotId);
        slot->policyMode = mode;
        return slot;
    }

    /** Expect the next sample to change nothing and call nothing. */
    void expectStill(uint32_t reading, uint8_t position)
    {
        EXPECT_EQ(sample(reading), "");
        EXPECT_EQ(gCpuDefend.selectedPosition, position);
    }
};

TEST_F(CpuRatSystem, HighestThresholdBelowTheUsageIsSelected)
{
    const std::array<uint8_t, 3> up{30, 60, 90}, down{90, 60, 30};
    const Sample rows[] = {
        {"between L2 and L3", up, 0, 7500, 2, "+b"},
        {"90 is not below 90", up, 0, 9000, 2, "+b"},
        {"above L3", up, 0, 9100, 3, "+c"},
        {"idle", up, 0, 0, 0, ""},
        {"30 is not below 30", up, 0, 3000, 0, ""},
        {"a percent is not a hundredth", up, 0, 75, 0, ""},
        {"usage is not cut to 8 bits", up, 0, 25600, 3, "+c"},
        {"usage is not cut to 16 bits", up, 0, 6553600, 3, "+c"},
        {"reading is unsigned", up, 0, 0x80000000, 3, "+c"},
        {"up two levels", up, 1, 9500, 3, "-a +c"},
        {"down a level", up, 3, 7500, 2, "-c +b"},
        {"from L3 to none", up, 3, 2999, 0, "-c"},
        {"stays at L2", up, 2, 7500, 2, ""},
        {"two equal: the lower position", {50, 50, 90}, 0, 6000, 1, "+a"},
        {"L2 and L3 equal", {30, 50, 50}, 0, 6000, 2, "+b"},
        {"equal ones: position 2 gives way", {50, 50, 50}, 2, 6000, 1, "-b +a"},
        {"falling thresholds, high", down, 0, 9100, 1, "+a"},
        {"mixed thresholds, middle", {60, 90, 30}, 0, 7500, 1, "+a"},
        {"threshold 0 admits a usage of 1", {0, 60, 90}, 0, 100, 1, "+a"},
        {"threshold 0 refuses a usage of 0", {0, 60, 90}, 0, 99, 0, ""},
        {"thresholds 0: the first", {0, 0, 0}, 0, 5000, 1, "+a"},
        {"no such level: 200", up, 200, 7500, 2, "+b"},
        {"no such level, to none", up, 200, 0, 0, ""},
    };
    for (const Sample &row : rows) {
        setLevels(gCpuDefend.cpuRatControl, row.thresholds);
        gCpuDefend.selectedPosition = row.from;
        EXPECT_EQ(sample(row.reading), row.calls) << row.what;
        EXPECT_EQ(gCpuDefend.selectedPosition, row.to) << row.what;
    }
}

TEST_F(CpuRatSystem, TimerRunsForEverWhateverTheMode)
{
    for (uint8_t mode : {0, 1, 2, 255}) {
        gCpuDefend.policyMode = mode;
        for (bool slave : {false, true}) {
            scripted::script.slave = slave;
            advance(499);
            EXPECT_EQ(timerListNextTimeout(&gCpuDefend.timerList), 1);
            advance(1);
            EXPECT_EQ(gCpuDefend.timerList.next, &gCpuDefend.cpuRatControlTimer.link);
            EXPECT_EQ(timerListNextTimeout(&gCpuDefend.timerList), 500);
        }
    }
}

TEST_F(CpuRatSystem, HandlerArmsItselfFirst)
{
    gCpuDefend.policyMode = CONTROL;
    const std::vector<bool> *armed = noteArmed(&gCpuDefend.cpuRatControlTimer);
    sample(7500);
    EXPECT_GE(armed->size(), 2u) << "the role, the usage";
    EXPECT_EQ(*armed, std::vector<bool>(armed->size(), true));
}

TEST_F(CpuRatSystem, SlaveAsksForItsRoleAndNoMore)
{
    scripted::script.slave = true;
    gCpuDefend.selectedPosition = 1;
    expectStill(7500, 1);
    ASSERT_EQ(scripted::calls.size(), 1u);
    EXPECT_EQ(scripted::calls[0].cmd, 54u);
    scripted::script.slave = false;
    EXPECT_EQ(sample(7500), "-a +b");
}

TEST_F(CpuRatSystem, MissingPolicyChangesNothingAndTheNextSampleTriesAgain)
{
    nameLevel(gCpuDefend.cpuRatControl[1], "later");
    gCpuDefend.selectedPosition = 1;
    for (int tick = 0; tick < 3; tick++) {
        expectStill(7500, 1);
        EXPECT_EQ(made(Call::CpuGet).size(), 1u);
    }
    addBarePolicy("later")->whiteListIp4Acl = 'l';
    EXPECT_EQ(sample(7500), "-a +l");
    EXPECT_EQ(gCpuDefend.selectedPosition, 2);
}

/* With slots. */

TEST_F(CpuRatSystem, OnlySlotsInFixedModeAreProgrammedInTheOrderOfCreation)
{
    addSlot(5, CPUDEFEND_FIXED);
    addSlot(2, CONTROL);
    addSlot(9, CPUDEFEND_FIXED);
    addSlot(1, 2);
    scripted::script.cpu[0] = {100}; // the slots' own thresholds are all 0
    EXPECT_EQ(sample(3500), "+a@1/5 +a@1/9");
    EXPECT_EQ(findPolicy("a")->refCount, 2u);
    EXPECT_EQ(sample(7500), "-a@1/5 +b@1/5 -a@1/9 +b@1/9");
    EXPECT_EQ(sample(7500), "");
    EXPECT_EQ(sample(0), "-b@1/5 -b@1/9");
    EXPECT_EQ(gCpuDefend.selectedPosition, 0);
    for (const char *name : {"a", "b", "c"})
        EXPECT_EQ(findPolicy(name)->refCount, 0u) << name;
}

/* The trace message. */

TEST_F(CpuRatSystem, TraceMessageTellsTheChange)
{
    const struct {
        int32_t test;
        uint32_t reading;
        std::string text;
    } rows[] = {
        {0, 7500, ""},
        {1, 9199, "\r\n [cpuDefend]policy is change!cpuRat=91,now policyName is c,match=3.."},
        {1, 9199, ""}, // no change
        {2, 3100, "\r\n [cpuDefend]policy is change!cpuRat=31,now policyName is a,match=1.."},
        {1, 0, ""}, // no new policy
        {-1, 7599, "\r\n [cpuDefend]policy is change!cpuRat=75,now policyName is b,match=2.."},
    };
    for (const auto &row : rows) {
        cpuDefendTest = row.test;
        CaptureStdout();
        sample(row.reading);
        EXPECT_EQ(GetCapturedStdout(), row.text) << row.reading;
    }
}

TEST_F(CpuRatSystem, TraceMessageOfALongNameEndsWithIt)
{
    const std::string name(32, 'n');
    addPolicy(name)->policyDescription[0] = 'd'; // it stands behind the name
    nameLevel(gCpuDefend.cpuRatControl[1], name);
    cpuDefendTest = 1;
    CaptureStdout();
    sample(7500);
    EXPECT_EQ(GetCapturedStdout(), "\r\n [cpuDefend]policy is change!cpuRat=75,now policyName is " +
                                       name + ",match=2..");
}

/* ---- A slot's controller -------------------------------------------------------------------- */

class CpuRatSlot : public CpuRat
{
protected:
    void SetUp() override
    {
        CpuRat::SetUp();
        slot = cpuDefendSlotEntryAdd(1, 5);
        setLevels(slot->cpuRatControl, {30, 60, 90});
        slot->policyMode = CONTROL;
    }

    std::string sample(uint32_t reading) { return CpuRat::sample(0, reading); }

    tCpuDefendSlotEntry *slot;
};

TEST_F(CpuRatSlot, HighestThresholdAboveTheUsageIsSelected)
{
    const std::array<uint8_t, 3> up{30, 60, 90}, down{90, 60, 30};
    const std::string to0 = "sync(1/5=0)", to1 = "+a@1/5 sync(1/5=1)", to2 = "+b@1/5 sync(1/5=2)",
                      to3 = "+c@1/5 sync(1/5=3)";
    const Sample rows[] = {
        {"highest above 50", up, 0, 50, 3, to3},
        {"idle", up, 0, 0, 3, to3},
        {"90 is not below 90", up, 0, 90, 0, ""},
        {"usage is not divided", up, 0, 5000, 0, ""},
        {"a hundred is not one percent", up, 3, 100, 0, "-c@1/5 " + to0},
        {"usage is not cut to 8 bits", up, 0, 256, 0, ""},
        {"usage is not cut to 16 bits", up, 0, 65536, 0, ""},
        {"usage is unsigned", up, 0, 0x80000000, 0, ""},
        {"from L1", up, 1, 50, 3, "-a@1/5 " + to3},
        {"from L3 to none", up, 3, 90, 0, "-c@1/5 " + to0},
        {"stays", up, 3, 20, 3, ""},
        {"falling thresholds", down, 0, 50, 1, to1},
        {"highest in the middle", {60, 90, 30}, 0, 50, 2, to2},
        {"two equal: the lower position", {90, 90, 30}, 0, 50, 1, to1},
        {"L2 and L3 equal", {30, 90, 90}, 0, 50, 2, to2},
        {"equal ones: position 2 gives way", {90, 90, 90}, 2, 50, 1, "-b@1/5 " + to1},
        {"unconfigured levels never qualify", {0, 0, 0}, 0, 0, 0, ""},
        {"unconfigured but L3", {0, 0, 30}, 0, 10, 3, to3},
        {"no such level: 200", up, 200, 50, 3, to3},
        {"no such level, to none", up, 200, 95, 0, to0},
    };
    for (const Sample &row : rows) {
        setLevels(slot->cpuRatControl, row.thresholds);
        slot->selectedPosition = row.from;
        EXPECT_EQ(sample(row.reading), row.calls) << row.what;
        EXPECT_EQ(slot->selectedPosition, row.to) << row.what;
    }
}

TEST_F(CpuRatSlot, FailedReadingChangesNothing)
{
    slot->selectedPosition = 1;
    scripted::script.cpu.clear();
    advance(500);
    EXPECT_EQ(trail(), "");
    EXPECT_EQ(slot->selectedPosition, 1);
}

TEST_F(CpuRatSlot, HandlerReturnsWhatProgrammingTheNewPolicyGave)
{
    scripted::script.failAll = {{Call::AclAdd, 7}, {Call::AclDel, 8}, {Call::ScalarSync, 9}};
    slot->selectedPosition = 1;
    scripted::script.cpu[0] = {50, 50, 95};
    EXPECT_EQ(cpuDefendCpuRatControlSlotTimeOut(slot), 7);
    EXPECT_EQ(nextTrail(), "-a@1/5 +c@1/5 sync(1/5=3)"); // all of it in spite of the failures
    EXPECT_EQ(slot->selectedPosition, 3);
    EXPECT_EQ(cpuDefendCpuRatControlSlotTimeOut(slot), 0); // nothing to switch
    EXPECT_EQ(cpuDefendCpuRatControlSlotTimeOut(slot), 0); // nothing to add
    EXPECT_EQ(trail(), "-c@1/5 sync(1/5=0)");
}

TEST_F(CpuRatSlot, TimerRunsForEverWhateverTheMode)
{
    for (uint8_t mode : {0, 1, 2, 255}) {
        slot->policyMode = mode;
        for (bool slave : {false, true}) {
            scripted::script.slave = slave;
            advance(500);
            EXPECT_EQ(gCpuDefend.timerList.next, &slot->cpuRatControlTimer.link);
            EXPECT_EQ(timerListNextTimeout(&gCpuDefend.timerList), 500);
        }
    }
    EXPECT_EQ(slot->cpuRatControlTimer.arg1, slot);
}

TEST_F(CpuRatSlot, HandlerArmsItselfFirst)
{
    const std::vector<bool> *armed = noteArmed(&slot->cpuRatControlTimer);
    sample(40);
    EXPECT_GE(armed->size(), 2u) << "the role, the usage";
    EXPECT_EQ(*armed, std::vector<bool>(armed->size(), true));
}

TEST_F(CpuRatSlot, SlaveAsksForItsRoleAndNoMore)
{
    scripted::script.slave = true;
    EXPECT_EQ(sample(50), "");
    ASSERT_EQ(scripted::calls.size(), 1u);
    EXPECT_EQ(scripted::calls[0].cmd, 54u);
    EXPECT_EQ(slot->selectedPosition, 0);
}

TEST_F(CpuRatSlot, CardThatIsNeitherMasterNorSlaveSwitchesButTellsNobody)
{
    scripted::script.noRole = true;
    EXPECT_EQ(sample(50), "+c@1/5");
    EXPECT_EQ(slot->selectedPosition, 3);
}

TEST_F(CpuRatSlot, StandbyCardIsToldAsALocalChange)
{
    sample(50);
    const auto told = made(Call::ScalarSync);
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0].cmd, 8020u);
    EXPECT_EQ(told[0].flag, 0x80000003u);
}

/* ---- Both ----------------------------------------------------------------------------------- */

TEST_F(CpuRat, TheTwoControllersGoOppositeWaysAtTheSameUsage)
{
    setLevels(gCpuDefend.cpuRatControl, {30, 60, 90});
    gCpuDefend.policyMode = CONTROL;
    cpuDefendCpuRatControlSysTimerStart();
    cpuDefendSlotEntryAdd(1, 1);
    tCpuDefendSlotEntry *own = cpuDefendSlotEntryAdd(1, 2);
    setLevels(own->cpuRatControl, {30, 60, 90});
    own->policyMode = CONTROL;

    const struct {
        uint32_t percent;
        std::string calls;
    } ticks[] = {
        {20, "+c@1/2 sync(1/2=3)"}, {50, "+a@1/1"},        {75, "-a@1/1 +b@1/1"},
        {90, "-c@1/2 sync(1/2=0)"}, {95, "-b@1/1 +c@1/1"}, {10, "-c@1/1 +c@1/2 sync(1/2=3)"},
    };
    for (const auto &tick : ticks) {
        scripted::script.cpu = {{0, {tick.percent}}, {1, {tick.percent * 100}}};
        scripted::calls.clear();
        advance(500);
        EXPECT_EQ(trail(), tick.calls) << tick.percent;
        EXPECT_EQ(made(Call::CpuGet).size(), 2u);
    }
}
