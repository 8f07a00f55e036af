/**
 * Slots and their bindings.
 */
#include "ctl.h"

TEST_F(SlotTest, ShowGolden)
{
    expectDone({"bind", "default", "--slot", "1/5"});
    expectDone({"slot", "set", "1/5", "l1-threshold=30", "l1-policy=default", "l3-threshold=101"});
    EXPECT_EQ(ctlOutput({"slot", "show", "1/5"}), R"(slot          1/5
policy        default
mode          fixed
l1-threshold  30 percent
l1-policy     default
l2-threshold  0 percent
l2-policy     -
l3-threshold  101 percent
l3-policy     -
)");
    EXPECT_EQ(ctlOutput({"slot", "show", "1/5", "--json"}), R"([
  {
    "slot": "1/5",
    "policy": "default",
    "mode": "fixed",
    "l1-threshold": 30,
    "l1-policy": "default",
    "l2-threshold": 0,
    "l2-policy": "",
    "l3-threshold": 101,
    "l3-policy": ""
  }
]
)");
}

TEST_F(SlotTest, ListPassesOverASlotBehindAGreaterOneAndSaysSo)
{
    const std::string warning = "the daemon has 3 slots and lists 2 of them: it passes over each "
                                "behind a greater one";
    EXPECT_EQ(
        outputWithWarning({"slot", "list"}, warning),
        R"(slot  policy  mode   l1-threshold (percent)  l1-policy  l2-threshold (percent)  l2-policy  l3-threshold (percent)  l3-policy
1/5   -       fixed                       0  -                               0  -                               0  -
1/9   -       fixed                       0  -                               0  -                               0  -
)");
    EXPECT_EQ(outputWithWarning({"slot", "list", "--json"}, warning), R"([
  {
    "slot": "1/5",
    "policy": "",
    "mode": "fixed",
    "l1-threshold": 0,
    "l1-policy": "",
    "l2-threshold": 0,
    "l2-policy": "",
    "l3-threshold": 0,
    "l3-policy": ""
  },
  {
    "slot": "1/9",
    "policy": "",
    "mode": "fixed",
    "l1-threshold": 0,
    "l1-policy": "",
    "l2-threshold": 0,
    "l2-policy": "",
    "l3-threshold": 0,
    "l3-policy": ""
  }
]
)");
    EXPECT_TRUE(ctlOutput({"slot", "show", "1/2"}).starts_with("slot          1/2\n"));
}

TEST_F(SlotTest, BindProgramsTheSlotAndUnbindRemoves)
{
    expectDone({"policy", "add", "edge"});
    expectDone({"bind", "edge", "--slot", "1/5"});
    EXPECT_EQ(journal("HW_SLOT_CPUDEFENDPKTCARADD").size(), 10u);
    EXPECT_EQ(
        journal(R"("slot":{"sys":1,"slot":5,"type":0},"cmd":"HW_SLOT_CPUDEFENDPKTCARADD")").size(),
        10u);
    expectDone({"bind", "default", "--slot", "1/5"});
    EXPECT_EQ(journal("HW_SLOT_CPUDEFENDPKTCARDEL").size(), 10u);
    expectDone({"unbind", "--slot", "1/5"});
    EXPECT_EQ(journal("HW_SLOT_CPUDEFENDPKTCARADD").size(), 20u);
    EXPECT_EQ(journal("HW_SLOT_CPUDEFENDPKTCARDEL").size(), 20u);
    EXPECT_NE(ctlOutput({"slot", "show", "1/5"}).find("\npolicy        -\n"), std::string::npos);
    EXPECT_TRUE(ctlOutput({"show"}).starts_with("policy        -\n"));
}

TEST_F(SlotTest, RefusedBindings)
{
    expectFailure({"bind", "edge", "--slot", "1/5"}, 1,
                  "couldn't bind policy edge to slot 1/5: there is no policy of this name");
    expectFailure({"bind", "default", "--slot", "1/7"}, 1,
                  "couldn't bind policy default to slot 1/7: there is no such slot");
    expectFailure({"unbind", "--slot", "1/7"}, 1,
                  "couldn't unbind the policy of slot 1/7: there is no such slot");
    for (const char *slot : {"1", "1/", "/1", "1/2/3", "1/256", "256/1", "1/-1", "one/two"}) {
        const std::string reason =
            ": a slot is written SYS/SLOT, both of them numbers from 0 to 255";
        const std::string at = std::string("slot ") + slot;
        expectFailure({"bind", "default", "--slot=" + std::string(slot)}, 2,
                      "couldn't bind policy default to " + at + reason);
        expectFailure({"unbind", "--slot=" + std::string(slot)}, 2,
                      "couldn't unbind the policy of " + at + reason);
        expectFailure({"slot", "show", slot}, 2, "couldn't show " + at + reason);
        expectFailure({"slot", "set", slot, "l1-threshold=1"}, 2, "couldn't set " + at + reason);
    }
}

TEST(Slot, WhatThePlatformRefusesIsSaidWithItsCode)
{
    DaemonProcess daemon({"0/0"}, {}, CPUDEFEND_TEST_SLOT_DAEMON);
    expectFailure({"bind", "default", "--slot", "0/0"}, 1,
                  "couldn't bind policy default to slot 0/0: the platform refused it (code 22); no "
                  "policy is bound now");
    expectFailure({"slot", "set", "0/0", "l1-threshold=5"}, 1,
                  "couldn't set l1-threshold=5 for slot 0/0: the platform answered with code 22 "
                  "(0x00000016)");
    expectDone({"bind", "default", "--slot", "1/5"});
    expectFailure({"bind", "default"}, 1,
                  "couldn't bind policy default to the system in full: the hardware layer refused "
                  "part of it (code 22); policy default is bound now");
    expectFailure({"slot", "set", "1/9", "mode=cpu-rate"}, 1,
                  "couldn't set mode=cpu-rate for slot 1/9: the platform answered with code 22 "
                  "(0x00000016)");
    EXPECT_NE(ctlOutput({"slot", "show", "1/9"}).find("mode          cpu-rate\n"),
              std::string::npos);
}
