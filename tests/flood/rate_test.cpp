/**
 * Rates, buckets, and who gets through: what a policy promises, on real floods.
 */
#include "flood_test.h"

namespace
{

/** A limit, and frames to try it with. */
struct Limit {
    const char *name;
    const char *settings;
    Unit unit;
    double rate;   /**< packets or bytes per second */
    double bucket; /**< packets or bytes */
    size_t length; /**< of the frames */
};

constexpr Limit limits[] = {
    {"50pps", "pps=50 mode=pps", Unit::Packets, 50, 2, 60},
    {"500pps", "pps=500 mode=pps", Unit::Packets, 500, 10, 60},
    {"5000pps", "pps=5000 mode=pps", Unit::Packets, 5000, 100, 60},
    {"50000pps", "pps=50000 mode=pps", Unit::Packets, 50000, 1000, 60},
    {"512kbps", "cir=512 cbs=6400 mode=cir", Unit::Bytes, 64'000, 6400, 60},
    {"80Mbps", "cir=80000 cbs=200000 mode=cir", Unit::Bytes, 10'000'000, 200'000, 1000},
};

constexpr double band = 0.02;

void PrintTo(const Limit &limit, std::ostream *out)
{
    *out << limit.name;
}

std::string nameOf(const Limit &limit)
{
    return limit.name;
}

std::string arp(const std::string &settings)
{
    return "arp " + settings;
}

// ---- Rates ----------------------------------------------------------------------------------

class Rate : public FloodTest, public testing::WithParamInterface<std::tuple<Limit, unsigned>>
{
protected:
    Seconds settling() const { return 300ms; }
    Seconds measured() const { return isFull() ? 10s : 3s; }
};

TEST_P(Rate, IsHeldWithinTwoPerCent)
{
    const auto &[limit, cpus] = GetParam();
    start();
    bind({arp(limit.settings)});
    Arrivals arrivals(protectedPort);
    Flood flood(peerPort, {arpRequest(attacker, wanted, limit.length)}, cpus);
    measure(settling());
    const auto begin = Clock::now();
    const uint64_t before = flood.sent();
    measure(measured());
    const auto end = Clock::now();
    const double offered = static_cast<double>(flood.sent() - before) / measured().count();
    flood.stop();

    const auto all = arrivals.all(etherArp);
    const double held = static_cast<double>(amount(between(all, begin, end), limit.unit)) /
                        Seconds(end - begin).count();
    RecordProperty("offeredPerSecond", std::to_string(offered));
    RecordProperty("heldPerSecond", std::to_string(held));
    EXPECT_NEAR(held / limit.rate, 1, band);
    EXPECT_LE(excess(all, limit.rate, limit.bucket, limit.unit), 0);
    EXPECT_GT(offered, 100'000) << "this was no flood";
}

INSTANTIATE_TEST_SUITE_P(Flood, Rate,
                         testing::Combine(testing::ValuesIn(limits), testing::Values(1u, 2u)),
                         [](const auto &each) {
                             return nameOf(std::get<0>(each.param)) + "From" +
                                    std::to_string(std::get<1>(each.param)) + "Cpu";
                         });

// ---- Even streams ---------------------------------------------------------------------------

class EvenStream : public FloodTest, public testing::WithParamInterface<Limit>
{
};

TEST_P(EvenStream, AtTheVeryRateLosesNothing)
{
    const Limit &limit = GetParam();
    start();
    bind({arp(limit.settings)});
    Arrivals arrivals(protectedPort);
    const Octets request = arpRequest(attacker, wanted, limit.length);
    const double size = limit.unit == Unit::Bytes ? static_cast<double>(limit.length) : 1;
    const auto rate = static_cast<uint32_t>(limit.rate / size);
    const Stream stream = sendEvenly(peerPort, request, rate, rate * (isFull() ? 10 : 2));
    EXPECT_TRUE(within(1s, [&] { return arrivals.count(etherArp) == stream.sent; }))
        << stream.sent - arrivals.count(etherArp) << " of " << stream.sent << " were dropped";
    EXPECT_GT(stream.rate, 0.95 * rate) << "too slow to tell";
}

INSTANTIATE_TEST_SUITE_P(Flood, EvenStream, testing::ValuesIn(limits),
                         [](const auto &each) { return nameOf(each.param); });

// ---- Bursts ---------------------------------------------------------------------------------

constexpr Limit buckets[] = {
    {"1pps", "pps=1 mode=pps", Unit::Packets, 1, 2, 60},
    {"50pps", "pps=50 mode=pps", Unit::Packets, 50, 2, 60},
    {"101pps", "pps=101 mode=pps", Unit::Packets, 101, 3, 60},
    {"500pps", "pps=500 mode=pps", Unit::Packets, 500, 10, 60},
    {"2000pps", "pps=2000 mode=pps", Unit::Packets, 2000, 40, 60},
    {"16kbps", "cir=16 cbs=6400 mode=cir", Unit::Bytes, 2000, 6400, 64},
};

class Burst : public FloodTest, public testing::WithParamInterface<Limit>
{
protected:
    /** Whether the packets came so close together that no token can have come meanwhile. */
    static bool isTight(const std::vector<arrival> &all, double tokensPerSecond)
    {
        const Seconds tookAtMost = std::chrono::nanoseconds(all.back().time - all.front().time);
        return tookAtMost.count() * tokensPerSecond < 0.5;
    }
};

TEST_P(Burst, OfTheBucketPassesWholeAndTheNextPacketDoesNot)
{
    const Limit &limit = GetParam();
    const Octets request = arpRequest(attacker, wanted, limit.length);
    const double size = limit.unit == Unit::Bytes ? static_cast<double>(limit.length) : 1;
    const auto whole = static_cast<uint32_t>(limit.bucket / size);
    std::vector<arrival> all;
    // Again on a machine that stood still in the middle of the burst, with a bucket that is full.
    for (int attempt = 0; attempt < 5; attempt++) {
        start();
        bind({arp(limit.settings)});
        Arrivals arrivals(protectedPort);
        Generator(peerPort).send(request, whole + 1);
        all = arrivals.all(etherArp);
        ASSERT_GE(all.size(), whole);
        if (isTight(all, limit.rate / size))
            break;
    }
    EXPECT_EQ(all.size(), whole);
}

INSTANTIATE_TEST_SUITE_P(Flood, Burst, testing::ValuesIn(buckets),
                         [](const auto &each) { return nameOf(each.param); });

// ---- Survivors ------------------------------------------------------------------------------

struct Survivor {
    const char *name;
    uint16_t ethertype;
    Mac to;
};

constexpr Survivor survivors[] = {
    {"OfATypeWithEnoughRate", etherEapol, accessEntities},
    {"OfATypeWithoutEntry", etherLldp, nearestBridge},
};

void PrintTo(const Survivor &survivor, std::ostream *out)
{
    *out << survivor.name;
}

class Survivors : public FloodTest, public testing::WithParamInterface<Survivor>
{
};

TEST_P(Survivors, AllArriveUnderTheHeaviestFlood)
{
    constexpr uint64_t many = 30'000;
    const Survivor &survivor = GetParam();
    start();
    bind({"arp pps=200 mode=pps", "dot1x pps=100000 mode=pps"});
    Arrivals arrivals(protectedPort);
    Flood flood(peerPort, {arpRequest(attacker, wanted)}, std::thread::hardware_concurrency());
    measure(300ms);
    const uint64_t before = flood.sent();
    const auto begin = Clock::now();
    const Stream stream =
        sendEvenly(peerPort, frame(survivor.to, survivor.ethertype), 10'000, many);
    const double offered =
        static_cast<double>(flood.sent() - before) / Seconds(Clock::now() - begin).count();

    EXPECT_TRUE(within(2s, [&] { return arrivals.count(survivor.ethertype) == many; }))
        << arrivals.count(survivor.ethertype) << " of " << stream.sent << " arrived";
    flood.stop();
    RecordProperty("floodPerSecond", std::to_string(offered));
    EXPECT_GT(offered, 300'000) << "this was no flood";
    EXPECT_LE(excess(arrivals.all(etherArp), 200, bucketOf(200)), 0);
}

INSTANTIATE_TEST_SUITE_P(Flood, Survivors, testing::ValuesIn(survivors),
                         [](const auto &each) { return each.param.name; });

} // namespace
