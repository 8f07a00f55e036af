#include <algorithm>

#include "ctl.h"

namespace
{

const std::string kHeading = "interface  interface-name  ip          type   mac                "
                             "destination   outer-vlan  inner-vlan  total (packets)\n";
const std::string kArp = "        1  lo              192.0.2.10  arp    02:00:5e:00:53:0a  "
                         "198.51.100.1         100           7             4242\n";
const std::string kIcmp = "        1  lo              192.0.2.11  icmp   02:00:5e:00:53:0b  "
                          "198.51.100.1         100           7             4242\n";
const std::string kDot1x = "        1  lo              192.0.2.12  dot1x  02:00:5e:00:53:0c  "
                           "-                      -           -                -\n";
const std::string kFar = "  4000000  -               192.0.2.10  arp    02:00:5e:00:53:0a  "
                         "198.51.100.1         100           7             4242\n";

std::size_t listed(std::vector<std::string> filter)
{
    filter.insert(filter.begin(), {"source", "list"});
    const std::string out = ctlOutput(filter);
    return static_cast<std::size_t>(std::count(out.begin(), out.end(), '\n'));
}

} // namespace

TEST_F(SlotTest, SourceListGolden)
{
    EXPECT_EQ(ctlOutput({"source", "list"}), kHeading + kArp + kIcmp + kDot1x + kFar);
    EXPECT_EQ(ctlOutput({"source", "list", "--ip", "192.0.2.12", "--json"}), R"([
  {
    "interface": 1,
    "interface-name": "lo",
    "ip": "192.0.2.12",
    "type": "dot1x",
    "mac": "02:00:5e:00:53:0c",
    "destination": null,
    "outer-vlan": null,
    "inner-vlan": null,
    "total": null
  }
]
)");
    EXPECT_EQ(ctlOutput({"source", "list", "--json", "--interface", "4000000"}), R"([
  {
    "interface": 4000000,
    "interface-name": "",
    "ip": "192.0.2.10",
    "type": "arp",
    "mac": "02:00:5e:00:53:0a",
    "destination": "198.51.100.1",
    "outer-vlan": 100,
    "inner-vlan": 7,
    "total": 4242
  }
]
)");
}

TEST_F(SlotTest, SourcesAreFiltered)
{
    EXPECT_EQ(listed({"--interface", "1"}), 1u + 3);
    EXPECT_EQ(listed({"--interface", "lo"}), 1u + 3);
    EXPECT_EQ(listed({"--ip", "192.0.2.10"}), 1u + 2);
    EXPECT_EQ(listed({"--type", "arp"}), 1u + 2);
    EXPECT_EQ(listed({"--type", "0"}), 1u + 1);
    EXPECT_EQ(listed({"--mac", "02:00:5E:00:53:0b"}), 1u + 1);
    EXPECT_EQ(listed({"--type", "arp", "--interface", "1"}), 1u + 1);
    EXPECT_EQ(listed({"--type", "icmp", "--ip", "192.0.2.10"}), 0u);
    EXPECT_EQ(ctlOutput({"source", "list", "--type", "tcp", "--json"}), "[]\n");
}

TEST_F(SlotTest, SourceShowGolden)
{
    std::string data;
    for (int byte = 0xA0; byte < 0xA0 + 80; ++byte) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", byte);
        data += digits;
    }
    EXPECT_EQ(ctlOutput({"source", "show", "lo", "192.0.2.10", "arp", "02:00:5e:00:53:0a"}),
              R"(interface       1
interface-name  lo
ip              192.0.2.10
type            arp
mac             02:00:5e:00:53:0a
destination     198.51.100.1
outer-vlan      100
inner-vlan      7
total           4242 packets
data            )" +
                  data + "\n");
    EXPECT_EQ(
        ctlOutput({"source", "show", "1", "192.0.2.11", "icmp", "02:00:5e:00:53:0b", "--json"}),
        R"([
  {
    "interface": 1,
    "interface-name": "lo",
    "ip": "192.0.2.11",
    "type": "icmp",
    "mac": "02:00:5e:00:53:0b",
    "destination": "198.51.100.1",
    "outer-vlan": 100,
    "inner-vlan": 7,
    "total": 4242,
    "data": ""
  }
]
)");
}

TEST_F(SlotTest, OfASourceOfTypeZeroTheIndexIsShown)
{
    EXPECT_EQ(ctlOutput({"source", "show", "1", "192.0.2.12", "dot1x", "02:00:5e:00:53:0c"}),
              R"(interface       1
interface-name  lo
ip              192.0.2.12
type            dot1x
mac             02:00:5e:00:53:0c
destination     -
outer-vlan      -
inner-vlan      -
total           -
data            -
)");
}

TEST_F(SlotTest, AMissingSourceIsSaid)
{
    for (const char *type : {"arp", "dot1x"})
        expectFailure({"source", "show", "1", "192.0.2.99", type, "02:00:5e:00:53:0a"}, 1,
                      std::string("couldn't show the source 1 192.0.2.99 ") + type +
                          " 02:00:5e:00:53:0a: there is no such source");
}

TEST_F(SlotTest, RefusedSourceWords)
{
    const struct {
        const char *option;
        const char *word;
        const char *reason;
    } kRefused[] = {
        {"--interface", "nosuch0", "there is no interface 'nosuch0'"},
        {"--interface", "4294967296", "there is no interface '4294967296'"},
        {"--ip", "192.0.2", "'192.0.2' is not an IPv4 address"},
        {"--ip", "::1", "'::1' is not an IPv4 address"},
        {"--type", "arps", "there is no packet type 'arps'"},
        {"--mac", "02:00:5e:00:53",
         "'02:00:5e:00:53' is not a MAC address such as "
         "02:00:5e:00:53:01"},
        {"--mac", "02-00-5e-00-53-01",
         "'02-00-5e-00-53-01' is not a MAC address such as "
         "02:00:5e:00:53:01"},
        {"--mac", "02:00:5e:00:53:0g",
         "'02:00:5e:00:53:0g' is not a MAC address such as "
         "02:00:5e:00:53:01"},
        {"--mac", "02:00:5e:00:53:-1",
         "'02:00:5e:00:53:-1' is not a MAC address such as "
         "02:00:5e:00:53:01"},
    };
    for (const auto &[option, word, reason] : kRefused)
        expectFailure({"source", "list", option, word}, 2,
                      std::string("couldn't list the sources: ") + reason);
    expectFailure({"source", "show", "1", "192.0.2.10", "arp", "x"}, 2,
                  "couldn't show the source 1 192.0.2.10 arp x: 'x' is not a MAC address such as "
                  "02:00:5e:00:53:01");
}

TEST_F(SlotTest, AResetForgetsAllSources)
{
    expectDone({"source", "reset"});
    EXPECT_EQ(ctlOutput({"source", "list"}), "");
    EXPECT_NE(ctlOutput({"show"}).find("sources       0 of 32\n"), std::string::npos);
}

TEST_F(SlotTest, AResetOfASlotForgetsItsSourcesIfItsPolicyTracesThem)
{
    const std::string refusal = "couldn't reset the sources of slot 1/5: no policy with source "
                                "tracing on is bound to it";
    expectFailure({"source", "reset", "--slot", "1/5"}, 1, refusal);
    expectDone({"policy", "add", "edge"});
    expectDone({"bind", "edge", "--slot", "1/5"});
    expectFailure({"source", "reset", "--slot", "1/5"}, 1, refusal);
    EXPECT_EQ(listed({}), 1u + 4);
    expectDone({"unbind", "--slot", "1/5"});
    expectDone({"policy", "set", "edge", "source-trace=on"});
    expectDone({"bind", "edge", "--slot", "1/5"});
    expectDone({"source", "reset", "--slot", "1/5"});
    EXPECT_EQ(listed({}), 1u + 1);
    EXPECT_EQ(listed({"--type", "icmp"}), 1u + 1);
    expectFailure({"source", "reset", "--slot", "1/7"}, 1,
                  "couldn't reset the sources of slot 1/7: there is no such slot");
    expectFailure({"source", "reset", "--slot", "seven"}, 2,
                  "couldn't reset the sources of slot seven: a slot is written SYS/SLOT, both of "
                  "them numbers from 0 to 255");
}
