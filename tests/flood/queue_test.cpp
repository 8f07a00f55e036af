/**
 * Queue and priority: what the kernel's own queues make of them.
 */
#include <algorithm>

#include "flood_test.h"

namespace
{

constexpr Mac beyondTheBridge = {0x02, 0, 0, 0, 0, 0x99};
constexpr char plenty[] = " pps=100000 mode=pps ";

/** The protected port is one of a bridge; what it lets through leaves by another one. */
class Queue : public FloodTest
{
protected:
    void SetUp() override
    {
        FloodTest::SetUp();
        if (IsSkipped())
            return;
        command("ip link add out0 type veth peer name sink0");
        command("ip link add bridge0 type bridge mcast_snooping 0 forward_delay 0");
        command(std::string("ip link set ") + protectedPort + " master bridge0");
        command("ip link set out0 master bridge0");
        for (const char *each : {"sink0", "out0", "bridge0"})
            command(std::string("ip link set ") + each + " arp off up");
    }

    /** Whose way out is far slower than its way in, and serves control traffic first. */
    static void narrow()
    {
        command("tc qdisc add dev out0 root handle 1: tbf rate 8mbit burst 4kb limit 4000000");
        command("tc qdisc add dev out0 parent 1:1 handle 10: pfifo_fast");
    }

    /** Offer a backlog of frames of one type, then a few of another. @return how many of the
     *  backlog left the bottleneck behind the last of those */
    long overtaken()
    {
        constexpr uint32_t backlog = 300, few = 20; // 300 ms of the bottleneck
        Arrivals beyond("sink0");
        const Generator generator(peerPort);
        generator.send(frame(beyondTheBridge, etherEapol, 1000), backlog);
        generator.send(arpRequest(attacker, wanted), few);
        EXPECT_TRUE(within(
            5s,
            [&] { return beyond.count(etherEapol) == backlog && beyond.count(etherArp) == few; }))
            << beyond.count(etherEapol) << " and " << beyond.count(etherArp);
        const auto log = beyond.log();
        const auto last = std::find_if(log.rbegin(), log.rend(), [](const arrival &each) {
            return each.protocol == etherArp;
        });
        return std::count_if(log.rbegin(), last,
                             [](const arrival &each) { return each.protocol == etherEapol; });
    }
};

TEST_F(Queue, HigherOneIsServedFirst)
{
    narrow();
    start();
    bind({std::string("dot1x") + plenty + "queue=0", std::string("arp") + plenty + "queue=7"});
    EXPECT_GE(overtaken(), 200);
}

TEST_F(Queue, HigherPriorityIsServedFirst)
{
    narrow();
    start();
    bind(
        {std::string("dot1x") + plenty + "priority=1", std::string("arp") + plenty + "priority=6"});
    EXPECT_GE(overtaken(), 200);
}

TEST_F(Queue, NobodyOvertakesWithoutOne)
{
    narrow();
    start();
    bind({std::string("dot1x") + plenty, std::string("arp") + plenty});
    EXPECT_EQ(overtaken(), 0);
}

/** Settings of an entry, and what the socket buffers of its packets then have. */
struct Mark {
    const char *settings;
    uint32_t priority;
    std::optional<uint16_t> queueMapping;
};

TEST_F(Queue, IsWhatTheSocketBufferGets)
{
    const Mark marks[] = {
        {"queue=0", 2, 1},
        {"queue=1", 2, 2},
        {"queue=3", 0, 4},
        {"queue=4", 4, 5},
        {"queue=5", 4, 6},
        {"queue=6", 6, 7},
        {"queue=7", 7, 8},
        {"queue=200", 7, 201},
        {"queue=2 priority=5", 5, std::nullopt},
        {"queue=2 priority=0", 0, std::nullopt},
        {"queue=6 priority=3", 3, 7},
        {"queue=0 priority=7", 7, 1},
        {"queue=2 priority=2", 0, std::nullopt}, // neither was chosen
    };
    start();
    makePolicy({std::string("arp") + plenty});
    Arrivals leaving("out0", Direction::Out);
    for (const Mark &mark : marks) {
        ctl(std::string("car set ") + policy + " arp priority=2 queue=2");
        ctl(std::string("car set ") + policy + " arp " + mark.settings);
        ctl(std::string("bind ") + policy);
        const uint64_t before = leaving.count(etherArp);
        Generator(peerPort).send(arpRequest(attacker, wanted), 1);
        ASSERT_TRUE(within(2s, [&] { return leaving.count(etherArp) > before; })) << mark.settings;
        const arrival last = leaving.all(etherArp).back();
        EXPECT_EQ(last.priority, mark.priority) << mark.settings;
        EXPECT_EQ(last.queue_mapping, mark.queueMapping.value_or(last.queue_mapping))
            << mark.settings;
        ctl("unbind");
    }
}

TEST_F(Queue, IsNothingToPacketsOfOtherTypes)
{
    start();
    bind({std::string("arp") + plenty + "queue=7"});
    Arrivals leaving("out0", Direction::Out);
    Generator(peerPort).send(frame(beyondTheBridge, etherEapol), 1);
    ASSERT_TRUE(within(2s, [&] { return leaving.count(etherEapol) > 0; }));
    EXPECT_EQ(leaving.all(etherEapol).back().priority, 0u);
}

} // namespace
