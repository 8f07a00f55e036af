/**
 * Whether what these tests measure with can be relied on.
 */
#include "flood_test.h"

namespace
{

/** So many arrivals at a rate, a second after the clock's beginning. */
std::vector<arrival> steady(double rate, unsigned count)
{
    std::vector<arrival> all;
    for (unsigned i = 0; i < count; i++)
        all.push_back({.time = 1'000'000'000 + static_cast<uint64_t>(i * 1e9 / rate),
                       .length = 60,
                       .priority = 0,
                       .protocol = etherArp,
                       .queue_mapping = 0,
                       .reserved = 0});
    return all;
}

constexpr double rate = 500, bucket = 10;
constexpr double inTheDelay = 10; // packets that the rate lets through in 20 ms

TEST(Excess, IsNoneAtTheRate)
{
    EXPECT_LE(excess(steady(rate, 5000), rate, bucket), 0);
    EXPECT_LE(excess({}, rate, bucket), 0);
}

TEST(Excess, IsNoneOfABurstOfTheBucket)
{
    EXPECT_LE(excess(steady(1e9, 10), rate, bucket), 0);
    EXPECT_NEAR(excess(steady(1e9, 40), rate, bucket), 40 - bucket - inTheDelay, 0.1);
}

TEST(Excess, GrowsWithTimeAboveTheRate)
{
    EXPECT_NEAR(excess(steady(1.1 * rate, 5500), rate, bucket), 500 - bucket - inTheDelay, 1);
}

TEST(Excess, IsFoundInTheMiddleAfterALongPause)
{
    auto all = steady(rate / 10, 50);
    for (arrival each : steady(1e9, 40)) {
        each.time += 20'000'000'000;
        all.push_back(each);
    }
    EXPECT_NEAR(excess(all, rate, bucket), 40 - bucket - inTheDelay, 0.1);
}

TEST(Excess, CountsBytesToo)
{
    EXPECT_LE(excess(steady(rate, 5000), rate * 60, bucket * 60, Unit::Bytes), 0);
    EXPECT_GT(excess(steady(rate, 5000), rate * 59, bucket * 60, Unit::Bytes), 0);
}

class Wire : public FloodTest
{
};

TEST_F(Wire, LosesNothingOfAFlood)
{
    Arrivals arrivals(protectedPort);
    Flood flood(peerPort, {arpRequest(attacker, wanted), frame(nearestBridge, etherLldp)},
                std::thread::hardware_concurrency());
    measure(500ms);
    const uint64_t sent = flood.stop();
    EXPECT_GT(sent, 100'000u);
    EXPECT_TRUE(
        within(1s, [&] { return arrivals.count(etherArp) + arrivals.count(etherLldp) == sent; }))
        << arrivals.count(etherArp) + arrivals.count(etherLldp) << " of " << sent;
}

TEST_F(Wire, LosesNothingOfAStreamAndTellsItsTimes)
{
    Arrivals arrivals(protectedPort);
    const Stream stream = sendEvenly(peerPort, arpRequest(attacker, wanted, 200), 1000, 500);
    EXPECT_TRUE(within(1s, [&] { return arrivals.count(etherArp) == stream.sent; }));
    const auto all = arrivals.all(etherArp);
    ASSERT_EQ(all.size(), 500u);
    EXPECT_EQ(amount(all, Unit::Bytes), 500u * 200);
    const Seconds took = std::chrono::nanoseconds(all.back().time - all.front().time);
    EXPECT_NEAR(499 / took.count() / stream.rate, 1, 0.1);
}

} // namespace
