// User-defined rules: their two lists, the record's stale fields, the counts.
#include "core_test.h"

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

class UserDefinedTable : public CoreTest
{
};

TEST_F(UserDefinedTable, RulesOfAPolicyAreOrderedByIndex)
{
    tCpuDefendPolicyEntry *policy = addPolicy("p");
    addRule("p", 3);
    addRule("p", 1);
    addRule("p", 2);
    const std::vector<std::string> expected{"p/1", "p/2", "p/3"};
    EXPECT_EQ(keys(rules(policy)), expected);
    EXPECT_EQ(keys(rules()), expected);
    EXPECT_EQ(policy->userDefinedNum, 3u);
    EXPECT_EQ(gCpuDefend.useUserDefinedNum, 3u);
}

TEST_F(UserDefinedTable, ReusedRecordKeepsItsUnsetFields)
{
    addPolicy("p");
    tCpuDefendUserDefinedEntry *rule = addRule("p", 1);
    rule->status = 9;
    rule->deny = 1;
    rule->res = 3;
    rule->ip4Acl = 2000;
    rule->ip6Acl = 3000;
    rule->cir = 64;
    rule->cbs = 9000;
    ASSERT_EQ(cpuDefendUserDefinedEntryDel(rule), 0);

    ASSERT_EQ(addRule("default", 5), rule); // last in, first out
    EXPECT_EQ(rule->index, 5);
    EXPECT_EQ(rule->status, 1);
    EXPECT_EQ(rule->policyEntry, findPolicy("default"));
    EXPECT_EQ(rule->deny, 1);
    EXPECT_EQ(rule->res, 3);
    EXPECT_EQ(rule->ip4Acl, 2000);
    EXPECT_EQ(rule->ip6Acl, 3000);
    EXPECT_EQ(rule->cir, 64u);
    EXPECT_EQ(rule->cbs, 9000u);
}

TEST_F(UserDefinedTable, DeleteWithoutAPolicyIsRefused)
{
    tCpuDefendUserDefinedEntry stray{};
    const uint32_t before = length(gCpuDefend.userDefinedFreeList);
    EXPECT_EQ(cpuDefendUserDefinedEntryDel(&stray), -1);
    EXPECT_EQ(gCpuDefend.useUserDefinedNum, 0u);
    EXPECT_EQ(length(gCpuDefend.userDefinedFreeList), before);
}

/* ---- Failures ------------------------------------------------------------------------- */

TEST_F(UserDefinedTable, FailuresAreReportedWithDebuggingOnOnly)
{
    for (uint32_t i = 0; i < 64; i++)
        addRule("default", i);
    for (uint8_t debug : {0, 1, 2}) {
        gCpuDefend.cpuDefendDebug = debug;
        CaptureStderr();
        addRule("nobody", 1);
        EXPECT_EQ(GetCapturedStderr(),
                  debug == 1 ? "[cpuDefend] The instance pPolicy does not exist !\r\n" : "");
        CaptureStderr();
        addRule("default", 1);
        EXPECT_EQ(GetCapturedStderr(),
                  debug == 1 ? "[cpuDefend] no memery to add userDefined!\r\n" : "");
    }
}

/* ---- Rules left over from a destroyed policy ------------------------------------------ */

TEST_F(UserDefinedTable, LeftoverRuleDeletedLaterSparesTheNextOwnerOfTheRecord)
{
    tCpuDefendPolicyEntry *record = addPolicy("old");
    tCpuDefendUserDefinedEntry *leftover = addRule("old", 1);
    addRule("old", 2);
    ASSERT_EQ(cpuDefendPolicyEntryDel(record), 0);
    ASSERT_EQ(addPolicy("new"), record);
    tCpuDefendUserDefinedEntry *own = addRule("new", 3);
    const uint32_t inUse = gCpuDefend.useUserDefinedNum;

    EXPECT_EQ(cpuDefendUserDefinedEntryDel(leftover), 0);
    EXPECT_EQ(rules(record), std::vector<tCpuDefendUserDefinedEntry *>{own});
    EXPECT_EQ(record->userDefinedNum, 1u);
    EXPECT_EQ(gCpuDefend.useUserDefinedNum, inUse + 1);
    EXPECT_EQ(gCpuDefend.userDefinedFreeList.next, &leftover->node);
}

TEST_F(UserDefinedTable, NextOwnerWithoutRulesKeepsItsCountAtZero)
{
    tCpuDefendPolicyEntry *record = addPolicy("old");
    tCpuDefendUserDefinedEntry *leftover = addRule("old", 1);
    ASSERT_EQ(cpuDefendPolicyEntryDel(record), 0);
    ASSERT_EQ(addPolicy("new"), record);
    EXPECT_EQ(cpuDefendUserDefinedEntryDel(leftover), 0);
    EXPECT_EQ(record->userDefinedNum, 0u);
    EXPECT_TRUE(rules(record).empty());
}
