#include <cerrno>
#include <functional>
#include <string>

#include "memory_fixture.h"

using CarMultiset = Memory;
using CarRefusal = Memory;

TEST_F(CarMultiset, AddedEntryIsInForceAsSent)
{
    tHwCpuDefendPktCarEntry sent = {58, 64, 1000, 200, 3, 7, ZYN_HW_OP_DENY, 0xf8, {}, {}, {}, {}};
    ASSERT_EQ(carAdd(&slotA, sent), 0);
    const tHwCpuDefendPktCarEntry *kept = zynMemoryCarInForce(&slotA, 58);
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(kept->pktType, 58u);
    EXPECT_EQ(kept->cir, 64u);
    EXPECT_EQ(kept->cbs, 1000u);
    EXPECT_EQ(kept->pps, 200u);
    EXPECT_EQ(kept->queue, 3);
    EXPECT_EQ(kept->priority, 7);
    EXPECT_EQ(kept->op, ZYN_HW_OP_DENY);
    EXPECT_EQ(kept->res, 0xf8);
}

TEST_F(CarMultiset, EverySettingCountsForRemoval)
{
    using Change = void (*)(tHwCpuDefendPktCarEntry &);
    const Change changes[] = {
        [](tHwCpuDefendPktCarEntry &e) { e.pktType++; },
        [](tHwCpuDefendPktCarEntry &e) { e.cir++; },
        [](tHwCpuDefendPktCarEntry &e) { e.cbs++; },
        [](tHwCpuDefendPktCarEntry &e) { e.pps++; },
        [](tHwCpuDefendPktCarEntry &e) { e.queue++; },
        [](tHwCpuDefendPktCarEntry &e) { e.priority++; },
        [](tHwCpuDefendPktCarEntry &e) { e.op = ZYN_HW_OP_DENY; },
        [](tHwCpuDefendPktCarEntry &e) { e.res = ZYN_HW_CAR_CIR; },
    };
    ASSERT_EQ(carAdd(&slotA, car(1, 100)), 0);
    for (Change change : changes) {
        tHwCpuDefendPktCarEntry other = car(1, 100);
        change(other);
        EXPECT_EQ(carDel(&slotA, other), ENOENT) << "setting " << &change - changes;
    }
    EXPECT_EQ(zynMemoryCarCount(&slotA), 1u);
}

TEST_F(CarMultiset, CountersDoNotCountForRemoval)
{
    ASSERT_EQ(carAdd(&slotA, car(1, 100)), 0);
    tHwCpuDefendPktCarEntry counted = car(1, 100);
    counted.PassPkt = {1, 2};
    counted.DropPkt = {3, 4};
    counted.PassOct = {5, 6};
    counted.DropOct = {7, 8};
    EXPECT_EQ(carDel(&slotA, counted), 0);
}

TEST_F(CarMultiset, ResetForgetsAllTargets)
{
    carAdd(system, car(1, 100));
    carAdd(&slotA, car(1, 100));
    zynMemoryReset();
    EXPECT_EQ(zynMemoryCarCount(system), 0u);
    EXPECT_EQ(zynMemoryCarCount(&slotA), 0u);
}

/* ---- Counters, changes, work and packets: none of its own ----------------------------- */

/** Ask for the counters of an entry whose own are marked. */
static int32_t countsOf(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &settings,
                        uint32_t *sum)
{
    tHwCpuDefendPktCarEntry entry = settings;
    entry.PassPkt = entry.DropPkt = entry.PassOct = entry.DropOct = {1, 1};
    const int32_t result = zynHwCarCount(slot, &entry);
    *sum = 0;
    for (const U_INT8 &count : {entry.PassPkt, entry.DropPkt, entry.PassOct, entry.DropOct})
        *sum += count.high + count.low;
    return result;
}

TEST_F(CarMultiset, ProgrammedEntriesHaveCountedNothing)
{
    carAdd(&slotA, car(1, 100));
    carAdd(&slotA, car(1, 200)); // covers it
    carAdd(system, car(2, 100));
    uint32_t sum;
    EXPECT_EQ(countsOf(&slotA, car(1, 100), &sum), 0);
    EXPECT_EQ(sum, 0u);
    EXPECT_EQ(countsOf(&slotA, car(1, 200), &sum), 0);
    EXPECT_EQ(sum, 0u);
    EXPECT_EQ(countsOf(system, car(2, 100), &sum), 0);
    EXPECT_EQ(sum, 0u);
}

TEST_F(CarMultiset, EntriesThatAreNotThereHaveNoCounters)
{
    carAdd(&slotA, car(1, 100));
    uint32_t sum;
    EXPECT_EQ(countsOf(&slotB, car(1, 100), &sum), ENOENT);
    EXPECT_EQ(countsOf(system, car(1, 100), &sum), ENOENT);
    EXPECT_EQ(countsOf(&slotA, car(1, 101), &sum), ENOENT);
    EXPECT_EQ(countsOf(&slotA, car(2, 100), &sum), ENOENT);
    EXPECT_EQ(sum, 8u) << "they were touched";
    carDel(&slotA, car(1, 100));
    EXPECT_EQ(countsOf(&slotA, car(1, 100), &sum), ENOENT);
}

/* ---- What a real layer would refuse --------------------------------------------------- */

/** Expect EINVAL of a call, and nothing changed on any target. */
void expectRefused(const std::string &what, const std::function<int32_t()> &call)
{
    const tSlotIndex slots[] = {{1, 0, 0}, {0, 0, 0}, {1, 0, 1}};
    EXPECT_EQ(call(), EINVAL) << what;
    EXPECT_EQ(zynMemoryCarCount(nullptr), 0u) << what;
    for (const tSlotIndex &slot : slots)
        EXPECT_EQ(zynMemoryCarCount(&slot), 0u) << what;
}

TEST_F(CarRefusal, EveryPacketTypeBelow59IsTaken)
{
    for (uint32_t type = 0; type <= 58; type++) {
        EXPECT_EQ(carAdd(&slotA, car(type, 1)), 0) << type;
        EXPECT_EQ(carAdd(system, car(type, 1)), 0) << type;
    }
}

TEST_F(CarRefusal, ArgumentsOfTheSlotPath)
{
    tHwCpuDefendPktCarEntry entry = car(1, 1);
    const uint32_t add = HW_SLOT_CPUDEFENDPKTCARADD;
    const tSlotIndex itself = {0, 0, 0};
    const tSlotIndex typed = {1, 0, 1};
    expectRefused("no slot", [&] { return zynHwSlotSet(nullptr, add, &entry, 3); });
    expectRefused("the system as a slot", [&] { return zynHwSlotSet(&itself, add, &entry, 3); });
    expectRefused("type of slot", [&] { return zynHwSlotSet(&typed, add, &entry, 3); });
    expectRefused("no entry", [&] { return zynHwSlotSet(&slotA, add, nullptr, 3); });
    expectRefused("flag", [&] { return zynHwSlotSet(&slotA, add, &entry, 1); });
    for (uint32_t cmd : {0u, 0x01F4003Eu, 0x01F40041u, 385u, 386u})
        expectRefused("command", [&] { return zynHwSlotSet(&slotA, cmd, &entry, 3); });
    expectRefused("no entry to remove",
                  [&] { return zynHwSlotSet(&slotA, HW_SLOT_CPUDEFENDPKTCARDEL, nullptr, 3); });
}

TEST_F(CarRefusal, ArgumentsOfTheSystemPath)
{
    tHwCpuDefendPktCarEntry entry = car(1, 1);
    const tHwApiFunc right = {HW_SYS_CPUDEFENDPKTCARADD, &entry, 0, 0, 0, 0};
    auto refused = [&](const char *what, uint32_t index, uint32_t cmd, tHwApiFunc func) {
        expectRefused(what, [&] { return zynScalarSetApi(index, cmd, &func); });
    };
    expectRefused("no descriptor", [] { return zynScalarSetApi(0, 0, nullptr); });
    refused("index", 1, 0, right);
    refused("command outside the descriptor", 0, 385, right);
    refused("no entry", 0, 0, {HW_SYS_CPUDEFENDPKTCARADD, nullptr, 0, 0, 0, 0});
    refused("no entry to remove", 0, 0, {HW_SYS_CPUDEFENDPKTCARDEL, nullptr, 0, 0, 0, 0});
    for (uint32_t cmd : {0u, 384u, 387u, 0x01F4003Fu})
        refused("hwCmd", 0, 0, {cmd, &entry, 0, 0, 0, 0});
    refused("action", 0, 0, {HW_SYS_CPUDEFENDPKTCARADD, &entry, 1, 0, 0, 0});
    refused("res", 0, 0, {HW_SYS_CPUDEFENDPKTCARADD, &entry, 0, 1, 0, 0});
    refused("length", 0, 0, {HW_SYS_CPUDEFENDPKTCARADD, &entry, 0, 0, 52, 0});
    refused("flag", 0, 0, {HW_SYS_CPUDEFENDPKTCARADD, &entry, 0, 0, 0, 3});
}

TEST_F(CarRefusal, WithoutMemoryNothingIsAdded)
{
    ASSERT_EQ(carAdd(&slotA, car(1, 100)), 0);
    callocFailures = 1;
    EXPECT_EQ(carAdd(&slotA, car(1, 200)), ENOMEM);
    EXPECT_EQ(callocFailures, 0);
    EXPECT_EQ(ppsInForce(&slotA, 1), 100);
    EXPECT_EQ(zynMemoryCarCount(&slotA), 1u);
    EXPECT_EQ(carAdd(&slotA, car(1, 200)), 0);
}
