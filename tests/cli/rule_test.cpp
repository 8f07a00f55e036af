#include <algorithm>

#include "ctl.h"

namespace
{

class RuleTest : public CtlTest
{
protected:
    RuleTest() { expectDone({"policy", "add", "edge"}); }
};

} // namespace

TEST_F(RuleTest, ShowGolden)
{
    expectDone({"rule", "add", "edge", "3", "ip4-acl=2000", "cir=1024", "cbs=16000"});
    EXPECT_EQ(ctlOutput({"rule", "show", "edge", "3"}),
              R"(policy   edge
index    3
status   active
action   permit
ip4-acl  2000
ip6-acl  0
cir      1024 kbit/s
cbs      16000 bytes
)");
    EXPECT_EQ(ctlOutput({"rule", "show", "edge", "3", "--json"}), R"([
  {
    "policy": "edge",
    "index": 3,
    "status": "active",
    "action": "permit",
    "ip4-acl": 2000,
    "ip6-acl": 0,
    "cir": 1024,
    "cbs": 16000
  }
]
)");
}

TEST_F(RuleTest, ListGolden)
{
    expectDone({"rule", "add", "edge", "200", "ip6-acl=65535", "action=deny"});
    expectDone({"rule", "add", "edge", "1"});
    expectDone({"rule", "add", "default", "7", "ip4-acl=3"});
    EXPECT_EQ(ctlOutput({"rule", "list"}),
              R"(policy   index  action  ip4-acl  ip6-acl  cir (kbit/s)  cbs (bytes)
default      7  permit        3        0            16         6400
edge         1  permit        0        0            16         6400
edge       200  deny          0    65535            16         6400
)");
    EXPECT_EQ(ctlOutput({"rule", "list", "default", "--json"}), R"([
  {
    "policy": "default",
    "index": 7,
    "action": "permit",
    "ip4-acl": 3,
    "ip6-acl": 0,
    "cir": 16,
    "cbs": 6400
  }
]
)");
}

TEST_F(RuleTest, ANewRuleHasNothingOfTheLastOneInItsRecord)
{
    expectDone(
        {"rule", "add", "edge", "1", "action=deny", "ip4-acl=1", "ip6-acl=2", "cir=3", "cbs=4"});
    expectDone({"rule", "del", "edge", "1"});
    expectDone({"rule", "add", "edge", "2", "ip4-acl=9"});
    EXPECT_EQ(ctlOutput({"rule", "list", "edge"}),
              R"(policy  index  action  ip4-acl  ip6-acl  cir (kbit/s)  cbs (bytes)
edge        2  permit        9        0            16         6400
)");
}

TEST_F(RuleTest, ARuleReachesTheHardwareWithTheBind)
{
    expectDone({"rule", "add", "edge", "1", "ip4-acl=2000", "cir=64", "cbs=8000"});
    expectDone({"rule", "add", "edge", "2", "ip6-acl=3000", "action=deny"});
    EXPECT_TRUE(journal("acl_cpudefend_add").empty());
    expectDone({"bind", "edge"});
    EXPECT_EQ(journal("acl_cpudefend_add").size(), 2u);
    EXPECT_EQ(journal(R"("acl":2000,"action":11,"cir":64,"cbs":8000,"ebs":8000)").size(), 1u);
    EXPECT_EQ(journal(R"("acl":3000,"action":3,"cir":0,"cbs":0,"ebs":0)").size(), 1u);
}

TEST_F(RuleTest, TheRulesOfABoundPolicyCannotBeChanged)
{
    expectDone({"rule", "add", "edge", "1", "ip4-acl=5"});
    expectDone({"bind", "edge"});
    expectFailure({"rule", "add", "edge", "2"}, 1,
                  "couldn't add rule 2 of policy edge: the policy is bound, unbind it first");
    expectFailure({"rule", "set", "edge", "1", "cir=7"}, 1,
                  "couldn't set cir=7 for rule 1 of policy edge: the policy is bound, unbind it "
                  "first");
    expectFailure({"rule", "del", "edge", "1"}, 1,
                  "couldn't delete rule 1 of policy edge: the policy is bound, unbind it first");
    EXPECT_NE(ctlOutput({"rule", "list"}).find("edge        1  permit        5"),
              std::string::npos);
}

TEST_F(RuleTest, MissingPoliciesAndRules)
{
    expectFailure({"rule", "add", "core", "1"}, 1,
                  "couldn't add rule 1 of policy core: the policy that it belongs to does not "
                  "exist");
    expectFailure({"rule", "list", "core"}, 1,
                  "couldn't list the rules of policy core: there is no policy of this name");
    const std::string reasons[][2] = {{"core", "there is no policy of this name"},
                                      {"edge", "there is no such rule"}};
    for (const auto &[policy, reason] : reasons) {
        expectFailure({"rule", "set", policy, "1", "cir=7"}, 1,
                      "couldn't set cir=7 for rule 1 of policy " + policy + ": " + reason);
        expectFailure({"rule", "show", policy, "1"}, 1,
                      "couldn't show rule 1 of policy " + policy + ": " + reason);
        expectFailure({"rule", "del", policy, "1"}, 1,
                      "couldn't delete rule 1 of policy " + policy + ": " + reason);
    }
}

TEST_F(RuleTest, RefusedIndexes)
{
    expectFailure({"rule", "add", "edge", "0"}, 2,
                  "couldn't add rule 0 of policy edge: the daemon keeps a rule 0, but never "
                  "programs it");
    for (const char *index : {"256", "-1", "one", ""})
        for (const char *verb : {"add", "show", "del"})
            expectFailure({"rule", verb, "edge", index}, 2,
                          std::string("couldn't ") + (*verb == 'd' ? "delete" : verb) + " rule " +
                              index + " of policy edge: a rule has a number from 1 to 255");
    expectFailure({"rule", "set", "edge", "256", "cir=1"}, 2,
                  "couldn't set rule 256 of policy edge: a rule has a number from 1 to 255");
    expectFailure({"rule", "add", std::string(33, 'x'), "1"}, 2,
                  "couldn't add rule 1 of policy " + std::string(33, 'x') +
                      ": a policy name has 1 to 32 bytes");
}

TEST_F(RuleTest, ANewPolicyKeepsNoRuleOfADeletedOne)
{
    expectDone({"rule", "add", "edge", "1", "ip4-acl=5"});
    expectDone({"policy", "del", "edge"});
    expectDone({"policy", "add", "core"});
    EXPECT_EQ(ctlOutput({"rule", "list"}), "");
    expectDone({"rule", "add", "core", "1", "ip4-acl=6"});
    expectDone({"bind", "core"});
    EXPECT_EQ(journal("acl_cpudefend_add").size(), 1u);
}

TEST(Rule, AnExhaustedPoolIsSaid)
{
    DaemonProcess daemon({"1"});
    for (const char *index : {"1", "2", "3", "4", "5", "6", "7", "8"})
        expectDone({"rule", "add", "default", index});
    expectFailure({"rule", "add", "default", "9"}, 1,
                  "couldn't add rule 9 of policy default: the daemon has no free record left for "
                  "it");
    const std::string listed = ctlOutput({"rule", "list"});
    EXPECT_EQ(std::count(listed.begin(), listed.end(), '\n'), 9);
}
