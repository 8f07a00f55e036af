#include "ctl.h"

TEST_F(CtlTest, PolicyShowGolden)
{
    expectDone({"policy", "add", "edge", "description=Edge routers", "priority=1,2,255",
                "white-list-ip4-acl=2001", "source-trace=on"});
    EXPECT_EQ(ctlOutput({"policy", "show", "edge"}),
              R"(name                          edge
status                        active
description                   Edge routers
priority                      1,2,255
white-list                    on
white-list-ip4-acl            2001
white-list-ip6-acl            0
white-list-ip4-cir            16 kbit/s
white-list-ip4-cbs            6400 bytes
white-list-ip6-cir            16 kbit/s
white-list-ip6-cbs            6400 bytes
black-list                    on
black-list-ip4-acl            0
black-list-ip6-acl            0
source-trace                  on
source-trace-data             off
source-trace-alarm            off
source-trace-threshold        128 packets
source-trace-alarm-threshold  128 packets
bindings                      0
)");
    EXPECT_EQ(ctlOutput({"policy", "show", "edge", "--json"}),
              R"([
  {
    "name": "edge",
    "status": "active",
    "description": "Edge routers",
    "priority": [
      1,
      2,
      255
    ],
    "white-list": true,
    "white-list-ip4-acl": 2001,
    "white-list-ip6-acl": 0,
    "white-list-ip4-cir": 16,
    "white-list-ip4-cbs": 6400,
    "white-list-ip6-cir": 16,
    "white-list-ip6-cbs": 6400,
    "black-list": true,
    "black-list-ip4-acl": 0,
    "black-list-ip6-acl": 0,
    "source-trace": true,
    "source-trace-data": false,
    "source-trace-alarm": false,
    "source-trace-threshold": 128,
    "source-trace-alarm-threshold": 128,
    "bindings": 0
  }
]
)");
}

TEST_F(CtlTest, PolicyListGolden)
{
    expectDone({"policy", "add", "edge", "description=Zürich", "black-list=off"});
    expectDone({"bind", "edge"});
    EXPECT_EQ(ctlOutput({"policy", "list"}),
              R"(name     bindings  white-list  black-list  source-trace  description
default         0  on          on          off           -
edge            1  on          off         off           Zürich
)");
    EXPECT_EQ(ctlOutput({"--json", "policy", "list"}),
              R"([
  {
    "name": "default",
    "bindings": 0,
    "white-list": true,
    "black-list": true,
    "source-trace": false,
    "description": ""
  },
  {
    "name": "edge",
    "bindings": 1,
    "white-list": true,
    "black-list": false,
    "source-trace": false,
    "description": "Zürich"
  }
]
)");
}

TEST_F(CtlTest, AListOfNothingIsAnEmptyArray)
{
    expectDone({"policy", "del", "default"});
    EXPECT_EQ(ctlOutput({"policy", "list"}), "");
    EXPECT_EQ(ctlOutput({"policy", "list", "--json"}), "[]\n");
    EXPECT_EQ(ctlOutput({"car", "list", "--json"}), "[]\n");
}

TEST_F(CtlTest, PolicyAddRefusesWhatExists)
{
    expectFailure({"policy", "add", "default"}, 1,
                  "couldn't add policy default: it exists already");
    EXPECT_NE(ctlOutput({"policy", "show", "default"}).find("status                        active"),
              std::string::npos);
}

TEST_F(CtlTest, PolicyDelRefusesWhatIsMissingOrBound)
{
    expectFailure({"policy", "del", "edge"}, 1,
                  "couldn't delete policy edge: there is no policy of this name");
    expectDone({"policy", "add", "edge"});
    expectDone({"bind", "edge"});
    expectFailure({"policy", "del", "edge"}, 1,
                  "couldn't delete policy edge: the policy is bound, unbind it first");
    expectDone({"unbind"});
    expectDone({"policy", "del", "edge"});
    expectFailure({"policy", "show", "edge"}, 1,
                  "couldn't show policy edge: there is no policy of this name");
}

TEST_F(CtlTest, PolicySetOnABoundPolicyStoresAndWarns)
{
    expectDone({"policy", "add", "edge"});
    expectDone({"bind", "edge"});
    const Outcome outcome =
        runCtl({"policy", "set", "edge", "white-list-ip4-acl=5", "white-list-ip4-cir=64"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "cpudefendctl: warning: policy edge is bound: the change is stored, and "
                           "takes effect when the policy is unbound and bound again\n");
    const std::string shown = ctlOutput({"policy", "show", "edge"});
    EXPECT_NE(shown.find("white-list-ip4-acl            5\n"), std::string::npos);
    EXPECT_NE(shown.find("white-list-ip4-cir            64 kbit/s\n"), std::string::npos);
    EXPECT_TRUE(journal("acl_cpudefend").empty());
}

TEST_F(CtlTest, PolicySetSwitchesAListOnFirstAndOffLast)
{
    expectDone({"policy", "add", "edge"});
    expectDone({"policy", "set", "edge", "white-list=off", "white-list-ip4-acl=7"});
    expectDone({"policy", "set", "edge", "white-list-ip6-acl=8", "white-list=on"});
    const std::string shown = ctlOutput({"policy", "show", "edge"});
    EXPECT_NE(shown.find("white-list-ip4-acl            7\n"), std::string::npos);
    EXPECT_NE(shown.find("white-list-ip6-acl            8\n"), std::string::npos);
}

TEST_F(CtlTest, PolicySetSaysHowFarItCame)
{
    expectDone({"policy", "add", "edge", "white-list=off"});
    expectFailure({"policy", "set", "edge", "description=x", "black-list-ip4-acl=5",
                   "white-list-ip4-acl=5", "source-trace=off"},
                  1,
                  "couldn't set white-list-ip4-acl=5 for policy edge: the policy's white list is "
                  "off; set before that: description=x black-list-ip4-acl=5");
}

TEST_F(CtlTest, PolicySetThatFailsOnABoundPolicyWarnsOfWhatIsStored)
{
    expectDone({"policy", "add", "edge", "white-list=off"});
    expectDone({"bind", "edge"});
    const Outcome outcome =
        runCtl({"policy", "set", "edge", "black-list-ip4-acl=5", "white-list-ip4-acl=5"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err,
              "cpudefendctl: warning: policy edge is bound: the change is stored, and takes effect "
              "when the policy is unbound and bound again\n"
              "cpudefendctl: couldn't set white-list-ip4-acl=5 for policy edge: the policy's white "
              "list is off; set before that: black-list-ip4-acl=5\n");
}

TEST_F(CtlTest, PolicySetOfAMissingPolicy)
{
    expectFailure({"policy", "set", "edge", "description=x"}, 1,
                  "couldn't set description=x for policy edge: there is no policy of this name");
}

TEST_F(CtlTest, ABadSettingKeepsAllOthersFromBeingSent)
{
    expectFailure({"policy", "set", "default", "description=x", "source-trace-threshold=65536"}, 2,
                  "couldn't set up policy default: source-trace-threshold cannot be '65536': it is "
                  "not a number from 0 to 65535");
    EXPECT_NE(ctlOutput({"policy", "show", "default"}).find("description                   -\n"),
              std::string::npos);
    expectFailure({"policy", "add", "edge", "speed=1"}, 2,
                  "couldn't add policy edge: there is no setting 'speed'");
    expectFailure({"policy", "show", "edge"}, 1,
                  "couldn't show policy edge: there is no policy of this name");
}

TEST_F(CtlTest, PolicyNamesHave1To32Bytes)
{
    const std::string longest(32, 'x');
    expectDone({"policy", "add", longest});
    const std::string reason = ": a policy name has 1 to 32 bytes";
    expectFailure({"policy", "add", longest + "y"}, 2,
                  "couldn't add policy " + longest + "y" + reason);
    expectFailure({"policy", "set", "", "description=x"}, 2, "couldn't set up policy " + reason);
    expectFailure({"policy", "show", ""}, 2, "couldn't show policy " + reason);
    expectFailure({"policy", "del", ""}, 2, "couldn't delete policy " + reason);
    expectFailure({"bind", ""}, 2, "couldn't bind policy  to the system" + reason);
}

TEST_F(CtlTest, NamesCannotPlayWithTheTerminal)
{
    expectDone({"policy", "add", "a\x1b[2J"});
    expectFailure(
        {"bind", "b\n\xff"}, 1,
        "couldn't bind policy b\\x0A\\xFF to the system: there is no policy of this name");
    EXPECT_NE(ctlOutput({"policy", "list"}).find("a\\x1B[2J"), std::string::npos);
    EXPECT_NE(ctlOutput({"policy", "list", "--json"}).find("\"a\\u001b[2J\""), std::string::npos);
}

TEST(Ctl, AnExhaustedPoolIsSaid)
{
    DaemonProcess daemon({"1"});
    expectFailure({"policy", "add", "edge"}, 1,
                  "couldn't add policy edge: the daemon has no free record left for it");
}

TEST(Ctl, APolicyWithoutAllItsLimitsIsWarnedOf)
{
    DaemonProcess daemon({"2"}); // 20 CAR entries, 10 of them the default policy's
    expectDone({"policy", "add", "edge"});
    expectDone({"policy", "del", "edge"});
    const Outcome outcome = runCtl({"policy", "add", "core"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "cpudefendctl: warning: policy core has limits for 0 of 10 packet "
                           "types: the daemon has no CAR entries left\n");
}
