// The slot table: its records, their order and reuse, and what releasing one removes.
#include <algorithm>

#include "engine.h"

using namespace engine;
using scripted::Call;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

class SlotTable : public CoreTest
{
protected:
    void SetUp() override
    {
        CoreTest::SetUp();
        restart(8, 4);
        for (char letter : {'a', 'b', 'c', 'f'})
            addLetter(letter);
    }

    static std::vector<std::string> listed()
    {
        std::vector<std::string> found;
        list_for_each_entry(tCpuDefendSlotEntry, slot, &gCpuDefend.slotList, node)
            found.push_back(std::to_string(slot->sysId) + "/" + std::to_string(slot->slotId));
        return found;
    }

    static tCpuDefendSlotEntry *firstFree()
    {
        return list_entry(gCpuDefend.slotFreeList.next, tCpuDefendSlotEntry, node);
    }

    /** A slot with policy f bound in fixed mode and a, b, c as its levels. */
    static tCpuDefendSlotEntry *addBound(uint8_t mode, uint8_t position)
    {
        tCpuDefendSlotEntry *slot = cpuDefendSlotEntryAdd(1, 5);
        bind(slot, "f");
        setLevels(slot->cpuRatControl, {30, 60, 90});
        slot->policyMode = mode;
        slot->selectedPosition = position;
        return slot;
    }

    static void expectUnbound(const tCpuDefendSlotEntry *slot)
    {
        EXPECT_EQ(slot->policyEntry, nullptr);
        EXPECT_EQ(slot->policyNameLen, 0);
        EXPECT_TRUE(std::all_of(std::begin(slot->policyName), std::end(slot->policyName),
                                [](uint8_t byte) { return byte == 0; }));
    }

    static void expectBoundTo(const tCpuDefendSlotEntry *slot, const std::string &name,
                              const tCpuDefendPolicyEntry *policy)
    {
        EXPECT_EQ(slot->policyEntry, policy);
        EXPECT_EQ(
            std::string(reinterpret_cast<const char *>(slot->policyName), slot->policyNameLen),
            name);
    }
};

/* ---- Get and Add -------------------------------------------------------------------------- */

TEST_F(SlotTable, RecordsStandInTheOrderOfCreation)
{
    cpuDefendSlotEntryAdd(1, 5);
    cpuDefendSlotEntryAdd(1, 2);
    cpuDefendSlotEntryAdd(1, 9);
    cpuDefendSlotEntryAdd(0, 1);
    EXPECT_EQ(listed(), (std::vector<std::string>{"1/5", "1/2", "1/9", "0/1"}));
}

TEST_F(SlotTable, SameNumbersTwiceAreTwoRecordsAndTheFirstIsFound)
{
    tCpuDefendSlotEntry *first = cpuDefendSlotEntryAdd(1, 5);
    tCpuDefendSlotEntry *second = cpuDefendSlotEntryAdd(1, 5);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(first, second);
    EXPECT_EQ(gCpuDefend.useSlotNum, 2u);
    EXPECT_EQ(cpuDefendSlotEntryGet(1, 5), first);
    cpuDefendSlotEntryDel(first);
    EXPECT_EQ(cpuDefendSlotEntryGet(1, 5), second);
}

TEST_F(SlotTable, NumbersAbove255AreCutAndNeverFoundAgain)
{
    const tCpuDefendSlotEntry *system = cpuDefendSlotEntryAdd(257, 5);
    const tCpuDefendSlotEntry *slot = cpuDefendSlotEntryAdd(2, 0xFFFFFF07);
    EXPECT_EQ(system->sysId, 1);
    EXPECT_EQ(slot->slotId, 7);
    EXPECT_EQ(cpuDefendSlotEntryGet(257, 5), nullptr);
    EXPECT_EQ(cpuDefendSlotEntryGet(2, 0xFFFFFF07), nullptr);
    EXPECT_EQ(cpuDefendSlotEntryGet(1, 5), system); // by what is stored
    EXPECT_EQ(cpuDefendSlotEntryGet(2, 7), slot);
}

TEST_F(SlotTable, AddBeyondThePoolGivesNothingAndSaysSoOnlyInDebug)
{
    for (uint32_t i = 0; i < 4; i++)
        ASSERT_NE(cpuDefendSlotEntryAdd(1, i), nullptr);
    const struct {
        uint8_t debug;
        std::string text;
    } rows[] = {{0, ""}, {1, "[cpuDefend] no memery to add slot!\r\n"}, {2, ""}, {255, ""}};
    for (const auto &row : rows) {
        gCpuDefend.cpuDefendDebug = row.debug;
        CaptureStderr();
        EXPECT_EQ(cpuDefendSlotEntryAdd(1, 9), nullptr);
        EXPECT_EQ(GetCapturedStderr(), row.text) << +row.debug;
    }
    EXPECT_EQ(gCpuDefend.useSlotNum, 4u);
    EXPECT_EQ(length(gCpuDefend.slotList), 4u);
    EXPECT_EQ(length(gCpuDefend.timerList), 4u);
}

TEST_F(SlotTable, AddArmsTheSamplingTimer)
{
    tCpuDefendSlotEntry *slot = cpuDefendSlotEntryAdd(1, 5);
    const tTimerNode &timer = slot->cpuRatControlTimer;
    EXPECT_EQ(gCpuDefend.timerList.next, &timer.link);
    EXPECT_EQ(timerListNextTimeout(&gCpuDefend.timerList), 500);
    EXPECT_EQ(timer.arg1, slot);
    EXPECT_EQ(timer.arg2, 0u);
    EXPECT_EQ(timer.arg3, 0u);
}

/* ---- Del ---------------------------------------------------------------------------------- */

TEST_F(SlotTable, DelRemovesTheFixedPolicyFromTheSlot)
{
    tCpuDefendSlotEntry *slot = addBound(CPUDEFEND_FIXED, 2);
    findPolicy("f")->refCount = 3;
    EXPECT_EQ(cpuDefendSlotEntryDel(slot), 0);
    EXPECT_EQ(trail(), "-f@1/5"); // whatever level is selected
    EXPECT_EQ(findPolicy("f")->refCount, 2u);
    expectUnbound(slot);
    EXPECT_EQ(firstFree(), slot);
    EXPECT_EQ(seam::semTakes, 0);
}

TEST_F(SlotTable, DelInCpuRateModeRemovesTheSelectedLevel)
{
    const char *const removed[] = {"-a@1/5", "-b@1/5", "-c@1/5"};
    for (uint8_t position = 1; position <= 3; position++) {
        tCpuDefendSlotEntry *slot = addBound(CPUDEFEND_CPURAT_CONTROL, position);
        EXPECT_EQ(cpuDefendSlotEntryDel(slot), 0);
        EXPECT_EQ(nextTrail(), removed[position - 1]);
        expectUnbound(slot);
    }
}

TEST_F(SlotTable, DelInCpuRateModeWithoutALevelRemovesNothing)
{
    for (uint8_t position : {0, 4, 5, 200, 255}) {
        tCpuDefendSlotEntry *slot = addBound(CPUDEFEND_CPURAT_CONTROL, position);
        EXPECT_EQ(cpuDefendSlotEntryDel(slot), 0) << +position;
        EXPECT_TRUE(scripted::calls.empty()) << +position;
        expectUnbound(slot);
    }
}

TEST_F(SlotTable, DelOfALevelWithoutAPolicyGivesTheRemovalsCode)
{
    tCpuDefendSlotEntry *slot = addBound(CPUDEFEND_CPURAT_CONTROL, 3);
    nameLevel(slot->cpuRatControl[2], "");
    EXPECT_EQ(cpuDefendSlotEntryDel(slot), CPUDEFEND_ENONAME);
    EXPECT_EQ(trail(), "");
    expectBoundTo(slot, "f", findPolicy("f"));
}

TEST_F(SlotTable, FailingRemovalFreesTheRecordButLeavesTheBinding)
{
    tCpuDefendSlotEntry *slot = addBound(CPUDEFEND_FIXED, 0);
    scripted::script.failAll[Call::AclDel] = 9;
    EXPECT_EQ(cpuDefendSlotEntryDel(slot), 9);
    expectBoundTo(slot, "f", findPolicy("f"));
    EXPECT_EQ(firstFree(), slot);
    EXPECT_EQ(gCpuDefend.useSlotNum, 0u);
    EXPECT_EQ(cpuDefendSlotEntryGet(1, 5), nullptr);

    // The next slot finds that binding.
    EXPECT_EQ(cpuDefendSlotEntryAdd(2, 6), slot);
    expectBoundTo(slot, "f", findPolicy("f"));
}

TEST_F(SlotTable, DelGoesByTheNameAndNeverFollowsARecordOfADestroyedPolicy)
{
    tCpuDefendSlotEntry *slot = addBound(CPUDEFEND_FIXED, 0);
    tCpuDefendPolicyEntry *policy = findPolicy("f");
    ASSERT_EQ(cpuDefendPolicyEntryDel(policy), 0);
    EXPECT_EQ(cpuDefendSlotEntryDel(slot), CPUDEFEND_ENONAME);
    EXPECT_EQ(trail(), "");
    expectBoundTo(slot, "f", policy);
}

/* ---- Reuse -------------------------------------------------------------------------------- */

TEST_F(SlotTable, DeletedRecordKeepsItsModeLevelsAndSelectedPosition)
{
    tCpuDefendSlotEntry *slot = addBound(CPUDEFEND_CPURAT_CONTROL, 2);
    const auto levels = image(slot->cpuRatControl);
    cpuDefendSlotEntryDel(slot);
    EXPECT_EQ(slot->policyMode, CPUDEFEND_CPURAT_CONTROL);
    EXPECT_EQ(slot->selectedPosition, 2);

    ASSERT_EQ(cpuDefendSlotEntryAdd(3, 8), slot); // another slot altogether
    EXPECT_EQ(slot->sysId, 3);
    EXPECT_EQ(slot->slotId, 8);
    EXPECT_EQ(slot->policyMode, CPUDEFEND_CPURAT_CONTROL);
    EXPECT_EQ(slot->selectedPosition, 2);
    EXPECT_EQ(image(slot->cpuRatControl), levels);
}

TEST_F(SlotTable, TimerOfADeletedRecordRunsOnAndDoesNothing)
{
    tCpuDefendSlotEntry *slot = addBound(CPUDEFEND_FIXED, 0);
    cpuDefendSlotEntryDel(slot);
    scripted::calls.clear();
    const std::string released = image(slot->cpuRatControl);
    for (int tick = 0; tick < 3; tick++) {
        EXPECT_EQ(gCpuDefend.timerList.next, &slot->cpuRatControlTimer.link);
        EXPECT_EQ(timerListNextTimeout(&gCpuDefend.timerList), 500);
        advance(500);
    }
    EXPECT_TRUE(scripted::calls.empty());
    EXPECT_EQ(image(slot->cpuRatControl), released);
    EXPECT_EQ(slot->selectedPosition, 0);
}
