// Programming a policy into the hardware and out of it: every call, its order, its result.
#include <cerrno>
#include <cstring>

#include "core_test.h"

using scripted::Call;

class HwProgramming : public CoreTest
{
protected:
    tSlotIndex slot{3, 7, 0};

    static int32_t del(tSlotIndex *where, const std::string &name)
    {
        return cpuDefendHwDel(where, bytes(name), static_cast<uint32_t>(name.size()));
    }

    /** A policy with every kind of item, and one CAR entry. */
    static tCpuDefendPolicyEntry *addFullPolicy()
    {
        tCpuDefendPolicyEntry *policy = addBarePolicy("full");
        policy->whiteListIp4Acl = 2000;
        policy->whiteListIp6Acl = 2001;
        policy->whiteListIp4Cir = 40;
        policy->whiteListIp4Cbs = 41;
        policy->whiteListIp6Cir = 60;
        policy->whiteListIp6Cbs = 61;
        policy->blackListIp4Acl = 3000;
        policy->blackListIp6Acl = 3001;
        addRules();
        tCpuDefendCarPktEntry *car = addCar("full", 1);
        car->cir = 100;
        car->cbs = 101;
        car->pps = 102;
        car->queue = 4;
        car->priority = 5;
        car->bit = 0xA8;
        return policy;
    }

    static void addRules()
    {
        tCpuDefendUserDefinedEntry *limit = addRule("full", 1);
        limit->ip4Acl = 4000;
        limit->ip6Acl = 4001;
        limit->cir = 70;
        limit->cbs = 71;
        tCpuDefendUserDefinedEntry *deny = addRule("full", 2);
        deny->ip4Acl = 4002;
        deny->ip6Acl = 4003;
        deny->deny = 1;
        deny->cir = 80;
        deny->cbs = 81;
    }

    /** What addFullPolicy's policy makes of a call: @a acl and @a car begin the lines. */
    static std::vector<std::string> fullSequence(const std::string &acl, const std::string &car)
    {
        return {acl + " acl=2000 action=11 cir=40 cbs=41 ebs=41",
                acl + " acl=2001 action=11 cir=60 cbs=61 ebs=61",
                acl + " acl=3000 action=3 cir=0 cbs=0 ebs=0",
                acl + " acl=3001 action=3 cir=0 cbs=0 ebs=0",
                acl + " acl=4000 action=11 cir=70 cbs=71 ebs=71",
                acl + " acl=4001 action=11 cir=70 cbs=71 ebs=71",
                acl + " acl=4002 action=3 cir=0 cbs=0 ebs=0",
                acl + " acl=4003 action=3 cir=0 cbs=0 ebs=0",
                car + " type=1 cir=100 cbs=101 pps=102 queue=4 priority=5 op=11 bit=168"};
    }

    static std::vector<std::string> programmed() { return texts(scripted::programming()); }
};

/* ---- What is called ------------------------------------------------------------------- */

TEST_F(HwProgramming, AddProgramsASlotInOrder)
{
    tCpuDefendPolicyEntry *policy = addFullPolicy();
    EXPECT_EQ(cpuDefendHwAdd(&slot, policy), 0);
    EXPECT_EQ(programmed(), fullSequence("AclAdd slot 3/7", "SlotSet slot 3/7 cmd=32768063"));
    EXPECT_EQ(policy->refCount, 1u);
    EXPECT_EQ(scripted::calls.back().flag, 3u);
    EXPECT_EQ(scripted::calls.back().slotType, 0);
}

TEST_F(HwProgramming, DelRemovesTheSameInTheSameOrder)
{
    tCpuDefendPolicyEntry *policy = addFullPolicy();
    policy->refCount = 1;
    EXPECT_EQ(del(&slot, "full"), 0);
    EXPECT_EQ(programmed(), fullSequence("AclDel slot 3/7", "SlotSet slot 3/7 cmd=32768064"));
    EXPECT_EQ(policy->refCount, 0u);
    EXPECT_EQ(scripted::calls.back().flag, 3u);
}

TEST_F(HwProgramming, NullSlotMeansTheSystem)
{
    tCpuDefendPolicyEntry *policy = addFullPolicy();
    EXPECT_EQ(cpuDefendHwAdd(nullptr, policy), 0);
    EXPECT_EQ(programmed(), fullSequence("AclAdd system", "ScalarSet system cmd=385"));
    scripted::reset();
    EXPECT_EQ(del(nullptr, "full"), 0);
    EXPECT_EQ(programmed(), fullSequence("AclDel system", "ScalarSet system cmd=386"));
    EXPECT_EQ(policy->refCount, 0u);
}

TEST_F(HwProgramming, SystemPathLeavesTheRestOfTheDescriptorZero)
{
    cpuDefendHwAdd(nullptr, findPolicy("default"));
    EXPECT_EQ(scripted::count(Call::ScalarSet), 10u);
    EXPECT_EQ(scripted::count(Call::SlotSet), 0u);
    for (const scripted::Record &record : scripted::programming()) {
        EXPECT_EQ(record.descriptor.hwCmd, 385u);
        EXPECT_EQ(record.descriptor.action, 0);
        EXPECT_EQ(record.descriptor.res, 0);
        EXPECT_EQ(record.descriptor.argLen, 0); // the length is not filled in
        EXPECT_EQ(record.descriptor.flag, 0u);
    }
}

TEST_F(HwProgramming, CarOperationIsDenyForOneOnly)
{
    const struct {
        uint8_t deny, op;
    } rows[] = {{0, 11}, {1, 3}, {2, 11}, {3, 11}, {255, 11}};
    for (const auto &row : rows) {
        scripted::reset();
        findCar("default", 0)->deny = row.deny;
        cpuDefendHwAdd(&slot, findPolicy("default"));
        EXPECT_EQ(scripted::programming()[0].car.op, row.op) << +row.deny;
    }
}

TEST_F(HwProgramming, ListsAreOnForOneOnly)
{
    tCpuDefendPolicyEntry *policy = addBarePolicy("p");
    policy->whiteListIp4Acl = 2000;
    policy->blackListIp6Acl = 3000;
    for (uint8_t off : {0, 2, 3, 255}) {
        scripted::reset();
        policy->whiteListEnable = off;
        policy->blackListEnable = 1;
        cpuDefendHwAdd(&slot, policy);
        EXPECT_EQ(programmed(),
                  std::vector<std::string>{"AclAdd slot 3/7 acl=3000 action=3 cir=0 cbs=0 ebs=0"});
        scripted::reset();
        policy->whiteListEnable = 1;
        policy->blackListEnable = off;
        cpuDefendHwAdd(&slot, policy);
        EXPECT_EQ(programmed(), std::vector<std::string>{
                                    "AclAdd slot 3/7 acl=2000 action=11 cir=16 cbs=6400 ebs=6400"});
    }
}

TEST_F(HwProgramming, RuleDeniesForAnythingButZero)
{
    tCpuDefendPolicyEntry *policy = addBarePolicy("p");
    addRule("p", 1)->ip4Acl = 10;
    for (uint8_t deny : {1, 2, 255}) {
        scripted::reset();
        findRule("p", 1)->deny = deny;
        cpuDefendHwAdd(&slot, policy);
        EXPECT_EQ(programmed(),
                  std::vector<std::string>{"AclAdd slot 3/7 acl=10 action=3 cir=0 cbs=0 ebs=0"});
    }
}

TEST_F(HwProgramming, RuleWithIndexZeroIsNeverProgrammedOrRemoved)
{
    tCpuDefendPolicyEntry *policy = addBarePolicy("p");
    addRule("p", 0)->ip4Acl = 10;
    addRule("p", 1)->ip4Acl = 11;
    cpuDefendHwAdd(&slot, policy);
    EXPECT_EQ(programmed(),
              std::vector<std::string>{"AclAdd slot 3/7 acl=11 action=11 cir=0 cbs=0 ebs=0"});
    scripted::reset();
    del(&slot, "p");
    EXPECT_EQ(programmed(),
              std::vector<std::string>{"AclDel slot 3/7 acl=11 action=11 cir=0 cbs=0 ebs=0"});
}

/* ---- Results -------------------------------------------------------------------------- */

TEST_F(HwProgramming, OnlyTheLastResultIsReturned)
{
    tCpuDefendPolicyEntry *policy = addFullPolicy(); // nine calls
    for (int nth = 0; nth < 9; nth++) {
        SCOPED_TRACE(nth);
        scripted::reset();
        scripted::script.failAt[static_cast<size_t>(nth)] = 70 + nth;
        EXPECT_EQ(cpuDefendHwAdd(&slot, policy), nth == 8 ? 78 : 0);
        EXPECT_EQ(programmed().size(), 9u); // a failure does not stop the sequence
        EXPECT_EQ(policy->refCount, 1u);    // nor the count
        scripted::reset();
        scripted::script.failAt[static_cast<size_t>(nth)] = 70 + nth;
        EXPECT_EQ(del(&slot, "full"), nth == 8 ? 78 : 0);
        EXPECT_EQ(programmed().size(), 9u);
        EXPECT_EQ(policy->refCount, 0u);
    }
}

TEST_F(HwProgramming, DelOfAnUnknownNameChangesNothing)
{
    tCpuDefendPolicyEntry *policy = addPolicy("p");
    policy->refCount = 2;
    EXPECT_EQ(del(&slot, "nobody"), 0x041E0004);
    EXPECT_EQ(del(nullptr, ""), 0x041E0004);
    EXPECT_EQ(del(nullptr, std::string(33, 'n')), 0x041E0004);
    EXPECT_TRUE(programmed().empty());
    EXPECT_EQ(policy->refCount, 2u);
    EXPECT_EQ(findPolicy("default")->refCount, 0u);
    policy->refCount = 0;
}

TEST_F(HwProgramming, RefCountHasNoFloor)
{
    tCpuDefendPolicyEntry *policy = addPolicy("p");
    EXPECT_EQ(del(&slot, "p"), 0);
    EXPECT_EQ(policy->refCount, 0xffffffffu);
    EXPECT_EQ(cpuDefendHwAdd(&slot, policy), 0);
    EXPECT_EQ(policy->refCount, 0u);
}

/* ---- Role ----------------------------------------------------------------------------- */

TEST_F(HwProgramming, SlaveProgramsNothingAndCountsNothing)
{
    tCpuDefendPolicyEntry *policy = addFullPolicy();
    scripted::script.slave = true;
    EXPECT_EQ(cpuDefendHwAdd(&slot, policy), 0);
    EXPECT_EQ(policy->refCount, 0u);
    EXPECT_EQ(del(&slot, "full"), 0);
    EXPECT_EQ(policy->refCount, 0u);
    EXPECT_EQ(del(&slot, "nobody"), 0); // the role comes before the name
    EXPECT_TRUE(programmed().empty());
}

/* ---- Counters ------------------------------------------------------------------------- */

class HwCounters : public HwProgramming
{
protected:
    void SetUp() override
    {
        HwProgramming::SetUp();
        policy = addBarePolicy("p");
        car = addCar("p", 1);
    }

    static scripted::Counts &counts(const tSlotIndex *where)
    {
        scripted::Counted key{std::nullopt, 1};
        if (where)
            key.first = {where->sys, where->slot};
        return scripted::script.counts[key];
    }

    std::pair<uint32_t, uint32_t> counters() const { return {car->pktPassNum, car->pktDropNum}; }

    tSlotIndex other{1, 2, 0};
    tCpuDefendPolicyEntry *policy;
    tCpuDefendCarPktEntry *car;
};

using Numbers = std::pair<uint32_t, uint32_t>;

TEST_F(HwCounters, AreSummedOverThePlaces)
{
    cpuDefendHwAdd(&slot, policy);
    cpuDefendHwAdd(&other, policy);
    cpuDefendHwAdd(nullptr, policy);
    counts(&slot) = {10, 1, 0, 0};
    counts(&other) = {20, 2, 0, 0};
    counts(nullptr) = {30, 3, 0, 0};
    cpuDefendHwCarCount(car);
    EXPECT_EQ(counters(), Numbers(60, 6));
    counts(&other) = {5, 0, 0, 0}; // what is new since
    cpuDefendHwCarCount(car);
    EXPECT_EQ(counters(), Numbers(65, 6));
}

TEST_F(HwCounters, WrapAt32Bits)
{
    car->pktPassNum = 0xfffffff0;
    cpuDefendHwAdd(&slot, policy);
    counts(&slot) = {0x100000020, 0x200000000, 0, 0};
    cpuDefendHwCarCount(car);
    EXPECT_EQ(counters(), Numbers(0x10, 0));
}

TEST_F(HwCounters, RemovalTakesTheLastCountsFirst)
{
    cpuDefendHwAdd(&slot, policy);
    counts(&slot) = {10, 1, 0, 0};
    del(&slot, "p");
    EXPECT_EQ(counters(), Numbers(10, 1));
    scripted::counted.clear();
    cpuDefendHwCarCount(car);
    EXPECT_TRUE(scripted::counted.empty());
}

TEST_F(HwCounters, ThatCannotBeReadStayAsTheyAre)
{
    cpuDefendHwAdd(&slot, policy);
    counts(&slot) = {10, 1, 0, 0};
    scripted::script.failAll[Call::CarCount] = ENOENT;
    cpuDefendHwCarCount(car);
    EXPECT_EQ(counters(), Numbers(0, 0));
}

TEST_F(HwCounters, GoToTheEntryThatIsInForceOfTwoThatCannotBeToldApart)
{
    tCpuDefendPolicyEntry *above = addBarePolicy("q");
    tCpuDefendCarPktEntry *covering = addCar("q", 1); // the same settings
    cpuDefendHwAdd(&slot, policy);
    counts(&slot) = {10, 1, 0, 0};
    cpuDefendHwAdd(&slot, above); // covers it from here on
    EXPECT_EQ(counters(), Numbers(10, 1));
    counts(&slot) = {20, 2, 0, 0};
    cpuDefendHwCarCount(car);
    EXPECT_EQ(counters(), Numbers(10, 1));
    del(&slot, "p"); // the hardware takes the newest of the two; what is left is the covering one's
    EXPECT_EQ(counters(), Numbers(10, 1));
    EXPECT_EQ(covering->pktPassNum, 20u);
    counts(&slot) = {4, 0, 0, 0};
    cpuDefendHwCarCount(car);
    cpuDefendHwCarCount(covering);
    EXPECT_EQ(counters(), Numbers(10, 1));
    EXPECT_EQ(covering->pktPassNum, 24u);
}
