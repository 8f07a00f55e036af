// The invariant checker itself: sound tables pass, and each kind of damage is found.
#include "invariants.h"

#include <functional>

#include "core_test.h"

class Invariants : public CoreTest
{
protected:
    void SetUp() override
    {
        CoreTest::SetUp();
        policy = addPolicy("p");
        addRule("p", 1);
        addRule("p", 2);
        tCpuDefendPolicyEntry *gone = addPolicy("gone");
        addRule("gone", 1);
        cpuDefendUserDefinedEntryDel(addRule("gone", 2));
        cpuDefendPolicyEntryDel(gone);
        setPolicy("p", CPUDEFEND_POLICY_SRCTRACEENABLE, 1u);
        addSlot(0, 1, "p");
    }

    tCpuDefendPolicyEntry *policy;
};

TEST_F(Invariants, HoldForTablesInUse)
{
    EXPECT_EQ(invariants::violations(), std::vector<std::string>());
}

template <typename T> static void exchangeBy(T &a, T &b)
{
    const T held = a;
    a = b;
    b = held;
}

TEST_F(Invariants, DamageIsFound)
{
    tCpuDefendSystem &g = gCpuDefend;
    uint32_t off = 77;
    uint8_t type = 200;
    list_head *elsewhere = nullptr;
    tCpuDefendPolicyEntry *nobody = nullptr;
    // Each does damage, and repairs it when called again.
    const std::vector<std::pair<const char *, std::function<void()>>> all{
        {"count of policies", [&] { exchangeBy(g.usePolicyNum, off); }},
        {"count of CAR entries", [&] { exchangeBy(g.useCarPktNum, off); }},
        {"count of slots", [&] { exchangeBy(g.useSlotNum, off); }},
        {"count of traces", [&] { exchangeBy(g.useSrcTraceNum, off); }},
        {"odd count of rules", [&] { g.useUserDefinedNum ^= 1; }},
        {"policy's count of rules", [&] { exchangeBy(policy->userDefinedNum, off); }},
        {"type out of order", [&] { exchangeBy(findPolicy("p")->carPktList.next, elsewhere); }},
        {"free list broken", [&] { exchangeBy(g.carPktFreeList.next->next, elsewhere); }},
        {"entry's type", [&] { exchangeBy(carEntries(policy)[3]->pktType, type); }},
        {"entry's policy", [&] { exchangeBy(carEntries().back()->policyEntry, nobody); }},
        {"free policy not clear",
         [&] {
             auto *spare = list_entry(g.policyFreeList.next, tCpuDefendPolicyEntry, freeNode);
             spare->policyDescription[40] ^= 1;
         }},
        {"tree order", [&] { policy->policyName[0] ^= 0x40; }},
        {"timer out of order", [&] { exchangeBy(g.timerList.prev, elsewhere); }},
        {"leftover hooked", [&] { exchangeBy(rules().front()->policyNode.prev, elsewhere); }},
    };
    for (const auto &[what, damage] : all) {
        damage();
        EXPECT_FALSE(invariants::violations().empty()) << what;
        damage();
        EXPECT_TRUE(invariants::violations().empty()) << what;
    }
}

TEST_F(Invariants, LostRecordIsFound)
{
    list_head *lost = gCpuDefend.userDefinedFreeList.next;
    list_del_init(lost);
    EXPECT_EQ(invariants::violations().size(), 1u);
    list_add(lost, &gCpuDefend.userDefinedFreeList);
}

TEST_F(Invariants, TimerOfADestroyedPolicyIsFound)
{
    auto *spare = list_entry(gCpuDefend.policyFreeList.next, tCpuDefendPolicyEntry, freeNode);
    cpuDefendSrcTraceTimerStart(spare);
    EXPECT_FALSE(invariants::violations().empty());
    timerStop(&gCpuDefend.timerList, &spare->srcTraceTimer);
    spare->srcTraceTimer = tTimerNode{};
}
