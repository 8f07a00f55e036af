/**
 * What an entry does once it is in force, by test runs of the program in the kernel.
 */
#include <gtest/gtest.h>
#include <memory>
#include <thread>

#include <bpf/bpf.h>

#include "bpf_probe.h"
#include "counters.h"
#include "dataplane.h"
#include "frame.h"
#include "policer_settings.h"

using namespace zynlinux;

namespace
{

class Enforce : public testing::Test
{
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_BPF();
        plane = std::make_unique<DataPlane>();
    }

    void enforce(uint32_t pps, uint32_t cir, uint32_t cbs, uint8_t bit,
                 uint8_t op = ZYN_HW_OP_PERMIT)
    {
        tHwCpuDefendPktCarEntry entry{};
        entry.pktType = CPD_ARP;
        entry.pps = pps;
        entry.cir = cir;
        entry.cbs = cbs;
        entry.res = bit;
        entry.op = op;
        plane->enforce(CPD_ARP, &entry);
    }

    /** How many of so many frames of a type pass, all at once. */
    uint64_t offer(int count, unsigned ethertype = 0x0806, size_t octets = 60)
    {
        std::vector<uint8_t> frame = Frame(broadcast).u16(ethertype).zeros(octets - 14).bytes();
        uint64_t before = passed();
        LIBBPF_OPTS(bpf_test_run_opts, options);
        options.data_in = frame.data();
        options.data_size_in = static_cast<uint32_t>(frame.size());
        options.repeat = count;
        EXPECT_EQ(bpf_prog_test_run_opts(plane->program(), &options), 0);
        return passed() - before;
    }

    uint64_t passed() const
    {
        uint64_t sum = 0;
        for (const cpd_counters &each : readCounters(plane->counters()))
            sum += each.passed_packets;
        return sum;
    }

    std::unique_ptr<DataPlane> plane;
};

// Rates are low enough that no token comes while the frames are offered.

TEST_F(Enforce, NothingInForcePassesAll)
{
    EXPECT_EQ(offer(1000), 1000u);
}

TEST_F(Enforce, DenyDropsWhateverTheRates)
{
    enforce(UINT32_MAX, UINT32_MAX, UINT32_MAX, ZYN_HW_CAR_PPS | ZYN_HW_CAR_CIR, ZYN_HW_OP_DENY);
    EXPECT_EQ(offer(10), 0u);
}

TEST_F(Enforce, PacketPolicerPassesExactlyItsBucket)
{
    enforce(1, 1, 60, ZYN_HW_CAR_PPS);
    EXPECT_EQ(offer(1000), packetBucket(1));
}

TEST_F(Enforce, WithoutBitsThePacketPolicerIsInForceAlone)
{
    enforce(1, 1, 60, 0);
    EXPECT_EQ(offer(1000), packetBucket(1));
    enforce(1, 1, 60, ZYN_HW_CAR_QUEUE | ZYN_HW_CAR_PRIORITY);
    EXPECT_EQ(offer(1000), 0u);
}

TEST_F(Enforce, EitherByteBitPutsTheBytePolicerInForceAlone)
{
    for (uint8_t bit : {0x80, 0x40, 0xc0}) {
        plane = std::make_unique<DataPlane>();
        enforce(0, 1, 6000, bit);
        EXPECT_EQ(offer(1000, 0x0806, 60), 100u);
    }
}

TEST_F(Enforce, BytePolicerCountsTheWholeFrame)
{
    enforce(0, 1, 6000, ZYN_HW_CAR_CIR);
    EXPECT_EQ(offer(1000, 0x0806, 1500), 4u);
}

TEST_F(Enforce, WithBothPolicersTheTighterOneDecides)
{
    enforce(1, 1, 6000, ZYN_HW_CAR_CIR | ZYN_HW_CAR_PPS);
    EXPECT_EQ(offer(1000), packetBucket(1));
    plane = std::make_unique<DataPlane>();
    enforce(50'000, 1, 180, ZYN_HW_CAR_CIR | ZYN_HW_CAR_PPS);
    EXPECT_EQ(offer(1000), 3u);
}

TEST_F(Enforce, PacketThatTheBytePolicerRefusesCostsNoPacketToken)
{
    enforce(1, 1, 100, ZYN_HW_CAR_CIR | ZYN_HW_CAR_PPS);
    EXPECT_EQ(offer(1000, 0x0806, 101), 0u);
    EXPECT_EQ(offer(1000, 0x0806, 60), 1u); // there is no room for a second one of 60
    EXPECT_EQ(offer(1000, 0x0806, 20), packetBucket(1) - 1);
}

TEST_F(Enforce, RateOfZeroDropsAll)
{
    enforce(0, 100, 6000, ZYN_HW_CAR_PPS);
    EXPECT_EQ(offer(10), 0u);
    enforce(100, 0, 6000, ZYN_HW_CAR_CIR);
    EXPECT_EQ(offer(10), 0u);
}

TEST_F(Enforce, OtherTypesPass)
{
    enforce(0, 0, 0, 0, ZYN_HW_OP_DENY);
    EXPECT_EQ(offer(100, 0x888e), 100u);
}

TEST_F(Enforce, NoEntryPassesAgain)
{
    enforce(0, 0, 0, 0, ZYN_HW_OP_DENY);
    plane->enforce(CPD_ARP, nullptr);
    EXPECT_EQ(offer(100), 100u);
}

TEST_F(Enforce, PuttingTheSameEntryInForceAgainGivesNoSecondBurst)
{
    enforce(1, 0, 0, ZYN_HW_CAR_PPS);
    EXPECT_EQ(offer(1000), packetBucket(1));
    plane->enforce(CPD_ARP, nullptr);
    enforce(1, 0, 0, ZYN_HW_CAR_PPS);
    EXPECT_EQ(offer(1000), 0u);
}

TEST_F(Enforce, ChangeOfRateGivesNoSecondBurst)
{
    enforce(0, 4, 60'000, ZYN_HW_CAR_CIR);
    EXPECT_GE(offer(1010), 1000u);
    for (uint32_t cir : {1u, 8u, 2u}) { // at most a frame of 60 bytes in 60 ms
        enforce(0, cir, 60'000, ZYN_HW_CAR_CIR);
        EXPECT_LE(offer(1000), 10u) << cir;
    }
}

TEST_F(Enforce, IsExactWhenSeveralCpusRunIt)
{
    constexpr int threads = 4;
    enforce(50'000, 1, 60'000, ZYN_HW_CAR_CIR); // a frame of 60 bytes in half a second
    std::vector<std::thread> pool;
    for (int i = 0; i < threads; i++)
        pool.emplace_back([this] { offer(20'000); });
    for (std::thread &each : pool)
        each.join();
    EXPECT_GE(passed(), 1000u);
    EXPECT_LE(passed(), 1002u);
}

TEST_F(Enforce, FrameInSeveralBuffersCountsWhole)
{
    enforce(0, 1, 20'000, ZYN_HW_CAR_CIR);
    EXPECT_EQ(offer(10, 0x0806, 9000), 2u);
    auto counters = readCounters(plane->counters());
    EXPECT_EQ(counters[CPD_ARP].passed_octets, 18'000u);
    EXPECT_EQ(counters[CPD_ARP].dropped_octets, 72'000u);
}

} // namespace
