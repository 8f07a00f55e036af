// CAR entries: their two lists, the record's stale fields, the pool.
#include "core_test.h"

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

class CarPktTable : public CoreTest
{
};

TEST_F(CarPktTable, NewEntryHasItsDefaults)
{
    const tCpuDefendCarPktEntry *entry = addCar("default", 14);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->pktType, 14);
    EXPECT_EQ(entry->policyEntry, findPolicy("default"));
    EXPECT_EQ(entry->queue, 2);
    EXPECT_EQ(entry->deny, 2);
    EXPECT_EQ(entry->priority, 2);
    EXPECT_EQ(entry->bit, 0);
    EXPECT_EQ(entry->cir, 16u);
    EXPECT_EQ(entry->cbs, 6400u);
    EXPECT_EQ(entry->pps, 512u);
    EXPECT_EQ(entry->mode, 0u);
    EXPECT_EQ(entry->totalPktPps, 6000u);
    EXPECT_EQ(entry->totalPktBps, 0u);
    EXPECT_EQ(entry->timePre, 0u);
    EXPECT_EQ(entry->pktSrcTraceTotalNum, 0u);
    EXPECT_EQ(entry->pktSrcTraceNum, 0u);
    EXPECT_EQ(entry->pktSrcTraceAlarmNum, 0u);
    EXPECT_EQ(entry->pktPassNum, 0u);
    EXPECT_EQ(entry->pktDropNum, 0u);
    EXPECT_EQ(gCpuDefend.useCarPktNum, 11u);
}

TEST_F(CarPktTable, GlobalListComparesNamesAsUnsignedBytes)
{
    addPolicy("\xc3");
    addPolicy("a");
    EXPECT_EQ(keys(carEntries()), tenKeys("a") + tenKeys("\xc3") + tenKeys("default"));
}

TEST_F(CarPktTable, EntryIsInsertedByItsType)
{
    tCpuDefendPolicyEntry *policy = addPolicy("p");
    for (tCpuDefendCarPktEntry *entry : carEntries(policy))
        if (entry->pktType == 3 || entry->pktType == 0)
            cpuDefendCarPktEntryDel(entry);
    addCar("p", 3);
    addCar("p", 58);
    addCar("p", 0);
    EXPECT_EQ(keys(carEntries(policy)), tenKeys("p") + std::vector<std::string>{"p/58"});
    EXPECT_EQ(keys(carEntries()),
              tenKeys("p") + std::vector<std::string>{"p/58"} + tenKeys("default"));
}

TEST_F(CarPktTable, DuplicateGoesAfterItsEqualsInBothListsAndGetReturnsTheOlder)
{
    tCpuDefendPolicyEntry *policy = addPolicy("p");
    tCpuDefendCarPktEntry *older = findCar("p", 5);
    tCpuDefendCarPktEntry *newer = addCar("p", 5);
    tCpuDefendCarPktEntry *newest = addCar("p", 5);
    const std::vector<tCpuDefendCarPktEntry *> expected{older, newer, newest};
    for (const auto &list : {carEntries(policy), carEntries()})
        EXPECT_EQ(std::vector(list.begin() + 5, list.begin() + 8), expected);
    EXPECT_EQ(findCar("p", 5), older);
}

TEST_F(CarPktTable, GetNeedsNameLengthAndType)
{
    addPolicy("p");
    EXPECT_NE(findCar("p", 0), nullptr);
    EXPECT_EQ(findCar("p", 10), nullptr);
    EXPECT_EQ(findCar("p", 256), nullptr); // the stored type is one byte
    EXPECT_EQ(findCar("", 0), nullptr);
    EXPECT_EQ(findCar("pp", 0), nullptr);
    EXPECT_EQ(findCar("q", 0), nullptr);
    EXPECT_EQ(findCar(std::string(33, 'p'), 0), nullptr);
}

/* ---- Deleting ------------------------------------------------------------------------- */

TEST_F(CarPktTable, DeletedEntryIsOnNoListButTheFreeOne)
{
    tCpuDefendPolicyEntry *policy = addPolicy("p");
    tCpuDefendCarPktEntry *entry = findCar("p", 4);
    EXPECT_EQ(cpuDefendCarPktEntryDel(entry), 0);
    EXPECT_EQ(gCpuDefend.useCarPktNum, 19u);
    EXPECT_EQ(carEntries(policy).size(), 9u);
    EXPECT_EQ(carEntries().size(), 19u);
    EXPECT_EQ(findCar("p", 4), nullptr);
    EXPECT_EQ(entry->policyNode.next, &entry->policyNode);
    EXPECT_EQ(entry->policyNode.prev, &entry->policyNode);
    EXPECT_EQ(gCpuDefend.carPktFreeList.next, &entry->node);
    EXPECT_EQ(entry->policyEntry, policy); // kept, as the rest of the record
    EXPECT_EQ(entry->pktType, 4);
}

TEST_F(CarPktTable, DeleteWithoutAPolicyIsRefused)
{
    tCpuDefendCarPktEntry stray{};
    EXPECT_EQ(cpuDefendCarPktEntryDel(&stray), -1);
    EXPECT_EQ(gCpuDefend.useCarPktNum, 10u);
}

TEST_F(CarPktTable, ReusedRecordKeepsItsPassCounterAndWhatElseAddDoesNotWrite)
{
    addPolicy("p");
    tCpuDefendCarPktEntry *entry = findCar("p", 4);
    entry->bit = 0xF8;
    entry->res[1] = 5;
    entry->totalPktBps = 11;
    entry->timePre = 12;
    entry->pktSrcTraceTotalNum = 13;
    entry->pktSrcTraceNum = 14;
    entry->pktSrcTraceAlarmNum = 15;
    entry->pktPassNum = 16;
    entry->pktDropNum = 17;
    entry->cir = entry->cbs = entry->pps = entry->mode = entry->totalPktPps = 1;
    entry->queue = entry->deny = entry->priority = 1;
    ASSERT_EQ(cpuDefendCarPktEntryDel(entry), 0);

    ASSERT_EQ(addCar("default", 30), entry);
    EXPECT_EQ(entry->bit, 0xF8);
    EXPECT_EQ(entry->res[1], 5);
    EXPECT_EQ(entry->totalPktBps, 11u);
    EXPECT_EQ(entry->timePre, 12u);
    EXPECT_EQ(entry->pktSrcTraceTotalNum, 13u);
    EXPECT_EQ(entry->pktSrcTraceNum, 14u);
    EXPECT_EQ(entry->pktSrcTraceAlarmNum, 15u);
    EXPECT_EQ(entry->pktPassNum, 16u);
    EXPECT_EQ(entry->pktDropNum, 17u);
    EXPECT_EQ(entry->cir, 16u);
    EXPECT_EQ(entry->cbs, 6400u);
    EXPECT_EQ(entry->pps, 512u);
    EXPECT_EQ(entry->mode, 0u);
    EXPECT_EQ(entry->totalPktPps, 6000u);
    EXPECT_EQ(entry->queue, 2);
    EXPECT_EQ(entry->deny, 2);
    EXPECT_EQ(entry->priority, 2);
}

/* ---- Failures ------------------------------------------------------------------------- */

/** Take every free record. */
static void fillPool()
{
    while (gCpuDefend.useCarPktNum < gCpuDefend.maxCarPktNum)
        ASSERT_NE(addCar("default", 50), nullptr);
}

TEST_F(CarPktTable, AddForAnUnknownPolicyChangesNothing)
{
    int32_t ret = 0;
    EXPECT_EQ(cpuDefendCarPktEntryAdd(bytes("nobody"), 6, 1, &ret), nullptr);
    EXPECT_EQ(ret, 0x03E80008);
    EXPECT_EQ(gCpuDefend.useCarPktNum, 10u);
    EXPECT_EQ(carEntries().size(), 10u);
}

TEST_F(CarPktTable, AddToAFullPoolChangesNothing)
{
    fillPool();
    int32_t ret = 0;
    EXPECT_EQ(cpuDefendCarPktEntryAdd(bytes("default"), 7, 1, &ret), nullptr);
    EXPECT_EQ(ret, 0x03E80001);
    EXPECT_EQ(gCpuDefend.useCarPktNum, 80u);
    EXPECT_EQ(carEntries().size(), 80u);

    EXPECT_EQ(cpuDefendCarPktEntryAdd(bytes("nobody"), 6, 1, &ret), nullptr);
    EXPECT_EQ(ret, 0x03E80008); // the policy comes first
}

TEST_F(CarPktTable, FailuresAreReportedWithDebuggingOnOnly)
{
    fillPool();
    for (uint8_t debug : {0, 1, 2}) {
        gCpuDefend.cpuDefendDebug = debug;
        CaptureStderr();
        addCar("nobody", 1);
        EXPECT_EQ(GetCapturedStderr(),
                  debug == 1 ? "[cpuDefend] The instance pPolicy does not exist !\r\n" : "");
        CaptureStderr();
        addCar("default", 1);
        EXPECT_EQ(GetCapturedStderr(),
                  debug == 1 ? "[cpuDefend] no memery to add carPkt!\r\n" : "");
    }
}

/* ---- Entries left over from a destroyed policy ---------------------------------------- */

TEST_F(CarPktTable, LeftoverEntryDeletedLaterSparesTheNextOwnerOfTheRecord)
{
    tCpuDefendPolicyEntry *record = addPolicy("old");
    tCpuDefendCarPktEntry *leftover = findCar("old", 3);
    ASSERT_EQ(cpuDefendPolicyEntryDel(record), 0);
    ASSERT_EQ(addPolicy("new"), record);
    const std::vector<tCpuDefendCarPktEntry *> own = carEntries(record);
    ASSERT_EQ(own.size(), 10u);

    EXPECT_EQ(cpuDefendCarPktEntryDel(leftover), 0);
    EXPECT_EQ(carEntries(record), own);
    EXPECT_EQ(gCpuDefend.useCarPktNum, 29u);
    EXPECT_EQ(gCpuDefend.carPktFreeList.next, &leftover->node);
}
