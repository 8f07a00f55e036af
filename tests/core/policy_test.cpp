// The policy table: order, defaults, the pool, and what destroying a policy leaves.
#include <cstring>

#include "core_test.h"

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

class PolicyTable : public CoreTest
{
};

static std::vector<std::string> treeOrder()
{
    std::vector<std::string> names;
    for (void *at = avl_first(&gCpuDefend.policyList); at;
         at = avl_next(&gCpuDefend.policyList, at))
        names.push_back(nameOf(static_cast<tCpuDefendPolicyEntry *>(at)));
    return names;
}

/* ---- Order ---------------------------------------------------------------------------- */

static int compare(const std::string &a, const std::string &b)
{
    tCpuDefendPolicyEntry left{}, right{};
    left.policyNameLen = static_cast<uint8_t>(a.size());
    right.policyNameLen = static_cast<uint8_t>(b.size());
    memcpy(left.policyName, a.data(), a.size());
    memcpy(right.policyName, b.data(), b.size());
    return cpuDefendPolicyCmp(&left, &right);
}

TEST_F(PolicyTable, NamesCompareByteWise)
{
    EXPECT_EQ(compare("ab", "abc"), -1);
    EXPECT_EQ(compare("abc", "ab"), 1);
    EXPECT_EQ(compare("b", "abc"), 1);
    EXPECT_EQ(compare("abc", "b"), -1);
    EXPECT_EQ(compare("abc", "abc"), 0);
    EXPECT_EQ(compare("", ""), 0);
    EXPECT_EQ(compare("", "a"), -1);
    EXPECT_EQ(compare("a\xff", "a\x01"), 1); // bytes are unsigned
    EXPECT_EQ(compare(std::string("a\0b", 3), std::string("a\0c", 3)), -1);
    EXPECT_EQ(compare(std::string(32, 'z'), std::string(32, 'z')), 0);
    EXPECT_EQ(compare(std::string(31, 'z') + "a", std::string(31, 'z') + "b"), -1);
}

TEST_F(PolicyTable, TreeIsLexicographic)
{
    addPolicy("b");
    addPolicy("abc");
    addPolicy("ab");
    EXPECT_EQ(treeOrder(), (std::vector<std::string>{"ab", "abc", "b", "default"}));
}

TEST_F(PolicyTable, TreeAndCarListVisitPoliciesInDifferentOrders)
{
    addPolicy("aa");
    addPolicy("b");
    EXPECT_EQ(treeOrder(), (std::vector<std::string>{"aa", "b", "default"}));
    EXPECT_EQ(keys(carEntries()), tenKeys("b") + tenKeys("aa") + tenKeys("default"));
}

TEST_F(PolicyTable, GetFindsByWholeName)
{
    tCpuDefendPolicyEntry *policy = addPolicy("abc");
    EXPECT_EQ(findPolicy("abc"), policy);
    EXPECT_EQ(findPolicy("ab"), nullptr);
    EXPECT_EQ(findPolicy("abcd"), nullptr);
    EXPECT_EQ(findPolicy("ABC"), nullptr);
}

TEST_F(PolicyTable, NameOf32BytesFillsTheFieldAndIsFound)
{
    const std::string name(32, 'n');
    tCpuDefendPolicyEntry *policy = addPolicy(name);
    ASSERT_NE(policy, nullptr);
    EXPECT_EQ(nameOf(policy), name);
    EXPECT_EQ(policy->policyDescription[0], 0);
    EXPECT_EQ(findPolicy(name), policy);
}

/* ---- Defaults ------------------------------------------------------------------------- */

TEST_F(PolicyTable, NewPolicyHasItsDefaults)
{
    const tCpuDefendPolicyEntry *policy = addPolicy("p");
    ASSERT_NE(policy, nullptr);
    EXPECT_EQ(nameOf(policy), "p");
    EXPECT_EQ(policy->policyDescriptionLen, 0);
    EXPECT_EQ(image(policy->policyDescription), std::string(64, '\0'));
    EXPECT_EQ(policy->whiteListEnable, 1);
    EXPECT_EQ(policy->policyStatus, 1);
    EXPECT_EQ(image(policy->priority), std::string(4, '\0'));
    EXPECT_EQ(policy->whiteListIp4Acl, 0);
    EXPECT_EQ(policy->whiteListIp6Acl, 0);
    EXPECT_EQ(policy->whiteListIp4Cir, 16u);
    EXPECT_EQ(policy->whiteListIp4Cbs, 6400u);
    EXPECT_EQ(policy->whiteListIp6Cir, 16u);
    EXPECT_EQ(policy->whiteListIp6Cbs, 6400u);
    EXPECT_EQ(policy->blackListIp4Acl, 0);
    EXPECT_EQ(policy->blackListIp6Acl, 0);
    EXPECT_EQ(policy->blackListEnable, 1);
    EXPECT_EQ(policy->srcTraceAlarmEnable, 2);
    EXPECT_EQ(policy->srcTraceEnable, 2);
    EXPECT_EQ(policy->srcTracePktDataEnable, 2);
    EXPECT_EQ(policy->srcTraceThreshold, 128);
    EXPECT_EQ(policy->srcTraceAlarmThreshold, 128);
    EXPECT_EQ(policy->userDefinedNum, 0u);
    EXPECT_EQ(policy->refCount, 0u);
    EXPECT_TRUE(list_empty(&policy->userDefinedList));
}

/** The record that the next Add takes. */
static tCpuDefendPolicyEntry *nextFree()
{
    return list_entry(gCpuDefend.policyFreeList.next, tCpuDefendPolicyEntry, freeNode);
}

TEST_F(PolicyTable, DescriptionIsClearedByItsFirst32BytesOnly)
{
    tCpuDefendPolicyEntry *record = nextFree();
    memset(record->policyDescription, 'd', sizeof record->policyDescription);
    record->policyDescriptionLen = 64;
    ASSERT_EQ(addPolicy("p"), record);
    EXPECT_EQ(record->policyDescriptionLen, 0);
    EXPECT_EQ(image(record->policyDescription), std::string(32, '\0') + std::string(32, 'd'));
}

TEST_F(PolicyTable, WhatAddDoesNotWriteStaysAsTheRecordHeldIt)
{
    tCpuDefendPolicyEntry *record = nextFree();
    record->whiteListIp4Acl = 1;
    record->whiteListIp6Acl = 2;
    record->blackListIp4Acl = 3;
    record->blackListIp6Acl = 4;
    record->refCount = 5;
    ASSERT_EQ(addPolicy("p"), record);
    EXPECT_EQ(record->whiteListIp4Acl, 1);
    EXPECT_EQ(record->whiteListIp6Acl, 2);
    EXPECT_EQ(record->blackListIp4Acl, 3);
    EXPECT_EQ(record->blackListIp6Acl, 4);
    EXPECT_EQ(record->refCount, 5u);
}

TEST_F(PolicyTable, NewPolicyHasExactlyTenCarEntries)
{
    tCpuDefendPolicyEntry *policy = addPolicy("p");
    EXPECT_EQ(keys(carEntries(policy)), tenKeys("p"));
    EXPECT_EQ(gCpuDefend.useCarPktNum, 20u);
    for (uint32_t type = 10; type < CPUDEFEND_PKTTYPE_MAX; type++)
        EXPECT_EQ(findCar("p", type), nullptr) << type;
}

TEST_F(PolicyTable, SlotsThatNameTheNewPolicyPointToIt)
{
    tCpuDefendSlotEntry *named = addSlot(0, 1, "p");
    tCpuDefendSlotEntry *other = addSlot(0, 2, "pp");
    const tCpuDefendPolicyEntry *policy = addPolicy("p");
    EXPECT_EQ(named->policyEntry, policy);
    EXPECT_EQ(other->policyEntry, nullptr);
    EXPECT_EQ(policy->refCount, 0u);
}

/* ---- The pool ------------------------------------------------------------------------- */

static void fillPool()
{
    for (uint32_t i = gCpuDefend.usePolicyNum; i < gCpuDefend.maxPolicyNum; i++)
        ASSERT_NE(addPolicy("filler" + std::to_string(i)), nullptr);
}

TEST_F(PolicyTable, AddToAFullPoolChangesNothing)
{
    fillPool();
    ASSERT_EQ(gCpuDefend.usePolicyNum, 8u);
    const std::vector<std::string> before = treeOrder();
    EXPECT_EQ(addPolicy("one more"), nullptr);
    EXPECT_EQ(gCpuDefend.usePolicyNum, 8u);
    EXPECT_EQ(gCpuDefend.useCarPktNum, 80u);
    EXPECT_EQ(treeOrder(), before);
}

TEST_F(PolicyTable, FullPoolIsReportedWithDebuggingOnOnly)
{
    fillPool();
    for (uint8_t debug : {0, 1, 2}) {
        gCpuDefend.cpuDefendDebug = debug;
        CaptureStderr();
        addPolicy("one more");
        EXPECT_EQ(GetCapturedStderr(),
                  debug == 1 ? " [cpuDefend] no memery to add PolicyEntry!\r\n" : "");
    }
}

TEST_F(PolicyTable, PoolIsLastInFirstOut)
{
    tCpuDefendPolicyEntry *a = addPolicy("a");
    tCpuDefendPolicyEntry *b = addPolicy("b");
    EXPECT_EQ(b, a - 1); // highest index first
    EXPECT_EQ(cpuDefendPolicyEntryDel(a), 0);
    EXPECT_EQ(cpuDefendPolicyEntryDel(b), 0);
    EXPECT_EQ(addPolicy("c"), b);
    EXPECT_EQ(addPolicy("d"), a);
    EXPECT_EQ(addPolicy("e"), b - 1);
}

TEST_F(PolicyTable, ThirdPolicyGetsTheLastFiveOf25CarEntriesWithoutAnError)
{
    restart(3, 1);
    std::vector<list_head *> withdrawn;
    for (int i = 0; i < 5; i++) {
        withdrawn.push_back(gCpuDefend.carPktFreeList.prev);
        list_del_init(withdrawn.back());
    }
    gCpuDefend.maxCarPktNum = 25;
    ASSERT_NE(addPolicy("second"), nullptr);
    tCpuDefendPolicyEntry *third = addPolicy("third");
    ASSERT_NE(third, nullptr);
    EXPECT_EQ(keys(carEntries(third)),
              (std::vector<std::string>{"third/0", "third/1", "third/2", "third/3", "third/4"}));
    EXPECT_EQ(gCpuDefend.useCarPktNum, 25u);
    EXPECT_EQ(gCpuDefend.usePolicyNum, 3u);
    EXPECT_EQ(findPolicy("third"), third);

    gCpuDefend.maxCarPktNum = 30; // for the invariants
    for (list_head *link : withdrawn)
        list_add_tail(link, &gCpuDefend.carPktFreeList);
}

TEST_F(PolicyTable, CreatingAndDestroyingUsesUpTheCarPool)
{
    for (int i = 0; i < 7; i++)
        cpuDefendPolicyEntryDel(addPolicy("p"));
    EXPECT_EQ(gCpuDefend.useCarPktNum, 80u);
    tCpuDefendPolicyEntry *policy = addPolicy("p");
    ASSERT_NE(policy, nullptr);
    EXPECT_TRUE(carEntries(policy).empty());
}

TEST_F(PolicyTable, NameThatIsTakenIsRefusedWithoutLoss)
{
    const tCpuDefendPolicyEntry *policy = addPolicy("p");
    tCpuDefendPolicyEntry *const spare = nextFree();
    EXPECT_EQ(addPolicy("p"), nullptr);
    EXPECT_EQ(findPolicy("p"), policy);
    EXPECT_EQ(gCpuDefend.usePolicyNum, 2u);
    EXPECT_EQ(gCpuDefend.useCarPktNum, 20u);
    EXPECT_EQ(nextFree(), spare);
}

TEST_F(PolicyTable, NameLongerThan32BytesIsRefused)
{
    const std::string longer(300, 'n');
    for (uint32_t len : {33u, 64u, 256u, 288u, 300u}) {
        EXPECT_EQ(cpuDefendPolicyEntryAdd(bytes(longer), len), nullptr) << len;
        EXPECT_EQ(cpuDefendPolicyEntryGet(bytes(longer), len), nullptr) << len;
    }
    EXPECT_EQ(cpuDefendPolicyEntryGet(bytes(longer), 0xffffffff), nullptr);
    EXPECT_EQ(gCpuDefend.usePolicyNum, 1u);
}

/* ---- Destroying ----------------------------------------------------------------------- */

TEST_F(PolicyTable, BoundPolicyIsNotDestroyed)
{
    tCpuDefendPolicyEntry *policy = addPolicy("p");
    policy->refCount = 1;
    const std::string before = image(*policy);
    EXPECT_EQ(cpuDefendPolicyEntryDel(policy), 0x041E0005);
    EXPECT_EQ(image(*policy), before);
    EXPECT_EQ(gCpuDefend.usePolicyNum, 2u);
    EXPECT_EQ(findPolicy("p"), policy);

    policy->refCount = 0;
    EXPECT_EQ(cpuDefendPolicyEntryDel(policy), 0);
    EXPECT_EQ(gCpuDefend.usePolicyNum, 1u);
    EXPECT_EQ(findPolicy("p"), nullptr);
    EXPECT_EQ(addPolicy("q"), policy);
}

TEST_F(PolicyTable, RefCountBelowZeroKeepsAPolicyToo)
{
    tCpuDefendPolicyEntry *policy = addPolicy("p");
    policy->refCount = 0xffffffff;
    EXPECT_EQ(cpuDefendPolicyEntryDel(policy), 0x041E0005);
    EXPECT_EQ(findPolicy("p"), policy);
}

TEST_F(PolicyTable, DestroyedPolicyIsClear)
{
    tCpuDefendPolicyEntry *policy = addPolicy("p");
    memset(policy->policyDescription, 'd', sizeof policy->policyDescription);
    policy->blackListIp6Acl = 7;
    policy->srcTraceThreshold = 9;
    ASSERT_EQ(cpuDefendPolicyEntryDel(policy), 0);
    EXPECT_EQ(image(*policy).substr(sizeof(list_head)),
              std::string(sizeof *policy - sizeof(list_head), '\0'));
    EXPECT_EQ(nextFree(), policy);
}

TEST_F(PolicyTable, DestroyedPolicyLeavesItsEntriesCountedAndListed)
{
    tCpuDefendPolicyEntry *policy = addPolicy("p");
    addRule("p", 1);
    addRule("p", 2);
    const std::vector<tCpuDefendCarPktEntry *> cars = carEntries(policy);
    const std::vector<tCpuDefendUserDefinedEntry *> ruled = rules(policy);
    const std::vector<tCpuDefendCarPktEntry *> allCars = carEntries();
    ASSERT_EQ(cpuDefendPolicyEntryDel(policy), 0);

    EXPECT_EQ(gCpuDefend.useCarPktNum, 20u);
    EXPECT_EQ(gCpuDefend.useUserDefinedNum, 2u);
    EXPECT_EQ(carEntries(), allCars);
    EXPECT_EQ(rules(), ruled);
    for (const tCpuDefendCarPktEntry *entry : cars)
        EXPECT_EQ(entry->policyEntry, policy);
    for (const tCpuDefendUserDefinedEntry *entry : ruled)
        EXPECT_EQ(entry->policyEntry, policy);
}

template <typename T> static void expectUnhooked(const std::vector<T *> &children)
{
    for (const T *child : children) {
        EXPECT_EQ(child->policyNode.next, &child->policyNode);
        EXPECT_EQ(child->policyNode.prev, &child->policyNode);
    }
}

TEST_F(PolicyTable, DestroyedPolicyUnhooksItsEntriesFromTheClearedHeads)
{
    tCpuDefendPolicyEntry *policy = addPolicy("p");
    addRule("p", 1);
    addRule("p", 2);
    const std::vector<tCpuDefendCarPktEntry *> cars = carEntries(policy);
    const std::vector<tCpuDefendUserDefinedEntry *> ruled = rules(policy);
    ASSERT_EQ(cars.size(), 10u);
    ASSERT_EQ(cpuDefendPolicyEntryDel(policy), 0);
    expectUnhooked(cars);
    expectUnhooked(ruled);

    // Not even by the next owner of the record.
    ASSERT_EQ(addPolicy("q"), policy);
    expectUnhooked(cars);
    expectUnhooked(ruled);
    EXPECT_EQ(carEntries(policy).size(), 10u);
    EXPECT_TRUE(rules(policy).empty());
    EXPECT_EQ(policy->userDefinedNum, 0u);
    EXPECT_EQ(gCpuDefend.useCarPktNum, 30u);
}

TEST_F(PolicyTable, PolicyThatLostItsEntriesIsDestroyedToo)
{
    EXPECT_EQ(cpuDefendPolicyEntryDel(addBarePolicy("p")), 0);
    EXPECT_EQ(gCpuDefend.useCarPktNum, 10u);
}

TEST_F(PolicyTable, DefaultPolicyCanBeDestroyed)
{
    EXPECT_EQ(cpuDefendPolicyEntryDel(findPolicy("default")), 0);
    EXPECT_EQ(gCpuDefend.usePolicyNum, 0u);
    EXPECT_TRUE(treeOrder().empty());
}
