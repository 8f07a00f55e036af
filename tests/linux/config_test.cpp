#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

#include "base/failure.h"
#include "host/config.h"

using namespace zynlinux;

namespace
{

std::string failureOf(std::string_view text)
{
    try {
        parseConfig(text, "p.toml");
    } catch (const Failure &failure) {
        return failure.what();
    }
    return "no failure";
}

using Places = std::vector<std::tuple<std::string, uint32_t, uint32_t>>;

Places placesOf(const Config &config)
{
    Places places;
    for (const PortConfig &port : config.ports)
        places.emplace_back(port.name, port.sys, port.slot);
    return places;
}

TEST(PlatformFile, PortsAloneMakeAnAutomaticMaster)
{
    Config config = parseConfig("ports = [\"eth0\", \"eth1\"]", "p.toml");
    EXPECT_EQ(placesOf(config), (Places{{"eth0", 0, 0}, {"eth1", 0, 0}}));
    EXPECT_EQ(config.mode, Mode::Auto);
    EXPECT_EQ(config.role, Role::Master);
}

TEST(PlatformFile, ModeAndRoleAreRead)
{
    Config config =
        parseConfig("ports = ['a']\nmode = 'generic' # why not\nrole = 'slave'\n", "p.toml");
    EXPECT_EQ(config.mode, Mode::Generic);
    EXPECT_EQ(config.role, Role::Slave);
    EXPECT_EQ(parseConfig("ports = ['a']\nmode = 'native'\n", "p").mode, Mode::Native);
    EXPECT_EQ(parseConfig("ports = ['a']\nrole = 'master'\n", "p").role, Role::Master);
}

TEST(PlatformFile, SlotsPutTheirPortsInPlace)
{
    Config config = parseConfig("ports = ['a']\n"
                                "[[slot]]\nslot = 1\nports = ['b', 'c']\n"
                                "[[slot]]\nsys = 1\nslot = 0\nports = ['d']\n"
                                "[[slot]]\nports = ['e']\nsys = 255\nslot = 255\n",
                                "p.toml");
    EXPECT_EQ(placesOf(config),
              (Places{{"a", 0, 0}, {"b", 0, 1}, {"c", 0, 1}, {"d", 1, 0}, {"e", 255, 255}}));
}

TEST(PlatformFile, SlotsNeedNoPortOfTheSystem)
{
    Config config = parseConfig("[[slot]]\nslot = 3\nports = ['a']\n", "p.toml");
    EXPECT_EQ(placesOf(config), (Places{{"a", 0, 3}}));
}

TEST(PlatformFile, WithoutThemHasTheUsualPinGraceAndStop)
{
    Config config = parseConfig("ports = ['a']", "p.toml");
    EXPECT_EQ(config.pin, "/sys/fs/bpf/cpudefend");
    EXPECT_EQ(config.grace, 60u);
    EXPECT_EQ(config.onStop, OnStop::Remove);
    EXPECT_EQ(config.unreadPps, 100u);
    EXPECT_TRUE(config.acls.empty());
}

TEST(PlatformFile, PinGraceAndStopAreRead)
{
    Config config = parseConfig("ports = ['a']\npin = '/sys/fs/bpf/other'\ngrace = 0\n"
                                "on_stop = 'leave'\nunread_pps = 0\n",
                                "p.toml");
    EXPECT_EQ(config.pin, "/sys/fs/bpf/other");
    EXPECT_EQ(config.grace, 0u);
    EXPECT_EQ(config.onStop, OnStop::Leave);
    EXPECT_EQ(config.unreadPps, 0u);
    EXPECT_EQ(parseConfig("ports = ['a']\npin = 'none'", "p").pin, "");
    EXPECT_EQ(parseConfig("ports = ['a']\ngrace = 86400", "p").grace, 86400u);
    EXPECT_EQ(parseConfig("ports = ['a']\non_stop = 'remove'", "p").onStop, OnStop::Remove);
}

TEST(PlatformFile, AclsAreReadByNumber)
{
    Config config = parseConfig("ports = ['a']\n"
                                "[[acl]]\nnumber = 65535\nfamily = 'ipv6'\n"
                                "rules = ['permit icmp6 any any type 135', 'deny ip any any']\n"
                                "[[acl]]\nrules = ['permit ospf any any']\nfamily = 'ipv4'\n"
                                "number = 1\n",
                                "p.toml");
    ASSERT_EQ(config.acls.size(), 2u);
    EXPECT_EQ(config.acls.at(1).number, 1);
    EXPECT_EQ(config.acls.at(1).family, AclFamily::Ipv4);
    EXPECT_EQ(config.acls.at(1).rules.at(0).protocol, 89);
    EXPECT_EQ(config.acls.at(65535).family, AclFamily::Ipv6);
    ASSERT_EQ(config.acls.at(65535).rules.size(), 2u);
    EXPECT_EQ(config.acls.at(65535).rules[0].type, 135);
    EXPECT_FALSE(config.acls.at(65535).rules[1].permit);
}

std::string aclOf(size_t rules)
{
    std::string text = "ports = ['a']\n[[acl]]\nnumber = 1\nfamily = 'ipv4'\nrules = [\n";
    for (size_t i = 0; i < rules; i++)
        text += "'deny ip any any',\n";
    return text + "]\n";
}

TEST(PlatformFile, HasAtMost4096RulesInAnAcl)
{
    EXPECT_EQ(parseConfig(aclOf(4096), "p.toml").acls.at(1).rules.size(), 4096u);
    EXPECT_EQ(failureOf(aclOf(4097)), "couldn't read platform file p.toml: line 4102: "
                                      "more than 4096 rules in an ACL");
}

std::string slotsOf(unsigned count)
{
    std::string text;
    for (unsigned i = 1; i <= count; i++)
        text +=
            "[[slot]]\nslot = " + std::to_string(i) + "\nports = ['p" + std::to_string(i) + "']\n";
    return text;
}

TEST(PlatformFile, HasAtMost31Slots)
{
    EXPECT_EQ(parseConfig(slotsOf(31), "p.toml").ports.size(), 31u);
    EXPECT_EQ(failureOf(slotsOf(32)),
              "couldn't read platform file p.toml: line 94: more than 31 slots");
}

struct Wrong {
    const char *name;
    const char *text;
    const char *message;
};

void PrintTo(const Wrong &wrong, std::ostream *out)
{
    *out << wrong.name;
}

class WrongPlatformFile : public testing::TestWithParam<Wrong>
{
};

TEST_P(WrongPlatformFile, IsRefusedWithItsLine)
{
    std::string message = failureOf(GetParam().text);
    EXPECT_EQ(
        message.find(std::string("couldn't read platform file p.toml: ") + GetParam().message), 0u)
        << message;
}

const Wrong wrongs[] = {
    {"Syntax", "ports = ['a']\n\nmode = = 1\n", "line 3: "},
    {"UnfinishedString", "ports = ['a']\nmode = 'auto\n", "line 2: "},
    {"DuplicateKey", "ports = ['a']\nports = ['b']\n", "line 2: "},
    {"UnknownKey", "ports = ['a']\n# x\nprots = ['b']\n", "line 3: unknown key \"prots\""},
    {"UnknownTable", "ports = ['a']\n[card]\nid = 1\n", "line 2: unknown key \"card\""},
    {"SlotNotInAList", "ports = ['a']\n[slot]\nslot = 1\n",
     "line 2: slot is not written as [[slot]]"},
    {"SlotANumber", "ports = ['a']\nslot = 1\n", "line 2: slot is not written as [[slot]]"},
    {"SlotsOfNumbers", "ports = ['a']\nslot = [1]\n", "line 2: slot is not written as [[slot]]"},
    {"SlotUnknownKey", "[[slot]]\nslot = 1\nports = ['a']\nmode = 'native'\n",
     "line 4: unknown key \"mode\""},
    {"SlotIsTheSystem", "ports = ['a']\n[[slot]]\nsys = 0\nslot = 0\nports = ['b']\n",
     "line 2: slot 0 of system 0 is the system itself, not a slot"},
    {"SlotWithoutNumber", "\n[[slot]]\nports = ['b']\n",
     "line 2: slot 0 of system 0 is the system itself, not a slot"},
    {"SlotTwice", "[[slot]]\nslot = 1\nports = ['a']\n[[slot]]\nslot = 1\nports = ['b']\n",
     "line 4: slot 1 of system 0 stands there twice"},
    {"SlotWithoutPorts", "ports = ['a']\n[[slot]]\nslot = 1\n", "line 2: no key \"ports\""},
    {"SlotEmptyPorts", "[[slot]]\nslot = 1\nports = []\n",
     "line 3: ports is not a list of at least one port name"},
    {"SlotNegative", "[[slot]]\nslot = -1\nports = ['a']\n",
     "line 2: slot is not a number from 0 to 255"},
    {"SlotTooGreat", "[[slot]]\nslot = 256\nports = ['a']\n",
     "line 2: slot is not a number from 0 to 255"},
    {"SystemTooGreat", "[[slot]]\nsys = 256\nslot = 1\nports = ['a']\n",
     "line 2: sys is not a number from 0 to 255"},
    {"SlotAString", "[[slot]]\nslot = '1'\nports = ['a']\n",
     "line 2: slot is not a number from 0 to 255"},
    {"PortInTwoPlaces", "ports = ['a']\n[[slot]]\nslot = 1\nports = ['b', 'a']\n",
     "line 4: port \"a\" stands there twice"},
    {"NoPorts", "mode = 'auto'\n", "no key \"ports\""},
    {"Empty", "", "no key \"ports\""},
    {"EmptyPorts", "\nports = []\n", "line 2: ports is not a list of at least one port name"},
    {"PortsNotAList", "ports = 'eth0'\n", "line 1: ports is not a list of at least one port name"},
    {"PortNotAString", "ports = ['eth0',\n 7]\n", "line 2: a port is not a string"},
    {"PortTwice", "ports = ['a',\n'b',\n'a']\n", "line 3: port \"a\" stands there twice"},
    {"PortEmpty", "ports = ['']\n", "line 1: \"\" cannot be the name of a port"},
    {"PortTooLong", "ports = ['abcdefghijklmnop']\n",
     "line 1: \"abcdefghijklmnop\" cannot be the name of a port"},
    {"ModeUnknown", "ports = ['a']\nmode = 'fast'\n",
     "line 2: mode is \"fast\", not one of \"auto\", \"native\", \"generic\""},
    {"ModeNotAString", "ports = ['a']\nmode = 1\n", "line 2: mode is not a string"},
    {"RoleUnknown", "ports = ['a']\nrole = 'Master'\n",
     "line 2: role is \"Master\", not one of \"master\", \"slave\""},
    {"PinNotAFolder", "ports = ['a']\npin = 'bpf'\n",
     "line 2: pin is \"bpf\", not a folder from / on or \"none\""},
    {"PinEmpty", "ports = ['a']\npin = ''\n",
     "line 2: pin is \"\", not a folder from / on or \"none\""},
    {"PinNotAString", "ports = ['a']\npin = false\n", "line 2: pin is not a string"},
    {"GraceTooLong", "ports = ['a']\ngrace = 86401\n",
     "line 2: grace is not a number from 0 to 86400"},
    {"GraceNegative", "ports = ['a']\ngrace = -1\n",
     "line 2: grace is not a number from 0 to 86400"},
    {"UnreadRateThatIsNone", "ports = ['a']\nunread_pps = -1\n",
     "line 2: unread_pps is not a number from 0 to 4294967295"},
    {"OnStopUnknown", "ports = ['a']\non_stop = 'keep'\n",
     "line 2: on_stop is \"keep\", not one of \"remove\", \"leave\""},
    {"AclNotInAList", "ports = ['a']\n[acl]\nnumber = 1\n",
     "line 2: acl is not written as [[acl]]"},
    {"AclUnknownKey", "ports = ['a']\n[[acl]]\nnumber = 1\nname = 'x'\n",
     "line 4: unknown key \"name\""},
    {"AclWithoutNumber", "ports = ['a']\n[[acl]]\nfamily = 'ipv4'\nrules = ['deny ip any any']\n",
     "line 2: no key \"number\""},
    {"AclWithoutFamily", "ports = ['a']\n[[acl]]\nnumber = 1\nrules = ['deny ip any any']\n",
     "line 2: no key \"family\""},
    {"AclWithoutRules", "ports = ['a']\n[[acl]]\nnumber = 1\nfamily = 'ipv4'\n",
     "line 2: no key \"rules\""},
    {"AclNumberZero", "ports = ['a']\n[[acl]]\nnumber = 0\nfamily = 'ipv4'\nrules = []\n",
     "line 3: number is not a number from 1 to 65535"},
    {"AclNumberTooGreat", "ports = ['a']\n[[acl]]\nnumber = 65536\nfamily = 'ipv4'\nrules = []\n",
     "line 3: number is not a number from 1 to 65535"},
    {"AclFamilyUnknown", "ports = ['a']\n[[acl]]\nnumber = 1\nfamily = 'ip'\nrules = []\n",
     "line 4: family is \"ip\", not one of \"ipv4\", \"ipv6\""},
    {"AclWithEmptyRules", "ports = ['a']\n[[acl]]\nnumber = 1\nfamily = 'ipv4'\nrules = []\n",
     "line 5: rules is not a list of at least one rule"},
    {"AclRuleNotAString", "ports = ['a']\n[[acl]]\nnumber = 1\nfamily = 'ipv4'\nrules = [\n7]\n",
     "line 6: a rule is not a string"},
    {"AclRuleWrong",
     "ports = ['a']\n[[acl]]\nnumber = 1\nfamily = 'ipv4'\nrules = [\n'deny ip any any',\n"
     "'permit tcp any any port 70000']\n",
     "line 7: port 70000 is not 0 to 65535"},
    {"AclTwiceOverBothFamilies",
     "ports = ['a']\n[[acl]]\nnumber = 9\nfamily = 'ipv4'\nrules = ['deny ip any any']\n"
     "[[acl]]\nnumber = 9\nfamily = 'ipv6'\nrules = ['deny ip any any']\n",
     "line 6: acl 9 stands there twice"},
};

INSTANTIATE_TEST_SUITE_P(All, WrongPlatformFile, testing::ValuesIn(wrongs),
                         [](const auto &each) { return each.param.name; });

TEST(PlatformFile, ThatIsMissingIsNamed)
{
    try {
        readConfig("/nonexistent/platform.toml");
        FAIL() << "read it";
    } catch (const Failure &failure) {
        EXPECT_STREQ(failure.what(), "couldn't read platform file /nonexistent/platform.toml: "
                                     "No such file or directory");
    }
}

TEST(PlatformFile, ThatIsNoRegularFileIsRefusedWithoutWaitingForIt)
{
    const std::string pipe = "/tmp/config-test-pipe-" + std::to_string(getpid());
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    for (const std::string &path : {pipe, std::string("/"), std::string("/dev/zero")}) {
        try {
            readConfig(path);
            ADD_FAILURE() << "read " << path;
        } catch (const Failure &failure) {
            EXPECT_EQ(failure.what(),
                      "couldn't read platform file " + path + ": it is no regular file");
        }
    }
    unlink(pipe.c_str());
}

TEST(PlatformFile, MayBeALinkToOne)
{
    const std::string link = "/tmp/config-test-link-" + std::to_string(getpid());
    ASSERT_EQ(symlink(CPUDEFEND_PLATFORM_EXAMPLE, link.c_str()), 0);
    EXPECT_FALSE(readConfig(link).ports.empty());
    unlink(link.c_str());
}

TEST(PlatformFile, ExampleIsValid)
{
    Config config = readConfig(CPUDEFEND_PLATFORM_EXAMPLE);
    EXPECT_FALSE(config.ports.empty());
}

/** The example with everything in it that is commented out: lines that begin with # and no space.
 */
std::string wholeExample()
{
    std::ifstream file(CPUDEFEND_PLATFORM_EXAMPLE);
    std::string text;
    for (std::string line; std::getline(file, line);)
        text += (line.size() > 1 && line[0] == '#' && (line[1] != ' ' || line.starts_with("#  \""))
                     ? line.substr(1)
                     : line) +
                '\n';
    return text;
}

TEST(PlatformFile, ExampleIsValidWithAllThatItShows)
{
    Config config = parseConfig(wholeExample(), "example");
    EXPECT_EQ(config.ports.size(), 3u);
    EXPECT_EQ(config.acls.size(), 2u);
    EXPECT_EQ(config.acls.at(101).rules.size(), 5u);
}

} // namespace
