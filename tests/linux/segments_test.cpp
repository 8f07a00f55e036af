/**
 * Frames that hold several packets, through both programs on a tap device.
 */
#include <arpa/inet.h>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <net/if.h>
#include <poll.h>

#include "bpf_probe.h"
#include "frame.h"
#include "kernel/dataplane.h"
#include "policy/policer_settings.h"
#include "program.h"
#include "tap.h"
#include "test_net.h"

using namespace zynlinux;

namespace
{

constexpr uint16_t headers = 14 + 20 + 8, payload = 100;
constexpr uint16_t service = 67;

/** A frame of UDP to the port of DHCP servers, with so much payload behind the headers. */
std::vector<uint8_t> datagrams(unsigned octets, unsigned tags = 0)
{
    Frame frame(host);
    for (unsigned i = 0; i < tags; i++)
        frame.tag(0x8100, 0);
    frame.u16(0x0800).u8({0x45, 0}).u16(28 + octets).u16(1).u16(0).u8({64, 17});
    uint32_t sum = 0x4500 + 28 + octets + 1 + 0x4011 + 0xc000 + 0x0201 + 0xc000 + 0x0202;
    sum = (sum & 0xffff) + (sum >> 16);
    frame.u16(~sum & 0xffff).u8({192, 0, 2, 1, 192, 0, 2, 2});
    uint32_t pseudo = 0xc000 + 0x0201 + 0xc000 + 0x0202 + 17 + 8 + octets;
    pseudo = (pseudo & 0xffff) + (pseudo >> 16);
    return frame.u16(68).u16(service).u16(8 + octets).u16(pseudo).zeros(octets).bytes();
}

class SuperFrames : public testing::Test
{
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_BPF();
        if (std::string why = enterNameSpace(); !why.empty())
            GTEST_SKIP() << why;
        std::ofstream("/proc/sys/net/ipv6/conf/default/disable_ipv6") << 1; // which sends, too
        tap = std::make_unique<Tap>("tap0");
        if (!tap->made())
            GTEST_SKIP() << "no tap devices on this machine";
        command("ip link set lo up");
        command("ip link set tap0 address 02:00:00:00:00:01 up");
        command("ip addr add 192.0.2.2/24 dev tap0");
        std::ofstream("/proc/sys/net/ipv4/conf/tap0/rp_filter") << 0;
        program = std::make_unique<Program>();
        attach();
        listen();
    }

    void attach()
    {
        const auto port = if_nametoindex("tap0");
        LIBBPF_OPTS(bpf_link_create_opts, options);
        options.flags = 1u << 1; // XDP_FLAGS_SKB_MODE
        xdp =
            Descriptor(bpf_link_create(program->xdp(), static_cast<int>(port), BPF_XDP, &options));
        Program::check(xdp.get() < 0 ? -1 : 0, "attach the packet program");
        constexpr auto tcxIngress = static_cast<bpf_attach_type>(46);
        tc =
            Descriptor(bpf_link_create(program->tc(), static_cast<int>(port), tcxIngress, nullptr));
        if (tc.get() < 0)
            GTEST_SKIP() << "no place for the program behind (Linux 6.6)";
        program->place(port, 0, true);
    }

    void listen()
    {
        server = Descriptor(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        sockaddr_in any{};
        any.sin_family = AF_INET;
        any.sin_port = htons(service);
        Program::check(bind(server.get(), reinterpret_cast<sockaddr *>(&any), sizeof any),
                       "listen");
    }

    /** Limit the type; policer 5 decides. */
    void limit(const cpd_settings &packets, const cpd_settings &bytes, uint8_t flags)
    {
        program->meter(5, packets, bytes);
        program->enforce(only(CPD_DHCPCLIENT, flags, 5));
    }

    /** Datagrams that the kernel's own receiver has got since the last call. */
    unsigned received() const
    {
        unsigned count = 0;
        char datagram[2048];
        for (pollfd wait{server.get(), POLLIN, 0}; poll(&wait, 1, count == 0 ? 300 : 0) > 0;)
            for (; recv(server.get(), datagram, sizeof datagram, 0) >= 0; count++) {
            }
        return count;
    }

    /** Hand over so many datagrams in one frame, and see how many arrive. */
    unsigned send(unsigned count, unsigned tags = 0) const
    {
        const auto before = static_cast<uint16_t>(headers + 4 * tags);
        EXPECT_TRUE(tap->send(datagrams(count * payload, tags), before, count > 1 ? payload : 0));
        return received();
    }

    cpd_counters counted() const { return program->counters()[CPD_DHCPCLIENT]; }

    std::unique_ptr<Tap> tap;
    std::unique_ptr<Program> program;
    Descriptor xdp, tc, server;
};

/** So slow that no token comes while a test runs; the bucket is what it says. */
cpd_settings packetsAtOnce(uint64_t count)
{
    cpd_settings settings = packetSettings(1);
    settings.depth = cpd_cost(count, &settings);
    return settings;
}

TEST_F(SuperFrames, AreCountedAsThePacketsThatTheyHold)
{
    EXPECT_EQ(send(1), 1u);
    EXPECT_EQ(send(10), 10u);
    EXPECT_EQ(counted().passed_packets, 11u);
    EXPECT_EQ(counted().passed_octets, 11u * (headers + payload));
}

// Packet sockets for all protocols see a frame before it is known for what it is: so its first
// packet has passed whatever becomes of the rest.

TEST_F(SuperFrames, ArriveOnlyAsFarAsThePacketPolicerGoes)
{
    limit(packetsAtOnce(25), {}, CPD_RULE_PACKETS);
    EXPECT_EQ(send(10), 10u);
    EXPECT_EQ(send(10), 10u);
    EXPECT_EQ(send(10), 0u); // there is room for five
    EXPECT_EQ(counted().passed_packets, 21u);
    EXPECT_EQ(counted().dropped_packets, 9u);
    EXPECT_EQ(counted().passed_octets + counted().dropped_octets, 30u * (headers + payload));
    EXPECT_EQ(send(5), 0u);
    EXPECT_EQ(send(3), 3u); // one has been charged for each of the two
    EXPECT_EQ(send(1), 0u);
}

TEST_F(SuperFrames, AreSeenNoMoreOftenThanThePolicerLetsThem)
{
    PacketSocket all("tap0", 3); // ETH_P_ALL
    limit(packetsAtOnce(5), {}, CPD_RULE_PACKETS);
    for (int i = 0; i < 20; i++)
        EXPECT_TRUE(tap->send(datagrams(10 * payload), headers, payload));
    received();
    EXPECT_EQ(all.received(), 5u);
}

TEST_F(SuperFrames, ArriveOnlyAsFarAsTheBytePolicerGoes)
{
    const uint32_t octets = headers + payload;
    limit({}, byteSettings(1, 25 * octets), CPD_RULE_BYTES);
    EXPECT_EQ(send(20), 20u);
    EXPECT_EQ(send(5), 5u);
    EXPECT_EQ(send(1), 0u);
    EXPECT_EQ(counted().passed_octets, 25u * octets);
    limit({}, byteSettings(1, 10 * octets - 1), CPD_RULE_BYTES);
    EXPECT_EQ(send(10), 0u); // its octets fit, but not the headers of the rest
}

TEST_F(SuperFrames, WhatTheBytePolicerRefusesCostsOnlyThePacketThatWasSeen)
{
    const cpd_settings packets = packetsAtOnce(20);
    const uint32_t octets = headers + 10 * payload; // with the headers of one
    limit(packets, byteSettings(1, octets + 5 * headers), CPD_RULE_PACKETS | CPD_RULE_BYTES);
    EXPECT_EQ(send(10), 0u);
    EXPECT_LE(cpd_debt(program->policer(5).word[CPD_PACKETS], &packets, monotonicNow()),
              cpd_cost(1, &packets));
    EXPECT_EQ(send(1), 1u);
}

TEST_F(SuperFrames, AreLookedIntoBehindTags)
{
    limit(packetsAtOnce(10), {}, CPD_RULE_PACKETS);
    EXPECT_EQ(send(6, 2), 6u);
    EXPECT_EQ(send(6, 2), 0u);
}

TEST_F(SuperFrames, BehindTagsCountWhateverStandsWhereHeadersMayBe)
{
    limit(packetsAtOnce(10), {}, CPD_RULE_PACKETS);
    auto frame = datagrams(28, 2);
    frame[26] = 0x12; // an identification and a TTL that look like a long header of TCP
    frame[27] = 0x06;
    frame[30] = 0xf0;
    uint32_t sum = 0;
    frame[32] = frame[33] = 0;
    for (size_t at = 22; at < 42; at += 2)
        sum += frame[at] << 8 | frame[at + 1];
    sum = ~((sum & 0xffff) + (sum >> 16));
    frame[32] = static_cast<uint8_t>(sum >> 8);
    frame[33] = static_cast<uint8_t>(sum);
    EXPECT_TRUE(tap->send(frame, headers + 8, 1)); // 28 datagrams of an octet
    EXPECT_EQ(received(), 0u);
}

TEST_F(SuperFrames, CarryTheirQueueAllTheSame)
{
    program->meter(5, packetsAtOnce(10));
    program->enforce(only(CPD_DHCPCLIENT, CPD_RULE_PACKETS | CPD_RULE_QUEUE, 5));
    EXPECT_EQ(send(10), 10u);
    EXPECT_EQ(send(1), 0u);
}

} // namespace
