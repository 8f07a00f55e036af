#include <fstream>
#include <gtest/gtest.h>
#include <tuple>

#include "config.h"
#include "failure.h"

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
                                "[[slot]]\nports = ['e']\nsys = 4294967295\nslot = 4294967295\n",
                                "p.toml");
    EXPECT_EQ(
        placesOf(config),
        (Places{
            {"a", 0, 0}, {"b", 0, 1}, {"c", 0, 1}, {"d", 1, 0}, {"e", UINT32_MAX, UINT32_MAX}}));
}

TEST(PlatformFile, SlotsNeedNoPortOfTheSystem)
{
    Config config = parseConfig("[[slot]]\nslot = 3\nports = ['a']\n", "p.toml");
    EXPECT_EQ(placesOf(config), (Places{{"a", 0, 3}}));
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
     "line 2: slot is not a number from 0 to 4294967295"},
    {"SystemTooGreat", "[[slot]]\nsys = 4294967296\nslot = 1\nports = ['a']\n",
     "line 2: sys is not a number from 0 to 4294967295"},
    {"SlotAString", "[[slot]]\nslot = '1'\nports = ['a']\n",
     "line 2: slot is not a number from 0 to 4294967295"},
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

TEST(PlatformFile, ThatIsADirectoryIsRefused)
{
    try {
        readConfig("/");
        FAIL() << "read it";
    } catch (const Failure &failure) {
        EXPECT_STREQ(failure.what(), "couldn't read platform file /: Is a directory");
    }
}

TEST(PlatformFile, ExampleIsValid)
{
    Config config = readConfig(CPUDEFEND_PLATFORM_EXAMPLE);
    EXPECT_FALSE(config.ports.empty());
}

} // namespace
