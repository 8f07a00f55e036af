#include "cli/complete.h"
#include "ctl.h"

namespace
{

using Candidates = std::vector<std::string>;

Candidates completed(const std::vector<std::string> &words)
{
    cpudefend::Client client;
    return ctl::complete(words, client);
}

/** What bash would offer for a line, by the script that is installed. */
std::string bashCompletes(const std::string &line)
{
    const std::string script = "shopt -s progcomp; compopt() { echo \"[$*]\"; }\n"
                               "cpudefendctl() { " CPUDEFEND_TEST_CTL " \"$@\"; }\n"
                               "source " CPUDEFEND_COMPLETION "\n"
                               "COMP_LINE=$1 COMP_POINT=${#1}; _cpudefendctl\n"
                               "printf '%s\\n' \"${COMPREPLY[@]}\"";
    const Outcome outcome = runProgram({"bash", "-c", script, "bash", line});
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
}

} // namespace

TEST(Complete, CommandsComeFromTheTree)
{
    EXPECT_EQ(completed({""}), (Candidates{"bind", "car", "debug", "policy", "rule", "set", "show",
                                           "slot", "source", "unbind"}));
    EXPECT_EQ(completed({"policy", ""}), (Candidates{"add", "del", "list", "set", "show"}));
    EXPECT_EQ(completed({"car", "s"}), (Candidates{"set", "show"}));
    EXPECT_EQ(completed({"--json", "--timeout", "3", "un"}), Candidates{"unbind"});
    EXPECT_EQ(completed({"--j"}), Candidates{"--json"});
    EXPECT_EQ(completed({"debug", ""}), (Candidates{"on", "off"}));
    EXPECT_TRUE(completed({"nothing", ""}).empty());
    EXPECT_TRUE(completed({"unbind", ""}).empty());
}

TEST(Complete, SettingsComeInTwoSteps)
{
    EXPECT_EQ(completed({"car", "set", "edge", "dhcps"}),
              (Candidates{"dhcpsnoopip", "dhcpserver", "dhcpsnoopip6", "dhcpsnooparp"}));
    EXPECT_EQ(completed({"car", "set", "edge", "arp", "p"}), (Candidates{"pps=", "priority="}));
    EXPECT_EQ(completed({"car", "set", "edge", "arp", "pps=2", "mode="}),
              (Candidates{"mode=default", "mode=pps", "mode=cir"}));
    EXPECT_EQ(completed({"policy", "set", "edge", "white-list=o"}),
              (Candidates{"white-list=on", "white-list=off"}));
    EXPECT_TRUE(completed({"car", "set", "edge", "arp", "passed"}).empty());
}

TEST(Complete, PolicyNamesComeFromTheDaemon)
{
    EXPECT_TRUE(completed({"bind", ""}).empty()); // none runs yet
    DaemonProcess daemon;
    expectDone({"policy", "add", "edge"});
    EXPECT_EQ(completed({"bind", ""}), (Candidates{"default", "edge"}));
    EXPECT_EQ(completed({"car", "list", "e"}), Candidates{"edge"});
    EXPECT_TRUE(completed({"policy", "add", ""}).empty());
}

TEST(Complete, PoliciesOfLevelsComeFromTheDaemon)
{
    DaemonProcess daemon;
    EXPECT_EQ(completed({"set", "l1-"}), (Candidates{"l1-threshold=", "l1-policy="}));
    EXPECT_EQ(completed({"set", "l1-policy="}), Candidates{"l1-policy=default"});
    EXPECT_EQ(completed({"rule", "add", "default", "1", "action="}),
              (Candidates{"action=permit", "action=deny"}));
    EXPECT_TRUE(completed({"set", "deb"}).empty());
}

TEST(Complete, OptionsOfACommandComeBehindIt)
{
    EXPECT_EQ(completed({"source", "list", "--i"}), (Candidates{"--interface", "--ip"}));
    EXPECT_EQ(completed({"bind", "edge", "--sl"}), Candidates{"--slot"});
    EXPECT_EQ(completed({"source", "list", "--type", "dhcpc"}), Candidates{"dhcpclient"});
    EXPECT_TRUE(completed({"policy", "list", "--sl"}).empty());
    EXPECT_TRUE(completed({"--sl"}).empty());
    EXPECT_TRUE(completed({"source", "list", "--ip", ""}).empty());
}

TEST(Complete, SlotsComeFromTheDaemon)
{
    EXPECT_TRUE(completed({"slot", "show", ""}).empty()); // none runs yet
    DaemonProcess daemon({}, {}, CPUDEFEND_TEST_SLOT_DAEMON);
    EXPECT_EQ(completed({"slot", "show", ""}), (Candidates{"1/5", "1/9"}));
    EXPECT_EQ(completed({"unbind", "--slot", "1/9"}), Candidates{"1/9"});
    EXPECT_EQ(completed({"bind", "--slot", "1/5", "d"}), Candidates{"default"});
}

TEST(Complete, TheBinaryAnswersTheShell)
{
    EXPECT_EQ(ctlOutput({"__complete", "car", "set", "edge", "arp", "mode="}),
              "mode=default\nmode=pps\nmode=cir\n");
    EXPECT_EQ(ctlOutput({"__complete"}), "");
}

TEST(Complete, BashOffersWhatTheBinaryAnswers)
{
    EXPECT_EQ(bashCompletes("cpudefendctl po"), "policy\n");
    EXPECT_EQ(bashCompletes("cpudefendctl policy "), "add\ndel\nlist\nset\nshow\n");
    EXPECT_EQ(bashCompletes("cpudefendctl car set edge arp mo"), "[-o nospace]\nmode=\n");
    EXPECT_EQ(bashCompletes("cpudefendctl car set edge arp mode=p"), "pps\n");
}
