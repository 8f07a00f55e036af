// The summary of sources, against exact counts of the same samples.
#include <cmath>
#include <functional>
#include <random>

#include <gtest/gtest.h>

#include "trace/heavy_sources.h"

using namespace zynlinux;
using namespace std::chrono_literals;
using Time = HeavySources::Time;

namespace
{

constexpr Group group{0, 0, Kind::Arp};
constexpr double rounding = 1e-6; // of the model's sums

Source sourceOf(uint32_t number, const Group &of = group)
{
    const auto octet = [number](int shift) { return static_cast<uint8_t>(number >> shift); };
    return {of, 1, {10, octet(16), octet(8), octet(0)}, {2, 0, 0, 0, 0, 1}};
}

/** All samples of all sources, and the weight that each has by the rule. */
class Exact
{
public:
    void add(const Source &source, Time now) { times_[source].push_back(now); }

    double weight(const Source &source, Time now) const
    {
        auto found = times_.find(source);
        return found == times_.end() ? 0 : weight(found->second, now);
    }

    double total(Time now) const
    {
        double sum = 0;
        for (const auto &[source, times] : times_)
            sum += weight(times, now);
        return sum;
    }

    const std::map<Source, std::vector<Time>> &all() const { return times_; }

private:
    static double weight(const std::vector<Time> &times, Time now)
    {
        double sum = 0;
        for (Time time : times)
            sum += std::exp2(static_cast<double>(halvings(time) - halvings(now)));
        return sum;
    }

    static int64_t halvings(Time time) { return time.time_since_epoch() / HeavySources::halfLife; }

    std::map<Source, std::vector<Time>> times_;
};

class HeavySourcesTest : public testing::Test
{
protected:
    void send(const Source &source)
    {
        summary.add(source, {}, now);
        exact.add(source, now);
    }

    /** Send so many samples of what the choice gives, evenly within a second. */
    void sendForASecond(uint32_t count, const std::function<Source(uint32_t)> &choice)
    {
        const Time begin = now;
        for (uint32_t i = 0; i < count; i++) {
            now = begin + 1'000'000'000ns * i / count;
            send(choice(i));
        }
        now = begin + 1s;
        summary.age(now);
    }

    void expectWithinBounds()
    {
        summary.age(now);
        const double bound = exact.total(now) / room;
        std::map<Source, HeavySources::Weight> known;
        double before = INFINITY;
        for (const HeavySources::Item *item : summary.ranking()) {
            const auto &[source, weight] = *item;
            known[source] = weight;
            const double is = exact.weight(source, now);
            ASSERT_LE(is, weight.most + HeavySources::nothing + rounding);
            ASSERT_GE(is, weight.least() - rounding);
            ASSERT_LE(weight.error, bound + rounding);
            ASSERT_LE(weight.most, before) << "not by weight";
            before = weight.most;
        }
        ASSERT_LE(known.size(), room);
        for (const auto &[source, times] : exact.all()) {
            const bool heavy = exact.weight(source, now) > bound + HeavySources::nothing + rounding;
            ASSERT_TRUE(!heavy || known.count(source)) << "a heavy one is missing";
        }
        ASSERT_NEAR(summary.total(group), exact.total(now), HeavySources::nothing + rounding);
    }

    const HeavySources::Item &first() const { return **summary.ranking().begin(); }

    static constexpr size_t room = 16;
    HeavySources summary{room};
    Exact exact;
    Time now{100s};
};

TEST_F(HeavySourcesTest, WhoFitsInIsKnownExactly)
{
    for (uint32_t i = 0; i < room; i++)
        for (uint32_t sent = 0; sent <= i; sent++)
            send(sourceOf(i));
    ASSERT_EQ(summary.ranking().size(), room);
    double expected = room;
    for (const HeavySources::Item *item : summary.ranking()) {
        EXPECT_EQ(item->second.most, expected);
        EXPECT_EQ(item->second.error, 0);
        expected--;
    }
}

TEST_F(HeavySourcesTest, WeightHalvesTwiceASecond)
{
    for (int i = 0; i < 8; i++)
        send(sourceOf(1));
    summary.age(now + 499ms);
    EXPECT_EQ(first().second.most, 8);
    EXPECT_EQ(summary.total(group), 8);
    summary.age(now + 500ms);
    EXPECT_EQ(first().second.most, 4);
    EXPECT_EQ(summary.total(group), 4);
    summary.age(now + 1500ms);
    EXPECT_EQ(first().second.most, 1);
}

TEST_F(HeavySourcesTest, WhoSendsNoMoreIsForgotten)
{
    send(sourceOf(1));
    summary.age(now + 2s);
    EXPECT_EQ(summary.ranking().size(), 1u);
    summary.age(now + 2500ms);
    EXPECT_TRUE(summary.ranking().empty());
    EXPECT_EQ(summary.total(group), 0);
    now += 24h * 365; // and such a time is no work
    send(sourceOf(2));
    EXPECT_EQ(first().second.most, 1);
}

TEST_F(HeavySourcesTest, TheNewestSampleIsKept)
{
    cpd_sample sample{};
    sample.length = 60;
    summary.add(sourceOf(1), sample, now);
    sample.length = 61;
    summary.add(sourceOf(1), sample, now);
    EXPECT_EQ(first().second.last.length, 61u);
}

TEST_F(HeavySourcesTest, GroupsHaveTotalsOfTheirOwn)
{
    constexpr Group other{0, 0, Kind::Igmp}, elsewhere{0, 3, Kind::Arp};
    send(sourceOf(1));
    send(sourceOf(1, other));
    send(sourceOf(2, other));
    EXPECT_EQ(summary.total(group), 1);
    EXPECT_EQ(summary.total(other), 2);
    EXPECT_EQ(summary.total(elsewhere), 0);
}

/** A few send most, as in a real network; and pauses, in which all is forgotten. */
TEST_F(HeavySourcesTest, BoundsHoldForAnySkew)
{
    std::mt19937 random(7);
    for (double skew : {0.5, 1.0, 2.0, 4.0}) {
        for (int step = 0; step < 4000; step++) {
            const double uniform = std::uniform_real_distribution<>(1e-9, 1)(random);
            send(sourceOf(static_cast<uint32_t>(std::pow(uniform, -1 / skew)) % 1000));
            now += std::chrono::microseconds(random() % 2000);
            if (step % 500 == 0)
                expectWithinBounds();
        }
        now += 7s;
        expectWithinBounds();
    }
}

/** One more than there is room for, in turn: each that comes has just been thrown out. */
TEST_F(HeavySourcesTest, SourcesInTurnHideNobodyAndLookLikeNobody)
{
    sendForASecond(6000,
                   [](uint32_t i) { return i % 3 ? sourceOf(i % (room + 1)) : sourceOf(99); });
    expectWithinBounds();
    EXPECT_EQ(first().first, sourceOf(99));
    const double is = exact.weight(sourceOf(99), now);
    EXPECT_GE(first().second.least(), is - exact.total(now) / room);
    for (const HeavySources::Item *item : summary.ranking())
        EXPECT_LE(item->second.least(), exact.weight(item->first, now));
}

TEST_F(HeavySourcesTest, EverNewSourcesLookLikeNobody)
{
    sendForASecond(10000, [](uint32_t i) { return sourceOf(i); });
    expectWithinBounds();
    for (const HeavySources::Item *item : summary.ranking())
        EXPECT_LE(item->second.least(), 1);
}

/** Each second others send a lot, and one the same in all of them. */
TEST_F(HeavySourcesTest, SourcesThatChangeAreForgottenAndTheSteadyOneIsFirst)
{
    for (uint32_t second = 0; second < 6; second++) {
        sendForASecond(4000, [second](uint32_t i) {
            return i % 2 ? sourceOf(99) : sourceOf(1000 * (second + 1) + i % 40);
        });
        expectWithinBounds();
        EXPECT_EQ(first().first, sourceOf(99)) << second;
    }
    const double total = summary.total(group);
    for (const HeavySources::Item *item : summary.ranking()) {
        const auto octets = item->first.ip;
        const bool former = item->first != sourceOf(99) && (octets[2] << 8 | octets[3]) < 5000;
        EXPECT_TRUE(!former || item->second.least() < total / 100);
    }
}

} // namespace
