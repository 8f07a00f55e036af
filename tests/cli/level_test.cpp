/**
 * CPU-rate control: of the system and of slots.
 */
#include "ctl.h"

TEST_F(CtlTest, TheLevelsOfTheSystemAreSetAndShown)
{
    expectDone({"policy", "add", "busy"});
    expectDone({"set", "l1-threshold=0", "l1-policy=default", "l2-threshold=60", "l2-policy=busy",
                "l3-threshold=100"});
    EXPECT_NE(ctlOutput({"show"}).find(R"(
mode          fixed
l1-threshold  0 percent
l1-policy     default
l2-threshold  60 percent
l2-policy     busy
l3-threshold  100 percent
l3-policy     -
)"),
              std::string::npos);
    expectDone({"set", "l2-policy="});
    EXPECT_NE(ctlOutput({"show"}).find("\nl2-policy     -\n"), std::string::npos);
}

TEST_F(CtlTest, ModeCpuRateIsSetLastAndUnbindsThePolicyOfTheSystem)
{
    expectDone({"bind", "default"});
    EXPECT_EQ(outputWithWarning({"set", "mode=cpu-rate", "l1-threshold=100", "l2-threshold=100",
                                 "l3-threshold=100"},
                                "policy default is no longer bound to the system"),
              "");
    EXPECT_TRUE(ctlOutput({"show"}).starts_with("policy        -\nmode          cpu-rate\n"));
    const auto synced = journal("zynHwScalarSync");
    ASSERT_FALSE(synced.empty());
    EXPECT_NE(synced.back().find("\"scalarId\":8013,"), std::string::npos) << synced.back();
    EXPECT_EQ(journal("HW_SYS_CPUDEFENDPKTCARDEL").size(), 10u);
    expectDone({"set", "l1-threshold=99", "mode=fixed"});
    const auto after = journal("zynHwScalarSync");
    EXPECT_NE(after[after.size() - 2].find("\"scalarId\":8013,"), std::string::npos);
}

TEST_F(CtlTest, RefusedSettingsOfTheSystem)
{
    const struct {
        const char *setting;
        const char *reason;
    } kRefused[] = {
        {"mode", "'mode' is not of the form KEY=VALUE"},
        {"rate=5", "there is no setting 'rate'"},
        {"policy=default", "policy is no setting: a command of its own changes it"},
        {"debug=on", "debug is no setting: a command of its own changes it"},
        {"slots-max=5", "slots-max can only be read"},
        {"mode=auto", "mode cannot be 'auto': it is not one of cpu-rate|fixed"},
        {"l2-threshold=101", "l2-threshold cannot be '101': it is not a number from 0 to 100"},
        {"l3-threshold=9", "l3-threshold is given twice"},
    };
    for (const auto &[setting, reason] : kRefused)
        expectFailure({"set", "l3-threshold=9", setting}, 2,
                      std::string("couldn't set the system: ") + reason);
    expectFailure({"set", "l1-threshold=9", "l1-policy=core", "mode=cpu-rate"}, 1,
                  "couldn't set l1-policy=core for the system: there is no policy of this name; "
                  "set before that: l1-threshold=9");
    EXPECT_NE(ctlOutput({"show"}).find("\nmode          fixed\n"), std::string::npos);
}

TEST_F(SlotTest, ASlotInCpuRateModeGetsTheLevelForItsUse)
{
    expectDone({"policy", "add", "busy"});
    expectDone({"slot", "set", "1/5", "mode=cpu-rate", "l1-threshold=101", "l1-policy=busy"});
    EXPECT_TRUE(journalGets("HW_SLOT_CPUDEFENDPKTCARADD"));
    EXPECT_NE(ctlOutput({"slot", "show", "1/5"}).find("mode          cpu-rate\n"),
              std::string::npos);
    EXPECT_NE(ctlOutput({"policy", "show", "busy"}).find("bindings                      1\n"),
              std::string::npos);
    expectDone({"slot", "set", "1/5", "l1-policy=", "mode=fixed"});
    EXPECT_EQ(journal("HW_SLOT_CPUDEFENDPKTCARDEL").size(), 10u);
    expectDone({"policy", "del", "busy"});
}

TEST_F(SlotTest, ASlotInCpuRateModeUnbindsThePolicyOfTheSystem)
{
    expectDone({"bind", "default"});
    outputWithWarning({"slot", "set", "1/5", "mode=cpu-rate"},
                      "policy default is no longer bound to the system");
    EXPECT_TRUE(ctlOutput({"show"}).starts_with("policy        -\nmode          fixed\n"));
    expectDone({"slot", "set", "1/9", "mode=cpu-rate"});
}
