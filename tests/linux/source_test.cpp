// Who sent a sample, and what it counts as: as the core's own tracing has it.
#include <random>
#include <set>

#include <gtest/gtest.h>

#include "cpuDefend.h"
#include "scripted_hw.h"
#include "trace/source.h"
#include "traced_frame.h"

using namespace zynlinux;

namespace
{

const PortConfig port{"port0", 3, 4};

std::vector<uint8_t> transport(uint8_t protocol, unsigned from, unsigned to, uint8_t words = 5)
{
    Ipv4 header{protocol};
    header.versionIhl = static_cast<uint8_t>(0x40 | words);
    header.optionBytes = static_cast<uint16_t>(4 * (words - 5));
    return Frame(broadcast).ipv4(header).u16(from).u16(to).zeros(40).bytes();
}

std::optional<Kind> kindOf(const cpd_sample &sample)
{
    const auto source = sourceOf(sample, port);
    return source ? std::optional(source->group.kind) : std::nullopt;
}

std::optional<Kind> kindOf(uint8_t protocol, unsigned from, unsigned to)
{
    return kindOf(sampleOf(transport(protocol, from, to), 0x0800));
}

TEST(SourceOfSample, IsWhoTheFrameNames)
{
    const cpd_sample arp = arpSample(0x010203, 7);
    const Source expected{{3, 4, Kind::Arp}, 7, {10, 1, 2, 3}, {2, 0, 0, 1, 2, 3}};
    EXPECT_EQ(sourceOf(arp, port), expected);

    const cpd_sample icmp = sampleOf(transport(1, 0, 0), 0x0800, 8);
    const Source pinger{{3, 4, Kind::Icmp}, 8, {192, 0, 2, 1}, peer};
    EXPECT_EQ(sourceOf(icmp, port), pinger);
}

TEST(SourceOfSample, LiesBehindTags)
{
    const auto frame = Frame(broadcast).tag(0x88a8, 5).tag(0x8100, 6).ipv4({2}).zeros(40).bytes();
    cpd_sample sample = sampleOf(frame, 0x0800);
    sample.network_offset = 22;
    const Source expected{{3, 4, Kind::Igmp}, 1, {192, 0, 2, 1}, peer};
    EXPECT_EQ(sourceOf(sample, port), expected);
}

TEST(KindOfSample, GoesByProtocolAndPort)
{
    EXPECT_EQ(kindOf(1, 23, 23), Kind::Icmp);
    EXPECT_EQ(kindOf(2, 68, 23), Kind::Igmp);
    EXPECT_EQ(kindOf(6, 68, 24), Kind::Tcp);
    EXPECT_EQ(kindOf(6, 23, 80), Kind::Tcp);
    EXPECT_EQ(kindOf(6, 80, 23), Kind::Telnet);
    EXPECT_EQ(kindOf(17, 68, 67), Kind::DhcpClient);
    EXPECT_EQ(kindOf(17, 67, 68), Kind::DhcpServer);
    EXPECT_EQ(kindOf(17, 1024, 67), std::nullopt);
    EXPECT_EQ(kindOf(89, 0, 0), std::nullopt);
    EXPECT_EQ(kindOf(sampleOf(transport(6, 0, 23), 0x86dd)), std::nullopt);
}

/** The core with an entry of every type that tracing knows. */
class AgainstTheCore : public testing::Test
{
protected:
    static constexpr uint32_t types[] = {1, 7, 11, 12, 14, 21, 22};

    void SetUp() override
    {
        scripted::reset();
        ASSERT_EQ(cpuDefendInit(4, 2), 0);
        unsigned char name[] = {'p'};
        policy = cpuDefendPolicyEntryAdd(name, sizeof name);
        policy->srcTraceEnable = CPUDEFEND_ENABLE;
        for (uint32_t type : types) {
            int32_t code = 0;
            ASSERT_NE(cpuDefendCarPktEntryAdd(name, sizeof name, type, &code), nullptr) << code;
        }
        gCpuDefend.policyName[0] = name[0];
        gCpuDefend.policyNameLen = sizeof name;
        scripted::script.ports[1] = {3, 4};
    }

    void TearDown() override { cpuDefendRelease(); }

    /** The types that a packet counts as. */
    std::set<uint32_t> counted(const cpd_sample &sample) const
    {
        std::map<uint32_t, uint32_t> before;
        list_for_each_entry(tCpuDefendCarPktEntry, entry, &policy->carPktList, policyNode)
            before[entry->pktType] = entry->pktSrcTraceTotalNum;
        packet_rxpktinfo info{};
        info.pkt_dataoffset = sample.network_offset;
        unsigned char bytes[CPUDEFEND_PKTDATA_LEN];
        memcpy(bytes, sample.data, sizeof bytes);
        cpuDefendSrcTracePkt(1, sample.ethertype, &info, bytes, sizeof bytes);
        std::set<uint32_t> found;
        list_for_each_entry(tCpuDefendCarPktEntry, entry, &policy->carPktList,
                            policyNode) if (entry->pktSrcTraceTotalNum != before[entry->pktType])
            found.insert(entry->pktType);
        return found;
    }

    tCpuDefendPolicyEntry *policy = nullptr;
};

/** Frames with all that it goes by made up, sometimes where no bytes are. */
cpd_sample anySample(std::mt19937 &random)
{
    const auto any = [&](std::initializer_list<unsigned> of) {
        return of.begin()[random() % of.size()];
    };
    const auto protocol = static_cast<uint8_t>(any({0, 1, 2, 6, 6, 17, 17, 58}));
    const auto words = static_cast<uint8_t>(any({0, 1, 5, 5, 6, 15}));
    cpd_sample sample =
        sampleOf(transport(protocol, any({22, 23, 67, 68, 1024}), any({22, 23, 67, 68}),
                           std::max<uint8_t>(words, 5)),
                 static_cast<uint16_t>(any({0x0800, 0x0800, 0x0800, 0x0806, 0x86dd, 0})));
    const uint8_t at = static_cast<uint8_t>(any({14, 14, 14, 18, 40, 70, 79, 80, 200}));
    memmove(sample.data + std::min<int>(at, 80), sample.data + 14, 16);
    for (size_t i = 0; i < 4 && at < 60; i++)
        sample.data[at + 4u * words % 36 + i] = static_cast<uint8_t>(any({0, 0, 23, 67, 68}));
    for (size_t i = 80; i < sizeof sample.data; i++)
        sample.data[i] = static_cast<uint8_t>(any({0, 23, 67, 68})); // which tracing doesn't see
    sample.network_offset = at;
    return sample;
}

/** Otherwise one sample could not stand for another. */
TEST_F(AgainstTheCore, SamplesOfAKindCountAsTheSame)
{
    std::mt19937 random(5);
    std::map<std::optional<Kind>, std::set<std::set<uint32_t>>> counts;
    for (int i = 0; i < 20000; i++) {
        const cpd_sample sample = anySample(random);
        counts[kindOf(sample)].insert(counted(sample));
    }
    using Counts = std::set<std::set<uint32_t>>;
    const std::map<std::optional<Kind>, Counts> expected = {
        {std::nullopt, {{}}},       {Kind::Arp, {{1}}},         {Kind::Icmp, {{14}}},
        {Kind::Igmp, {{7}}},        {Kind::Tcp, {{12}}},        {Kind::Telnet, {{11, 12}}},
        {Kind::DhcpClient, {{21}}}, {Kind::DhcpServer, {{22}}},
    };
    EXPECT_EQ(counts, expected);
}

} // namespace
