/**
 * The command line itself: options, help, exit statuses, a daemon that does not answer.
 */
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <sstream>

#include "cli/commands.h"
#include "client/fake_daemon.h"
#include "cpuDefend_nm.h"
#include "ctl.h"

using cpudefend::Bytes;

TEST(Ctl, VersionIsPrinted)
{
    EXPECT_EQ(ctlOutput({"--version"}), "cpudefendctl " CPUDEFEND_VERSION "\n");
}

TEST(Ctl, EveryCommandOptionAndSettingHasHelp)
{
    for (const ctl::Command &command : ctl::commands()) {
        std::vector<std::string> words{command.verb, "--help"};
        if (*command.object)
            words.insert(words.begin(), command.object);
        const std::string help = ctlOutput(words);
        EXPECT_TRUE(help.starts_with(std::string(command.help) + "\n")) << help;
        for (const ctl::Arg &arg : command.args) {
            EXPECT_NE(help.find(arg.help), std::string::npos) << arg.name;
            for (const cpudefend::Attribute &attribute : arg.attributes())
                EXPECT_EQ(help.find("  " + std::string(attribute.name) + "=") != std::string::npos,
                          attribute.isSettable())
                    << attribute.name;
        }
        for (const ctl::Option &option : command.options)
            for (const char *text : {option.name, option.value, option.help})
                EXPECT_NE(help.find(text), std::string::npos) << option.name << ' ' << text;
    }
    const std::string help = ctlOutput({"--help"});
    for (const char *text :
         {"print JSON", "the daemon's socket", "seconds to wait", "Exit status",
          "Named sets of limits", "Limits of a policy for a packet type",
          "Limits of a policy for what an ACL selects", "Line cards with a policy of their own",
          "Who sent the packets of a flood"})
        EXPECT_NE(help.find(text), std::string::npos) << text;
}

TEST(Ctl, AWrongCommandLineEndsWith2)
{
    const std::vector<std::vector<std::string>> kWrong = {
        {},
        {"policy"},
        {"polizei"},
        {"policy", "rename", "a", "b"},
        {"policy", "add"},
        {"policy", "set", "a"},
        {"policy", "show", "a", "b"},
        {"policy", "list", "list"},
        {"car", "set", "a"},
        {"car", "set", "a", "arp"},
        {"show", "--xml"},
        {"show", "--timeout", "0"},
        {"show", "--timeout", "soon"},
        {"bind"},
        {"unbind", "a"},
        {"debug"},
        {"set"},
        {"rule", "add", "a"},
        {"rule", "set", "a", "1"},
        {"slot", "set", "1/1"},
        {"slot", "list", "1/1"},
        {"source", "show", "1", "192.0.2.1", "arp"},
        {"source", "list", "1"},
        {"bind", "a", "--slot"},
        {"policy", "list", "--slot", "1/1"},
    };
    for (const auto &words : kWrong) {
        const Outcome outcome = runCtl(words);
        EXPECT_EQ(outcome.status, 2) << testing::PrintToString(words);
        EXPECT_EQ(outcome.out, "");
        EXPECT_TRUE(outcome.err.starts_with("cpudefendctl: ")) << outcome.err;
        EXPECT_TRUE(outcome.err.ends_with(" (try --help)\n")) << outcome.err;
    }
}

TEST(Ctl, AWordThatIsNoCommandIsNamed)
{
    expectFailure({"foo"}, 2, "unknown command \"foo\" (try --help)");
    expectFailure({"policy", "frob"}, 2, "unknown command \"frob\" (try --help)");
    expectFailure({"car", "lsit", "edge"}, 2, "unknown command \"lsit\" (try --help)");
    expectFailure({"--json", "b\tnd", "edge"}, 2, "unknown command \"b\\x09nd\" (try --help)");
    expectFailure({"policy"}, 2, "A subcommand is required (try --help)");
    expectFailure({"--xml", "/tmp", "policy"}, 2, "A subcommand is required (try --help)");
    expectFailure({"policy", "add"}, 2, "NAME is required (try --help)");
}

TEST(Ctl, APolicyMayBeNamedLikeACommand)
{
    DaemonProcess daemon;
    expectDone({"policy", "add", "show"});
    expectDone({"bind", "show"});
    EXPECT_TRUE(ctlOutput({"show"}).starts_with("policy        show\n"));
}

TEST(Ctl, NoDaemonEndsWith3)
{
    expectFailure({"--socket", "/tmp/none.socket", "show"}, 3,
                  "couldn't show the system: the daemon is not running (nothing listens on "
                  "/tmp/none.socket)");
    expectFailure({"--socket", "/tmp/none.socket", "policy", "set", "a", "description=x"}, 3,
                  "couldn't set description=x for policy a: the daemon is not running (nothing "
                  "listens on /tmp/none.socket)");
}

TEST(Ctl, ADaemonThatHangsUpEndsWith3)
{
    FakeDaemon daemon([](int, const Bytes &) {});
    expectFailure({"--socket", daemon.path(), "unbind"}, 3,
                  "couldn't unbind the policy of the system: the daemon closed the connection "
                  "without a reply");
}

TEST(Ctl, ADaemonThatIsSilentEndsWith3)
{
    std::atomic<bool> done = false;
    FakeDaemon daemon([&](int, const Bytes &) {
        while (!done)
            usleep(1000);
    });
    expectFailure({"unbind", "--timeout", "0.05", "--socket", daemon.path()}, 3,
                  "couldn't unbind the policy of the system: the daemon did not answer in time");
    done = true;
}

TEST(Ctl, OutputThatCannotBeWrittenIsAFailure)
{
    DaemonProcess daemon;
    const std::string command = std::string(CPUDEFEND_TEST_CTL) + " show > /dev/full";
    EXPECT_EQ(runProgram({"sh", "-c", command}).status, 1);
}

TEST(Ctl, ABindThatTheHardwareTookInPartSaysSo)
{
    // Answers every set with -1, and every get with the name of the policy.
    FakeDaemon daemon([](int fd, const Bytes &request) {
        constexpr std::size_t kCodeAt = 12, kValueAt = 29;
        const bool isSet = request[3] == CPUDEFEND_GLOBAL_SETAPI;
        const uint8_t answer[] = {0, 0, 4, 'e', 'd', 'g', 'e'};
        Bytes body = request;
        std::fill_n(body.begin() + kCodeAt, 4, isSet ? 0xFF : 0);
        if (!isSet)
            std::copy(std::begin(answer), std::end(answer), body.begin() + kValueAt);
        reply(fd, body);
    });
    expectFailure({"--socket", daemon.path(), "bind", "edge"}, 1,
                  "couldn't bind policy edge to the system in full: the hardware layer refused "
                  "part of it (code -1); policy edge is bound now");
    expectFailure(
        {"--socket", daemon.path(), "bind", "core"}, 1,
        "couldn't bind policy core to the system: the platform refused it (code -1); policy "
        "edge is bound now");
}

TEST(Ctl, TheManualNamesEveryCommandSettingAndStatus)
{
    std::ifstream file(CPUDEFEND_MANUAL);
    std::stringstream manual;
    manual << file.rdbuf();
    const auto names = [&](const std::string &text) {
        EXPECT_NE(manual.str().find(text), std::string::npos) << text;
    };
    for (const ctl::Command &command : ctl::commands()) {
        names("| `" + (*command.object ? std::string(command.object) + " " : "") + command.verb);
        for (const ctl::Arg &arg : command.args)
            for (const cpudefend::Attribute &attribute : arg.attributes())
                if (attribute.isSettable() || arg.kind != ctl::ArgKind::SystemSettings)
                    names("`" + std::string(attribute.name) + "`");
        for (const ctl::Option &option : command.options)
            names("[" + std::string(option.name) + " " + option.value + "]");
    }
    for (const int status :
         {ctl::kExitDone, ctl::kExitRefused, ctl::kExitUsage, ctl::kExitUnreachable})
        names("| " + std::to_string(status) + " | ");
}
