// The API of user-defined rules: row status, every number by table, the walk.
#include <algorithm>
#include <functional>

#include "nm_test.h"

using namespace cpudefend;

static constexpr int32_t noMemory = 0x03E80001, noEntry = 0x03E80002, noPolicy = 0x03E80008,
                         isBound = 0x041E0005;
static constexpr uint32_t statusId = CPUDEFEND_USERDEFINED_ENTRYSTATUS;

static tcpuDefendUserDefinedIdx ruleIdx(const std::string &name, uint32_t index)
{
    const tCpuDefendPolicyIdx policy = policyIdx(name);
    tcpuDefendUserDefinedIdx idx{};
    memcpy(idx.policyName, policy.name, sizeof idx.policyName);
    idx.policyNameLen = policy.len;
    idx.index = index;
    return idx;
}

static int32_t setRule(const std::string &name, uint32_t index, uint32_t cmd, uint32_t value)
{
    tcpuDefendUserDefinedIdx idx = ruleIdx(name, index);
    return cpuDefendUserDefinedSetApi(&idx, cmd, &value);
}

static Answer<uint32_t> getRule(const std::string &name, uint32_t index, uint32_t cmd)
{
    tcpuDefendUserDefinedIdx idx = ruleIdx(name, index);
    uint32_t value = untouched;
    const int32_t code = cpuDefendUserDefinedGetApi(&idx, cmd, &value);
    return {code, value};
}

class UserDefinedApi : public CoreTest
{
protected:
    void SetUp() override
    {
        CoreTest::SetUp();
        policy = addPolicy("p");
        entry = addRule("p", 1);
    }

    static int32_t set(uint32_t id, uint32_t value) { return setRule("p", 1, id, value); }

    tCpuDefendPolicyEntry *policy;
    tCpuDefendUserDefinedEntry *entry;
};

TEST_F(UserDefinedApi, Ip4Acl70000Stores4464)
{
    EXPECT_EQ(set(CPUDEFEND_USERDEFINED_IP4ACL, 70000), 0);
    EXPECT_EQ(entry->ip4Acl, 4464);
    EXPECT_EQ(getRule("p", 1, CPUDEFEND_USERDEFINED_IP4ACL), (Answer<uint32_t>{0, 4464}));
    seam::hooks.clear();
    EXPECT_EQ(set(CPUDEFEND_USERDEFINED_IP4ACL, 70000), 0); // compared at 32 bits: not equal
    EXPECT_EQ(seam::hooks.size(), 1u);
}

/* ---- Row status ----------------------------------------------------------------------- */

TEST_F(UserDefinedApi, CreatedRuleCarriesWhatItsRecordLastHeld)
{
    for (uint32_t id = 1; id <= 5; id++)
        set(id, 40 + id);
    ASSERT_EQ(set(statusId, CPUDEFEND_ROW_DESTROY), 0);
    ASSERT_EQ(setRule("default", 9, statusId, CPUDEFEND_ROW_CREATE), 0);
    for (uint32_t id = 1; id <= 5; id++)
        EXPECT_EQ(getRule("default", 9, id), (Answer<uint32_t>{0, 40 + id}));
}

TEST_F(UserDefinedApi, CreateOfAnExistingRuleLeavesItAsItIs)
{
    entry->status = 3;
    const std::string before = image(gCpuDefend) + image(*entry);
    EXPECT_EQ(set(statusId, CPUDEFEND_ROW_CREATE), 0);
    EXPECT_EQ(image(gCpuDefend) + image(*entry), before);
    EXPECT_EQ(getRule("p", 1, statusId), (Answer<uint32_t>{0, 3}));
    EXPECT_EQ(seam::hooks.size(), 1u); // the standby is told all the same
}

TEST_F(UserDefinedApi, CreateForAPolicyThatDoesNotExistIsNoPolicy)
{
    for (const std::string &name : {std::string("nobody"), std::string(""), std::string(32, 'p')})
        EXPECT_EQ(setRule(name, 1, statusId, CPUDEFEND_ROW_CREATE), noPolicy);
    EXPECT_EQ(rules().size(), 1u);
}

TEST_F(UserDefinedApi, CreateWithThePoolExhaustedIsNoMemory)
{
    restart(1, 1);
    for (uint32_t index = 1; index <= 8; index++)
        ASSERT_EQ(setRule("default", index, statusId, CPUDEFEND_ROW_CREATE), 0);
    EXPECT_EQ(setRule("default", 9, statusId, CPUDEFEND_ROW_CREATE), noMemory);
    EXPECT_EQ(findPolicy("default")->userDefinedNum, 8u);
}

TEST_F(UserDefinedApi, ActivateSetsStatus1)
{
    entry->status = 3;
    EXPECT_EQ(set(statusId, CPUDEFEND_ROW_ACTIVATE), 0);
    EXPECT_EQ(entry->status, 1);
    seam::hooks.clear();
    EXPECT_EQ(set(statusId, CPUDEFEND_ROW_ACTIVATE), 0); // not compared with the stored one
    EXPECT_EQ(seam::hooks.size(), 1u);
}

TEST_F(UserDefinedApi, DestroyReleasesTheRuleAndCountsUp)
{
    ASSERT_EQ(gCpuDefend.useUserDefinedNum, 1u);
    EXPECT_EQ(set(statusId, CPUDEFEND_ROW_DESTROY), 0);
    EXPECT_EQ(getRule("p", 1, statusId), (Answer<uint32_t>{noEntry, untouched}));
    EXPECT_EQ(policy->userDefinedNum, 0u);
    EXPECT_EQ(gCpuDefend.useUserDefinedNum, 2u);
}

TEST_F(UserDefinedApi, OtherStatusesDoNothing)
{
    const std::string before = image(gCpuDefend) + image(*entry);
    for (uint32_t status : {0u, 3u, 5u, 6u, 0x102u, 0x104u, 0xffffffffu})
        for (uint32_t index : {1u, 2u})
            EXPECT_EQ(setRule("p", index, statusId, status), 0) << status;
    for (uint32_t status : {CPUDEFEND_ROW_ACTIVATE, CPUDEFEND_ROW_DESTROY}) {
        EXPECT_EQ(setRule("p", 2, statusId, status), 0);
        EXPECT_EQ(setRule("nobody", 1, statusId, status), 0);
    }
    EXPECT_EQ(image(gCpuDefend) + image(*entry), before);
}

TEST_F(UserDefinedApi, BoundPolicyRefusesEveryStatus)
{
    policy->refCount = 1;
    const std::string before = image(gCpuDefend) + image(*entry);
    for (uint32_t status : {0u, 1u, 2u, 4u})
        for (uint32_t index : {1u, 2u})
            EXPECT_EQ(setRule("p", index, statusId, status), isBound);
    EXPECT_EQ(image(gCpuDefend) + image(*entry), before);
    EXPECT_TRUE(seam::hooks.empty());
    policy->refCount = 0;
}

TEST_F(UserDefinedApi, FailedHookAbandonsTheStatus)
{
    entry->status = 3;
    seam::hookResult = 9;
    EXPECT_EQ(setRule("p", 2, statusId, CPUDEFEND_ROW_CREATE), 9);
    EXPECT_EQ(set(statusId, CPUDEFEND_ROW_ACTIVATE), 9);
    EXPECT_EQ(set(statusId, CPUDEFEND_ROW_DESTROY), 9);
    EXPECT_EQ(entry->status, 3);
    EXPECT_EQ(rules().size(), 1u);
    for (const seam::Hook &hook : seam::hooks)
        EXPECT_EQ(hook.id, 8003u);
}

TEST_F(UserDefinedApi, IndexAbove255IsCutAndNeverFoundAgain)
{
    EXPECT_EQ(setRule("p", 263, statusId, CPUDEFEND_ROW_CREATE), 0);
    EXPECT_EQ(getRule("p", 263, statusId).code, noEntry);
    EXPECT_EQ(getRule("p", 7, statusId), (Answer<uint32_t>{0, 1}));
    EXPECT_EQ(setRule("p", 263, statusId, CPUDEFEND_ROW_DESTROY), 0);
    EXPECT_EQ(policy->userDefinedNum, 2u);
}

/* ---- Walk ----------------------------------------------------------------------------- */

static std::string keyOf(const tcpuDefendUserDefinedIdx &idx)
{
    return std::string(reinterpret_cast<const char *>(idx.policyName), idx.policyNameLen) + "/" +
           std::to_string(idx.index);
}

static std::vector<std::string> walk()
{
    std::vector<std::string> visited;
    tcpuDefendUserDefinedIdx idx{};
    for (int32_t code = cpuDefendUserDefinedGetFirst(&idx); code == 0 && visited.size() < 200;
         code = cpuDefendUserDefinedGetNext(&idx, &idx))
        visited.push_back(keyOf(idx));
    return visited;
}

TEST_F(UserDefinedApi, WalkGoesByNameLengthThenNameThenIndex)
{
    addPolicy("aa");
    addPolicy("b");
    for (const auto &[name, index] : std::vector<std::pair<std::string, uint32_t>>{
             {"aa", 3}, {"p", 255}, {"default", 2}, {"b", 8}, {"aa", 0}, {"b", 4}})
        addRule(name, index);
    EXPECT_EQ(walk(), (std::vector<std::string>{"b/4", "b/8", "p/1", "p/255", "aa/0", "aa/3",
                                                "default/2"}));
}

/* ---- Show ----------------------------------------------------------------------------- */

static int32_t lastShow;

static std::string show()
{
    return output([] { lastShow = cpuDefendUserDefinedShow(); });
}

TEST_F(UserDefinedApi, ShowPrintsTheLastRuleTwice)
{
    addRule("default", 12);
    EXPECT_EQ(show(), "policyName=p,len=1,index=1\r\n"
                      "policyName=default,len=7,index=12\r\n"
                      "policyName=default,len=7,index=12\r\n");
}

TEST_F(UserDefinedApi, ShowOfAnEmptyTablePrintsOneLine)
{
    cpuDefendUserDefinedEntryDel(entry);
    EXPECT_EQ(show(), "policyName=,len=0,index=0\r\n");
}

TEST_F(UserDefinedApi, ShowReturnsWhatItsLastPrintfReturned)
{
    show();
    EXPECT_EQ(lastShow, 28); // bytes of "policyName=p,len=1,index=1\r\n"
    addRule("default", 12);
    show();
    EXPECT_EQ(lastShow, 35);
    while (!rules().empty())
        cpuDefendUserDefinedEntryDel(rules().front());
    show();
    EXPECT_EQ(lastShow, 27);
}
