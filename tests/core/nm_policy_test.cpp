// The policy API: every attribute alike by table, then what is particular.
#include <algorithm>
#include <cstring>
#include <functional>

#include "core_test.h"

using namespace cpudefend;

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
