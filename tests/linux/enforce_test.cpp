/**
 * What is programmed is in force at once, and stays so by the rules: by test runs of the program
 * that the layer has loaded.
 */
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <thread>

#include <bpf/bpf.h>

#include "bpf_probe.h"
#include "frame.h"
#include "host/ports.h"
#include "kernel/counters.h"
#include "kernel/dataplane.h"
#include "kernel/pin_folder.h"
#include "policy/policer_settings.h"
#include "protection.h"

using namespace zynlinux;

namespace
{

/** Everything but ports. */
struct Host {
    explicit Host(const AclLists &lists = {}, const Slots &slots = {})
        : plane(pins), ports(config, plane, pins), protection(plane, ports, lists, slots, 100)
    {
    }

    PinFolder pins{""};
    Config config;
    DataPlane plane;
    Ports ports;
    Protection protection;
};

class Enforce : public testing::Test
{
protected:
    void SetUp() override
    {
        SKIP_WITHOUT_BPF();
        renew();
    }

    void renew() { host = std::make_unique<Host>(); }

    static tHwCpuDefendPktCarEntry entry(uint32_t pps, uint32_t cir, uint32_t cbs, uint8_t bit,
                                         uint8_t op = ZYN_HW_OP_PERMIT)
    {
        tHwCpuDefendPktCarEntry made{};
        made.pktType = CPD_ARP;
        made.pps = pps;
        made.cir = cir;
        made.cbs = cbs;
        made.res = bit;
        made.op = op;
        return made;
    }

    /** Have this entry in force in place of the one before. */
    void enforce(uint32_t pps, uint32_t cir, uint32_t cbs, uint8_t bit,
                 uint8_t op = ZYN_HW_OP_PERMIT)
    {
        host->protection.changeBegin();
        remove();
        programmed = entry(pps, cir, cbs, bit, op);
        EXPECT_EQ(host->protection.carAdd(nullptr, *programmed), 0);
        host->protection.changeEnd();
    }

    void remove()
    {
        if (!programmed)
            return;
        EXPECT_EQ(host->protection.carDel(nullptr, *programmed), 0);
        programmed.reset();
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
        EXPECT_EQ(bpf_prog_test_run_opts(host->plane.program(), &options), 0);
        return passed() - before;
    }

    uint64_t passed() const
    {
        uint64_t sum = 0;
        for (const cpd_counters &each : readCounters(host->plane.counters()))
            sum += each.passed_packets;
        return sum;
    }

    template <class Change> void expectRateOver(Change change);

    std::unique_ptr<Host> host;
    std::optional<tHwCpuDefendPktCarEntry> programmed;
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
        renew();
        programmed.reset();
        enforce(0, 1, 6000, bit);
        EXPECT_EQ(offer(1000, 0x0806, 60), 100u);
    }
}

TEST_F(Enforce, WithBothPolicersTheTighterOneDecides)
{
    enforce(1, 1, 6000, ZYN_HW_CAR_CIR | ZYN_HW_CAR_PPS);
    EXPECT_EQ(offer(1000), packetBucket(1));
}

TEST_F(Enforce, PacketThatTheBytePolicerRefusesCostsNoPacketToken)
{
    enforce(1, 1, 100, ZYN_HW_CAR_CIR | ZYN_HW_CAR_PPS);
    EXPECT_EQ(offer(1000, 0x0806, 101), 0u);
    EXPECT_EQ(offer(1000, 0x0806, 60), 1u); // there is no room for a second one of 60
    std::this_thread::sleep_for(std::chrono::milliseconds(10)); // refusals hold for a tick
    EXPECT_EQ(offer(1000, 0x0806, 20), packetBucket(1) - 1);
}

TEST_F(Enforce, RateOfZeroDropsAll)
{
    enforce(0, 100, 6000, ZYN_HW_CAR_PPS);
    EXPECT_EQ(offer(10), 0u);
    enforce(100, 0, 6000, ZYN_HW_CAR_CIR);
    EXPECT_EQ(offer(10), 0u);
}

TEST_F(Enforce, NoEntryPassesAgain)
{
    enforce(0, 0, 0, 0, ZYN_HW_OP_DENY);
    remove();
    EXPECT_EQ(offer(100), 100u);
}

TEST_F(Enforce, PuttingTheSameEntryInForceAgainGivesNoSecondBurst)
{
    enforce(1, 0, 0, ZYN_HW_CAR_PPS);
    EXPECT_EQ(offer(1000), packetBucket(1));
    remove();
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

TEST_F(Enforce, ChangeOfKindGivesNoSecondBurst)
{
    enforce(1, 1, 60'000, ZYN_HW_CAR_CIR); // a bucket of 1000 frames, two more in a second
    EXPECT_GE(offer(1010), 1000u);
    for (int i = 0; i < 6; i++) {
        enforce(1, 1, 60'000, i % 2 == 0 ? ZYN_HW_CAR_PPS : ZYN_HW_CAR_CIR);
        EXPECT_LE(offer(1000), 5u) << i;
    }
}

TEST_F(Enforce, ChangeTakesEffectAsAWholeAtItsEnd)
{
    enforce(0, 0, 0, 0, ZYN_HW_OP_DENY);
    host->protection.changeBegin();
    remove();
    EXPECT_EQ(offer(100), 0u);
    host->protection.changeEnd();
    EXPECT_EQ(offer(100), 100u);
}

TEST_F(Enforce, NoPacketSlipsThroughWhileOnePolicyTakesThePlaceOfAnother)
{
    enforce(0, 0, 0, 0, ZYN_HW_OP_DENY);
    std::atomic<bool> stop{false};
    std::thread flood([&] {
        while (!stop)
            offer(10'000);
    });
    for (int i = 0; i < 30; i++)
        enforce(0, 0, 0, i % 2 ? ZYN_HW_CAR_PPS : 0, i % 2 ? ZYN_HW_OP_PERMIT : ZYN_HW_OP_DENY);
    stop = true;
    flood.join();
    EXPECT_EQ(passed(), 0u); // a rate of 0 drops all, as deny does
}

/** Change something again and again while frames flood in: one bucket of 1000 frames of 60 octets,
 *  33 more a second, and no more. */
template <class Change> void Enforce::expectRateOver(Change change)
{
    auto begin = std::chrono::steady_clock::now();
    EXPECT_GE(offer(1010),
              1000u); // or the first change would carry it over, and not be put to the test
    std::atomic<bool> stop{false};
    std::thread flood([&] {
        while (!stop)
            offer(10'000);
    });
    for (uint32_t i = 0; i < 40; i++)
        change(i);
    stop = true;
    flood.join();
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    EXPECT_LE(static_cast<double>(passed()), 1000 + 34 * seconds + 2);
}

TEST_F(Enforce, RateHoldsOverChangesOfRateUnderFlood)
{
    enforce(0, 16, 60'000, ZYN_HW_CAR_CIR);
    expectRateOver([this](uint32_t i) { enforce(0, 16 - i % 2, 60'000, ZYN_HW_CAR_CIR); });
}

TEST_F(Enforce, RateHoldsOverChangesOfKindUnderFlood)
{
    // At one packet a second no token of that kind comes in the meantime, were the flood to pause.
    enforce(1, 16, 60'000, ZYN_HW_CAR_CIR);
    expectRateOver([this](uint32_t i) {
        enforce(1, 16, 60'000, i % 2 == 0 ? ZYN_HW_CAR_PPS : ZYN_HW_CAR_CIR);
    });
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

TEST_F(Enforce, CountsBelongToTheEntryThatWasInForce)
{
    auto first = entry(1, 0, 0, ZYN_HW_CAR_PPS), second = entry(0, 0, 0, 0, ZYN_HW_OP_DENY);
    layer::tCarCounts counts{};
    Protection &protection = host->protection;
    offer(5); // before anything is programmed: nobody's
    protection.carAdd(nullptr, first);
    offer(10);
    protection.carAdd(nullptr, second);
    offer(100);
    ASSERT_EQ(protection.carCount(nullptr, first, &counts), 0);
    EXPECT_EQ(counts.passPkt, 2u);
    EXPECT_EQ(counts.dropPkt, 8u);
    EXPECT_EQ(counts.passOct, 120u);
    EXPECT_EQ(counts.dropOct, 480u);
    ASSERT_EQ(protection.carCount(nullptr, second, &counts), 0);
    EXPECT_EQ(counts.passPkt, 0u);
    EXPECT_EQ(counts.dropPkt, 100u);
    protection.carDel(nullptr, second);
    offer(3);
    ASSERT_EQ(protection.carCount(nullptr, first, &counts), 0);
    EXPECT_EQ(counts.dropPkt, 3u); // since it was last asked
    EXPECT_EQ(protection.carCount(nullptr, second, &counts), ENOENT);
}

} // namespace
