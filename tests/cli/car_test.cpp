#include <algorithm>

#include "ctl.h"

namespace
{

class CarTest : public CtlTest
{
protected:
    CarTest() { expectDone({"policy", "add", "edge"}); }

    /** The fields of the entry of ARP that were programmed last. */
    std::string programmedArp() const
    {
        const auto lines = journal("\"pktType\":1,");
        if (lines.empty())
            return "";
        const std::size_t at = lines.back().find("\"entry\":") + 8;
        return lines.back().substr(at, lines.back().find('}', at) + 1 - at);
    }
};

} // namespace

TEST_F(CarTest, ShowGolden)
{
    expectDone({"car", "set", "edge", "arp", "pps=200", "mode=pps", "action=deny", "queue=7"});
    EXPECT_EQ(ctlOutput({"car", "show", "edge", "arp"}),
              R"(policy     edge
type       arp
mode       pps
pps        200 packets/s
cir        16 kbit/s
cbs        6400 bytes
action     deny
queue      7
priority   2
passed     0 packets
dropped    0 packets
total-pps  6000 packets/s
total-bps  0 bytes/s
)");
    EXPECT_EQ(ctlOutput({"car", "show", "edge", "1", "--json"}),
              R"([
  {
    "policy": "edge",
    "type": "arp",
    "mode": "pps",
    "pps": 200,
    "cir": 16,
    "cbs": 6400,
    "action": "deny",
    "queue": 7,
    "priority": 2,
    "passed": 0,
    "dropped": 0,
    "total-pps": 6000,
    "total-bps": 0
  }
]
)");
}

TEST_F(CarTest, ListGolden)
{
    expectDone({"car", "set", "edge", "dhcpsnoopip", "mode=cir", "cir=1024", "cbs=16000"});
    EXPECT_EQ(
        ctlOutput({"car", "list", "edge"}),
        R"(policy  type         mode     pps (packets/s)  cir (kbit/s)  cbs (bytes)  action  queue  priority
edge    dot1x        default              512            16         6400  permit      2         2
edge    arp          default              512            16         6400  permit      2         2
edge    igmpsnoop    default              512            16         6400  permit      2         2
edge    stpcustomer  default              512            16         6400  permit      2         2
edge    gvrp         default              512            16         6400  permit      2         2
edge    udld         default              512            16         6400  permit      2         2
edge    vtp          default              512            16         6400  permit      2         2
edge    igmp         default              512            16         6400  permit      2         2
edge    alb          default              512            16         6400  permit      2         2
edge    dhcpsnoopip  cir                  512          1024        16000  permit      2         2
)");
    const std::string json = ctlOutput({"car", "list", "edge", "--json"});
    EXPECT_TRUE(json.starts_with(R"([
  {
    "policy": "edge",
    "type": "dot1x",
    "mode": "default",
    "pps": 512,
    "cir": 16,
    "cbs": 6400,
    "action": "permit",
    "queue": 2,
    "priority": 2
  },
)"));
    EXPECT_TRUE(json.ends_with(R"(  {
    "policy": "edge",
    "type": "dhcpsnoopip",
    "mode": "cir",
    "pps": 512,
    "cir": 1024,
    "cbs": 16000,
    "action": "permit",
    "queue": 2,
    "priority": 2
  }
]
)"));
}

TEST_F(CarTest, ListIsWholeAfterAPolicyWasDeleted)
{
    expectDone({"policy", "add", "b"});
    expectDone({"policy", "del", "edge"});
    expectDone({"policy", "add", "zz"});
    for (const char *policy : {"b", "default", "zz"}) {
        const std::string listed = ctlOutput({"car", "list", policy});
        EXPECT_EQ(std::count(listed.begin(), listed.end(), '\n'), 11) << policy;
    }
}

TEST_F(CarTest, AModeReplacesThoseSetBefore)
{
    expectDone({"car", "set", "edge", "arp", "mode=cir", "cir=64", "action=deny"});
    expectDone({"car", "set", "edge", "arp", "mode=pps"});
    expectDone({"bind", "edge"});
    EXPECT_NE(programmedArp().find("\"op\":3,\"bit\":32}"), std::string::npos) << programmedArp();
    expectDone({"unbind"});
    expectDone({"car", "set", "edge", "arp", "mode=cir"});
    expectDone({"bind", "edge"});
    EXPECT_NE(programmedArp().find("\"bit\":192}"), std::string::npos) << programmedArp();
    expectDone({"unbind"});
    expectDone({"car", "set", "edge", "arp", "mode=default", "action=permit"});
    expectDone({"bind", "edge"});
    EXPECT_NE(programmedArp().find("\"op\":11,\"bit\":0}"), std::string::npos) << programmedArp();
}

TEST_F(CarTest, TheLimitsOfABoundPolicyCannotBeChanged)
{
    expectDone({"bind", "edge"});
    expectFailure({"car", "set", "edge", "arp", "mode=pps", "pps=200"}, 1,
                  "couldn't set mode=default for arp in policy edge: the policy is bound, unbind "
                  "it first");
    EXPECT_NE(ctlOutput({"car", "show", "edge", "arp"}).find("pps        512"), std::string::npos);
}

TEST_F(CarTest, MissingPoliciesEntriesAndTypes)
{
    expectFailure({"car", "set", "core", "arp", "pps=1"}, 1,
                  "couldn't set pps=1 for arp in policy core: there is no policy of this name");
    expectFailure({"car", "show", "core", "arp"}, 1,
                  "couldn't show arp in policy core: there is no policy of this name");
    expectFailure({"car", "list", "core"}, 1,
                  "couldn't list the CAR entries of policy core: there is no policy of this name");
    expectFailure({"car", "show", "edge", "telnet"}, 1,
                  "couldn't show telnet in policy edge: a policy has no CAR entry of this type");
    expectFailure({"car", "set", "edge", "58", "pps=1"}, 1,
                  "couldn't set pps=1 for 58 in policy edge: a policy has no CAR entry of this "
                  "type");
    expectFailure({"car", "set", "edge", "59", "pps=1"}, 2,
                  "couldn't set 59 in policy edge: there is no packet type '59'");
    expectFailure({"car", "show", "edge", "arps"}, 2,
                  "couldn't show arps in policy edge: there is no packet type 'arps'");
}
