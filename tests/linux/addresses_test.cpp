/**
 * The host's own addresses, as the data plane knows them.
 */
#include <arpa/inet.h>

#include <linux/fib_rules.h>

#include "acls_on_wire.h"
#include "host/looked_up.h"
#include "host/netlink.h"

using namespace std::chrono_literals;

namespace
{

class OwnAddresses : public LayerOnWire
{
protected:
    void SetUp() override
    {
        LayerOnWire::SetUp();
        if (IsSkipped())
            return;
        const std::string settings = std::string("/proc/sys/net/ipv6/conf/") + protectedPort;
        if (access(settings.c_str(), F_OK) != 0)
            GTEST_SKIP() << "no IPv6 on this machine";
        std::ofstream(settings + "/addr_gen_mode") << 1; // no address of the kernel's own making
        std::ofstream(settings + "/disable_ipv6") << 0;
    }

    void startTheLayer()
    {
        Outcome outcome = startOnPort();
        ASSERT_EQ(outcome.result, 0) << outcome.text;
        map = zynlinux::Descriptor(bpf_obj_get((pinFolder + "/cpudefend_local").c_str()));
        ASSERT_GE(map.get(), 0);
        networks = zynlinux::Descriptor(bpf_obj_get((pinFolder + "/cpudefend_nets").c_str()));
        ASSERT_GE(networks.get(), 0);
        beQuiet();
    }

    /** Whether an address lies in a network that the host takes for its own. */
    bool knowsNetworkOf(const std::string &text) const
    {
        cpd_prefix key{CPD_ADDRESS_BITS, {}};
        uint8_t value;
        EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), &key.address), 1) << text;
        return bpf_map_lookup_elem(networks.get(), &key, &value) == 0;
    }

    static void change(const std::string &what, const std::string &more = "")
    {
        command("ip addr " + what + " dev " + protectedPort + " " + more);
    }

    /** @param text of an IPv6 address, or of an IPv4 address mapped into one */
    bool knows(const std::string &text) const
    {
        in6_addr address;
        uint8_t value;
        EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), &address), 1) << text;
        return bpf_map_lookup_elem(map.get(), &address, &value) == 0;
    }

    bool comesToKnow(const std::string &text) const
    {
        return runUntil([&] { return knows(text); });
    }

    bool forgets(const std::string &text) const
    {
        return runUntil([&] { return !knows(text); });
    }

    zynlinux::Descriptor map, networks;
};

TEST_F(OwnAddresses, AreKnownFromTheStart)
{
    change("add 192.0.2.5/24");
    change("add 2001:db8::5/64", "nodad");
    startTheLayer();
    EXPECT_TRUE(knows("::ffff:192.0.2.5"));
    EXPECT_TRUE(knows("::ffff:192.0.2.255")); // all hosts of the network
    EXPECT_TRUE(knows("2001:db8::5"));
    EXPECT_FALSE(knows("2001:db8::6"));
}

TEST_F(OwnAddresses, OfIpv4ComeAndGo)
{
    startTheLayer();
    change("add 192.0.2.5/24");
    EXPECT_TRUE(comesToKnow("::ffff:192.0.2.5"));
    EXPECT_TRUE(knows("::ffff:192.0.2.255"));
    change("add 198.51.100.7/24");
    EXPECT_TRUE(comesToKnow("::ffff:198.51.100.7"));
    change("del 192.0.2.5/24");
    EXPECT_TRUE(forgets("::ffff:192.0.2.5"));
    EXPECT_FALSE(knows("::ffff:192.0.2.255"));
    EXPECT_TRUE(knows("::ffff:198.51.100.7"));
}

TEST_F(OwnAddresses, OfIpv6ComeAndGo)
{
    startTheLayer();
    change("add 2001:db8::5/64", "nodad");
    EXPECT_TRUE(comesToKnow("2001:db8::5"));
    change("add 2001:db8::6/64", "nodad");
    EXPECT_TRUE(comesToKnow("2001:db8::6"));
    change("del 2001:db8::5/64");
    EXPECT_TRUE(forgets("2001:db8::5"));
    EXPECT_TRUE(knows("2001:db8::6"));
}

TEST_F(OwnAddresses, AreConfiguredBroadcastAddressesToo)
{
    change("add 192.0.2.5/24 broadcast 192.0.2.127");
    startTheLayer();
    EXPECT_TRUE(knows("::ffff:192.0.2.127"));
    EXPECT_TRUE(knows("::ffff:192.0.2.255"));
}

TEST_F(OwnAddresses, AreThoseOfAnyRouterWhileThePortForwards)
{
    change("add 2001:db8::5/64", "nodad");
    startTheLayer();
    EXPECT_FALSE(knows("2001:db8::"));
    const std::string forwarding = "/proc/sys/net/ipv6/conf/all/forwarding";
    std::ofstream(forwarding) << 1;
    EXPECT_TRUE(comesToKnow("2001:db8::"));
    EXPECT_TRUE(knows("2001:db8::5"));
    std::ofstream(forwarding) << 0;
    EXPECT_TRUE(forgets("2001:db8::"));
}

TEST_F(OwnAddresses, AreWhatLocalRoutesDeliver)
{
    std::ofstream("/proc/sys/net/ipv6/conf/lo/disable_ipv6") << 0;
    command("ip link set lo up");
    command("ip route add local 198.51.100.0/24 dev lo");
    startTheLayer();
    EXPECT_TRUE(knowsNetworkOf("::ffff:198.51.100.77"));
    EXPECT_TRUE(knowsNetworkOf("::ffff:127.1.2.3"));
    EXPECT_FALSE(knowsNetworkOf("::ffff:198.51.101.1"));

    command("ip route add local 203.0.113.9 dev lo");
    EXPECT_TRUE(comesToKnow("::ffff:203.0.113.9"));
    command("ip route add local 2001:db8:1::/48 dev lo");
    EXPECT_TRUE(runUntil([this] { return knowsNetworkOf("2001:db8:1:2::3"); }));
    command("ip route del local 198.51.100.0/24 dev lo");
    EXPECT_TRUE(runUntil([this] { return !knowsNetworkOf("::ffff:198.51.100.77"); }));
    EXPECT_TRUE(knows("::ffff:203.0.113.9"));
}

TEST_F(OwnAddresses, AreNotWhatOtherRoutesLeadTo)
{
    command("ip link set lo up");
    startTheLayer();
    command("ip route add 198.51.100.0/24 dev " + std::string(protectedPort));
    command("ip route add local 203.0.113.9 dev lo"); // what is known last
    EXPECT_TRUE(comesToKnow("::ffff:203.0.113.9"));
    EXPECT_FALSE(knowsNetworkOf("::ffff:198.51.100.77"));
}

TEST(Netlink, FamilyThatIsNotThereHasNothingInIt)
{
    fib_rule_hdr request{};
    request.family = AF_APPLETALK;
    EXPECT_TRUE(zynlinux::Netlink("rules").list(RTM_GETRULE, request,
                                                [](uint16_t, auto) { ADD_FAILURE(); }));
}

/* ---- Routes of other tables than the local one ---------------------------------------- */

TEST(LookedUp, MainIsLookedUpWithoutRules)
{
    EXPECT_TRUE(zynlinux::LookedUp().contains(RT_TABLE_MAIN));
    EXPECT_FALSE(zynlinux::LookedUp().contains(100));
}

struct RuleCase {
    const char *name;
    const char *rule;
    bool counts;
    const char *table = "100";
};

void PrintTo(const RuleCase &each, std::ostream *out)
{
    *out << each.rule;
}

class OwnByTable : public OwnAddresses
{
protected:
    void SetUp() override
    {
        OwnAddresses::SetUp();
        if (IsSkipped())
            return;
        std::ofstream("/proc/sys/net/ipv6/conf/lo/disable_ipv6") << 0;
        command("ip link set lo up");
    }

    static void change(const std::string &what, const char *table)
    {
        const std::string end = std::string(" dev lo table ") + table;
        command("ip route " + what + " local 198.51.100.0/24" + end);
        command("ip route " + what + " local 203.0.113.9" + end);
        command("ip route " + what + " local 2001:db8:1::/48" + end);
    }

    static void changeRule(const std::string &what, const std::string &rule)
    {
        const std::string text = " rule " + what + " " + rule + " pref 1000";
        command("ip -4" + text);
        command("ip -6" + text);
    }

    bool knowsAny() const
    {
        return knowsNetworkOf("::ffff:198.51.100.77") || knows("::ffff:203.0.113.9") ||
               knowsNetworkOf("2001:db8:1::2");
    }
    bool knowsAll() const
    {
        return knowsNetworkOf("::ffff:198.51.100.77") && knows("::ffff:203.0.113.9") &&
               knowsNetworkOf("2001:db8:1::2");
    }

    /** What happened before has been heard of, too, when what comes last is known. */
    void catchUp() const
    {
        command("ip route add local 203.0.113.200 dev lo");
        command("ip route add local 203.0.113.201 dev lo table main");
        EXPECT_TRUE(comesToKnow("::ffff:203.0.113.200"));
        EXPECT_TRUE(comesToKnow("::ffff:203.0.113.201"));
        command("ip route del local 203.0.113.200 dev lo");
        command("ip route del local 203.0.113.201 dev lo table main");
        EXPECT_TRUE(forgets("::ffff:203.0.113.200"));
        EXPECT_TRUE(forgets("::ffff:203.0.113.201"));
    }
};

TEST_F(OwnByTable, AreKnownFromTheStart)
{
    change("add", "100");
    changeRule("add", "lookup 100");
    startTheLayer();
    EXPECT_TRUE(knowsAll());
}

TEST_F(OwnByTable, ComeAndGoWithTheRoute)
{
    changeRule("add", "lookup 100");
    startTheLayer();
    for (const char *table : {"100", "main"}) {
        change("add", table);
        EXPECT_TRUE(runUntil([this] { return knowsAll(); }));
        change("del", table);
        EXPECT_TRUE(runUntil([this] { return !knowsAny(); }));
    }
}

TEST_F(OwnByTable, ComeAndGoWithTheRulesOfTheirFamily)
{
    change("add", "100");
    startTheLayer();
    command("ip -6 rule add lookup 100");
    EXPECT_TRUE(runUntil([this] { return knowsNetworkOf("2001:db8:1::2"); }));
    EXPECT_FALSE(knows("::ffff:203.0.113.9"));
    command("ip -4 rule add lookup 100");
    EXPECT_TRUE(comesToKnow("::ffff:203.0.113.9"));
    command("ip -6 rule del lookup 100");
    EXPECT_TRUE(runUntil([this] { return !knowsNetworkOf("2001:db8:1::2"); }));
    EXPECT_TRUE(knows("::ffff:203.0.113.9"));
}

TEST_F(OwnByTable, AreAnycastAndBroadcastRoutesToo)
{
    startTheLayer();
    command("ip route add broadcast 203.0.113.9 dev lo table main");
    EXPECT_TRUE(comesToKnow("::ffff:203.0.113.9"));
    command("ip -6 route add anycast 2001:db8::9 dev lo table main");
    EXPECT_TRUE(comesToKnow("2001:db8::9"));
    command("ip route del broadcast 203.0.113.9 dev lo table main");
    EXPECT_TRUE(forgets("::ffff:203.0.113.9"));
    EXPECT_TRUE(knows("2001:db8::9"));
}

class OwnByRule : public OwnByTable, public testing::WithParamInterface<RuleCase>
{
};

TEST_P(OwnByRule, ComeAndGoWithTheRule)
{
    change("add", GetParam().table);
    startTheLayer();
    EXPECT_FALSE(knowsAny());
    changeRule("add", GetParam().rule);
    if (!GetParam().counts) {
        catchUp();
        EXPECT_FALSE(knowsAny());
        return;
    }
    EXPECT_TRUE(runUntil([this] { return knowsAll(); }));
    changeRule("del", GetParam().rule);
    EXPECT_TRUE(runUntil([this] { return !knowsAny(); }));
}

INSTANTIATE_TEST_SUITE_P(Rules, OwnByRule,
                         testing::Values(RuleCase{"All", "lookup 100", true},
                                         RuleCase{"GreatNumber", "lookup 1000000", true, "1000000"},
                                         RuleCase{"Service", "ipproto udp dport 5000 lookup 100",
                                                  true},
                                         RuleCase{"Interface", "iif port0 lookup 100", true},
                                         RuleCase{"Vrf", "l3mdev", true},
                                         RuleCase{"Unmarked", "fwmark 0/0x1 lookup 100", true},
                                         RuleCase{"MaskedAway", "fwmark 2/0x1 lookup 100", true},
                                         RuleCase{"NotTheMark", "not fwmark 1 lookup 100", true},
                                         RuleCase{"Mark", "fwmark 1 lookup 100", false},
                                         RuleCase{"MarkOfABit", "fwmark 3/0x2 lookup 100", false},
                                         RuleCase{"AnotherTable", "lookup 101", false},
                                         RuleCase{"Refusal", "lookup 100 type unreachable", false}),
                         [](const auto &each) { return std::string(each.param.name); });

/** What is delivered by a route of another table, with a list that asks for a rate. */
class DeliveredByRule : public AclsOnWire
{
protected:
    static constexpr uint16_t service = 5000;
    static constexpr char rule[] = "to 203.0.113.0/24 lookup 100";
    static constexpr unsigned offered = 100, bucket = 10;

    void SetUp() override
    {
        AclsOnWire::SetUp();
        if (IsSkipped())
            return;
        command("ip link set lo up");
        command("ip link set port0 address 02:00:00:00:00:01");
        for (const char *which : {"all", "port0"})
            std::ofstream(std::string("/proc/sys/net/ipv4/conf/") + which + "/rp_filter") << 0;
        command("ip addr add 192.0.2.2/24 dev port0");
        command("ip route add local 203.0.113.0/24 dev lo table 100");
        listen();
        ASSERT_EQ(startOnPort(acls).result, 0);
        ASSERT_EQ(bind(100, ZYN_HW_OP_PERMIT, 1, bucket * static_cast<uint32_t>(frame.size())), 0);
    }

    void listen()
    {
        server =
            zynlinux::Descriptor(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        sockaddr_in any{};
        any.sin_family = AF_INET;
        any.sin_port = htons(service);
        ASSERT_EQ(::bind(server.get(), reinterpret_cast<sockaddr *>(&any), sizeof any), 0);
    }

    /** Offer frames; what the kernel gets of them is in arrived, what it delivers in delivered. */
    void offer()
    {
        PacketSocket receiver(protectedPort, 0x0800), sender(peerPort, 0x0800);
        ASSERT_EQ(sender.send(frame, offered), offered);
        arrived = delivered = 0;
        within(100ms, [&] { return (arrived += receiver.received()) >= offered; });
        for (char data[2048]; recv(server.get(), data, sizeof data, 0) >= 0;)
            delivered++;
    }

    const std::vector<uint8_t> frame = udp("192.0.2.7", "203.0.113.5", service);
    unsigned arrived = 0, delivered = 0;
    zynlinux::Descriptor server;
};

TEST_F(DeliveredByRule, IsHeldAtItsRateForAsLongAsTheRuleIsThere)
{
    offer(); // to be forwarded, and there is no way
    EXPECT_EQ(arrived, offered);
    EXPECT_EQ(delivered, 0u);

    command(std::string("ip rule add ") + rule);
    EXPECT_TRUE(runUntil([this] {
        offer();
        return arrived < offered;
    }));
    EXPECT_GE(delivered, 1u);
    EXPECT_LE(delivered, bucket);
    offer();
    EXPECT_LE(delivered, 1u) << "1 kbit/s";

    command(std::string("ip rule del ") + rule);
    EXPECT_TRUE(runUntil([this] {
        offer();
        return arrived == offered;
    }));
    EXPECT_EQ(delivered, 0u);
}

} // namespace
