/**
 * When refusals may go without reading the clock, on virtual time.
 */
#include <gtest/gtest.h>

#include "bpf/cpudefend_shared.h"
#include "policy/policer_settings.h"

static uint64_t virtualNow;
static unsigned readings;

static inline __u64 cpd_now()
{
    readings++;
    return virtualNow;
}

static inline __u32 cpd_tick_length()
{
    return 4'000'000;
}

#include "bpf/policer.h"

using namespace zynlinux;

namespace
{

constexpr uint64_t second = 1'000'000'000;
const uint64_t tickLength = cpd_tick_length();
constexpr uint64_t bootTime = 1000 * second;

/** A policer as the packet program uses it. */
struct Policer {
    explicit Policer(const cpd_settings &given, cpd_kind of = CPD_PACKETS)
        : settings(given), kind(of), flags(uint32_t{CPD_RULE_PACKETS} << of)
    {
        virtualNow = bootTime;
        readings = 0;
    }

    bool pass(uint64_t at, uint64_t tokens = 1)
    {
        virtualNow = at;
        const cpd_offer offer = offered(at, tokens);
        if (last.spare && last.by == cpd_rule_id(&offer) && cpd_still_refused(&last, word, &offer))
            return false;
        cpd_refusal refusal = {};
        if (cpd_charge(&word, &settings, tokens, &refusal))
            return true;
        cpd_remember(&last, &settings, &offer, kind, &refusal);
        return false;
    }

    /** A packet of so many tokens. */
    cpd_offer offered(uint64_t at, uint64_t tokens) const
    {
        const auto octets = static_cast<__u32>(kind == CPD_BYTES ? tokens : 60);
        return {flags, 5, octets, static_cast<__u32>(at / tickLength)};
    }

    cpd_settings settings;
    cpd_kind kind;
    __u32 flags;
    __u64 word = 0;
    cpd_stats last{};
};

/** Whether a packet would pass if the clock were read. */
bool conforms(const Policer &policer, uint64_t at, uint64_t tokens = 1)
{
    return cpd_police(policer.word, &policer.settings, tokens, at) != policer.word;
}

class EvenFlood : public testing::TestWithParam<std::tuple<uint32_t, uint64_t>>
{
};

TEST_P(EvenFlood, RefusesNothingThatConforms)
{
    auto [pps, gap] = GetParam();
    Policer policer(packetSettings(pps));
    for (uint64_t i = 0; i < 200'000; i++) {
        const uint64_t at = bootTime + i * gap;
        const bool expected = conforms(policer, at);
        ASSERT_EQ(policer.pass(at), expected) << "packet " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(RatesAndGaps, EvenFlood,
                         testing::Combine(testing::Values(1u, 50u, 500u, 5'000u, 50'000u,
                                                          1'000'000u, 4'000'000'000u),
                                          testing::Values(20u, 120u, 1'000u, 20'000u, 300'000u)));

TEST(Refusal, ReadsTheClockOnceForSixtyFivePacketsOfAFlood)
{
    Policer policer(packetSettings(50));
    for (uint64_t i = 0; i < 65'000; i++)
        policer.pass(bootTime + i * 100);
    EXPECT_LE(readings, 1010u);
    EXPECT_GE(readings, 1000u);
}

TEST(Refusal, FrameLongerThanTheBucketIsRefusedUnseenToo)
{
    for (const cpd_settings &settings : {byteSettings(1000, 59), byteSettings(0, 0)}) {
        Policer policer(settings, CPD_BYTES);
        for (uint64_t i = 0; i < 6500; i++)
            EXPECT_FALSE(policer.pass(bootTime + i * 100, 60));
        EXPECT_LE(readings, 110u);
    }
}

TEST(Refusal, SlowPacketsAreAllSeen)
{
    Policer policer(packetSettings(1000));
    for (uint64_t i = 0; i < 1000; i++)
        policer.pass(bootTime + i * 100'000); // a tenth of the time that a token takes
    EXPECT_GE(readings, 1000u);
}

TEST(Refusal, AsManyAreUnseenAsComeWithinHalfTheWait)
{
    Policer policer(packetSettings(1000));
    while (policer.pass(bootTime)) {
    }
    policer.pass(bootTime + 10'000); // and 99 more like it until there is a token
    EXPECT_EQ(policer.last.spare, 49);
    for (uint64_t i = 2; i <= 50; i++)
        policer.pass(bootTime + i * 10'000);
    EXPECT_EQ(policer.last.spare, 0);
    policer.pass(bootTime + 510'000); // 50 since the last reading, 49 until there is a token
    EXPECT_EQ(policer.last.spare, 24);
    for (uint64_t i = 52; i <= 75; i++)
        policer.pass(bootTime + i * 10'000);
    policer.pass(bootTime + 760'000); // 24 until there is one: not worth it
    EXPECT_EQ(policer.last.spare, 0);
}

TEST(Refusal, ClockThatStandsStillGrantsNothing)
{
    EXPECT_EQ(cpd_spare(1000, 1, 0), 0);
    EXPECT_EQ(cpd_spare(0, 1, 0), 0);
}

/** Packets that come together, time and again. */
struct Bursts {
    cpd_settings settings;
    cpd_kind kind;
    uint64_t tokens; /**< of each */
    int count;
    uint64_t period; /**< ns */
};

class FloodInBursts : public testing::TestWithParam<Bursts>
{
};

TEST_P(FloodInBursts, LosesNoTokens)
{
    const Bursts &bursts = GetParam();
    Policer policer(bursts.settings, bursts.kind);
    __u64 exact = 0;
    int passed = 0, expected = 0;
    for (uint64_t begin = 0; begin < second; begin += bursts.period)
        for (int i = 0; i < bursts.count; i++) {
            const uint64_t at = bootTime + begin + static_cast<uint64_t>(i) * 100;
            passed += policer.pass(at, bursts.tokens);
            const __u64 next = cpd_police(exact, &bursts.settings, bursts.tokens, at);
            expected += next != exact;
            exact = next;
        }
    EXPECT_LE(passed, expected + 2); // the last ones are in the bucket
    EXPECT_GE(passed, expected * 0.99);
}

INSTANTIATE_TEST_SUITE_P(
    ShallowAndDeepBuckets, FloodInBursts,
    testing::Values(Bursts{byteSettings(10'000, 1514), CPD_BYTES, 1514, 3, 111'000},
                    Bursts{byteSettings(10'000, 1514), CPD_BYTES, 1514, 8, 200'000},
                    Bursts{byteSettings(1000, 100), CPD_BYTES, 60, 10, 200'000},
                    Bursts{byteSettings(1000, 200), CPD_BYTES, 60, 9, 300'000},
                    Bursts{byteSettings(100'000, 15'000), CPD_BYTES, 1514, 20, 1'000'000},
                    Bursts{byteSettings(10'000, 1'880'000), CPD_BYTES, 1514, 3, 111'000},
                    Bursts{packetSettings(50), CPD_PACKETS, 1, 8, 50'000},
                    Bursts{packetSettings(1000), CPD_PACKETS, 1, 64, 200'000},
                    Bursts{packetSettings(50'000), CPD_PACKETS, 1, 64, 100'000}));

/** A policer with an empty bucket whose next refusals would be unseen. */
Policer flooded(const cpd_settings &settings, cpd_kind kind = CPD_PACKETS, uint64_t tokens = 1)
{
    Policer policer(settings, kind);
    while (policer.pass(bootTime, tokens)) {
    }
    policer.pass(bootTime + 100, tokens);
    EXPECT_EQ(policer.last.spare, CPD_SPARE_MAX);
    return policer;
}

TEST(Refusal, ClockIsReadAgainInTheNextTick)
{
    Policer policer = flooded(packetSettings(500)); // a token in 2 ms
    EXPECT_TRUE(policer.pass(bootTime + tickLength));
}

TEST(Refusal, AtMostSixtyFourAreRefusedUnseenWhenAFloodEnds)
{
    Policer policer = flooded(packetSettings(500));
    const uint64_t later = bootTime + 3'000'000; // there is a token, in the same tick
    for (int i = 0; i < 64; i++)
        EXPECT_FALSE(policer.pass(later));
    EXPECT_TRUE(policer.pass(later));
}

TEST(Refusal, ChangedWordIsNoticed)
{
    Policer policer = flooded(packetSettings(500));
    policer.word -= cpd_cost(1, &policer.settings); // a refund on another CPU
    EXPECT_TRUE(policer.pass(bootTime + 200));
    EXPECT_FALSE(policer.pass(bootTime + 200));
}

TEST(Refusal, SmallerFrameIsJudgedForItself)
{
    Policer policer = flooded(byteSettings(8, 1000), CPD_BYTES, 600);
    EXPECT_TRUE(policer.pass(bootTime + 200, 400));
}

TEST(Refusal, LargerFrameIsRefusedWithTheSmaller)
{
    Policer policer = flooded(byteSettings(8, 1000), CPD_BYTES, 600);
    readings = 0;
    EXPECT_FALSE(policer.pass(bootTime + 200, 900));
    EXPECT_EQ(readings, 0u);
}

TEST(Refusal, AnotherRuleIsJudgedForItself)
{
    Policer policer = flooded(packetSettings(500));
    const __u64 word = policer.word;
    policer.flags |= CPD_RULE_QUEUE;
    readings = 0;
    EXPECT_FALSE(policer.pass(bootTime + 200));
    EXPECT_EQ(readings, 1u);
    EXPECT_EQ(policer.word, word);
}

TEST(Refusal, PacketPolicerTakesNoHeedOfTheFramesLength)
{
    Policer policer = flooded(packetSettings(500));
    cpd_offer shorter = policer.offered(bootTime + 200, 1);
    shorter.octets = 1;
    EXPECT_TRUE(cpd_still_refused(&policer.last, policer.word, &shorter));
}

TEST(Refusal, LongWaitIsCut)
{
    const cpd_settings settings = byteSettings(1, UINT32_MAX);
    const cpd_refusal refusal = {cpd_units(bootTime, &settings) + settings.depth, bootTime};
    EXPECT_EQ(cpd_wait(&settings, 1, &refusal), 8'000'000u);
    EXPECT_EQ(cpd_wait(&settings, 1 << 20, &refusal), CPD_WAIT_MAX); // more than two hours
}

TEST(Refusal, WithoutATimeIsNotRemembered)
{
    Policer policer = flooded(packetSettings(500));
    const cpd_refusal refusal = {};
    const __u32 before = policer.last.at;
    const cpd_offer offer = policer.offered(bootTime + 200, 1);
    cpd_remember(&policer.last, &policer.settings, &offer, CPD_PACKETS, &refusal);
    EXPECT_EQ(policer.last.at, before);
    EXPECT_EQ(policer.last.spare, 0);
}

} // namespace
