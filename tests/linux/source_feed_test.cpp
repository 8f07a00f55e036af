// Which sources the core's tracing gets to see, on a stepped clock.
#include <functional>
#include <random>
#include <set>

#include <gtest/gtest.h>

#include "cpuDefend.h"
#include "scripted_hw.h"
#include "trace/source_feed.h"
#include "traced_frame.h"

using namespace zynlinux;
using namespace std::chrono_literals;

namespace
{

uint64_t clockReading; // ms

constexpr uint32_t flooder = 0xf10000;
constexpr uint32_t innocent = 0x1a0000;
constexpr uint32_t spoofed = 0x5b0000; // and those behind it
constexpr uint32_t tableSize = 32;

/** So many samples a second, from whom the function says. */
struct Stream {
    double rate;
    std::function<uint32_t(uint64_t)> sender; /**< of the nth sample */
    uint64_t sent = 0;
};

Stream one(double rate, uint32_t sender)
{
    return {rate, [sender](uint64_t) { return sender; }};
}

Stream inTurn(double rate, uint32_t senders, uint32_t first = spoofed)
{
    return {rate, [=](uint64_t n) { return first + static_cast<uint32_t>(n % senders); }};
}

class SourceFeedTest : public testing::Test
{
protected:
    void SetUp() override
    {
        scripted::reset();
        clockReading = 100'000;
        osClockSet([] { return clockReading; });
        ASSERT_EQ(cpuDefendInit(tableSize, 2), 0);
        policy = cpuDefendPolicyEntryGet(name, sizeof name);
        policy->srcTraceEnable = CPUDEFEND_ENABLE;
        memcpy(gCpuDefend.policyName, name, sizeof name);
        gCpuDefend.policyNameLen = sizeof name;
        cpuDefendSrcTraceTimerStart(policy);
        scripted::script.ports[1] = {0, 0};
        tell();
    }

    void TearDown() override
    {
        cpuDefendRelease();
        osClockSet(nullptr);
    }

    static HeavySources::Time now() { return HeavySources::Time(1ms * clockReading); }

    void tell() { feed.traced(gCpuDefend.useSrcTraceNum, gCpuDefend.maxSrcTraceNum); }

    /** Of a kind other than ARP it is a frame that the core doesn't trace. */
    void take(uint32_t sender, const Group &group = {0, 0, Kind::Arp})
    {
        cpd_sample sample = arpSample(sender);
        Source source = *sourceOf(sample, PortConfig{});
        source.group = group;
        if (group.kind != Kind::Arp)
            sample.ethertype = 0;
        feed.take(sample, source, now());
    }

    /** Let the core trace what there is. @return from whom it is */
    std::vector<uint32_t> trace()
    {
        std::vector<uint32_t> senders;
        feed.choose(now());
        while (const cpd_sample *sample = feed.next()) {
            senders.push_back(senderOf(sample->data + 9));
            packet_rxpktinfo info{};
            info.pkt_dataoffset = sample->network_offset;
            unsigned char bytes[CPUDEFEND_PKTDATA_LEN];
            memcpy(bytes, sample->data, sizeof bytes);
            EXPECT_EQ(0, cpuDefendSrcTracePkt(sample->ifindex, sample->ethertype, &info, bytes,
                                              sizeof bytes));
            tell();
        }
        return senders;
    }

    /** Steps of 5 ms, after each of which the condition is looked at. @return whether it held */
    bool run(
        std::chrono::milliseconds time, std::vector<Stream> streams,
        const std::function<bool()> &until = [] { return false; })
    {
        constexpr int step = 5;
        for (int at = step; at <= time.count(); at += step) {
            clockReading += step;
            for (Stream &stream : streams)
                while (static_cast<double>(stream.sent) < stream.rate * at / 1000)
                    take(stream.sender(stream.sent++));
            timerListCheck(&gCpuDefend.timerList);
            handed += trace().size();
            if (until())
                return true;
        }
        return false;
    }

    static uint32_t senderOf(const uint8_t *octets)
    {
        return static_cast<uint32_t>(octets[0] << 16 | octets[1] << 8 | octets[2]);
    }

    /** The table: senders, and their totals. */
    static std::map<uint32_t, uint32_t> table()
    {
        std::map<uint32_t, uint32_t> found;
        for (uint32_t i = 0; i < gCpuDefend.maxSrcTraceNum; i++)
            if (const auto &entry = gCpuDefend.srcTraceTable[i]; entry.ifUnit != 0)
                found[senderOf(entry.srcMac + 3)] = entry.totalNum;
        EXPECT_EQ(found.size(), gCpuDefend.useSrcTraceNum);
        return found;
    }

    static bool isListed(uint32_t sender) { return table().count(sender) > 0; }

    static void reset()
    {
        for (uint32_t i = 0; i < gCpuDefend.maxSrcTraceNum; i++)
            if (gCpuDefend.srcTraceTable[i].ifUnit != 0)
                cpuDefendSrcTraceEntryDel(&gCpuDefend.srcTraceTable[i]);
    }

    uint8_t name[7] = {'d', 'e', 'f', 'a', 'u', 'l', 't'};
    tCpuDefendPolicyEntry *policy = nullptr;
    SourceFeed feed;
    size_t handed = 0;
};

// ---- Counting ----------------------------------------------------------------------------------

TEST_F(SourceFeedTest, EverySampleCountsOnceItsTimeHasCome)
{
    take(flooder);
    take(flooder);
    EXPECT_EQ(feed.due(), now() + SourceFeed::delay);
    clockReading += 5;
    take(flooder);
    clockReading += 394;
    EXPECT_EQ(trace().size(), 0u);
    clockReading += 1;
    EXPECT_EQ(trace().size(), 2u);
    EXPECT_EQ(trace().size(), 0u);
    clockReading += 5;
    EXPECT_EQ(trace().size(), 1u);
    EXPECT_EQ(feed.due(), std::nullopt);
}

TEST_F(SourceFeedTest, AsManyPacketsAreHandedUpAsSamplesCame)
{
    run(2s, {one(3000, flooder), inTurn(2000, 500)});
    EXPECT_NEAR(static_cast<double>(handed), 5000 * 1.6, 50);
}

/** The default threshold is 128 in a window, whoever sent them. */
TEST_F(SourceFeedTest, ABurstIsNoticedAsItCame)
{
    run(3s, {one(1200, flooder)});
    EXPECT_TRUE(table().empty());
    run(1s, {one(2000, flooder)});
    EXPECT_TRUE(isListed(flooder));
}

TEST_F(SourceFeedTest, ABurstIsNoticedThoughMostOfItIsOthers)
{
    run(1s, {one(400, flooder), inTurn(1600, 10000)});
    EXPECT_TRUE(isListed(flooder));
}

TEST_F(SourceFeedTest, AShortBurstOfOneIsNoticed)
{
    policy->srcTraceThreshold = 5;
    for (uint32_t i = 0; i < 9; i++)
        take(flooder);
    run(500ms, {});
    EXPECT_TRUE(isListed(flooder));
}

TEST_F(SourceFeedTest, ThePacketIsTheNewestOfItsSource)
{
    for (uint8_t mark : {1, 2, 3}) {
        cpd_sample sample = arpSample(flooder);
        sample.data[60] = mark;
        feed.take(sample, *sourceOf(sample, PortConfig{}), now());
    }
    clockReading += 400;
    feed.choose(now());
    const cpd_sample *packet = feed.next();
    ASSERT_NE(packet, nullptr);
    EXPECT_EQ(packet->data[60], 3);
}

// ---- Who is named ------------------------------------------------------------------------------

class BesideSpoofed : public SourceFeedTest, public testing::WithParamInterface<uint32_t>
{
};

INSTANTIATE_TEST_SUITE_P(, BesideSpoofed, testing::Values(32, 33, 60, 1000, 1025, 30000));

TEST_P(BesideSpoofed, TheFlooderIsTheFirstInTheTable)
{
    ASSERT_TRUE(
        run(1s, {one(4500, flooder), inTurn(4500, GetParam())}, [] { return !table().empty(); }));
    EXPECT_TRUE(isListed(flooder));
    run(3s, {one(4500, flooder), inTurn(4500, GetParam())});
    for (const auto &[sender, total] : table())
        EXPECT_LE(total, table()[flooder]) << std::hex << sender;
}

TEST_P(BesideSpoofed, AWeakFlooderIsNamedToo)
{
    run(1s, {one(450, flooder), inTurn(8500, GetParam())});
    EXPECT_TRUE(isListed(flooder));
}

TEST_P(BesideSpoofed, AFlooderIsNamedThatComesLater)
{
    run(5s, {inTurn(9000, GetParam())});
    ASSERT_FALSE(isListed(flooder));
    EXPECT_TRUE(
        run(1s, {one(4500, flooder), inTurn(4500, GetParam())}, [] { return isListed(flooder); }));
}

TEST_F(SourceFeedTest, AnInnocentIsNotTakenForAFlooder)
{
    run(3s, {one(39, innocent)});
    run(5s, {one(39, innocent), one(8900, flooder)});
    run(2s, {one(39, innocent)});
    EXPECT_EQ(table().size(), 1u);
    EXPECT_TRUE(isListed(flooder));
}

TEST_F(SourceFeedTest, ManyFloodersAreAllNamed)
{
    run(2s, {inTurn(9000, 20)});
    EXPECT_EQ(table().size(), 20u);
}

TEST_F(SourceFeedTest, TotalsGoByWeight)
{
    const std::vector<uint32_t> rates = {4000, 2000, 1000, 800, 600, 400};
    std::vector<Stream> streams;
    for (size_t i = 0; i < rates.size(); i++)
        streams.push_back(one(rates[i], flooder + static_cast<uint32_t>(i)));
    run(2s, streams);
    const auto found = table();
    ASSERT_EQ(found.size(), rates.size());
    uint32_t before = UINT32_MAX;
    for (const auto &[sender, total] : found) {
        EXPECT_LT(total, before) << std::hex << sender;
        before = total;
    }
}

/** There is never more than one sample in a step. */
TEST_F(SourceFeedTest, ThoseOfATrickleTakeTurns)
{
    policy->srcTraceThreshold = 5;
    run(3s, {inTurn(150, 3, flooder)});
    EXPECT_EQ(table().size(), 3u);
}

TEST_F(SourceFeedTest, WhenAllAreLightAQuarterOfTheTableIsTheirs)
{
    for (uint32_t senders : {1000u, 30000u}) {
        run(3s, {inTurn(9000, senders)});
        EXPECT_EQ(table().size(), tableSize / 4) << senders;
        const auto before = handed;
        run(1s, {inTurn(9000, senders)});
        EXPECT_EQ(handed, before) << "there is nobody to name";
        run(10s, {});
        reset();
        tell();
    }
}

TEST_F(SourceFeedTest, AFewSamplesMakeNobodyHeavy)
{
    policy->srcTraceThreshold = 5;
    for (uint32_t first = spoofed; first < spoofed + 300; first += 30) {
        for (uint32_t i = 0; i < 60; i++)
            take(first + i % 30);
        run(600ms, {});
    }
    EXPECT_EQ(table().size(), tableSize / 4);
}

/** What the summary cannot know of them is not held against them. */
TEST_F(SourceFeedTest, AFloodOfAnotherKindMakesNobodyHeavy)
{
    policy->srcTraceThreshold = 5;
    for (int step = 0; step < 400; step++) {
        for (uint32_t i = 0; i < 40; i++)
            take(spoofed + static_cast<uint32_t>(step) * 40 + i, {0, 0, Kind::Icmp});
        run(5ms, {one(200, innocent + static_cast<uint32_t>(step))});
    }
    EXPECT_EQ(table().size(), tableSize / 4);
}

TEST_F(SourceFeedTest, TheLastRecordsAreLeftToTheHeaviest)
{
    uint32_t used = 0, first = spoofed;
    for (uint32_t senders : {32u, 16u, 8u, 4u, 2u}) {
        run(2s, {inTurn(9000, senders, first)});
        first += senders;
        ASSERT_GE(gCpuDefend.useSrcTraceNum, used);
        used = gCpuDefend.useSrcTraceNum;
        EXPECT_LE(used, tableSize - senders / 2 + 1) << senders;
    }
    run(2s, {inTurn(9000, 4, first)});
    EXPECT_EQ(gCpuDefend.useSrcTraceNum, used) << "the last one is for half of the flood";
    run(2s, {one(9000, flooder)});
    EXPECT_TRUE(isListed(flooder));
    EXPECT_EQ(gCpuDefend.useSrcTraceNum, tableSize);
}

TEST_F(SourceFeedTest, InAFullTableWhoIsThereIsKeptUpToDate)
{
    for (uint32_t i = 0; i < tableSize; i++)
        run(2s, {one(2000, spoofed + i)});
    ASSERT_EQ(gCpuDefend.useSrcTraceNum, tableSize);
    const auto before = table();
    run(2s, {one(2000, spoofed + 7), one(4000, flooder)});
    const auto after = table();
    EXPECT_GT(after.at(spoofed + 7), before.at(spoofed + 7));
    EXPECT_FALSE(isListed(flooder));
}

TEST_F(SourceFeedTest, AfterAResetWhoFloodsIsNamedAgain)
{
    for (uint32_t i = 0; i < tableSize; i++)
        run(2s, {one(2000, spoofed + i)});
    run(1s, {one(2000, flooder)});
    ASSERT_FALSE(isListed(flooder));
    reset();
    tell();
    run(1s, {one(2000, flooder)});
    EXPECT_TRUE(isListed(flooder));
    EXPECT_LE(table().size(), 2u);
}

TEST_F(SourceFeedTest, AResetEndsWhatWasKnownOfTheTable)
{
    run(2s, {inTurn(9000, 32)});
    const size_t before = table().size();
    ASSERT_LT(before, tableSize);
    reset();
    tell();
    run(2s, {inTurn(9000, 32)});
    EXPECT_EQ(table().size(), before);
}

TEST_F(SourceFeedTest, ASourceThatChangesDoesNotHideTheSteadyOne)
{
    for (uint32_t second = 0; second < 8; second++)
        run(1s, {one(4500, flooder), inTurn(4500, 2000, spoofed + second * 2000)});
    EXPECT_EQ(table().size(), 1u);
    EXPECT_TRUE(isListed(flooder));
}

// ---- Groups ------------------------------------------------------------------------------------

/** Who floods one place, or with one kind of packets, is not named for another. */
TEST_F(SourceFeedTest, GroupsAreNamedApart)
{
    const auto here = Group{0, 0, Kind::Arp}, there = Group{0, 1, Kind::Arp},
               other = Group{0, 0, Kind::Icmp};
    std::map<uint32_t, int> expected, found;
    for (const auto &[group, number, count] :
         {std::tuple(here, 1u, 500), std::tuple(there, 2u, 20), std::tuple(other, 3u, 10)})
        for (int i = 0; i < count; i++, expected[number]++)
            take(number, group);
    clockReading += 400;
    for (uint32_t sender : trace())
        found[sender]++;
    EXPECT_EQ(found, expected);
}

TEST_F(SourceFeedTest, GroupsInWhichNobodyIsHeavyAreNamedApart)
{
    for (uint32_t sender = 0; sender < 100; sender++)
        take(sender, {0, sender < 30 ? 0u : 1u, Kind::Arp});
    clockReading += 400;
    int here = 0, there = 0;
    for (uint32_t sender : trace())
        ++(sender < 30 ? here : there);
    EXPECT_EQ(here, 30);
    EXPECT_EQ(there, 70);
}

// ---- One moment's packets ----------------------------------------------------------------------

class OneMoment : public SourceFeedTest
{
protected:
    std::vector<uint32_t> order(std::initializer_list<int> weights)
    {
        uint32_t sender = 1;
        for (int weight : weights) {
            for (int i = 0; i < weight; i++)
                take(sender);
            sender++;
        }
        clockReading += 400;
        return trace();
    }
};

TEST_F(OneMoment, BeginsWithTheHeaviestAndGoesUpToItFromTheLightest)
{
    using Senders = std::vector<uint32_t>;
    const Senders all = order({5, 4, 3});
    ASSERT_EQ(all.size(), 12u);
    EXPECT_EQ(Senders(all.begin(), all.begin() + 4), (Senders{1, 3, 2, 1}));
    EXPECT_EQ(std::count(all.begin(), all.end(), 1u), 10);
}

TEST_F(OneMoment, NamesNoMoreNewOnesThanFindRoom)
{
    std::mt19937 random(3);
    policy->srcTraceThreshold = 0;
    for (int round = 0; round < 300; round++) {
        if (random() % 20 == 0)
            reset();
        tell();
        const uint32_t free = gCpuDefend.maxSrcTraceNum - gCpuDefend.useSrcTraceNum;
        const auto before = table();
        const uint32_t senders = 1 + random() % 60;
        for (uint32_t i = 0; i < 400; i++)
            take(static_cast<uint32_t>(100 * round + random() % senders));
        clockReading += 400;
        std::set<uint32_t> news;
        for (uint32_t sender : trace())
            if (!before.count(sender))
                news.insert(sender);
        ASSERT_LE(news.size(), free);
        clockReading += 10'000;
    }
}

} // namespace
