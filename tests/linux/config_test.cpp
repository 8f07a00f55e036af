#include <fstream>
#include <gtest/gtest.h>

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

TEST(PlatformFile, PortsAloneMakeAnAutomaticMaster)
{
    Config config = parseConfig("ports = [\"eth0\", \"eth1\"]", "p.toml");
    EXPECT_EQ(config.ports, (std::vector<std::string>{"eth0", "eth1"}));
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
    {"UnknownTable", "ports = ['a']\n[slot]\nid = 1\n", "line 2: unknown key \"slot\""},
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
