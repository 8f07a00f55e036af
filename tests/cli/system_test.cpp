#include "ctl.h"

TEST_F(CtlTest, ShowGolden)
{
    expectDone({"policy", "add", "edge"});
    expectDone({"bind", "edge"});
    expectDone({"debug", "on"});
    EXPECT_EQ(ctlOutput({"show"}), R"(policy        edge
mode          fixed
l1-threshold  0 percent
l1-policy     -
l2-threshold  0 percent
l2-policy     -
l3-threshold  0 percent
l3-policy     -
debug         on
policies      2 of 32
rules         0 of 256
car-entries   20 of 320
sources       0 of 32
slots         0 of 10
)");
    EXPECT_EQ(ctlOutput({"show", "--json"}), R"([
  {
    "policy": "edge",
    "mode": "fixed",
    "l1-threshold": 0,
    "l1-policy": "",
    "l2-threshold": 0,
    "l2-policy": "",
    "l3-threshold": 0,
    "l3-policy": "",
    "debug": true,
    "policies": {
      "used": 2,
      "max": 32
    },
    "rules": {
      "used": 0,
      "max": 256
    },
    "car-entries": {
      "used": 20,
      "max": 320
    },
    "sources": {
      "used": 0,
      "max": 32
    },
    "slots": {
      "used": 0,
      "max": 10
    }
  }
]
)");
}

TEST_F(CtlTest, BindProgramsAndUnbindRemoves)
{
    expectDone({"policy", "add", "edge"});
    expectDone({"bind", "edge"});
    EXPECT_EQ(journal("HW_SYS_CPUDEFENDPKTCARADD").size(), 10u);
    EXPECT_EQ(journal("HW_SYS_CPUDEFENDPKTCARDEL").size(), 0u);
    expectDone({"bind", "edge"}); // bound already: nothing to do
    EXPECT_EQ(journal("HW_SYS_CPUDEFENDPKTCARADD").size(), 10u);
    expectDone({"unbind"});
    EXPECT_EQ(journal("HW_SYS_CPUDEFENDPKTCARDEL").size(), 10u);
    EXPECT_TRUE(ctlOutput({"show"}).starts_with("policy        -\n"));
}

TEST_F(CtlTest, BindOfAMissingPolicyChangesNothing)
{
    expectDone({"bind", "default"});
    expectFailure({"bind", "edge"}, 1,
                  "couldn't bind policy edge to the system: there is no policy of this name");
    EXPECT_TRUE(ctlOutput({"show"}).starts_with("policy        default\n"));
}

TEST_F(CtlTest, DebugIsSwitchedOnAndOff)
{
    expectDone({"debug", "on"});
    EXPECT_NE(ctlOutput({"show"}).find("debug         on\n"), std::string::npos);
    expectDone({"debug", "off"});
    EXPECT_NE(ctlOutput({"show"}).find("debug         off\n"), std::string::npos);
    expectFailure({"debug", "maybe"}, 2,
                  "couldn't switch debugging maybe: it is not one of on|off");
}
