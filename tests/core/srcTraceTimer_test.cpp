// The timer that closes a policy's counting window, on a stepped clock.
#include "core_test.h"

class SrcTraceTimer : public CoreTest
{
protected:
    static int32_t trace(const std::string &policy, uint32_t value)
    {
        return setPolicy(policy, CPUDEFEND_POLICY_SRCTRACEENABLE, value);
    }

    static void count(tCpuDefendPolicyEntry *policy)
    {
        for (tCpuDefendCarPktEntry *entry : carEntries(policy)) {
            entry->pktSrcTraceNum = 5;
            entry->pktSrcTraceAlarmNum = 6;
            entry->pktSrcTraceTotalNum = 7;
            entry->timePre = 8;
        }
    }

    /** Whether the policy's window was closed since it counted. */
    static bool closed(tCpuDefendPolicyEntry *policy)
    {
        return carEntries(policy).front()->pktSrcTraceNum == 0;
    }
};

TEST_F(SrcTraceTimer, WindowCountersAreZeroedAndTotalsKept)
{
    tCpuDefendPolicyEntry *policy = addPolicy("p");
    addCar("p", 14);
    trace("p", 1);
    count(policy);
    advance(100);
    ASSERT_EQ(carEntries(policy).size(), 11u);
    for (const tCpuDefendCarPktEntry *entry : carEntries(policy)) {
        EXPECT_EQ(entry->pktSrcTraceNum, 0u);
        EXPECT_EQ(entry->pktSrcTraceAlarmNum, 0u);
        EXPECT_EQ(entry->pktSrcTraceTotalNum, 7u);
        EXPECT_EQ(entry->timePre, 8u);
    }
}

TEST_F(SrcTraceTimer, AnyOtherValueStopsIt)
{
    tCpuDefendPolicyEntry *policy = addPolicy("p");
    trace("p", 1);
    EXPECT_EQ(trace("p", 2), 0);
    EXPECT_TRUE(list_empty(&gCpuDefend.timerList));
    count(policy);
    advance(1000);
    EXPECT_FALSE(closed(policy));

    trace("p", 1);
    EXPECT_EQ(trace("p", 0), 0);
    EXPECT_TRUE(list_empty(&gCpuDefend.timerList));
    EXPECT_EQ(policy->srcTraceEnable, 0);
}

TEST_F(SrcTraceTimer, ValueThatIsOneOnlyInItsLowByteStopsIt)
{
    tCpuDefendPolicyEntry *policy = addPolicy("p");
    trace("p", 1);
    EXPECT_EQ(trace("p", 0x101), 0);
    EXPECT_EQ(policy->srcTraceEnable, 1);
    EXPECT_TRUE(list_empty(&gCpuDefend.timerList));
}

TEST_F(SrcTraceTimer, SettingItOnAgainDoesNotStretchTheWindow)
{
    tCpuDefendPolicyEntry *policy = addPolicy("p");
    trace("p", 1);
    advance(60);
    EXPECT_EQ(trace("p", 1), 0);
    EXPECT_EQ(timerListNextTimeout(&gCpuDefend.timerList), 40);
    count(policy);
    advance(40);
    EXPECT_TRUE(closed(policy));
}

TEST_F(SrcTraceTimer, DestroyedPolicyStopsItsTimer)
{
    tCpuDefendPolicyEntry *before = addPolicy("before");
    tCpuDefendPolicyEntry *policy = addPolicy("p");
    tCpuDefendPolicyEntry *after = addPolicy("q");
    for (const char *name : {"before", "p", "q"})
        trace(name, 1);
    ASSERT_EQ(setPolicy("p", CPUDEFEND_POLICY_ENTRYSTATUS, CPUDEFEND_ROW_DESTROY), 0);
    const std::string cleared = image(*policy);

    count(before);
    count(after);
    EXPECT_EQ(length(gCpuDefend.timerList), 2u);
    advance(1000);
    EXPECT_TRUE(closed(before));
    EXPECT_TRUE(closed(after));
    EXPECT_EQ(length(gCpuDefend.timerList), 2u);
    EXPECT_EQ(image(*policy), cleared); // nobody wrote to it
}

TEST_F(SrcTraceTimer, WindowSkipsEntriesLeftOverFromAnEarlierOwner)
{
    tCpuDefendPolicyEntry *policy = addPolicy("p");
    tCpuDefendCarPktEntry *leftover = findCar("p", 0);
    ASSERT_EQ(cpuDefendPolicyEntryDel(policy), 0);
    ASSERT_EQ(addPolicy("q"), policy);
    leftover->pktSrcTraceNum = 5;
    trace("q", 1);
    count(policy);
    advance(100);
    EXPECT_TRUE(closed(policy));
    EXPECT_EQ(leftover->pktSrcTraceNum, 5u);
}
