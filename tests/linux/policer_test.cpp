/**
 * The arithmetic that the packet program runs, on virtual time.
 */
#include <algorithm>
#include <atomic>
#include <cmath>
#include <gtest/gtest.h>
#include <random>
#include <thread>
#include <vector>

#include "bpf/cpudefend_shared.h"
#include "policy/policer_settings.h"

static std::atomic<uint64_t> virtualNow;

static inline __u64 cpd_now()
{
    return virtualNow.load();
}

static inline __u32 cpd_tick_length()
{
    return 4'000'000;
}

#include "bpf/policer.h"

using namespace zynlinux;

namespace
{

__extension__ using Wide = __int128;

constexpr uint64_t second = 1'000'000'000;
constexpr uint64_t bootTime = 1000 * second;
constexpr uint64_t tenYears = 10ull * 366 * 86400 * second;

/** A policer with a full bucket. */
struct Policer {
    explicit Policer(const cpd_settings &first, uint64_t at = bootTime)
        : word(cpd_units(at, &first)), settings(first)
    {
        virtualNow = at;
    }

    void change(const cpd_settings &next)
    {
        word = carryOver(word, settings, next, virtualNow);
        settings = next;
    }

    bool pass(uint64_t tokens, uint64_t at)
    {
        cpd_refusal refusal;
        virtualNow = at;
        return cpd_charge(&word, &settings, tokens, &refusal);
    }

    /** Packets of so many tokens that pass at one instant, of at most @a limit offered. */
    uint64_t burst(uint64_t tokens, uint64_t at, uint64_t limit = UINT64_MAX)
    {
        uint64_t passed = 0;
        while (passed < limit && pass(tokens, at))
            passed++;
        return passed;
    }

    __u64 word;
    cpd_settings settings;
};

/** A token bucket without any rounding: levels in 10^-9 tokens. */
struct Model {
    Model(uint64_t tokensPerSecond, uint64_t bucket)
        : rate(tokensPerSecond), full(Wide{bucket} * second), level(full)
    {
    }

    bool pass(uint64_t tokens, uint64_t at)
    {
        level = std::min(full, level + Wide{rate} * (at - last));
        last = at;
        if (level < Wide{tokens} * second)
            return false;
        level -= Wide{tokens} * second;
        return true;
    }

    uint64_t rate;
    Wide full;
    Wide level;
    uint64_t last = bootTime;
};

/** Tokens that passed each of the two. */
struct Totals {
    double policer = 0;
    double model = 0;
};

/** Offer frames of changing length at about twice the rate, at random times. */
Totals compare(Policer policer, Model model, uint64_t shortest, uint64_t longest)
{
    constexpr int frames = 100'000;
    std::mt19937_64 random(7);
    std::uniform_int_distribution<uint64_t> length(shortest, longest);
    const double meanGap = static_cast<double>(second) * static_cast<double>(shortest + longest) /
                           (4 * static_cast<double>(model.rate));
    std::exponential_distribution<double> gap(1 / meanGap);
    Totals totals;
    double at = 0;
    for (int i = 0; i < frames; i++) {
        at += gap(random);
        uint64_t now = bootTime + static_cast<uint64_t>(at);
        uint64_t tokens = length(random);
        totals.policer += policer.pass(tokens, now) ? static_cast<double>(tokens) : 0;
        totals.model += model.pass(tokens, now) ? static_cast<double>(tokens) : 0;
    }
    return totals;
}

class PacketRate : public testing::TestWithParam<uint32_t>
{
};

TEST_P(PacketRate, IsHeldAsByAModelWithoutRounding)
{
    uint32_t pps = GetParam();
    Totals totals = compare(Policer(packetSettings(pps)), Model(pps, packetBucket(pps)), 1, 1);
    EXPECT_NEAR(totals.policer, totals.model, 1 + totals.model * 0.001);
}

TEST_P(PacketRate, BurstOfExactlyTheBucketPassesWhole)
{
    const uint64_t bucket = packetBucket(GetParam());
    const uint64_t many = std::max<uint64_t>(1, bucket / 1000); // at a time, to be quick
    Policer policer(packetSettings(GetParam()));
    EXPECT_EQ(policer.burst(many, bootTime), bucket / many);
    EXPECT_EQ(policer.burst(1, bootTime), bucket % many);
}

TEST_P(PacketRate, EvenStreamAtTheVeryRateLosesNothing)
{
    uint64_t pps = GetParam();
    Policer policer(packetSettings(GetParam()));
    for (uint64_t i = 0; i < 300'000; i++)
        ASSERT_TRUE(policer.pass(1, bootTime + static_cast<uint64_t>(Wide{i} * second / pps)))
            << "packet " << i;
}

TEST_P(PacketRate, WorksAfterTenYearsUp)
{
    uint64_t bucket = std::min<uint64_t>(packetBucket(GetParam()), 1000);
    Policer policer(packetSettings(GetParam()), tenYears);
    EXPECT_EQ(policer.burst(1, tenYears, bucket), bucket);
    EXPECT_TRUE(policer.pass(1, tenYears + 2 * second));
}

INSTANTIATE_TEST_SUITE_P(FromOneToFourBillion, PacketRate,
                         testing::Values(1u, 2u, 3u, 7u, 50u, 200u, 512u, 999u, 5'000u, 50'000u,
                                         999'999u, 1'000'000u, 14'880'952u, 100'000'000u,
                                         999'999'999u, 4'000'000'000u, UINT32_MAX));

class ByteRate : public testing::TestWithParam<uint32_t>
{
};

TEST_P(ByteRate, IsHeldAsByAModelWithoutRounding)
{
    uint32_t cir = GetParam();
    uint32_t cbs = 64000;
    Totals totals = compare(Policer(byteSettings(cir, cbs)), Model(cir * 125ull, cbs), 60, 1514);
    EXPECT_NEAR(totals.policer, totals.model, 1514 + totals.model * 0.001);
}

TEST_P(ByteRate, BurstOfExactlyTheBucketPassesWhole)
{
    constexpr uint64_t frame = 60;
    Policer policer(byteSettings(GetParam(), 107 * frame));
    EXPECT_EQ(policer.burst(frame, bootTime), 107u);
}

TEST_P(ByteRate, EvenStreamAtTheVeryRateLosesNothing)
{
    constexpr uint64_t frame = 100;
    const uint64_t rate = GetParam() * 125ull;
    const uint64_t clockTick = rate / second + 1; // bytes that come due in one nanosecond
    Policer policer(byteSettings(GetParam(), static_cast<uint32_t>(2 * frame + clockTick)));
    for (uint64_t i = 0; i < 300'000; i++)
        ASSERT_TRUE(
            policer.pass(frame, bootTime + static_cast<uint64_t>(Wide{i * frame} * second / rate)))
            << "frame " << i;
}

TEST_P(ByteRate, LargestBucketDoesNotOverflow)
{
    Policer policer(byteSettings(GetParam(), UINT32_MAX), tenYears);
    constexpr uint64_t frame = 1 << 16;
    const uint64_t bucket = UINT32_MAX / frame; // 4294967295 bytes: the last frame does not fit
    EXPECT_EQ(policer.burst(frame, tenYears, bucket + 1000), bucket);
    EXPECT_LT(policer.settings.depth, 1ull << 62);
}

INSTANTIATE_TEST_SUITE_P(FromOneKilobitToFourTerabit, ByteRate,
                         testing::Values(1u, 2u, 16u, 64u, 1'000u, 33'333u, 1'000'000u, 10'000'000u,
                                         100'000'000u, 4'000'000'000u, UINT32_MAX));

TEST(PolicerBucket, IsAFiftiethOfASecondAndAtLeastTwoPackets)
{
    EXPECT_EQ(packetBucket(1), 2u);
    EXPECT_EQ(packetBucket(100), 2u);
    EXPECT_EQ(packetBucket(101), 3u);
    EXPECT_EQ(packetBucket(200), 4u);
    EXPECT_EQ(packetBucket(50'000), 1000u);
}

TEST(Policer, RateOfZeroLetsNothingPass)
{
    for (const cpd_settings &settings :
         {packetSettings(0), byteSettings(0, 6400), byteSettings(16, 0), byteSettings(0, 0)}) {
        Policer policer(settings);
        EXPECT_FALSE(policer.pass(1, bootTime));
        EXPECT_FALSE(policer.pass(1, tenYears));
    }
}

TEST(Policer, FrameLongerThanTheBucketNeverPasses)
{
    Policer policer(byteSettings(1000, 1000));
    EXPECT_FALSE(policer.pass(1001, bootTime));
    EXPECT_FALSE(policer.pass(1001, bootTime + 100 * second));
    EXPECT_TRUE(policer.pass(1000, bootTime + 100 * second));
}

TEST(Policer, RefusedPacketIsNotCharged)
{
    Policer policer(byteSettings(8, 1000)); // 1000 bytes a second
    ASSERT_TRUE(policer.pass(400, bootTime));
    EXPECT_FALSE(policer.pass(601, bootTime));
    EXPECT_TRUE(policer.pass(600, bootTime));
}

TEST(Policer, BucketFillsAtTheRateAndNotBeyond)
{
    Policer policer(packetSettings(200)); // a token in 5 ms, four of them at most
    ASSERT_EQ(policer.burst(1, bootTime), 4u);
    EXPECT_EQ(policer.burst(1, bootTime + 4'999'999), 0u);
    EXPECT_EQ(policer.burst(1, bootTime + 5'000'000), 1u);
    EXPECT_EQ(policer.burst(1, bootTime + 15'000'000), 2u);
    EXPECT_EQ(policer.burst(1, bootTime + 100 * second), 4u);
}

TEST(Policer, RefundTakesBackTheCharge)
{
    Policer policer(packetSettings(50));
    ASSERT_EQ(policer.burst(1, bootTime), 2u);
    cpd_refund(&policer.word, &policer.settings, 1);
    EXPECT_EQ(policer.burst(1, bootTime), 1u);
}

TEST(Policer, ClockALittleBehindAnotherCpuGivesNoBurst)
{
    Policer policer(packetSettings(4'000'000'000));
    policer.word = cpd_units(bootTime, &policer.settings) + policer.settings.depth;
    EXPECT_FALSE(policer.pass(1, bootTime - 1000));
}

TEST(Policer, LongIdleBucketIsFullThoughTheWordWrapped)
{
    cpd_settings settings = byteSettings(UINT32_MAX, 6000);
    ASSERT_GT(settings.shift, 10u);
    Policer policer(settings);
    ASSERT_EQ(policer.burst(60, bootTime), 100u);
    const uint64_t wrap = (UINT64_MAX >> settings.shift) + 1; // ns
    for (uint64_t idle :
         {wrap / 4, wrap / 2 + second, wrap - second, wrap + second, 7 * wrap / 2}) {
        Policer idler = policer;
        EXPECT_EQ(idler.burst(60, bootTime + idle), 100u) << idle;
    }
}

TEST(PolicerChange, KeepsTheTokensAndSoGivesNoSecondBurst)
{
    Policer policer(byteSettings(8000, 1'000'000)); // a second's worth
    ASSERT_EQ(policer.burst(1000, bootTime), 1000u);
    policer.change(byteSettings(80, 1'000'000)); // a hundredth of the rate, the same bucket
    EXPECT_EQ(policer.burst(1000, bootTime), 0u);
    EXPECT_EQ(policer.burst(1000, bootTime + second), 10u);
    policer.change(byteSettings(8000, 1'000'000));
    EXPECT_EQ(policer.burst(1000, bootTime + second), 0u);
}

TEST(PolicerChange, TakesEffectAtOnce)
{
    Policer policer(packetSettings(1));
    ASSERT_EQ(policer.burst(1, bootTime), 2u);
    policer.change(packetSettings(1000));
    EXPECT_EQ(policer.burst(1, bootTime), 0u);
    EXPECT_EQ(policer.burst(1, bootTime + 1'000'000), 1u);
    EXPECT_EQ(policer.burst(1, bootTime + second), packetBucket(1000));
}

TEST(PolicerChange, CutsWhatDoesNotFitTheNewBucket)
{
    Policer policer(packetSettings(50'000));
    policer.change(packetSettings(200));
    EXPECT_EQ(policer.burst(1, bootTime), 4u);
}

TEST(PolicerChange, FromNothingPassesStartsEmpty)
{
    Policer policer(packetSettings(0));
    policer.change(packetSettings(200));
    EXPECT_EQ(policer.burst(1, bootTime), 0u);
    EXPECT_EQ(policer.burst(1, bootTime + 5'000'000), 1u);
}

TEST(PolicerChange, ManyChangesKeepTheTokens)
{
    Policer policer(packetSettings(50'000));
    ASSERT_EQ(policer.burst(1, bootTime, 400), 400u);
    for (uint32_t i = 0; i < 40; i++)
        policer.change(packetSettings(50'000 + 1000 * (i % 2)));
    uint64_t left = policer.burst(1, bootTime);
    EXPECT_LE(left, 600u);
    EXPECT_GE(left, 599u);
}

// While a successor takes over, packets are still charged to the former policer.

TEST(PolicerChange, WhatTheFormerPolicerLetPassIsChargedToItsSuccessor)
{
    Policer former(packetSettings(50'000)); // 1000 at once
    ASSERT_EQ(former.burst(1, bootTime, 100), 100u);
    Policer next = former;
    next.change(packetSettings(25'000)); // 500 at once
    const uint64_t then = former.word;
    ASSERT_EQ(former.burst(1, bootTime, 300), 300u);
    next.word =
        chargeLate(next.word, next.settings, {former.settings, then, former.word}, bootTime);
    EXPECT_EQ(next.burst(1, bootTime), 200u);
}

TEST(PolicerChange, LateChargeLeavesABucketAtMostEmpty)
{
    Policer former(packetSettings(50'000));
    Policer next = former;
    next.change(packetSettings(200)); // 4 at once
    const uint64_t then = former.word;
    ASSERT_EQ(former.burst(1, bootTime, 900), 900u);
    next.word =
        chargeLate(next.word, next.settings, {former.settings, then, former.word}, bootTime);
    EXPECT_EQ(next.burst(1, bootTime), 0u);
    EXPECT_EQ(next.burst(1, bootTime + 5'000'000), 1u);
}

TEST(PolicerChange, NothingIsChargedLateWhenNothingPassed)
{
    Policer former(packetSettings(50'000));
    Policer next = former;
    next.change(packetSettings(200));
    EXPECT_EQ(chargeLate(next.word, next.settings, {former.settings, former.word, former.word},
                         bootTime + second),
              next.word);
}

TEST(Policer, IsExactWhenManyThreadsChargeIt)
{
    constexpr int threads = 4;
    constexpr int steps = 200;
    Policer policer(packetSettings(50'000)); // 20 us a token, a bucket of 1000
    std::atomic<uint64_t> passed{0};
    std::atomic<bool> stop{false};
    auto flood = [&] {
        cpd_refusal refusal;
        while (!stop)
            passed += cpd_charge(&policer.word, &policer.settings, 1, &refusal) ? 1 : 0;
    };
    std::vector<std::thread> pool;
    for (int i = 0; i < threads; i++)
        pool.emplace_back(flood);
    for (int i = 0; i <= steps; i++) {
        virtualNow = bootTime + i * 200'000ull; // ten more tokens a step
        const uint64_t due = 1000 + i * 10ull;
        while (passed < due)
            std::this_thread::yield();
    }
    stop = true;
    for (std::thread &each : pool)
        each.join();
    EXPECT_EQ(passed, 1000u + steps * 10u);
}

} // namespace
