/**
 * What the packet program does with a packet once its type is known, by test runs in the kernel.
 */
#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <memory>
#include <set>
#include <thread>

#include <bpf/bpf.h>
#include <bpf/btf.h>
#include <bpf/libbpf.h>
#include <net/if.h>
#include <poll.h>

#include "acl/acl_compiler.h"
#include "bpf_probe.h"
#include "frame.h"
#include "policy/policer_settings.h"
#include "program.h"
#include "test_net.h"

using namespace zynlinux;

namespace
{

constexpr uint8_t packetsAndBytes = CPD_RULE_PACKETS | CPD_RULE_BYTES;

std::vector<uint8_t> arp(size_t octets = 60)
{
    return Frame(broadcast).u16(0x0806).zeros(octets - 14).bytes();
}

class PacketProgram : public testing::Test
{
protected:
    static constexpr uint32_t samplesPerTick = 40;

    void SetUp() override
    {
        SKIP_WITHOUT_BPF();
        program = std::make_unique<Program>(samplesPerTick);
    }

    void enforce(uint8_t flags, const cpd_settings &packets,
                 const cpd_settings &bytes = {1, 0, 0, 0})
    {
        program->meter(7, packets, bytes);
        program->enforce(only(CPD_ARP, flags, 7));
    }

    /** How many of so many frames pass, all at once. */
    uint64_t offer(const std::vector<uint8_t> &frame, int count, uint32_t ifindex = 0)
    {
        uint64_t before = passed();
        program->run(frame, count, ifindex);
        return passed() - before;
    }

    /** Packets that passed, those of no type too. */
    uint64_t passed() const
    {
        uint64_t sum = 0;
        for (const cpd_counters &each : program->everywhere())
            sum += each.passed_packets;
        return sum;
    }

    std::unique_ptr<Program> program;
};

// Rates are low enough that no token comes while the frames are offered.

TEST_F(PacketProgram, WithoutAPolicyAllPassAndAreCounted)
{
    EXPECT_EQ(offer(arp(), 1000), 1000u);
    EXPECT_EQ(program->counters()[CPD_ARP].passed_octets, 60'000u);
}

TEST_F(PacketProgram, RuleWithoutAPolicerPassesAll)
{
    program->enforce(only(CPD_ARP, CPD_RULE_QUEUE));
    for (int i = 0; i < 100; i++)
        EXPECT_EQ(offer(arp(), 1), 1u);
}

TEST_F(PacketProgram, DenyDropsWhateverThePolicersSay)
{
    enforce(CPD_RULE_DENY | packetsAndBytes, packetSettings(UINT32_MAX),
            byteSettings(UINT32_MAX, UINT32_MAX));
    EXPECT_EQ(offer(arp(), 10), 0u);
    EXPECT_EQ(program->counters()[CPD_ARP].dropped_packets, 10u);
    EXPECT_EQ(program->counters()[CPD_ARP].dropped_octets, 600u);
}

TEST_F(PacketProgram, BurstOfExactlyThePacketBucketPassesWhole)
{
    enforce(CPD_RULE_PACKETS, packetSettings(1));
    EXPECT_EQ(offer(arp(), 1), 1u);
    EXPECT_EQ(offer(arp(), 1000), packetBucket(1) - 1);
}

TEST_F(PacketProgram, BurstOfExactlyTheByteBucketPassesWhole)
{
    for (uint32_t frames : {1u, 2u, 100u, 5000u}) {
        enforce(CPD_RULE_BYTES, {}, byteSettings(1, frames * 60));
        EXPECT_EQ(offer(arp(), 20'000), frames);
    }
}

TEST_F(PacketProgram, BytePolicerCountsTheWholeFrame)
{
    enforce(CPD_RULE_BYTES, {}, byteSettings(1, 6000));
    EXPECT_EQ(offer(arp(1500), 1000), 4u);
}

/** Whether packet programs of this kernel can gather a frame's headers (Linux 6.18). */
bool kernelGathers()
{
    std::unique_ptr<btf, void (*)(btf *)> types(btf__load_vmlinux_btf(), btf__free);
    return types && btf__find_by_name_kind(types.get(), "bpf_xdp_pull_data", BTF_KIND_FUNC) > 0;
}

TEST_F(PacketProgram, HeadersThatAreNotInTheFirstBufferAreGathered)
{
    if (!kernelGathers())
        GTEST_SKIP() << "before Linux 6.18 such frames are of no type";
    const auto frame = Frame(host).ipv4({.protocol = 17}).udp(40000, 67).zeros(3000).bytes();
    program->enforce(only(CPD_DHCPSNOOPIP, CPD_RULE_DENY));
    for (size_t first : {size_t{14}, size_t{33}, size_t{34}, size_t{41}, frame.size()})
        EXPECT_EQ(program->run(frame, 1, 0, first).verdict, uint32_t{XDP_DROP}) << first;
    EXPECT_EQ(program->counters()[CPD_DHCPSNOOPIP].dropped_octets, 5 * frame.size());
}

TEST_F(PacketProgram, FrameInSeveralBuffersCountsWhole)
{
    enforce(CPD_RULE_BYTES, {}, byteSettings(1, 20'000));
    EXPECT_EQ(offer(arp(9000), 10), 2u);
    EXPECT_EQ(program->counters()[CPD_ARP].passed_octets, 18'000u);
    EXPECT_EQ(program->counters()[CPD_ARP].dropped_octets, 72'000u);
}

TEST_F(PacketProgram, WithBothPolicersTheTighterOneDecides)
{
    enforce(packetsAndBytes, packetSettings(1), byteSettings(1, 6000));
    EXPECT_EQ(offer(arp(), 1000), packetBucket(1));
    enforce(packetsAndBytes, packetSettings(50'000), byteSettings(1, 180));
    EXPECT_EQ(offer(arp(), 1000), 3u);
}

TEST_F(PacketProgram, PacketThatTheBytePolicerRefusesCostsNoPacketToken)
{
    enforce(packetsAndBytes, packetSettings(1), byteSettings(1, 100));
    EXPECT_EQ(offer(arp(101), 1000), 0u);
    EXPECT_EQ(offer(arp(60), 1000), 1u); // there is no room for a second one of 60
    EXPECT_EQ(offer(arp(20), 1000), packetBucket(1) - 1);
}

TEST_F(PacketProgram, PacketThatThePacketPolicerRefusesCostsNoBytes)
{
    enforce(packetsAndBytes, packetSettings(1), byteSettings(1, 300));
    EXPECT_EQ(offer(arp(), 1000), 2u);
    program->policer(7).word[CPD_PACKETS] = 0;
    EXPECT_EQ(offer(arp(), 2), 2u);
}

TEST_F(PacketProgram, RateOfZeroDropsAll)
{
    enforce(CPD_RULE_PACKETS, packetSettings(0));
    EXPECT_EQ(offer(arp(), 1000), 0u);
    enforce(CPD_RULE_BYTES, {}, byteSettings(0, 6000));
    EXPECT_EQ(offer(arp(), 1000), 0u);
}

TEST_F(PacketProgram, OtherTypesPassWhileOneIsFlooded)
{
    enforce(CPD_RULE_PACKETS, packetSettings(1));
    const auto pae = Frame(broadcast).u16(0x888e).zeros(46).bytes();
    for (int i = 0; i < 20; i++) {
        offer(arp(), 1000);
        EXPECT_EQ(offer(pae, 100), 100u);
    }
}

TEST_F(PacketProgram, TypesOfOnePolicerShareIt)
{
    program->meter(3, packetSettings(1));
    cpd_policy policy = only(CPD_ARP, CPD_RULE_PACKETS, 3);
    policy.types[CPD_DOT1X] = policy.types[CPD_ARP];
    program->enforce(policy);
    EXPECT_EQ(offer(arp(), 1), 1u);
    EXPECT_EQ(offer(Frame(broadcast).u16(0x888e).zeros(46).bytes(), 100), 1u);
    EXPECT_EQ(offer(arp(), 100), 0u);
}

// Refusals without a reading of the clock.

double secondsSince(std::chrono::steady_clock::time_point begin)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

/** With a bucket of a second, so that a pause of this thread loses no tokens. */
TEST_F(PacketProgram, FloodGetsItsRateAndNoMore)
{
    for (uint32_t pps : {500u, 5'000u, 50'000u}) {
        enforce(CPD_RULE_BYTES, {}, byteSettings(pps * 60 * 8 / 1000, pps * 60));
        const auto begin = std::chrono::steady_clock::now();
        const uint64_t bucket = offer(arp(), 100'000);
        const auto empty = std::chrono::steady_clock::now();
        double least = 0; // seconds until the last frames were offered
        uint64_t more = 0;
        while (least < 0.5) {
            least = secondsSince(empty);
            more += offer(arp(), 20'000);
        }
        EXPECT_GE(bucket, pps);
        EXPECT_LE(static_cast<double>(bucket + more), pps * (1 + secondsSince(begin)) + 1);
        EXPECT_GE(static_cast<double>(more), pps * least - 1);
    }
}

TEST_F(PacketProgram, ChangedWordIsNoticedAtOnce)
{
    enforce(CPD_RULE_PACKETS, packetSettings(1));
    for (int i = 0; i < 200; i++) {
        program->policer(7).word[CPD_PACKETS] = 0; // full
        EXPECT_EQ(offer(arp(), 300), packetBucket(1));
    }
}

TEST_F(PacketProgram, OtherPolicerWithTheSameWordDecidesForItself)
{
    for (int i = 0; i < 20; i++) {
        program->meter(1, packetSettings(0));
        program->meter(2, packetSettings(1));
        program->enforce(only(CPD_ARP, CPD_RULE_PACKETS, 1));
        EXPECT_EQ(offer(arp(), 300), 0u);
        program->enforce(only(CPD_ARP, CPD_RULE_PACKETS, 2));
        EXPECT_EQ(offer(arp(), 300), packetBucket(1));
    }
}

TEST_F(PacketProgram, SmallerFrameThanTheRefusedOnesStillPasses)
{
    enforce(CPD_RULE_BYTES, {}, byteSettings(1, 1000));
    for (int i = 0; i < 200; i++) {
        program->policer(7).word[CPD_BYTES] = 0;
        EXPECT_EQ(offer(arp(600), 300), 1u);
        EXPECT_EQ(offer(arp(400), 1), 1u);
    }
}

TEST_F(PacketProgram, IsExactWhenSeveralCpusRunIt)
{
    constexpr int threads = 4;
    enforce(packetsAndBytes, packetSettings(UINT32_MAX), byteSettings(1, 60'000));
    std::vector<std::thread> pool;
    for (int i = 0; i < threads; i++)
        pool.emplace_back([this] { program->run(arp(), 20'000); });
    for (std::thread &each : pool)
        each.join();
    EXPECT_GE(passed(), 1000u);
    EXPECT_LE(passed(), 1002u); // a frame of 60 bytes in half a second
    EXPECT_EQ(program->counters()[CPD_ARP].dropped_packets, threads * 20'000 - passed());
}

// Policies.

/**
 * Each of the two policies drops what a DHCP client sends, one by the rule of its type, the other
 * by that of DHCP snooping. A packet judged by the first rule of one and the second of the other
 * would pass.
 */
TEST_F(PacketProgram, NoPacketIsJudgedByHalvesOfTwoPolicies)
{
    const auto frame = Frame(broadcast).ipv4({.protocol = 17}).udp(68, 67).zeros(300).bytes();
    const cpd_policy one = only(CPD_DHCPCLIENT, CPD_RULE_DENY);
    cpd_policy other = only(CPD_DHCPSNOOPIP, CPD_RULE_DENY);
    cpd_let_stand_in(&other);
    program->enforce(one);
    std::atomic<bool> stop{false};
    std::vector<std::thread> pool;
    for (int i = 0; i < 2; i++)
        pool.emplace_back([&] {
            while (!stop)
                program->run(frame, 10'000);
        });
    for (int i = 0; i < 100; i++) {
        program->enforce(other);
        program->enforce(one);
    }
    stop = true;
    for (std::thread &each : pool)
        each.join();
    auto counters = program->counters();
    EXPECT_EQ(passed(), 0u);
    EXPECT_GT(counters[CPD_DHCPCLIENT].dropped_packets, 0u);
    EXPECT_GT(counters[CPD_DHCPSNOOPIP].dropped_packets, 0u);
}

TEST_F(PacketProgram, TakingThePolicyAwayPassesAgain)
{
    program->enforce(denyAll());
    EXPECT_EQ(offer(arp(), 10), 0u);
    program->enforceNothing();
    EXPECT_EQ(offer(arp(), 10), 10u);
}

class PacketTargets : public PacketProgram
{
protected:
    void SetUp() override
    {
        PacketProgram::SetUp();
        if (IsSkipped())
            return;
        if (std::string why = enterNameSpace(); !why.empty())
            GTEST_SKIP() << why;
        makeWire();
        port = if_nametoindex(protectedPort);
        other = if_nametoindex(peerPort);
        program->enforce(emptyPolicy());
        program->enforce(denyAll(), 5);
    }

    void expectFive()
    {
        EXPECT_EQ(offer(arp(), 3, port), 0u);
        EXPECT_EQ(program->counters(5)[CPD_ARP].dropped_packets, 3u);
        EXPECT_EQ(program->counters(0)[CPD_ARP].dropped_packets, 0u);
        EXPECT_EQ(offer(arp(), 3, other), 3u);
        EXPECT_EQ(program->counters(0)[CPD_ARP].passed_packets, 3u);
        EXPECT_EQ(program->counters(5)[CPD_ARP].passed_packets, 0u);
    }

    uint32_t port = 0, other = 0;
};

TEST_F(PacketTargets, PortIsUnderThePolicyOfItsTargetAndCountedThere)
{
    program->place(port, 5);
    expectFive();
}

TEST_F(PacketTargets, PortIsFoundTheShortWayToo)
{
    program->placeNear(port, 5);
    program->placeNear(other, 0);
    expectFive();
}

TEST_F(PacketTargets, PortThatIsNowhereBelongsToTheSystem)
{
    program->enforce(denyAll(), 0);
    program->enforceNothing(5);
    EXPECT_EQ(offer(arp(), 3, port), 0u);
    EXPECT_EQ(program->counters(0)[CPD_ARP].dropped_packets, 3u);
}

TEST_F(PacketTargets, TargetWithoutAPolicyPassesAndCounts)
{
    program->enforce(denyAll(), 0);
    program->place(port, 31);
    EXPECT_EQ(offer(arp(), 3, port), 3u);
    EXPECT_EQ(program->counters(31)[CPD_ARP].passed_packets, 3u);
}

// Samples.

class Ring
{
public:
    explicit Ring(int map) : ring_(ring_buffer__new(map, keep, this, nullptr))
    {
        if (!ring_)
            throw std::runtime_error("no ring");
    }
    Ring(const Ring &) = delete;
    Ring &operator=(const Ring &) = delete;
    ~Ring() { ring_buffer__free(ring_); }

    std::vector<cpd_sample> take()
    {
        taken_.clear();
        ring_buffer__consume(ring_);
        return taken_;
    }

    /** Take what there is once something wakes the reader. @return whether that came to pass */
    bool wait(int milliseconds) { return ring_buffer__poll(ring_, milliseconds) > 0; }

private:
    static int keep(void *self, void *data, size_t size)
    {
        EXPECT_EQ(size, sizeof(cpd_sample));
        cpd_sample sample;
        std::memcpy(&sample, data, sizeof(sample));
        static_cast<Ring *>(self)->taken_.push_back(sample);
        return 0;
    }

    ring_buffer *ring_;
    std::vector<cpd_sample> taken_;
};

/** The one sample that a frame gives. */
cpd_sample sampleOf(Program &program, Ring &ring, const std::vector<uint8_t> &frame)
{
    ring.take();
    program.run(frame);
    auto samples = ring.take();
    EXPECT_EQ(samples.size(), 1u);
    return samples.empty() ? cpd_sample{} : samples[0];
}

void expectData(const cpd_sample &sample, const std::vector<uint8_t> &frame)
{
    std::vector<uint8_t> expected = frame;
    expected.resize(CPD_SAMPLE_DATA);
    EXPECT_EQ(std::vector<uint8_t>(sample.data, sample.data + CPD_SAMPLE_DATA), expected);
    EXPECT_EQ(sample.length, frame.size());
}

TEST_F(PacketProgram, SampleTellsOfADroppedFrame)
{
    Ring ring(program->ring());
    program->enforce(denyAll());
    auto frame = arp();
    frame[50] = 0x5a;
    cpd_sample sample = sampleOf(*program, ring, frame);
    expectData(sample, frame);
    EXPECT_EQ(sample.ifindex, 1u); // the loopback device, by which test runs come
    EXPECT_EQ(sample.ethertype, 0x0806);
    EXPECT_EQ(sample.network_offset, 14);
    EXPECT_EQ(sample.tags, 0);
    EXPECT_EQ(sample.outer_tci, 0);
    EXPECT_EQ(sample.inner_tci, 0);
    EXPECT_EQ(sample.dropped, 1);
}

TEST_F(PacketProgram, SampleTellsOfAPassedFrame)
{
    Ring ring(program->ring());
    enforce(CPD_RULE_PACKETS, packetSettings(UINT32_MAX));
    EXPECT_EQ(sampleOf(*program, ring, arp()).dropped, 0);
}

TEST_F(PacketProgram, SampleTellsTheTags)
{
    Ring ring(program->ring());
    program->enforce(denyAll());
    auto one = Frame(broadcast).tag(0x8100, 0xe123).u16(0x0806).zeros(46).bytes();
    cpd_sample sample = sampleOf(*program, ring, one);
    EXPECT_EQ(sample.tags, 1);
    EXPECT_EQ(sample.outer_tci, 0xe123);
    EXPECT_EQ(sample.inner_tci, 0);
    EXPECT_EQ(sample.network_offset, 18);
    EXPECT_EQ(sample.ethertype, 0x0806);

    auto two = Frame(broadcast).tag(0x88a8, 0x0fff).tag(0x8100, 0x2001).u16(0x86dd);
    two.u8({0x60, 0, 0, 0}).u16(8).u8({58, 255}).zeros(40);
    sample = sampleOf(*program, ring, two.bytes());
    expectData(sample, two.bytes());
    EXPECT_EQ(sample.tags, 2);
    EXPECT_EQ(sample.outer_tci, 0x0fff);
    EXPECT_EQ(sample.inner_tci, 0x2001);
    EXPECT_EQ(sample.network_offset, 22);
    EXPECT_EQ(sample.ethertype, 0x86dd);
}

TEST_F(PacketProgram, SampleOfALengthHasNoEthertype)
{
    Ring ring(program->ring());
    program->enforce(denyAll());
    auto stp = Frame(bridgeGroup(0)).u16(38).u8({0x42, 0x42, 3}).zeros(35).bytes();
    EXPECT_EQ(sampleOf(*program, ring, stp).ethertype, 0);
}

TEST_F(PacketProgram, SampleOfAShortFrameIsFilledWithZeros)
{
    Ring ring(program->ring());
    program->enforce(denyAll());
    expectData(sampleOf(*program, ring, arp(14)), arp(14));
}

TEST_F(PacketProgram, SampleOfALongFrameHasItsBeginning)
{
    Ring ring(program->ring());
    program->enforce(denyAll());
    auto frame = arp(9000);
    frame[CPD_SAMPLE_DATA - 1] = 0x77;
    frame[CPD_SAMPLE_DATA] = 0x88;
    expectData(sampleOf(*program, ring, frame), frame);
}

TEST_F(PacketProgram, WhatNoRuleIsInForceForGivesNoSamples)
{
    Ring ring(program->ring());
    program->run(arp(), 100);
    program->enforce(only(CPD_DOT1X, CPD_RULE_DENY));
    program->run(arp(), 100);
    program->run(Frame(broadcast).u16(0x88b5).zeros(46).bytes(), 100);
    EXPECT_TRUE(ring.take().empty());
}

/** The kernel's tick comes at most a thousand times a second. */
TEST_F(PacketProgram, SamplesOfATickAreBoundedWhateverTheFlood)
{
    using Clock = std::chrono::steady_clock;
    Ring ring(program->ring());
    program->enforce(denyAll());
    for (int i = 0; i < 20; i++) {
        ring.take();
        auto begin = Clock::now();
        program->run(arp(), 20'000);
        auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
        auto samples = ring.take().size();
        EXPECT_GE(samples, 1u);
        EXPECT_LE(samples, samplesPerTick * static_cast<size_t>(took.count() + 2));
    }
}

/** Fewer packets than a tick's budget: each gives a sample, whenever the ticks come. */
TEST_F(PacketProgram, RefusalsGoUnseenOnlyWhenTheTickHasHadItsSamples)
{
    Ring ring(program->ring());
    program->meter(1, packetSettings(0));
    program->enforce(only(CPD_ARP, CPD_RULE_PACKETS, 1));
    program->run(arp(), samplesPerTick - 1);
    EXPECT_EQ(ring.take().size(), samplesPerTick - 1);
}

TEST_F(PacketProgram, EachTypeHasItsOwnSamples)
{
    Ring ring(program->ring());
    program->enforce(denyAll());
    const auto pae = Frame(broadcast).u16(0x888e).zeros(46).bytes();
    ring.take();
    program->run(arp(), 20'000);
    program->run(pae, 1);
    std::set<uint16_t> seen;
    for (const cpd_sample &each : ring.take())
        seen.insert(each.ethertype);
    EXPECT_EQ(seen, (std::set<uint16_t>{0x0806, 0x888e}));
}

TEST_F(PacketProgram, FirstSampleOfATickWakesTheReader)
{
    Ring ring(program->ring());
    program->enforce(denyAll());
    for (int i = 0; i < 20; i++) {
        program->run(arp(), 1);
        EXPECT_TRUE(ring.wait(2000));
        program->run(arp(), 10); // some of these do not wake anybody, and stay unread
        const timespec longerThanATick = {0, 12'000'000};
        nanosleep(&longerThanATick, nullptr);
    }
}

TEST_F(PacketProgram, WithoutABudgetThereAreNoSamples)
{
    Program quiet(0);
    Ring ring(quiet.ring());
    quiet.enforce(denyAll());
    quiet.run(arp(), 1000);
    EXPECT_TRUE(ring.take().empty());
}

// Queue and priority.

std::optional<cpd_mark> markOf(Program &program, cpd_rule rule)
{
    cpd_policy policy{};
    policy.types[CPD_ARP] = rule;
    program.enforce(policy);
    return program.run(arp()).mark;
}

TEST_F(PacketProgram, PassedFrameCarriesItsQueueAndPriority)
{
    auto mark = markOf(*program, {CPD_RULE_QUEUE | CPD_RULE_PRIORITY, 3, 5, 0, 0});
    ASSERT_TRUE(mark);
    EXPECT_EQ(mark->magic, uint32_t{CPD_MARK_MAGIC});
    EXPECT_EQ(mark->queue, 4);
    EXPECT_EQ(mark->priority, 5u);
    EXPECT_EQ(mark->flags, CPD_RULE_QUEUE | CPD_RULE_PRIORITY);
}

TEST_F(PacketProgram, PriorityAloneNamesNoQueue)
{
    auto mark = markOf(*program, {CPD_RULE_PRIORITY, 3, 255, 0, 0});
    ASSERT_TRUE(mark);
    EXPECT_EQ(mark->queue, 0);
    EXPECT_EQ(mark->priority, 255u);
}

/** The bands are those of the kernel's default priority map: 0 is served first. */
TEST_F(PacketProgram, HigherQueueIsInNoWorseABandOfTheDefaultMap)
{
    const int bands[16] = {1, 2, 2, 2, 1, 2, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1};
    const uint32_t expected[] = {2, 2, 0, 0, 4, 4, 6, 7, 7};
    int before = 2;
    for (uint8_t queue = 0; queue < 9; queue++) {
        auto mark = markOf(*program, {CPD_RULE_QUEUE, queue, 9, 0, 0});
        ASSERT_TRUE(mark);
        EXPECT_EQ(mark->queue, queue + 1);
        ASSERT_EQ(mark->priority, expected[queue]);
        EXPECT_LE(bands[mark->priority], before);
        before = bands[mark->priority];
    }
    EXPECT_EQ(before, 0);
    auto last = markOf(*program, {CPD_RULE_QUEUE, 255, 0, 0, 0});
    ASSERT_TRUE(last);
    EXPECT_EQ(last->queue, 256);
    EXPECT_EQ(last->priority, 7u);
}

TEST_F(PacketProgram, FrameWithoutQueueAndPriorityCarriesNothing)
{
    program->meter(0, packetSettings(UINT32_MAX));
    EXPECT_FALSE(markOf(*program, {CPD_RULE_PACKETS, 3, 5, 0, 0}));
    EXPECT_FALSE(markOf(*program, {CPD_RULE_DENY | CPD_RULE_QUEUE, 3, 5, 0, 0}));
}

/** A socket filter that keeps priority and queue mapping of the last socket buffer in a map. */
Descriptor spy(int map)
{
    const int16_t priority = offsetof(__sk_buff, priority);
    const int16_t queue = offsetof(__sk_buff, queue_mapping);
    const bpf_insn instructions[] = {
        {BPF_ALU64 | BPF_MOV | BPF_X, BPF_REG_6, BPF_REG_1, 0, 0},
        {BPF_ST | BPF_MEM | BPF_W, BPF_REG_10, 0, -4, 0},
        {BPF_ALU64 | BPF_MOV | BPF_X, BPF_REG_2, BPF_REG_10, 0, 0},
        {BPF_ALU64 | BPF_ADD | BPF_K, BPF_REG_2, 0, 0, -4},
        {BPF_LD | BPF_DW | BPF_IMM, BPF_REG_1, BPF_PSEUDO_MAP_FD, 0, map},
        {0, 0, 0, 0, 0},
        {BPF_JMP | BPF_CALL, 0, 0, 0, BPF_FUNC_map_lookup_elem},
        {BPF_JMP | BPF_JEQ | BPF_K, BPF_REG_0, 0, 4, 0},
        {BPF_LDX | BPF_MEM | BPF_W, BPF_REG_1, BPF_REG_6, priority, 0},
        {BPF_STX | BPF_MEM | BPF_W, BPF_REG_0, BPF_REG_1, 0, 0},
        {BPF_LDX | BPF_MEM | BPF_W, BPF_REG_1, BPF_REG_6, queue, 0},
        {BPF_STX | BPF_MEM | BPF_W, BPF_REG_0, BPF_REG_1, 4, 0},
        {BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_0, 0, 0, 0xffff},
        {BPF_JMP | BPF_EXIT, 0, 0, 0, 0},
    };
    return Descriptor(bpf_prog_load(BPF_PROG_TYPE_SOCKET_FILTER, "spy", "MIT", instructions,
                                    std::size(instructions), nullptr));
}

/** A packet program that puts this before each frame, word by word. */
Descriptor metaProgram(const cpd_meta &meta)
{
    const int16_t begin = offsetof(xdp_md, data_meta);
    const int16_t end = offsetof(xdp_md, data);
    constexpr int16_t words = sizeof meta / 4;
    std::vector<bpf_insn> instructions = {
        {BPF_ALU64 | BPF_MOV | BPF_X, BPF_REG_6, BPF_REG_1, 0, 0},
        {BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_2, 0, 0, -static_cast<int32_t>(sizeof meta)},
        {BPF_JMP | BPF_CALL, 0, 0, 0, BPF_FUNC_xdp_adjust_meta},
        {BPF_LDX | BPF_MEM | BPF_W, BPF_REG_2, BPF_REG_6, begin, 0},
        {BPF_LDX | BPF_MEM | BPF_W, BPF_REG_3, BPF_REG_6, end, 0},
        {BPF_ALU64 | BPF_MOV | BPF_X, BPF_REG_1, BPF_REG_2, 0, 0},
        {BPF_ALU64 | BPF_ADD | BPF_K, BPF_REG_1, 0, 0, sizeof meta},
        {BPF_JMP | BPF_JGT | BPF_X, BPF_REG_1, BPF_REG_3, words, 0},
    };
    int32_t values[words];
    std::memcpy(values, &meta, sizeof meta);
    for (int16_t i = 0; i < words; i++)
        instructions.push_back(
            {BPF_ST | BPF_MEM | BPF_W, BPF_REG_2, 0, static_cast<int16_t>(4 * i), values[i]});
    instructions.push_back({BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_0, 0, 0, XDP_PASS});
    instructions.push_back({BPF_JMP | BPF_EXIT, 0, 0, 0, 0});
    return Descriptor(bpf_prog_load(BPF_PROG_TYPE_XDP, "meta", "MIT", instructions.data(),
                                    instructions.size(), nullptr));
}

struct Mark {
    uint32_t priority;
    uint32_t queue;
    bool operator==(const Mark &) const = default;
};

class SocketBuffers : public PacketTargets
{
protected:
    void SetUp() override
    {
        PacketTargets::SetUp();
        if (IsSkipped())
            return;
        Program::check(bpf_xdp_attach(static_cast<int>(port), program->xdp(), 0, nullptr),
                       "attach the packet program");
        LIBBPF_OPTS(bpf_tc_hook, hook);
        hook.ifindex = static_cast<int>(port);
        hook.attach_point = BPF_TC_INGRESS;
        Program::check(bpf_tc_hook_create(&hook), "make the hook behind it");
        LIBBPF_OPTS(bpf_tc_opts, options);
        options.prog_fd = program->tc();
        Program::check(bpf_tc_attach(&hook, &options), "attach the program behind it");
        seen = Descriptor(bpf_map_create(BPF_MAP_TYPE_ARRAY, "seen", 4, sizeof(Mark), 1, nullptr));
        filter = spy(seen.get());
        ASSERT_GE(filter.get(), 0);
        receiver = Descriptor(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(0x0806)));
        int fd = filter.get();
        Program::check(setsockopt(receiver.get(), SOL_SOCKET, SO_ATTACH_BPF, &fd, sizeof(fd)),
                       "watch the socket buffers");
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(0x0806);
        address.sll_ifindex = static_cast<int>(port);
        Program::check(
            bind(receiver.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)),
            "receive");
    }

    /** How a frame arrives behind both programs. */
    Mark arrive(const cpd_rule &rule)
    {
        cpd_policy policy{};
        policy.types[CPD_ARP] = rule;
        program->enforce(policy);
        return arrive();
    }

    /** The same when another packet program has put this before it. */
    Mark arriveWith(const cpd_meta &meta)
    {
        Descriptor stranger = metaProgram(meta);
        EXPECT_GE(stranger.get(), 0);
        Program::check(bpf_xdp_attach(static_cast<int>(port), stranger.get(), 0, nullptr),
                       "attach another packet program");
        return arrive();
    }

    Mark arrive()
    {
        PacketSocket sender(peerPort, 0x0806);
        EXPECT_EQ(sender.send(arp(), 1), 1u);
        pollfd wait{receiver.get(), POLLIN, 0};
        EXPECT_EQ(poll(&wait, 1, 5000), 1);
        uint8_t frame[2048];
        EXPECT_EQ(recv(receiver.get(), frame, sizeof(frame), 0), 60);
        Mark mark{};
        const uint32_t first = 0;
        EXPECT_EQ(bpf_map_lookup_elem(seen.get(), &first, &mark), 0);
        return mark;
    }

    Descriptor seen, filter, receiver;
};

TEST_F(SocketBuffers, GetTheQueueAndPriorityOfTheirRule)
{
    EXPECT_EQ(arrive({CPD_RULE_QUEUE | CPD_RULE_PRIORITY, 3, 5, 0, 0}), (Mark{5, 4}));
    EXPECT_EQ(arrive({CPD_RULE_QUEUE, 6, 0, 0, 0}), (Mark{6, 7}));
    EXPECT_EQ(arrive({CPD_RULE_QUEUE, 0, 0, 0, 0}), (Mark{2, 1}));
    EXPECT_EQ(arrive({CPD_RULE_PRIORITY, 9, 200, 0, 0}).priority, 200u);
}

TEST_F(SocketBuffers, AreLeftAsTheyAreWithoutARule)
{
    Mark plain = arrive({});
    EXPECT_EQ(plain.priority, 0u);
    EXPECT_EQ(arrive({CPD_RULE_PRIORITY, 9, 200, 0, 0}).queue, plain.queue);
}

TEST_F(SocketBuffers, TakeNothingFromWhatAnotherProgramPutBeforeTheFrame)
{
    Mark plain = arrive({});
    cpd_meta meta{};
    meta.mark = {CPD_MARK_MAGIC, 5, 4, 0, 0, CPD_RULE_QUEUE | CPD_RULE_PRIORITY, 0};
    EXPECT_EQ(arriveWith(meta), (Mark{5, 4}));
    for (const uint32_t magic : {0u, CPD_MARK_MAGIC - 1u, CPD_MARK_MAGIC ^ 1u << 31}) {
        meta.mark.magic = magic;
        EXPECT_EQ(arriveWith(meta), plain) << magic;
    }
}

// ACLs.

class PacketAcls : public PacketProgram
{
protected:
    static constexpr uint32_t set = 9;

    void SetUp() override
    {
        PacketProgram::SetUp();
        tables = std::make_unique<cpd_tables>();
    }

    /** Bind lists of one rule each, the entries of which do as the rules given. */
    void bind(const std::vector<std::string> &texts, const std::vector<cpd_rule> &rules,
              AclFamily family = AclFamily::Ipv4, cpd_policy policy = {})
    {
        std::vector<AclList> lists;
        for (const std::string &text : texts)
            lists.push_back(
                {static_cast<uint16_t>(lists.size() + 1), family, {parseAclRule(text, family)}});
        std::vector<const AclList *> pointers;
        for (const AclList &list : lists)
            pointers.push_back(&list);
        ASSERT_NE(compileAcls(pointers, *tables), 0u);
        program->tables(*tables, set);
        std::copy(rules.begin(), rules.end(), policy.acls);
        policy.acl_count = static_cast<uint32_t>(rules.size());
        policy.table_set = set;
        program->enforce(policy);
    }

    bool drops(const Frame &frame) { return program->run(frame.bytes()).verdict == XDP_DROP; }

    std::unique_ptr<cpd_tables> tables;
};

constexpr cpd_rule deny = {CPD_RULE_DENY, 0, 0, 0, 0};
constexpr cpd_rule police = {CPD_RULE_BYTES, 0, 0, 0, 4};

Frame udp(unsigned from, unsigned to, const Mac &mac = host)
{
    return Frame(mac).ipv4({.protocol = 17, .payloadBytes = 28}).udp(from, to).zeros(20);
}

/** A frame and whether a rule selects it. */
struct Choice {
    const char *name;
    const char *rule;
    AclFamily family;
    bool selected;
    Frame frame;
};

std::vector<Choice> choices()
{
    constexpr AclFamily v4 = AclFamily::Ipv4, v6 = AclFamily::Ipv6;
    constexpr uint16_t moreFragments = 0x2000;
    auto ip4 = [](const Ipv4 &ip) { return Frame(host).ipv4(ip); };
    auto tcp = [](unsigned flags) {
        Frame f = Frame(host).ipv4({.protocol = 6, .payloadBytes = 20});
        return f.u16(40000).u16(179).zeros(8).u8({0x50, flags}).zeros(6);
    };
    auto ip6 = [](uint8_t next, uint16_t payload = 200) {
        return Frame(host).ipv6({.next = next, .payloadBytes = payload});
    };
    return {
        {"source", "permit ip 192.0.2.1 any", v4, true, udp(1, 2)},
        {"source of another", "permit ip 192.0.2.2 any", v4, false, udp(1, 2)},
        {"destination", "permit ip any 192.0.2.2", v4, true, udp(1, 2)},
        {"destination of another", "permit ip any 192.0.2.3", v4, false, udp(1, 2)},
        {"protocol", "permit gre any any", v4, true, ip4({.protocol = 47}).zeros(30)},
        {"other protocol", "permit gre any any", v4, false, udp(1, 2)},
        {"ports", "permit udp any port 1000 any port 2000", v4, true, udp(1000, 2000)},
        {"ports swapped", "permit udp any port 1000 any port 2000", v4, false, udp(2000, 1000)},
        {"ports in tags", "permit udp any any port 2000", v4, true,
         Frame(host).tag(0x88a8, 1).tag(0x8100, 2).ipv4({.protocol = 17}).udp(1, 2000)},
        {"ports behind options", "permit udp any any port 2000", v4, true,
         ip4({.protocol = 17, .versionIhl = 0x47, .optionBytes = 8}).udp(1, 2000)},
        {"port in a first fragment", "permit udp any any port 2000", v4, true,
         ip4({.protocol = 17, .fragment = moreFragments}).udp(1, 2000)},
        {"what looks like a port in a later fragment", "permit udp any any port 2000", v4, false,
         ip4({.protocol = 17, .fragment = 3}).udp(1, 2000)},
        {"port beyond the packet", "permit udp any any port 2000", v4, true,
         ip4({.protocol = 17, .payloadBytes = 3}).udp(1, 2000)},
        {"port beyond the frame", "permit udp any any port 0-65535", v4, false,
         ip4({.protocol = 17}).u16(1).u8({7})},
        {"port of SCTP", "permit sctp any any port 2000", v4, true,
         ip4({.protocol = 132}).udp(1, 2000)},
        {"later fragment", "permit ip any any fragments", v4, true,
         ip4({.protocol = 17, .fragment = 3}).zeros(20)},
        {"first fragment", "permit ip any any fragments", v4, false,
         ip4({.protocol = 17, .fragment = moreFragments}).zeros(20)},
        {"not a fragment", "permit ip any any fragments", v4, false, udp(1, 2)},
        {"SYN", "permit tcp any any flags syn,!ack", v4, true, tcp(0x02)},
        {"SYN and ACK", "permit tcp any any flags syn,!ack", v4, false, tcp(0x12)},
        {"flags and port", "permit tcp any any port 179 flags ack", v4, true, tcp(0x10)},
        {"flags beyond the packet", "permit tcp any any flags !ack", v4, true,
         ip4({.protocol = 6, .payloadBytes = 13}).zeros(20)},
        {"flags beyond the frame", "permit tcp any any flags !ack", v4, false,
         ip4({.protocol = 6, .payloadBytes = 20}).zeros(13)},
        {"last byte of the flags", "permit tcp any any flags !ack", v4, true,
         ip4({.protocol = 6, .payloadBytes = 14}).zeros(14)},
        {"ICMP type", "permit icmp any any type 8", v4, true,
         ip4({.protocol = 1}).u8({8}).zeros(7)},
        {"other ICMP type", "permit icmp any any type 8", v4, false, ip4({.protocol = 1}).zeros(8)},
        {"ICMP type that is not there", "permit icmp any any type 8", v4, true,
         ip4({.protocol = 1, .payloadBytes = 0}).u8({8}).zeros(7)},
        {"lying header length", "permit ip 192.0.2.1 any", v4, true,
         ip4({.protocol = 17, .versionIhl = 0x44}).udp(1, 2)},
        {"ports behind a lying header length", "permit udp any any port 0-65535", v4, false,
         ip4({.protocol = 17, .versionIhl = 0x4f}).udp(1, 2)},
        {"header cut off", "permit ip any any", v4, false,
         Frame(host).u16(0x0800).u8({0x45}).zeros(18)},
        {"wrong version", "permit ip any any", v4, true,
         ip4({.protocol = 17, .versionIhl = 0x65}).udp(1, 2)},
        {"ARP", "permit ip any any", v4, false, Frame(broadcast).u16(0x0806).zeros(46)},
        {"other family", "permit ip any any", v4, false, ip6(17).udp(1, 2)},

        {"IPv6 source", "permit ip 2001:db8::1 any", v6, true, ip6(17).udp(1, 2)},
        {"IPv6 source of another", "permit ip 2001:db8::2 any", v6, false, ip6(17).udp(1, 2)},
        {"IPv6 destination", "permit ip any 2001:db8::2", v6, true, ip6(17).udp(1, 2)},
        {"IPv6 prefix", "permit ip 2001:db8::/32 2001:db8::/64", v6, true, ip6(59)},
        {"IPv6 ports", "permit udp any port 1 any port 2", v6, true, ip6(17).udp(1, 2)},
        {"ports behind extension headers", "permit udp any any port 2", v6, true,
         ip6(0).extension(60, 0).extension(17, 1, 16).udp(1, 2)},
        {"ports behind long headers", "permit udp any any port 2", v6, true,
         ip6(60, 12'000)
             .extension(60, 255, 2048)
             .extension(60, 49, 400)
             .extension(17, 49, 400)
             .udp(1, 2)},
        {"broken chain", "permit ip 2001:db8::1 any", v6, true, ip6(0).u8({17, 200}).zeros(30)},
        {"ports behind a broken chain", "permit udp any any port 0-65535", v6, false,
         ip6(0).u8({17, 200}).zeros(30)},
        {"ICMPv6 type", "permit icmp6 any any type 135", v6, true, ip6(58).u8({135}).zeros(23)},
        {"later fragment of IPv6", "permit ip any any fragments", v6, true,
         ip6(44).fragment(17, 5, 0).udp(1, 2)},
        {"whole in a fragment header", "permit udp any any port 2", v6, true,
         ip6(44).fragment(17, 0, 0).udp(1, 2)},
        {"IPv6 header cut off", "permit ip any any", v6, false,
         Frame(host).u16(0x86dd).u8({0x60}).zeros(38)},
        {"IPv4", "permit ip any any", v6, false, udp(1, 2)},
    };
}

TEST_F(PacketAcls, SelectByWhatTheFrameHolds)
{
    for (const Choice &each : choices()) {
        SCOPED_TRACE(each.name);
        bind({each.rule}, {deny}, each.family);
        EXPECT_EQ(drops(each.frame), each.selected);
    }
}

TEST_F(PacketAcls, DenyDropsForwardedPacketsToo)
{
    bind({"permit udp any any port 9999"}, {deny});
    EXPECT_TRUE(drops(udp(1, 9999)));
    EXPECT_FALSE(drops(udp(1, 9998)));
}

TEST_F(PacketAcls, PermitPolicesWhatIsForTheBoxItself)
{
    program->own({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 192, 0, 2, 2});
    program->meter(4, {1, 0, 0, 0}, byteSettings(1, 620));
    bind({"permit udp any any"}, {police});
    EXPECT_EQ(offer(udp(1, 9999).bytes(), 1000), 10u); // of 62 bytes each
}

TEST_F(PacketAcls, PermitPassesWhatIsToBeForwardedUnlimited)
{
    program->own({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 192, 0, 2, 1}); // the source
    program->meter(4, {1, 0, 0, 0}, byteSettings(1, 620));
    bind({"permit udp any any"}, {police});
    EXPECT_EQ(offer(udp(1, 9999).bytes(), 1000), 1000u);
}

TEST_F(PacketAcls, GroupAddressesAreForTheBoxItself)
{
    auto to = [](std::array<unsigned, 4> address) {
        Frame f = Frame(host).u16(0x0800).u8({0x45, 0}).u16(48).zeros(4).u8({64, 17}).u16(0);
        f.u8({192, 0, 2, 1, address[0], address[1], address[2], address[3]});
        return f.udp(1, 2).zeros(20);
    };
    auto to6 = [](unsigned first) {
        Frame f = Frame(host).u16(0x86dd).u8({0x60, 0, 0, 0}).u16(28).u8({17, 64}).zeros(16);
        return f.u8({first}).zeros(15).udp(1, 2).zeros(20);
    };
    auto limited = [&](const Frame &frame, AclFamily family = AclFamily::Ipv4) {
        program->meter(4, {1, 0, 0, 0}, byteSettings(0, 0));
        bind({"permit udp any any"}, {police}, family);
        return drops(frame);
    };
    EXPECT_TRUE(limited(to({224, 0, 0, 5})));
    EXPECT_TRUE(limited(to({239, 255, 255, 255})));
    EXPECT_TRUE(limited(to({255, 255, 255, 255})));
    EXPECT_FALSE(limited(to({240, 0, 0, 1})));
    EXPECT_FALSE(limited(to({223, 0, 0, 5})));
    EXPECT_TRUE(limited(udp(1, 2, broadcast)));
    EXPECT_TRUE(limited(udp(1, 2, {0x01, 0x00, 0x5e, 0, 0, 5})));
    EXPECT_TRUE(limited(to6(0xff), AclFamily::Ipv6));
    EXPECT_FALSE(limited(to6(0xfe), AclFamily::Ipv6));
}

TEST_F(PacketAcls, OwnAddressOfIpv6IsForTheBoxItself)
{
    program->own({0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2});
    program->meter(4, {1, 0, 0, 0}, byteSettings(0, 0));
    bind({"permit udp any any"}, {police}, AclFamily::Ipv6);
    EXPECT_TRUE(drops(Frame(host).ipv6({.next = 17}).udp(1, 2)));
}

TEST_F(PacketAcls, NetworksThatAreDeliveredToTheBoxAreItsOwn)
{
    auto limited = [&](std::array<unsigned, 4> to) {
        Frame f = Frame(host).u16(0x0800).u8({0x45, 0}).u16(48).zeros(4).u8({64, 17}).u16(0);
        f.u8({192, 0, 2, 1, to[0], to[1], to[2], to[3]}).udp(1, 2).zeros(20);
        return drops(f);
    };
    program->ownNetwork({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 10, 9, 0, 0}, 96 + 16);
    program->meter(4, {1, 0, 0, 0}, byteSettings(0, 0));
    bind({"permit udp any any"}, {police});
    EXPECT_TRUE(limited({10, 9, 0, 0}));
    EXPECT_TRUE(limited({10, 9, 255, 255}));
    EXPECT_FALSE(limited({10, 8, 255, 255}));
    EXPECT_FALSE(limited({10, 10, 0, 0}));
    EXPECT_TRUE(limited({0, 0, 0, 0})); // as broadcast
    EXPECT_FALSE(limited({0, 0, 0, 1}));

    program->ownNetwork({0x20, 0x01, 0x0d, 0xb8}, 32);
    bind({"permit udp any any"}, {police}, AclFamily::Ipv6);
    EXPECT_TRUE(drops(Frame(host).ipv6({.next = 17}).udp(1, 2)));
    const Frame v6 = Frame(host).u16(0x86dd).u8({0x60, 0, 0, 0}).u16(28).u8({17, 64}).zeros(16);
    EXPECT_TRUE(drops(Frame(v6).zeros(16).udp(1, 2).zeros(20)));
    EXPECT_FALSE(drops(Frame(v6).zeros(15).u8({2}).udp(1, 2).zeros(20)));
}

TEST_F(PacketAcls, WhatTheBoxActsUponIsForTheBoxWhereverItGoes)
{
    auto limited = [&](Frame frame, AclFamily family = AclFamily::Ipv4) {
        program->meter(4, {1, 0, 0, 0}, byteSettings(0, 0));
        bind({"permit ip any any"}, {police}, family);
        return drops(frame);
    };
    auto v4 = [](unsigned ihl, unsigned ttl, unsigned protocol) {
        return Frame(host)
            .u16(0x0800)
            .u8({0x40 | ihl, 0})
            .u16(60)
            .zeros(4)
            .u8({ttl, protocol})
            .zeros(2)
            .u8({192, 0, 2, 1, 198, 51, 100, 1});
    };
    auto v6 = [](unsigned hops, unsigned next, unsigned type) {
        Frame f = Frame(host).u16(0x86dd).u8({0x60, 0, 0, 0}).u16(24).u8({next, hops});
        return f.u16(0x2001).zeros(14).u16(0x2001).zeros(14).u8({type}).zeros(23);
    };
    constexpr AclFamily six = AclFamily::Ipv6;
    EXPECT_FALSE(limited(v4(5, 64, 46).zeros(40)));
    EXPECT_TRUE(limited(v4(5, 1, 46).zeros(40)));
    EXPECT_TRUE(limited(v4(6, 64, 46).u8({148, 4, 0, 0}).zeros(40)));
    EXPECT_TRUE(limited(v4(5, 64, 17).udp(67, 68).zeros(20)));
    EXPECT_FALSE(limited(v4(5, 64, 17).udp(67, 69).zeros(20)));
    EXPECT_FALSE(limited(v6(64, 47, 0), six));
    EXPECT_TRUE(limited(v6(1, 47, 0), six));
    EXPECT_TRUE(limited(v6(64, 0, 47), six));
    EXPECT_TRUE(limited(v6(255, 58, 135), six));
    EXPECT_FALSE(limited(v6(254, 58, 135), six));
    EXPECT_FALSE(limited(v6(255, 58, 128), six));
}

/** Frames that cannot be judged to the end. */
std::vector<Frame> unread()
{
    Frame tags(host), chain = Frame(host).ipv6({.next = 60});
    for (int i = 0; i < 9; i++)
        tags.tag(0x8100, 0);
    for (int i = 0; i < 7; i++)
        chain.extension(60, 0);
    return {tags.u16(0x0806).zeros(46), chain.extension(17, 0).udp(1, 2)};
}

TEST_F(PacketProgram, UnreadIsCountedWhereNothingIsInForce)
{
    for (const Frame &each : unread())
        EXPECT_EQ(program->run(each.bytes()).verdict, uint32_t{XDP_PASS});
    EXPECT_EQ(program->counters()[CPD_UNREAD].passed_packets, 2u);
}

TEST_F(PacketProgram, UnreadHasAPolicerOfItsOwn)
{
    program->meter(7, packetSettings(1));
    program->enforce(only(CPD_UNREAD, CPD_RULE_PACKETS, 7));
    for (const Frame &each : unread())
        EXPECT_EQ(program->run(each.bytes(), 100).verdict, uint32_t{XDP_DROP});
    EXPECT_EQ(program->counters()[CPD_UNREAD].passed_packets, packetBucket(1));
    EXPECT_EQ(program->counters()[CPD_UNREAD].dropped_packets, 200 - packetBucket(1));
}

TEST_F(PacketProgram, FrameWhoseHeadersAreOutOfReachIsUnread)
{
    if (kernelGathers())
        GTEST_SKIP() << "this kernel brings them into reach";
    program->enforce(only(CPD_UNREAD, CPD_RULE_DENY));
    EXPECT_EQ(program->run(arp(9000), 1, 0, 14).verdict, uint32_t{XDP_DROP});
}

TEST_F(PacketAcls, UnreadIsDeniedByWhatCanBeRead)
{
    const Frame chain = unread().back();
    bind({"permit ip 2001:db8::1 any"}, {deny}, AclFamily::Ipv6);
    EXPECT_TRUE(drops(chain));
    EXPECT_EQ(program->counters()[CPD_UNREAD].dropped_packets, 1u);
    bind({"permit ip 2001:db8::9 any"}, {deny}, AclFamily::Ipv6);
    EXPECT_FALSE(drops(chain));
    bind({"permit udp 2001:db8::1 any"}, {deny}, AclFamily::Ipv6);
    EXPECT_FALSE(drops(chain));
}

TEST_F(PacketAcls, UnreadIsPermittedByNone)
{
    bind({"permit ip 2001:db8::1 any"}, {{CPD_RULE_PRIORITY, 0, 1, 0, 0}}, AclFamily::Ipv6,
         only(CPD_UNREAD, CPD_RULE_DENY));
    EXPECT_TRUE(drops(unread().back()));
}

TEST_F(PacketAcls, FirstFragmentThatDoesNotTellTheFlagsIsUnread)
{
    constexpr uint16_t moreFragments = 0x2000;
    auto first = [&](uint16_t octets, uint16_t flags) {
        // Padding behind so short a fragment may look like anything.
        const Ipv4 ip = {.protocol = 6, .fragment = flags, .payloadBytes = octets};
        return Frame(host).ipv4(ip).tcp(40000, 179).zeros(30);
    };
    auto first6 = [](uint16_t octets) {
        return Frame(host)
            .ipv6({.next = 44, .payloadBytes = static_cast<uint16_t>(8 + octets)})
            .fragment(6, 0, 1)
            .tcp(40000, 179)
            .zeros(30);
    };
    const cpd_policy unreadDenied = only(CPD_UNREAD, CPD_RULE_DENY);
    auto unreadNow = [this] { return program->counters()[CPD_UNREAD].dropped_packets; };

    bind({"permit tcp any any flags ack"}, {deny}, AclFamily::Ipv4, unreadDenied);
    EXPECT_TRUE(drops(first(8, moreFragments)));
    EXPECT_TRUE(drops(first(15, moreFragments))); // the kernel cuts it to eight
    EXPECT_EQ(unreadNow(), 2u);
    EXPECT_FALSE(drops(first(16, moreFragments)));
    EXPECT_FALSE(drops(first(8, 0)));
    bind({"permit tcp any any flags ack"}, {deny}, AclFamily::Ipv6, unreadDenied);
    EXPECT_TRUE(drops(first6(8)));
    EXPECT_EQ(unreadNow(), 3u);
    EXPECT_FALSE(drops(first6(16)));

    bind({"permit tcp any any port 179"}, {deny}, AclFamily::Ipv4, unreadDenied);
    EXPECT_TRUE(drops(first(8, moreFragments))); // flags are not asked for
    bind({"permit tcp any any port 180"}, {deny}, AclFamily::Ipv4, unreadDenied);
    EXPECT_FALSE(drops(first(8, moreFragments)));
    EXPECT_EQ(unreadNow(), 3u);
}

TEST_F(PacketAcls, FirstEntryThatSelectsDecides)
{
    program->meter(4, {1, 0, 0, 0}, byteSettings(0, 0));
    bind({"permit udp any any port 1000-2000", "permit udp any any port 1500"},
         {deny, {CPD_RULE_PRIORITY, 0, 1, 0, 0}});
    EXPECT_TRUE(drops(udp(1, 1500)));
    bind({"permit udp any any port 1500", "permit udp any any port 1000-2000"},
         {{CPD_RULE_PRIORITY, 0, 1, 0, 0}, deny});
    EXPECT_FALSE(drops(udp(1, 1500)));
    EXPECT_TRUE(drops(udp(1, 1501)));
}

TEST_F(PacketAcls, EntryOfTheTypeDoesNotSeeWhatAnAclDecides)
{
    bind({"permit udp 192.0.2.1 any"}, {police}, AclFamily::Ipv4, denyAll());
    EXPECT_FALSE(drops(udp(40000, 161))); // SNMP, to be forwarded
    EXPECT_EQ(program->counters()[CPD_SNMP].passed_packets, 1u);
    bind({"permit udp 192.0.2.9 any"}, {police}, AclFamily::Ipv4, denyAll());
    EXPECT_TRUE(drops(udp(40000, 161)));
    EXPECT_EQ(program->counters()[CPD_SNMP].dropped_packets, 1u);
}

TEST_F(PacketAcls, WhatHasNoTypeIsCountedApartWhenAnAclDecidesIt)
{
    bind({"permit udp any any"}, {deny});
    program->run(udp(1, 9999).bytes(), 5);
    auto all = program->everywhere();
    EXPECT_EQ(all[cpd_stats_index(0, CPD_NO_TYPE)].dropped_packets, 5u);
    for (uint32_t type = 0; type < CPD_NO_TYPE; type++)
        EXPECT_EQ(all[type].passed_packets + all[type].dropped_packets, 0u) << type;
}

TEST_F(PacketAcls, SamplesAreOfPacketsWithATypeOnly)
{
    Ring ring(program->ring());
    bind({"permit udp any any"}, {deny});
    program->run(udp(1, 9999).bytes());
    EXPECT_TRUE(ring.take().empty());
    program->run(udp(1, 161).bytes());
    EXPECT_EQ(ring.take().size(), 1u);
}

TEST_F(PacketAcls, PassedPacketGetsTheQueueOfItsEntry)
{
    bind({"permit udp any any"}, {{CPD_RULE_BYTES | CPD_RULE_QUEUE, 6, 0, 0, 4}});
    auto mark = program->run(udp(1, 9999).bytes()).mark;
    ASSERT_TRUE(mark);
    EXPECT_EQ(mark->queue, 7);
}

TEST_F(PacketAcls, TablesThatAreNotThereSelectNothing)
{
    cpd_policy policy{};
    policy.acls[0] = deny;
    policy.acl_count = 1;
    policy.table_set = 3;
    program->enforce(policy);
    EXPECT_FALSE(drops(udp(1, 9999)));
    policy.table_set = CPD_TABLE_SETS + 5;
    program->enforce(policy);
    EXPECT_FALSE(drops(udp(1, 9999)));
}

} // namespace
