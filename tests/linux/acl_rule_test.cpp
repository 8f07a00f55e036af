#include <gtest/gtest.h>

#include "acl/acl.h"

using namespace zynlinux;

namespace
{

AclRule v4(std::string_view text)
{
    return parseAclRule(text, AclFamily::Ipv4);
}

AclRule v6(std::string_view text)
{
    return parseAclRule(text, AclFamily::Ipv6);
}

using Words = std::array<uint32_t, 4>;

TEST(AclRule, PermitsOrDenies)
{
    EXPECT_TRUE(v4("permit ip any any").permit);
    EXPECT_FALSE(v4("deny ip any any").permit);
}

TEST(AclRule, OfAnythingAsksNothing)
{
    AclRule rule = v4("permit ip any any");
    EXPECT_FALSE(rule.protocol || rule.sourcePorts || rule.destinationPorts || rule.type);
    EXPECT_FALSE(rule.flagsSet || rule.flagsClear || rule.fragments);
    EXPECT_EQ(rule.source.length, 0);
    EXPECT_EQ(rule.destination.length, 0);
}

TEST(AclRule, WordsArePartedBySpacesAndTabs)
{
    EXPECT_EQ(v4("  permit\ttcp  any any \t").protocol, 6);
}

struct Named {
    const char *name;
    AclFamily family;
    uint8_t number;
};

class AclProtocol : public testing::TestWithParam<Named>
{
};

TEST_P(AclProtocol, HasItsNumber)
{
    const Named &named = GetParam();
    std::string text = std::string("permit ") + named.name + " any any";
    EXPECT_EQ(parseAclRule(text, named.family).protocol, named.number) << text;
}

constexpr AclFamily four = AclFamily::Ipv4, six = AclFamily::Ipv6;
const Named protocolNames[] = {
    {"icmp", four, 1},  {"igmp", four, 2},   {"tcp", four, 6},    {"udp", four, 17},
    {"gre", four, 47},  {"esp", four, 50},   {"ah", four, 51},    {"ospf", four, 89},
    {"pim", four, 103}, {"vrrp", four, 112}, {"sctp", four, 132}, {"0", four, 0},
    {"255", four, 255}, {"44", four, 44},    {"tcp", six, 6},     {"udp", six, 17},
    {"gre", six, 47},   {"esp", six, 50},    {"icmp6", six, 58},  {"icmpv6", six, 58},
    {"ospf", six, 89},  {"pim", six, 103},   {"vrrp", six, 112},  {"sctp", six, 132},
    {"1", six, 1},      {"255", six, 255},
};

INSTANTIATE_TEST_SUITE_P(All, AclProtocol, testing::ValuesIn(protocolNames));

TEST(AclRule, HasAddressesAndPrefixes)
{
    AclRule rule = v4("permit ip 192.0.2.1 198.51.100.0/24");
    EXPECT_EQ(rule.source.address, (Words{0xc0000201}));
    EXPECT_EQ(rule.source.length, 32);
    EXPECT_EQ(rule.destination.address, (Words{0xc6336400}));
    EXPECT_EQ(rule.destination.length, 24);
    EXPECT_EQ(v4("permit ip 0.0.0.0/0 any").source.length, 0);
    EXPECT_EQ(v4("permit ip 255.255.255.255/32 any").source.address, (Words{0xffffffff}));
}

TEST(AclRule, HasIpv6AddressesAndPrefixes)
{
    AclRule rule = v6("permit ip 2001:db8::1 2001:db8:8000::/33");
    EXPECT_EQ(rule.source.address, (Words{0x20010db8, 0, 0, 1}));
    EXPECT_EQ(rule.source.length, 128);
    EXPECT_EQ(rule.destination.address, (Words{0x20010db8, 0x80000000}));
    EXPECT_EQ(rule.destination.length, 33);
    EXPECT_EQ(v6("permit ip ::/0 any").source.length, 0);
    EXPECT_EQ(v6("permit ip ::ffff:192.0.2.1 any").source.address,
              (Words{0, 0, 0xffff, 0xc0000201}));
}

TEST(AclRule, HasPortsOnEitherSide)
{
    AclRule rule = v4("deny udp any port 1024-65535 198.51.100.7 port 161");
    ASSERT_TRUE(rule.sourcePorts && rule.destinationPorts);
    EXPECT_EQ(rule.sourcePorts->low, 1024);
    EXPECT_EQ(rule.sourcePorts->high, 65535);
    EXPECT_EQ(rule.destinationPorts->low, 161);
    EXPECT_EQ(rule.destinationPorts->high, 161);
    rule = v4("permit sctp any any port 0-0");
    EXPECT_FALSE(rule.sourcePorts);
    EXPECT_EQ(rule.destinationPorts->high, 0);
}

TEST(AclRule, HasAnIcmpType)
{
    EXPECT_EQ(v4("permit icmp any any type 8").type, 8);
    EXPECT_EQ(v4("permit 1 any any type 255").type, 255);
    EXPECT_EQ(v6("permit icmpv6 any any type 0").type, 0);
    EXPECT_EQ(v6("permit 58 any any type 135").type, 135);
}

TEST(AclRule, HasFlagsThatAreSetOrClear)
{
    AclRule rule = v4("permit tcp any any flags syn,!ack");
    EXPECT_EQ(rule.flagsSet, 0x02);
    EXPECT_EQ(rule.flagsClear, 0x10);
    rule = v4("permit tcp any any port 22 flags fin,!syn,rst,!psh,ack,!urg,ece,!cwr");
    EXPECT_EQ(rule.flagsSet, 0x55);
    EXPECT_EQ(rule.flagsClear, 0xaa);
}

TEST(AclRule, IsForLaterFragments)
{
    EXPECT_TRUE(v4("deny ip any any fragments").fragments);
    EXPECT_TRUE(v6("deny udp any any fragments").fragments);
}

struct Wrong {
    const char *text;
    const char *message;
    AclFamily family = AclFamily::Ipv4;
};

class WrongAclRule : public testing::TestWithParam<Wrong>
{
};

TEST_P(WrongAclRule, IsRefused)
{
    try {
        parseAclRule(GetParam().text, GetParam().family);
        ADD_FAILURE() << "took: " << GetParam().text;
    } catch (const AclError &error) {
        EXPECT_STREQ(error.what(), GetParam().message) << GetParam().text;
    }
}

const Wrong wrongs[] = {
    {"", "the rule ends where \"permit\" or \"deny\" is expected"},
    {"permit", "the rule ends where a protocol is expected"},
    {"permit ip", "the rule ends where source is expected"},
    {"permit ip any", "the rule ends where destination is expected"},
    {"permit ip any port", "the rule ends where a port is expected"},
    {"permit icmp any any type", "the rule ends where a type is expected"},
    {"permit tcp any any flags", "the rule ends where a list of flags is expected"},
    {"allow ip any any", "action \"allow\" is not \"permit\" or \"deny\""},
    {"Permit ip any any", "action \"Permit\" is not \"permit\" or \"deny\""},
    {"permit tpc any any", "protocol \"tpc\" is no known name and no number from 0 to 255"},
    {"permit 256 any any", "protocol \"256\" is no known name and no number from 0 to 255"},
    {"permit -1 any any", "protocol \"-1\" is no known name and no number from 0 to 255"},
    {"permit icmp6 any any", "protocol \"icmp6\" is none of IPv4"},
    {"permit icmp any any", "protocol \"icmp\" is none of IPv6", six},
    {"permit igmp any any", "protocol \"igmp\" is none of IPv6", six},
    {"permit ah any any",
     "protocol \"ah\" is an extension header of IPv6: what follows it is the protocol", six},
    {"permit 44 any any",
     "protocol \"44\" is an extension header of IPv6: what follows it is the protocol", six},
    {"permit ip 192.0.2.1/24 any", "\"192.0.2.1/24\" has bits set behind its prefix length"},
    {"permit ip 0.0.0.1/0 any", "\"0.0.0.1/0\" has bits set behind its prefix length"},
    {"permit ip any 2001:db8::1/64", "\"2001:db8::1/64\" has bits set behind its prefix length",
     six},
    {"permit ip any 2001:db8:c000::/33",
     "\"2001:db8:c000::/33\" has bits set behind its prefix length", six},
    {"permit ip 192.0.2.0/33 any", "prefix length of \"192.0.2.0/33\" is not 0 to 32"},
    {"permit ip 192.0.2.0/ any", "prefix length of \"192.0.2.0/\" is not 0 to 32"},
    {"permit ip 192.0.2.0/-1 any", "prefix length of \"192.0.2.0/-1\" is not 0 to 32"},
    {"permit ip ::/129 any", "prefix length of \"::/129\" is not 0 to 128", six},
    {"permit ip 192.0.2 any", "source \"192.0.2\" is not \"any\", an IPv4 address or a prefix"},
    {"permit ip any 192.0.2.256",
     "destination \"192.0.2.256\" is not \"any\", an IPv4 address or a prefix"},
    {"permit ip 2001:db8::1 any",
     "source \"2001:db8::1\" is not \"any\", an IPv4 address or a prefix"},
    {"permit ip 192.0.2.1 any", "source \"192.0.2.1\" is not \"any\", an IPv6 address or a prefix",
     six},
    {"permit tcp any any port 70000", "port 70000 is not 0 to 65535"},
    {"permit tcp any any port 1-70000", "port 70000 is not 0 to 65535"},
    {"permit tcp any any port http", "port http is not 0 to 65535"},
    {"permit tcp any any port 1-", "port  is not 0 to 65535"},
    {"permit tcp any any port -1", "port  is not 0 to 65535"},
    {"permit tcp any any port 1-2-3", "port 2-3 is not 0 to 65535"},
    {"permit udp any port 20-10 any", "ports 20-10 end before they begin"},
    {"permit ip any any port 22", "port needs protocol tcp, udp or sctp"},
    {"permit icmp any port 22 any", "port needs protocol tcp, udp or sctp"},
    {"permit tcp any any type 8", "type needs protocol icmp"},
    {"permit ip any any type 8", "type needs protocol icmp"},
    {"permit 1 any any type 8", "type needs protocol icmp6", six},
    {"permit icmp any any type 256", "type 256 is not 0 to 255"},
    {"permit icmp any any type echo", "type echo is not 0 to 255"},
    {"permit icmp any any type 8 type 8", "type stands there twice"},
    {"permit udp any any flags syn", "flags needs protocol tcp"},
    {"permit tcp any any flags syn,xyz", "flag \"xyz\" is not known"},
    {"permit tcp any any flags syn,", "flag \"\" is not known"},
    {"permit tcp any any flags !", "flag \"!\" is not known"},
    {"permit tcp any any flags !!syn", "flag \"!!syn\" is not known"},
    {"permit tcp any any flags syn,!syn", "flag syn stands there twice"},
    {"permit tcp any any flags syn flags ack", "flags stands there twice"},
    {"deny tcp any any port 1 fragments",
     "fragments stands with neither port, type nor flags: they are not in there"},
    {"deny icmp any any type 8 fragments",
     "fragments stands with neither port, type nor flags: they are not in there"},
    {"deny tcp any any fragments flags syn",
     "fragments stands with neither port, type nor flags: they are not in there"},
    {"deny ip any any fragments fragments", "fragments stands there twice"},
    {"permit ip any any log", "unknown word \"log\""},
    {"permit ip any any any", "unknown word \"any\""},
};

INSTANTIATE_TEST_SUITE_P(All, WrongAclRule, testing::ValuesIn(wrongs));

TEST(WrongAclRule, WithAnEmbeddedNullIsRefused)
{
    EXPECT_THROW(v4(std::string_view("permit ip 192.0.2.1\0x any", 25)), AclError);
}

} // namespace
