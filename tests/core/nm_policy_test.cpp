// The policy API: every attribute alike by table, then what is particular.
#include <algorithm>
#include <cstring>
#include <functional>

#include "core_test.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

class PolicyApi : public CoreTest
{
protected:
    void SetUp() override
    {
        CoreTest::SetUp();
        policy = addPolicy("p");
    }

    tCpuDefendPolicyEntry *policy;
};

/* ---- Numeric attributes --------------------------------------------------------------- */

enum class List { None, White, Black };

struct PolicyNumber {
    const char *name;
    uint32_t id;
    int bits;
    bool inUseCheck;
    List enableCheck;
    uint32_t fresh; /**< value in a new policy */
    uint32_t (*field)(const tCpuDefendPolicyEntry &);
};

#define FIELD(f) [](const tCpuDefendPolicyEntry &p) -> uint32_t { return p.f; }

static const PolicyNumber attributes[] = {
    {"WhiteListEnable", 3, 8, true, List::None, 1, FIELD(whiteListEnable)},
    {"WhiteListIp4Acl", 4, 16, true, List::White, 0, FIELD(whiteListIp4Acl)},
    {"WhiteListIp6Acl", 5, 16, true, List::White, 0, FIELD(whiteListIp6Acl)},
    {"WhiteListIp4Cir", 6, 32, true, List::White, 16, FIELD(whiteListIp4Cir)},
    {"WhiteListIp4Cbs", 7, 32, true, List::White, 6400, FIELD(whiteListIp4Cbs)},
    {"WhiteListIp6Cir", 8, 32, true, List::White, 16, FIELD(whiteListIp6Cir)},
    {"WhiteListIp6Cbs", 9, 32, true, List::White, 6400, FIELD(whiteListIp6Cbs)},
    {"BlackListEnable", 10, 8, true, List::None, 1, FIELD(blackListEnable)},
    {"BlackListIp4Acl", 11, 16, true, List::Black, 0, FIELD(blackListIp4Acl)},
    {"BlackListIp6Acl", 12, 16, true, List::Black, 0, FIELD(blackListIp6Acl)},
    {"SrcTraceEnable", 13, 8, false, List::None, 2, FIELD(srcTraceEnable)},
    {"SrcTracePktDataEnable", 14, 8, false, List::None, 2, FIELD(srcTracePktDataEnable)},
    {"SrcTraceAlarmEnable", 15, 8, false, List::None, 2, FIELD(srcTraceAlarmEnable)},
    {"SrcTraceThreshold", 16, 16, false, List::None, 128, FIELD(srcTraceThreshold)},
    {"SrcTraceAlarmThreshold", 17, 16, false, List::None, 128, FIELD(srcTraceAlarmThreshold)},
};

static uint32_t cut(uint32_t value, int bits)
{
    return bits == 32 ? value : value & ((1u << bits) - 1);
}

class PolicyAttribute : public PolicyApi, public testing::WithParamInterface<PolicyNumber>
{
protected:
    const PolicyNumber &attribute = GetParam();
    uint32_t field() const { return attribute.field(*policy); }
    int32_t set(uint32_t value) const { return setPolicy("p", attribute.id, value); }

    static constexpr uint32_t some = 0x89ABCD37; /**< differs from every fresh value, cut or not */
};

TEST_P(PolicyAttribute, GetGivesTheFreshValueWidened)
{
    EXPECT_EQ(getPolicy("p", attribute.id), (Answer<uint32_t>{0, attribute.fresh}));
}

TEST_P(PolicyAttribute, SetStoresTheValueCutToItsWidth)
{
    EXPECT_EQ(set(some), 0);
    EXPECT_EQ(field(), cut(some, attribute.bits));
    EXPECT_EQ(getPolicy("p", attribute.id), (Answer<uint32_t>{0, cut(some, attribute.bits)}));
}

TEST_P(PolicyAttribute, SetChangesNothingElse)
{
    tCpuDefendPolicyEntry expected = *policy;
    ASSERT_EQ(set(some), 0);
    const uint32_t stored = field();
    ASSERT_EQ(set(attribute.fresh), 0);
    EXPECT_NE(stored, field());
    EXPECT_EQ(image(*policy), image(expected));
}

TEST_P(PolicyAttribute, EqualityIsTestedBeforeTheValueIsCut)
{
    if (attribute.bits == 32)
        return; // nothing is cut
    EXPECT_EQ(set(attribute.fresh + 0x10000), 0);
    EXPECT_EQ(seam::hooks.size(), 1u);
    EXPECT_EQ(field(), attribute.fresh);
}

TEST_P(PolicyAttribute, EqualValueIsNoChangeEvenWhenBound)
{
    policy->refCount = 1;
    EXPECT_EQ(set(attribute.fresh), 0);
    EXPECT_TRUE(seam::hooks.empty());
    policy->refCount = 0;
}

TEST_P(PolicyAttribute, EqualValueIsNoChangeEvenWithTheListOff)
{
    if (attribute.enableCheck == List::White)
        policy->whiteListEnable = 2;
    if (attribute.enableCheck == List::Black)
        policy->blackListEnable = 2;
    EXPECT_EQ(set(attribute.fresh), 0);
    EXPECT_TRUE(seam::hooks.empty());
}

TEST_P(PolicyAttribute, HookSeesTheChangeWithItsFlag)
{
    ASSERT_EQ(set(some), 0);
    tCpuDefendPolicyIdx idx = policyIdx("p");
    uint32_t value = some + 1;
    ASSERT_EQ(cpuDefendPolicySyncApi(&idx, attribute.id, &value), 0);
    EXPECT_EQ(field(), cut(some + 1, attribute.bits));
    ASSERT_EQ(seam::hooks.size(), 2u);
    for (int i = 0; i < 2; i++) {
        const seam::Hook &hook = seam::hooks[static_cast<size_t>(i)];
        EXPECT_EQ(hook.table, "policy");
        EXPECT_EQ(hook.name, "p");
        EXPECT_EQ(hook.id, 8002 + attribute.id);
        EXPECT_EQ(hook.number, i == 0 ? some : some + 1);
        EXPECT_EQ(hook.flag, i == 0 ? 3u : 1u);
    }
}

TEST_P(PolicyAttribute, FailedHookAbandonsTheSet)
{
    policy->refCount = 1; // the hook comes before the in-use check
    const std::string before = image(*policy);
    for (int32_t result : {77, -5}) {
        seam::hookResult = result;
        EXPECT_EQ(set(some), result);
        EXPECT_EQ(image(*policy), before);
    }
    EXPECT_EQ(seam::hooks.size(), 2u);
    policy->refCount = 0;
}

TEST_P(PolicyAttribute, BoundPolicyIsWarnedAboutButChanged)
{
    policy->refCount = 2;
    EXPECT_EQ(set(some), attribute.inUseCheck ? 0x03E8000B : 0);
    EXPECT_EQ(field(), cut(some, attribute.bits));
    policy->refCount = 0;
}

TEST_P(PolicyAttribute, ListThatIsOffKeepsItsValue)
{
    const int32_t code = attribute.enableCheck == List::White   ? 0x041E0001
                         : attribute.enableCheck == List::Black ? 0x041E0002
                                                                : 0;
    for (uint8_t off : {0, 2, 3, 255}) {
        // Each list has its own switch: the other one does not matter.
        policy->whiteListEnable = attribute.enableCheck == List::White ? off : 1;
        policy->blackListEnable = attribute.enableCheck == List::Black ? off : 1;
        const uint32_t value = some + off;
        EXPECT_EQ(set(value), code);
        EXPECT_EQ(field(), code ? attribute.fresh : cut(value, attribute.bits));
    }
}

TEST_P(PolicyAttribute, ListThatIsOffReplacesTheInUseCode)
{
    if (attribute.enableCheck == List::None)
        return; // shown by BoundPolicyIsWarnedAboutButChanged
    policy->refCount = 1;
    policy->whiteListEnable = policy->blackListEnable = 2;
    EXPECT_EQ(set(some), attribute.enableCheck == List::White ? 0x041E0001 : 0x041E0002);
    EXPECT_EQ(field(), attribute.fresh);
    policy->refCount = 0;
}

TEST_P(PolicyAttribute, OtherListsSwitchDoesNotMatter)
{
    policy->whiteListEnable = attribute.enableCheck == List::Black ? 2 : 1;
    policy->blackListEnable = attribute.enableCheck == List::White ? 2 : 1;
    EXPECT_EQ(set(some), 0);
    EXPECT_EQ(field(), cut(some, attribute.bits));
}

TEST_P(PolicyAttribute, UnknownPolicyIsNoSuchEntry)
{
    EXPECT_EQ(setPolicy("nobody", attribute.id, some), 0x03E80002);
    EXPECT_EQ(getPolicy("nobody", attribute.id), (Answer<uint32_t>{0x03E80002, untouched}));
    EXPECT_TRUE(seam::hooks.empty());
}

INSTANTIATE_TEST_SUITE_P(PolicyApi, PolicyAttribute, testing::ValuesIn(attributes),
                         [](const testing::TestParamInfo<PolicyNumber> &row) {
                             return std::string(row.param.name);
                         });

/* ---- Row status ----------------------------------------------------------------------- */

static int32_t setStatus(const std::string &name, uint32_t value)
{
    return setPolicy(name, CPUDEFEND_POLICY_ENTRYSTATUS, value);
}

TEST_F(PolicyApi, CreateMakesAPolicyWithStatus3)
{
    EXPECT_EQ(setStatus("new", 2), 0);
    ASSERT_NE(findPolicy("new"), nullptr);
    EXPECT_EQ(getPolicy("new", CPUDEFEND_POLICY_ENTRYSTATUS), (Answer<uint32_t>{0, 3}));
    EXPECT_EQ(keys(carEntries(findPolicy("new"))), tenKeys("new"));
    EXPECT_EQ(gCpuDefend.usePolicyNum, 3u);
    EXPECT_EQ(setStatus("new", 2), 0);
    EXPECT_EQ(getPolicy("new", CPUDEFEND_POLICY_ENTRYSTATUS), (Answer<uint32_t>{0, 3}));
    EXPECT_EQ(gCpuDefend.usePolicyNum, 3u);
}

TEST_F(PolicyApi, CreateOfAnExistingPolicySetsItsStatusTo3)
{
    policy->whiteListIp4Cir = 99;
    EXPECT_EQ(getPolicy("p", CPUDEFEND_POLICY_ENTRYSTATUS), (Answer<uint32_t>{0, 1}));
    policy->refCount = 1; // bound or not
    EXPECT_EQ(setStatus("p", 2), 0);
    EXPECT_EQ(policy->policyStatus, 3);
    EXPECT_EQ(policy->whiteListIp4Cir, 99u);
    policy->refCount = 0;
}

TEST_F(PolicyApi, ActivateSetsTheStatusTo1)
{
    setStatus("new", 2);
    EXPECT_EQ(setStatus("new", 1), 0);
    EXPECT_EQ(findPolicy("new")->policyStatus, 1);
    EXPECT_EQ(setStatus("nobody", 1), 0);
    EXPECT_EQ(findPolicy("nobody"), nullptr);
}

TEST_F(PolicyApi, DestroyReleasesThePolicy)
{
    EXPECT_EQ(setStatus("p", 4), 0);
    EXPECT_EQ(findPolicy("p"), nullptr);
    EXPECT_EQ(gCpuDefend.usePolicyNum, 1u);
    EXPECT_EQ(gCpuDefend.useCarPktNum, 20u); // its entries stay
    EXPECT_EQ(setStatus("p", 4), 0);         // nothing to destroy
}

TEST_F(PolicyApi, DestroyOfABoundPolicyIsRefused)
{
    policy->refCount = 1;
    EXPECT_EQ(setStatus("p", 4), 0x041E0005);
    EXPECT_EQ(findPolicy("p"), policy);
    policy->refCount = 0;
    EXPECT_EQ(setStatus("p", 4), 0);
}

TEST_F(PolicyApi, OtherStatusesDoNothing)
{
    const std::string before = image(*policy);
    for (uint32_t value : {0u, 3u, 5u, 6u, 0x102u, 0xffffffffu}) {
        EXPECT_EQ(setStatus("p", value), 0) << value;
        EXPECT_EQ(setStatus("nobody", value), 0) << value;
    }
    EXPECT_EQ(image(*policy), before);
    EXPECT_EQ(gCpuDefend.usePolicyNum, 2u);
}

TEST_F(PolicyApi, CreateInAFullPoolIsOutOfRecords)
{
    for (int i = 0; i < 6; i++)
        ASSERT_EQ(setStatus("filler" + std::to_string(i), 2), 0);
    EXPECT_EQ(setStatus("one more", 2), 0x03E80001);
    EXPECT_EQ(gCpuDefend.usePolicyNum, 8u);
    EXPECT_EQ(setStatus("p", 2), 0); // no record needed
}

TEST_F(PolicyApi, CreateWithFewerCarEntriesIsNoError)
{
    for (int i = 0; i < 6; i++) {
        setStatus("q", 2);
        setStatus("q", 4);
    }
    EXPECT_EQ(setStatus("q", 2), 0);
    EXPECT_TRUE(carEntries(findPolicy("q")).empty());
}

TEST_F(PolicyApi, StatusHasNoEqualityShortCut)
{
    policy->policyStatus = 2;
    EXPECT_EQ(setStatus("p", 2), 0);
    EXPECT_EQ(policy->policyStatus, 3);
    EXPECT_EQ(seam::hooks.size(), 1u);
}

TEST_F(PolicyApi, HookSeesAStatusOfAnExistingPolicyAndCanAbandonIt)
{
    setStatus("p", 2);
    ASSERT_EQ(seam::hooks.size(), 1u);
    EXPECT_EQ(seam::hooks[0].name, "p");
    EXPECT_EQ(seam::hooks[0].id, 8002u);
    EXPECT_EQ(seam::hooks[0].flag, 3u);
    EXPECT_EQ(seam::hooks[0].number, 2u);
    seam::hookResult = 9;
    EXPECT_EQ(setStatus("p", 1), 9);
    EXPECT_EQ(policy->policyStatus, 3);
    EXPECT_EQ(setStatus("p", 4), 9);
    EXPECT_EQ(findPolicy("p"), policy);
}

TEST_F(PolicyApi, HookDoesNotSeeAStatusOfAMissingPolicy)
{
    seam::hookResult = 9;
    EXPECT_EQ(setStatus("new", 1), 0);
    EXPECT_EQ(setStatus("new", 4), 0);
    EXPECT_EQ(setStatus("new", 2), 0);
    EXPECT_NE(findPolicy("new"), nullptr);
    EXPECT_TRUE(seam::hooks.empty());
}

TEST_F(PolicyApi, CreatedPolicyIsFoundByTheSlotThatNamesIt)
{
    const tCpuDefendSlotEntry *slot = addSlot(0, 1, "new");
    setStatus("new", 2);
    EXPECT_EQ(slot->policyEntry, findPolicy("new"));
}

TEST_F(PolicyApi, NameLongerThan32BytesIsNeverCreated)
{
    for (uint32_t len : {33u, 255u, 256u, 257u, 0x7fffffffu, 0xffffffffu}) {
        tCpuDefendPolicyIdx idx{};
        memset(idx.name, 'p', sizeof idx.name);
        idx.len = len;
        uint32_t value = CPUDEFEND_ROW_CREATE;
        EXPECT_NE(cpuDefendPolicySetApi(&idx, CPUDEFEND_POLICY_ENTRYSTATUS, &value), 0) << len;
        EXPECT_EQ(cpuDefendPolicySetApi(&idx, CPUDEFEND_POLICY_WHITELISTENABLE, &value),
                  0x03E80002);
        EXPECT_EQ(cpuDefendPolicyGetApi(&idx, CPUDEFEND_POLICY_WHITELISTENABLE, &value),
                  0x03E80002);
    }
    EXPECT_EQ(gCpuDefend.usePolicyNum, 2u);
    EXPECT_EQ(gCpuDefend.useCarPktNum, 20u);
}

/* ---- Description and priority --------------------------------------------------------- */

TEST_F(PolicyApi, DescriptionIsCutTo64Bytes)
{
    const std::string text = std::string(60, 'a') + std::string(20, 'b');
    EXPECT_EQ(setPolicy("p", CPUDEFEND_POLICY_DESCRIPTION, text), 0);
    EXPECT_EQ(policy->policyDescriptionLen, 64);
    EXPECT_EQ(nameOf(policy), "p"); // and its length: the bytes behind the description
    EXPECT_EQ(getPolicy("p", CPUDEFEND_POLICY_DESCRIPTION, 100),
              (Answer<std::string>{0, text.substr(0, 64)}));
}

TEST_F(PolicyApi, DescriptionIsReadUpToTheRoomGiven)
{
    setPolicy("p", CPUDEFEND_POLICY_DESCRIPTION, "a description");
    using Read = Answer<std::string>;
    EXPECT_EQ(getPolicy("p", CPUDEFEND_POLICY_DESCRIPTION, 10), (Read{0, "a descript"}));
    EXPECT_EQ(getPolicy("p", CPUDEFEND_POLICY_DESCRIPTION, 0), (Read{0, ""}));
    EXPECT_EQ(getPolicy("p", CPUDEFEND_POLICY_DESCRIPTION, 13), (Read{0, "a description"}));
    EXPECT_EQ(getPolicy("p", CPUDEFEND_POLICY_DESCRIPTION, 1000), (Read{0, "a description"}));
    EXPECT_EQ(getPolicy("nobody", CPUDEFEND_POLICY_DESCRIPTION, 10).code, 0x03E80002);
}

TEST_F(PolicyApi, DescriptionIsChangedOnABoundPolicyWithoutAWarning)
{
    policy->refCount = 1;
    EXPECT_EQ(setPolicy("p", CPUDEFEND_POLICY_DESCRIPTION, "text"), 0);
    EXPECT_EQ(getPolicy("p", CPUDEFEND_POLICY_DESCRIPTION, 64), (Answer<std::string>{0, "text"}));
    policy->refCount = 0;
}

TEST_F(PolicyApi, StringsHaveNoEqualityShortCut)
{
    const struct {
        uint32_t id;
        const char *text;
    } rows[] = {{CPUDEFEND_POLICY_DESCRIPTION, "text"}, {CPUDEFEND_POLICY_PRIORITY, "abc"}};
    for (const auto &row : rows) {
        seam::hooks.clear();
        setPolicy("p", row.id, row.text);
        setPolicy("p", row.id, row.text);
        ASSERT_EQ(seam::hooks.size(), 2u);
        EXPECT_EQ(seam::hooks[1].id, 8002 + row.id);
        EXPECT_EQ(seam::hooks[1].flag, 3 | ZYN_SYNC_OCTETS);
        EXPECT_EQ(seam::hooks[1].octets, row.text);
    }
}

TEST_F(PolicyApi, ReplayedStringCarriesTheReplayFlag)
{
    std::string text = "text";
    for (uint32_t id : {CPUDEFEND_POLICY_DESCRIPTION, CPUDEFEND_POLICY_PRIORITY}) {
        tCpuDefendPolicyIdx idx = policyIdx("p");
        octetstring value{reinterpret_cast<unsigned char *>(text.data()), 3};
        EXPECT_EQ(cpuDefendPolicySyncApi(&idx, id, &value), 0);
        EXPECT_EQ(seam::hooks.back().flag, 1 | ZYN_SYNC_OCTETS);
    }
}

TEST_F(PolicyApi, FailedHookAbandonsAString)
{
    const std::string before = image(*policy);
    seam::hookResult = 31;
    EXPECT_EQ(setPolicy("p", CPUDEFEND_POLICY_DESCRIPTION, "text"), 31);
    EXPECT_EQ(setPolicy("p", CPUDEFEND_POLICY_PRIORITY, "abc"), 31);
    EXPECT_EQ(image(*policy), before);
}

TEST_F(PolicyApi, EmptyDescriptionClearsIt)
{
    setPolicy("p", CPUDEFEND_POLICY_DESCRIPTION, "text");
    EXPECT_EQ(setPolicy("p", CPUDEFEND_POLICY_DESCRIPTION, ""), 0);
    EXPECT_EQ(getPolicy("p", CPUDEFEND_POLICY_DESCRIPTION, 64), (Answer<std::string>{0, ""}));
}

TEST_F(PolicyApi, PriorityIsReadAsThreeBytes)
{
    using Read = Answer<std::string>;
    EXPECT_EQ(getPolicy("p", CPUDEFEND_POLICY_PRIORITY, 3), (Read{0, std::string(3, '\0')}));
    EXPECT_EQ(setPolicy("p", CPUDEFEND_POLICY_PRIORITY, "abc"), 0);
    EXPECT_EQ(getPolicy("p", CPUDEFEND_POLICY_PRIORITY, 3), (Read{0, "abc"}));
    EXPECT_EQ(getPolicy("p", CPUDEFEND_POLICY_PRIORITY, 64), (Read{0, "abc"}));
    EXPECT_EQ(getPolicy("nobody", CPUDEFEND_POLICY_PRIORITY, 3).code, 0x03E80002);
}

TEST_F(PolicyApi, PriorityTakesTheBytesGivenAndFourAtMost)
{
    const struct {
        const char *given, *stored;
    } rows[] = {{"abc", "abc\0"}, {"", "abc\0"},        {"X", "Xbc\0"},
                {"abcd", "abcd"}, {"12345678", "1234"}, {"xy", "xy34"}};
    for (const auto &row : rows) {
        tCpuDefendPolicyEntry expected = *policy;
        memcpy(expected.priority, row.stored, 4);
        EXPECT_EQ(setPolicy("p", CPUDEFEND_POLICY_PRIORITY, row.given), 0) << row.given;
        EXPECT_EQ(image(*policy), image(expected)) << row.given; // nothing behind it
    }
    EXPECT_EQ(setPolicy("p", CPUDEFEND_POLICY_PRIORITY, std::string(1400, 'z')), 0);
    EXPECT_EQ(image(policy->priority), "zzzz");
    EXPECT_EQ(policy->whiteListIp4Acl, 0);
}

TEST_F(PolicyApi, PriorityOfABoundPolicyIsWarnedAboutButChanged)
{
    policy->refCount = 1;
    EXPECT_EQ(setPolicy("p", CPUDEFEND_POLICY_PRIORITY, "abc"), 0x03E8000B);
    EXPECT_EQ(getPolicy("p", CPUDEFEND_POLICY_PRIORITY, 3), (Answer<std::string>{0, "abc"}));
    policy->refCount = 0;
}

/* ---- Reference count and unknown ids -------------------------------------------------- */

TEST_F(PolicyApi, ReferenceCountIsReadOnly)
{
    policy->refCount = 0x12345678;
    EXPECT_EQ(getPolicy("p", CPUDEFEND_POLICY_REFCOUNT), (Answer<uint32_t>{0, 0x12345678}));
    EXPECT_EQ(setPolicy("p", CPUDEFEND_POLICY_REFCOUNT, 0u), -1);
    EXPECT_EQ(policy->refCount, 0x12345678u);
    policy->refCount = 0;
}

TEST_F(PolicyApi, UnknownIdIsReadAsNothingAndNotSet)
{
    const std::string before = image(*policy);
    for (uint32_t id : {19u, 20u, 255u, 256u, 0x80000000u, 0xffffffffu}) {
        EXPECT_EQ(getPolicy("p", id), (Answer<uint32_t>{0, untouched})) << id;
        EXPECT_EQ(setPolicy("p", id, 1u), -1) << id;
        EXPECT_EQ(getPolicy("nobody", id), (Answer<uint32_t>{0x03E80002, untouched})) << id;
        EXPECT_EQ(setPolicy("nobody", id, 1u), 0x03E80002) << id; // the name comes first
    }
    EXPECT_EQ(setPolicy("nobody", CPUDEFEND_POLICY_REFCOUNT, 1u), 0x03E80002);
    EXPECT_EQ(setPolicy("nobody", CPUDEFEND_POLICY_DESCRIPTION, "text"), 0x03E80002);
    EXPECT_EQ(setPolicy("nobody", CPUDEFEND_POLICY_PRIORITY, "abc"), 0x03E80002);
    EXPECT_TRUE(seam::hooks.empty());
    EXPECT_EQ(image(*policy), before);
}

TEST_F(PolicyApi, ChangesProgramNoHardware)
{
    for (const PolicyNumber &attribute : attributes)
        setPolicy("p", attribute.id, 77u);
    setStatus("new", 2);
    setStatus("new", 4);
    EXPECT_TRUE(scripted::calls.empty());
    setPolicy("p", CPUDEFEND_POLICY_SRCTRACEENABLE, 2u);
}

/* ---- Walk ----------------------------------------------------------------------------- */

/** Names that GetFirst and GetNext visit. */
static std::vector<std::string> walk()
{
    std::vector<std::string> names;
    tCpuDefendPolicyIdx idx{};
    for (int32_t code = cpuDefendPolicyGetFirst(&idx); code == 0 && names.size() < 40;
         code = cpuDefendPolicyGetNext(&idx, &idx))
        names.emplace_back(reinterpret_cast<char *>(idx.name), idx.len);
    return names;
}

static Answer<std::string> next(const std::string &name)
{
    tCpuDefendPolicyIdx idx = policyIdx(name);
    tCpuDefendPolicyIdx after{};
    const std::string before = image(after);
    const int32_t code = cpuDefendPolicyGetNext(&idx, &after);
    if (code != 0) {
        EXPECT_EQ(image(after), before);
        return {code, ""};
    }
    return {code, std::string(reinterpret_cast<char *>(after.name), after.len)};
}

TEST_F(PolicyApi, WalkWritesTheNamesBytesAndNoMore)
{
    addPolicy("abc");
    addPolicy("e");
    tCpuDefendPolicyIdx first, next;
    memset(&first, '~', sizeof first);
    memset(&next, '~', sizeof next);
    ASSERT_EQ(cpuDefendPolicyGetFirst(&first), 0);
    EXPECT_EQ(image(first.name), "abc" + std::string(29, '~'));
    EXPECT_EQ(first.len, 3u);
    first = policyIdx("default");
    ASSERT_EQ(cpuDefendPolicyGetNext(&first, &next), 0);
    EXPECT_EQ(image(next.name), "e" + std::string(31, '~'));
    EXPECT_EQ(next.len, 1u);
}

TEST_F(PolicyApi, WalkIsByteWise)
{
    for (const char *name : {"b", "abc", "ab", "zz", "B"})
        addPolicy(name);
    EXPECT_EQ(walk(), (std::vector<std::string>{"B", "ab", "abc", "b", "default", "p", "zz"}));
}

TEST_F(PolicyApi, WalkContinuesFromANameThatDoesNotExist)
{
    for (const char *name : {"default", "p"})
        setStatus(name, 4);
    addPolicy("a");
    addPolicy("c");
    using Next = Answer<std::string>;
    EXPECT_EQ(next("b"), (Next{0, "c"}));
    EXPECT_EQ(next("a"), (Next{0, "c"}));
    EXPECT_EQ(next("c"), (Next{-1, ""}));
    EXPECT_EQ(next("d"), (Next{-1, ""}));
    EXPECT_EQ(next(""), (Next{0, "a"}));
    EXPECT_EQ(next("aa"), (Next{0, "c"}));
    EXPECT_EQ(next("A"), (Next{0, "a"}));
}

TEST_F(PolicyApi, WalkContinuesFromANameThatWasDestroyedMeanwhile)
{
    addPolicy("m");
    tCpuDefendPolicyIdx idx = policyIdx("m");
    setStatus("m", 4);
    EXPECT_EQ(cpuDefendPolicyGetNext(&idx, &idx), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(idx.name), idx.len), "p");
}

TEST_F(PolicyApi, WalkVisitsEveryPolicyFromAnyKey)
{
    restart(32, 1);
    std::vector<std::string> names;
    for (int i = 0; i < 31; i++)
        names.push_back(std::string(1, static_cast<char>('A' + i * 7 % 31)));
    for (const std::string &name : names)
        ASSERT_NE(addPolicy(name), nullptr) << name;
    names.push_back("default");
    std::sort(names.begin(), names.end());
    EXPECT_EQ(walk(), names);
    for (size_t i = 0; i + 1 < names.size(); i++)
        EXPECT_EQ(next(names[i] + '\x01').value, names[i + 1]);
}

TEST_F(PolicyApi, WalkOfAnEmptyTableEndsAtOnce)
{
    setStatus("default", 4);
    setStatus("p", 4);
    tCpuDefendPolicyIdx idx = policyIdx("x");
    EXPECT_EQ(cpuDefendPolicyGetFirst(&idx), -1);
    EXPECT_EQ(next(""), (Answer<std::string>{-1, ""}));
}

TEST_F(PolicyApi, GetFirstWithoutAnIndexIsRefused)
{
    EXPECT_EQ(cpuDefendPolicyGetFirst(nullptr), -1);
}

TEST_F(PolicyApi, WalkFromAnOverlongNameStaysInsideTheIndex)
{
    for (uint32_t len : {33u, 256u, 0xffffffffu}) {
        tCpuDefendPolicyIdx idx{}, after{};
        memset(idx.name, 'd', sizeof idx.name);
        idx.len = len;
        const int32_t code = cpuDefendPolicyGetNext(&idx, &after);
        EXPECT_TRUE(code == -1 || after.len <= 32) << len;
    }
}

/* ---- Show ----------------------------------------------------------------------------- */

static std::string show()
{
    CaptureStdout();
    EXPECT_EQ(cpuDefendPolicyShow(), 0);
    return GetCapturedStdout();
}

TEST_F(PolicyApi, ShowPrintsTheLastNameTwice)
{
    setStatus("p", 4);
    EXPECT_EQ(show(), "cpuDefendNameIdx->name=default,len=7,\r\n"
                      "cpuDefendNameIdx->name=default,len=7,\r\n");
    addPolicy("ab");
    addPolicy("a long name");
    addPolicy("some longer name");
    EXPECT_EQ(show(), "cpuDefendNameIdx->name=a long name,len=11,\r\n"
                      "cpuDefendNameIdx->name=ab,len=2,\r\n"
                      "cpuDefendNameIdx->name=default,len=7,\r\n"
                      "cpuDefendNameIdx->name=some longer name,len=16,\r\n"
                      "cpuDefendNameIdx->name=some longer name,len=16,\r\n");
}

TEST_F(PolicyApi, ShowOfAnEmptyTablePrintsOneEmptyName)
{
    setStatus("default", 4);
    setStatus("p", 4);
    EXPECT_EQ(show(), "cpuDefendNameIdx->name=,len=0,\r\n");
}

TEST_F(PolicyApi, ShowStaysInsideANameOf32Bytes)
{
    setStatus("default", 4);
    setStatus("p", 4);
    const std::string name(32, 'n');
    addPolicy(name);
    const std::string line = "cpuDefendNameIdx->name=" + name + ",len=32,\r\n";
    EXPECT_EQ(show(), line + line);
}

/* ---- Semaphore and kinds -------------------------------------------------------------- */

TEST_F(PolicyApi, SemaphoreIsTakenByEveryCallButShow)
{
    tCpuDefendPolicyIdx idx{};
    const std::vector<std::function<void()>> all{
        [] { getPolicy("p", 3); },
        [] { getPolicy("p", 99); },
        [] { getPolicy("nobody", 3); },
        [] { setPolicy("p", 3, 5u); },
        [] { setPolicy("p", 3, 5u); },
        [] { setPolicy("p", 4, 5u); },
        [] { setPolicy("p", 18, 5u); },
        [] { setPolicy("p", 99, 5u); },
        [] { setPolicy("nobody", 3, 5u); },
        [] { setPolicy("p", CPUDEFEND_POLICY_DESCRIPTION, "text"); },
        [] { setStatus("q", 2); },
        [] { setStatus("q", 4); },
        [] { setStatus("q", 4); },
        [&] { cpuDefendPolicyGetFirst(&idx); },
        [&] { cpuDefendPolicyGetNext(&idx, &idx); },
        [&] { idx = policyIdx("zz"), cpuDefendPolicyGetNext(&idx, &idx); },
        [] {
            seam::hookResult = 1;
            setPolicy("p", 3, 6u);
        },
    };
    for (size_t i = 0; i < all.size(); i++) {
        seam::semTakes = 0;
        all[i]();
        EXPECT_EQ(seam::semTakes, 1) << i;
        EXPECT_EQ(seam::semDepth, 0) << i;
    }
}

TEST(PolicyAttrKind, TellsNumbersFromStrings)
{
    for (uint32_t id = 0; id <= 18; id++)
        EXPECT_EQ(cpuDefendPolicyAttrKind(id), id == 1 || id == 2 ? NM_OCTETS : NM_NUMBER) << id;
    for (uint32_t id : {19u, 255u, 256u, 0xffffffffu})
        EXPECT_EQ(cpuDefendPolicyAttrKind(id), NM_ANY) << id;
}
