// The API of user-defined rules: row status, every number by table, the walk.
#include <algorithm>
#include <functional>

#include "nm_test.h"

extern "C" int32_t __wrap_zynHwUserDefinedSync(tcpuDefendUserDefinedIdx *idx, uint32_t id,
                                               void *var, uint32_t flag)
{
    seam::Hook hook{"userDefined", "", idx->index, id, flag, 0, ""};
    hook.name.assign(reinterpret_cast<const char *>(idx->policyName), idx->policyNameLen);
    memcpy(&hook.number, var, sizeof hook.number);
    seam::hooks.push_back(hook);
    return seam::hookResult;
}

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

/* ---- Numbers -------------------------------------------------------------------------- */

struct RuleNumber {
    const char *name;
    uint32_t id;
    int bits;
    uint32_t (*field)(const tCpuDefendUserDefinedEntry &);
};

#define FIELD(f) [](const tCpuDefendUserDefinedEntry &e) -> uint32_t { return e.f; }

static const RuleNumber attributes[] = {
    {"Deny", 1, 8, FIELD(deny)}, {"Ip4Acl", 2, 16, FIELD(ip4Acl)}, {"Ip6Acl", 3, 16, FIELD(ip6Acl)},
    {"Cir", 4, 32, FIELD(cir)},  {"Cbs", 5, 32, FIELD(cbs)},
};

class UserDefinedAttribute : public UserDefinedApi, public testing::WithParamInterface<RuleNumber>
{
protected:
    const RuleNumber &attribute = GetParam();
    uint32_t field() const { return attribute.field(*entry); }
    int32_t set(uint32_t value) const { return UserDefinedApi::set(attribute.id, value); }
    uint32_t cut(uint32_t value) const
    {
        return attribute.bits == 32 ? value : value & ((1u << attribute.bits) - 1);
    }

    static constexpr uint32_t some = 0x89ABCD37;
};

TEST_P(UserDefinedAttribute, SetStoresTheValueCutToItsWidth)
{
    tCpuDefendUserDefinedEntry *other = addRule("p", 2);
    EXPECT_EQ(getRule("p", 1, attribute.id), (Answer<uint32_t>{0, 0}));
    EXPECT_EQ(set(some), 0);
    EXPECT_EQ(field(), cut(some));
    EXPECT_EQ(getRule("p", 1, attribute.id), (Answer<uint32_t>{0, cut(some)}));
    EXPECT_EQ(attribute.field(*other), 0u);
}

TEST_P(UserDefinedAttribute, NoRangeIsChecked)
{
    for (uint32_t value : {0xffffffffu, 1u, 0u}) {
        EXPECT_EQ(set(value), 0);
        EXPECT_EQ(field(), cut(value));
    }
}

TEST_P(UserDefinedAttribute, SetAndSetBackChangesNothingElse)
{
    const std::string before = image(*entry);
    ASSERT_EQ(set(0xffffffff), 0);
    ASSERT_EQ(set(0), 0);
    EXPECT_EQ(image(*entry), before);
}

TEST_P(UserDefinedAttribute, EqualValueCallsNoHook)
{
    EXPECT_EQ(set(0), 0);
    EXPECT_TRUE(seam::hooks.empty());
    set(cut(some));
    seam::hooks.clear();
    EXPECT_EQ(set(cut(some)), 0);
    EXPECT_TRUE(seam::hooks.empty());
}

TEST_P(UserDefinedAttribute, HookSeesTheChangeWithItsFlag)
{
    ASSERT_EQ(set(some), 0);
    tcpuDefendUserDefinedIdx idx = ruleIdx("p", 1);
    uint32_t value = some + 1;
    ASSERT_EQ(cpuDefendUserDefinedSyncApi(&idx, attribute.id, &value), 0);
    EXPECT_EQ(field(), cut(some + 1));
    ASSERT_EQ(seam::hooks.size(), 2u);
    for (uint32_t i = 0; i < 2; i++) {
        const seam::Hook &hook = seam::hooks[i];
        EXPECT_EQ(hook.name, "p");
        EXPECT_EQ(hook.pktType, 1u); // the rule's index
        EXPECT_EQ(hook.id, 8003 + attribute.id);
        EXPECT_EQ(hook.number, some + i);
        EXPECT_EQ(hook.flag, i == 0 ? 3u : 1u);
    }
}

TEST_P(UserDefinedAttribute, FailedHookChangesNothing)
{
    const std::string before = image(*entry);
    for (int32_t result : {77, -5}) {
        seam::hookResult = result;
        EXPECT_EQ(set(some), result);
        EXPECT_EQ(image(*entry), before);
    }
}

TEST_P(UserDefinedAttribute, BoundPolicyIsRefusedAndUnchanged)
{
    const std::string before = image(*entry);
    policy->refCount = 1;
    EXPECT_EQ(set(some), isBound);
    EXPECT_EQ(set(0), isBound); // even what would change nothing
    EXPECT_EQ(image(*entry), before);
    EXPECT_TRUE(seam::hooks.empty());
    EXPECT_EQ(getRule("p", 1, attribute.id), (Answer<uint32_t>{0, 0}));
    policy->refCount = 0;
    EXPECT_EQ(set(some), 0);
}

TEST_P(UserDefinedAttribute, MissingRuleIsNoSuchEntry)
{
    for (const auto &[name, index] : std::vector<std::pair<std::string, uint32_t>>{
             {"nobody", 1}, {"p", 0}, {"p", 2}, {"p", 257}, {"", 1}, {std::string(32, 'p'), 1}}) {
        EXPECT_EQ(setRule(name, index, attribute.id, some), noEntry);
        EXPECT_EQ(getRule(name, index, attribute.id), (Answer<uint32_t>{noEntry, untouched}));
    }
    EXPECT_TRUE(seam::hooks.empty());
}

INSTANTIATE_TEST_SUITE_P(UserDefinedApi, UserDefinedAttribute, testing::ValuesIn(attributes),
                         [](const testing::TestParamInfo<RuleNumber> &row) {
                             return std::string(row.param.name);
                         });

TEST_F(UserDefinedApi, Ip4Acl70000Stores4464)
{
    EXPECT_EQ(set(CPUDEFEND_USERDEFINED_IP4ACL, 70000), 0);
    EXPECT_EQ(entry->ip4Acl, 4464);
    EXPECT_EQ(getRule("p", 1, CPUDEFEND_USERDEFINED_IP4ACL), (Answer<uint32_t>{0, 4464}));
    seam::hooks.clear();
    EXPECT_EQ(set(CPUDEFEND_USERDEFINED_IP4ACL, 70000), 0); // compared at 32 bits: not equal
    EXPECT_EQ(seam::hooks.size(), 1u);
}

/** Front ends share the spelling, so it is part of the protocol. */
TEST_F(UserDefinedApi, BurstIsSpelledWithATAndIsNumber5)
{
    EXPECT_EQ(CPUDEFEND_USERDEFINEDT_CBS, 5);
    EXPECT_EQ(set(CPUDEFEND_USERDEFINEDT_CBS, 123456), 0);
    EXPECT_EQ(entry->cbs, 123456u);
}

TEST_F(UserDefinedApi, UnknownIdIsReadAsNothingAndNotSet)
{
    const std::string before = image(*entry);
    for (uint32_t id : {6u, 7u, 255u, 256u, 0x80000000u, 0xffffffffu}) {
        EXPECT_EQ(getRule("p", 1, id), (Answer<uint32_t>{0, untouched})) << id;
        EXPECT_EQ(set(id, 1), -1) << id;
    }
    EXPECT_EQ(image(*entry), before);
    EXPECT_TRUE(seam::hooks.empty());
}

TEST_F(UserDefinedApi, MissingRuleThenBindingComeBeforeTheId)
{
    policy->refCount = 1;
    EXPECT_EQ(set(6, 1), isBound);
    EXPECT_EQ(setRule("p", 2, 6, 1), noEntry);
    EXPECT_EQ(setRule("p", 2, CPUDEFEND_USERDEFINED_CIR, 1), noEntry);
    policy->refCount = 0;
    EXPECT_EQ(set(6, 1), -1);
}

TEST_F(UserDefinedApi, ChangesProgramNoHardware)
{
    for (const RuleNumber &attribute : attributes)
        set(attribute.id, 77);
    setRule("p", 9, statusId, CPUDEFEND_ROW_CREATE);
    set(statusId, CPUDEFEND_ROW_DESTROY);
    EXPECT_TRUE(scripted::calls.empty());
}

/* ---- Row status ----------------------------------------------------------------------- */

TEST_F(UserDefinedApi, CreateMakesARuleOfStatus1)
{
    EXPECT_EQ(setRule("p", 7, statusId, CPUDEFEND_ROW_CREATE), 0);
    EXPECT_EQ(getRule("p", 7, statusId), (Answer<uint32_t>{0, 1}));
    EXPECT_EQ(policy->userDefinedNum, 2u);
    EXPECT_EQ(keys(rules()), (std::vector<std::string>{"p/1", "p/7"}));
}

TEST_F(UserDefinedApi, CreatedRuleCarriesWhatItsRecordLastHeld)
{
    for (const RuleNumber &attribute : attributes)
        set(attribute.id, 40 + attribute.id);
    ASSERT_EQ(set(statusId, CPUDEFEND_ROW_DESTROY), 0);
    ASSERT_EQ(setRule("default", 9, statusId, CPUDEFEND_ROW_CREATE), 0);
    for (const RuleNumber &attribute : attributes)
        EXPECT_EQ(getRule("default", 9, attribute.id), (Answer<uint32_t>{0, 40 + attribute.id}));
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

TEST_F(UserDefinedApi, OnePolicyMayTakeThePoolOfAll)
{
    for (uint32_t index = 2; index <= 64; index++)
        ASSERT_EQ(setRule("p", index, statusId, CPUDEFEND_ROW_CREATE), 0);
    EXPECT_EQ(policy->userDefinedNum, 64u);
    EXPECT_EQ(setRule("default", 1, statusId, CPUDEFEND_ROW_CREATE), noMemory);
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

TEST_F(UserDefinedApi, RulesOfAPolicyBoundToASlotAreRefusedUntilUnbound)
{
    cpuDefendSlotEntryAdd(1, 5);
    tcpuDefendSlotIdx slot{1, 5};
    Cell name("p"), none("");
    ASSERT_EQ(cpuDefendSlotSetApi(&slot, CPUDEFEND_SLOT_POLICY, &name), 0);
    EXPECT_EQ(setRule("p", 2, statusId, CPUDEFEND_ROW_CREATE), isBound);
    EXPECT_EQ(set(statusId, CPUDEFEND_ROW_DESTROY), isBound);
    EXPECT_EQ(set(CPUDEFEND_USERDEFINED_DENY, 1), isBound);
    ASSERT_EQ(cpuDefendSlotSetApi(&slot, CPUDEFEND_SLOT_POLICY, &none), 0);
    EXPECT_EQ(setRule("p", 2, statusId, CPUDEFEND_ROW_CREATE), 0);
    EXPECT_EQ(set(statusId, CPUDEFEND_ROW_DESTROY), 0);
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

TEST_F(UserDefinedApi, RuleWhosePolicyIsGoneCanBeReleasedUnderTheEmptyName)
{
    ASSERT_EQ(setPolicy("p", CPUDEFEND_POLICY_ENTRYSTATUS, CPUDEFEND_ROW_DESTROY), 0);
    EXPECT_EQ(getRule("p", 1, statusId).code, noEntry);
    EXPECT_EQ(setRule("", 1, statusId, CPUDEFEND_ROW_DESTROY), 0);
    EXPECT_TRUE(rules().empty());
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

static Answer<std::string> next(const std::string &name, uint32_t index)
{
    tcpuDefendUserDefinedIdx idx = ruleIdx(name, index);
    tcpuDefendUserDefinedIdx after{};
    const int32_t code = cpuDefendUserDefinedGetNext(&idx, &after);
    return {code, keyOf(after)};
}

TEST_F(UserDefinedApi, WalkWritesTheNamesBytesAndNoMore)
{
    addPolicy("e");
    addRule("e", 1);
    addRule("default", 1);
    tcpuDefendUserDefinedIdx first, next;
    memset(&first, '~', sizeof first);
    memset(&next, '~', sizeof next);
    ASSERT_EQ(cpuDefendUserDefinedGetFirst(&first), 0);
    EXPECT_EQ(image(first.policyName), "e" + std::string(31, '~'));
    EXPECT_EQ(first.policyNameLen, 1u);
    memset(&first, 0, sizeof first);
    memset(first.policyName, 'z', 6); // before all of seven bytes
    first.policyNameLen = 6;
    ASSERT_EQ(cpuDefendUserDefinedGetNext(&first, &next), 0);
    EXPECT_EQ(image(next.policyName), "default" + std::string(25, '~'));
    EXPECT_EQ(next.policyNameLen, 7u);
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

TEST_F(UserDefinedApi, WalkContinuesFromAKeyThatDoesNotExist)
{
    addRule("p", 5);
    addRule("default", 2);
    using Next = Answer<std::string>;
    EXPECT_EQ(next("", 0), (Next{0, "p/1"}));
    EXPECT_EQ(next("o", 99), (Next{0, "p/1"}));
    EXPECT_EQ(next("p", 3), (Next{0, "p/5"}));
    EXPECT_EQ(next("p", 0xffffffff), (Next{0, "default/2"}));
    EXPECT_EQ(next("default", 2), (Next{-1, "/0"}));
    EXPECT_EQ(next("longer than default", 0), (Next{-1, "/0"}));
}

TEST_F(UserDefinedApi, WalkNeverVisitsADuplicate)
{
    addRule("p", 1);
    EXPECT_EQ(rules().size(), 2u);
    EXPECT_EQ(walk(), std::vector<std::string>{"p/1"});
}

TEST_F(UserDefinedApi, WalkOfAnEmptyListEndsAtOnce)
{
    cpuDefendUserDefinedEntryDel(entry);
    tcpuDefendUserDefinedIdx idx = ruleIdx("x", 3);
    EXPECT_EQ(cpuDefendUserDefinedGetFirst(&idx), -1);
    EXPECT_EQ(keyOf(idx), "x/3");
    EXPECT_EQ(next("", 0).code, -1);
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

TEST_F(UserDefinedApi, ShowStaysInsideANameOf32Bytes)
{
    const std::string name(32, 'n');
    addPolicy(name);
    cpuDefendUserDefinedEntryDel(entry);
    addRule(name, 200);
    const std::string line = "policyName=" + name + ",len=32,index=200\r\n";
    EXPECT_EQ(show(), line + line);
}

/* ---- Semaphore and kinds -------------------------------------------------------------- */

TEST_F(UserDefinedApi, SemaphoreIsTakenByEveryCall)
{
    tcpuDefendUserDefinedIdx idx{};
    const std::vector<std::function<void()>> all{
        [] { getRule("p", 1, 0); },
        [] { getRule("p", 1, 99); },
        [] { getRule("nobody", 1, 0); },
        [] { set(1, 5); },
        [] { set(1, 5); },
        [] { set(99, 5); },
        [] { set(statusId, 2); },
        [] { setRule("nobody", 1, 1, 5); },
        [] { setRule("nobody", 1, statusId, 2); },
        [&] { cpuDefendUserDefinedGetFirst(&idx); },
        [&] { cpuDefendUserDefinedGetNext(&idx, &idx); },
        [] {
            seam::hookResult = 1;
            set(1, 6);
        },
        [this] {
            policy->refCount = 1;
            set(1, 6);
            policy->refCount = 0;
        },
    };
    for (size_t i = 0; i < all.size(); i++) {
        seam::semTakes = 0;
        all[i]();
        EXPECT_EQ(seam::semTakes, 1) << i;
        EXPECT_EQ(seam::semDepth, 0) << i;
    }
}

TEST(UserDefinedAttrKind, IsANumberForEveryAttribute)
{
    for (uint32_t id = 0; id <= 5; id++)
        EXPECT_EQ(cpuDefendUserDefinedAttrKind(id), NM_NUMBER) << id;
    for (uint32_t id : {6u, 255u, 256u, 0xffffffffu})
        EXPECT_EQ(cpuDefendUserDefinedAttrKind(id), NM_ANY) << id;
}
