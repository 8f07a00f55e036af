/**
 * The host's own addresses, as the data plane knows them.
 */
#include <arpa/inet.h>

#include "layer_on_wire.h"

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

} // namespace
