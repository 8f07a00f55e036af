/**
 * What the layer tells of a received packet.
 */
#include <array>
#include <thread>

#include "layer_on_wire.h"

using namespace std::chrono_literals;

namespace
{

struct Received {
    packet_rxpktinfo info;
    uint16_t ethertype;
    std::array<uint8_t, 64> data;
    int32_t length;
};

class PacketsOnWire : public LayerOnWire
{
protected:
    static constexpr Mac source = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};

    void SetUp() override
    {
        LayerOnWire::SetUp();
        if (IsSkipped())
            return;
        Outcome outcome = startOnPort();
        ASSERT_EQ(outcome.result, 0) << outcome.text;
        ASSERT_EQ(set(nullptr, true, arpEntry(1000)), 0);
        zynPktTraced(0, 32);
    }

    struct Waited {
        int wakeUps;
        bool packet; /**< whether there was one, which ends it */
    };

    /** Wait for the source so long, and look at it whenever it wakes us up. */
    static Waited waitFor(std::chrono::milliseconds time)
    {
        Waited waited{};
        waited.packet = within(time, [&] {
            pollfd source{zynPktOpen(), POLLIN, 0};
            if (poll(&source, 1, 0) <= 0)
                return false;
            waited.wakeUps++;
            Received got;
            return zynPktRecv(&got.info, &got.ethertype, got.data.data(), got.data.size()) > 0;
        });
        return waited;
    }

    /** Limit types that are not traced. */
    static void limitUntraced()
    {
        for (uint32_t type : {CPD_DOT1X, CPD_LLDP}) {
            tHwCpuDefendPktCarEntry entry = arpEntry(1000);
            entry.pktType = type;
            ASSERT_EQ(set(nullptr, true, entry), 0);
        }
    }

    /** Send frames of these, of which more are sampled than are read. */
    static void sendUntraced(std::chrono::milliseconds time)
    {
        PacketSocket sender(peerPort, 0x888e);
        for (auto end = Clock::now() + time; Clock::now() < end;) {
            sender.send(Frame(bridgeGroup(0x03), source).u16(0x888e).zeros(46).bytes(), 64);
            sender.send(Frame(bridgeGroup(0x0e), source).u16(0x88cc).zeros(46).bytes(), 64);
        }
    }

    /** Send a frame, and take what the layer tells of it. */
    static Received offer(const std::vector<uint8_t> &frame)
    {
        Received got{};
        PacketSocket sender(peerPort, 0x0806);
        EXPECT_EQ(sender.send(frame, 1), 1u);
        EXPECT_TRUE(within(std::chrono::seconds(5), [&] {
            got.length = zynPktRecv(&got.info, &got.ethertype, got.data.data(), got.data.size());
            return got.length > 0;
        }));
        EXPECT_EQ(got.info.pkt_inport, if_nametoindex(protectedPort));
        EXPECT_EQ(got.ethertype, 0x0806);
        EXPECT_EQ(got.length, static_cast<int32_t>(frame.size()));
        EXPECT_EQ(std::vector<uint8_t>(got.data.begin(), got.data.begin() + 14),
                  std::vector<uint8_t>(frame.begin(), frame.begin() + 14));
        return got;
    }

    static void expectSource(const packet_rxpktinfo &info)
    {
        const std::array<uint8_t, 8> expected = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0, 0};
        EXPECT_EQ(std::memcmp(info.pkt_srcaddr, expected.data(), expected.size()), 0);
    }
};

/** Bit 12 of a tag, which may be dropped first, is part of neither number. */
TEST_F(PacketsOnWire, WithTwoTagsTellBothAndTheirSource)
{
    const packet_rxpktinfo info = offer(Frame(broadcast, source)
                                            .tag(0x88a8, 5u << 13 | 1u << 12 | 100)
                                            .tag(0x8100, 2u << 13 | 1u << 12 | 200)
                                            .u16(0x0806)
                                            .zeros(46)
                                            .bytes())
                                      .info;
    expectSource(info);
    EXPECT_EQ(info.pkt_outerpri, 5);
    EXPECT_EQ(info.pkt_innerpri, 2);
    EXPECT_EQ(info.pkt_outervid, 100);
    EXPECT_EQ(info.pkt_innervid, 200);
    EXPECT_EQ(info.pkt_dataoffset, 22);
}

TEST_F(PacketsOnWire, WithOneTagTellTheOuterOne)
{
    const packet_rxpktinfo info =
        offer(Frame(broadcast, source).tag(0x8100, 7u << 13 | 4094).u16(0x0806).zeros(46).bytes())
            .info;
    expectSource(info);
    EXPECT_EQ(info.pkt_outerpri, 7);
    EXPECT_EQ(info.pkt_innerpri, 0);
    EXPECT_EQ(info.pkt_outervid, 4094);
    EXPECT_EQ(info.pkt_innervid, 0);
    EXPECT_EQ(info.pkt_dataoffset, 18);
}

TEST_F(PacketsOnWire, WithoutTagsTellTheirSource)
{
    const packet_rxpktinfo info =
        offer(Frame(broadcast, source).u16(0x0806).zeros(46).bytes()).info;
    expectSource(info);
    EXPECT_EQ(info.pkt_outerpri, 0);
    EXPECT_EQ(info.pkt_innerpri, 0);
    EXPECT_EQ(info.pkt_outervid, 0);
    EXPECT_EQ(info.pkt_innervid, 0);
    EXPECT_EQ(info.pkt_dataoffset, 14);
}

/** By the ring, at the end of the pause after it was read, and when the sample's time is over. */
TEST_F(PacketsOnWire, WakeTheDaemonAFewTimes)
{
    EXPECT_EQ(waitFor(100ms).wakeUps, 0);
    PacketSocket(peerPort, 0x0806).send(arp, 1);
    const Waited waited = waitFor(5s);
    EXPECT_TRUE(waited.packet);
    EXPECT_GE(waited.wakeUps, 3);
    EXPECT_LE(waited.wakeUps, 4);
    EXPECT_EQ(waitFor(600ms).wakeUps, 0);
}

TEST_F(PacketsOnWire, ThatAreNotTracedCannotKeepTheDaemonBusy)
{
    limitUntraced();
    std::thread sender([] { sendUntraced(1s); });
    EXPECT_LE(waitFor(900ms).wakeUps, 180 + 20); // one each 5 ms
    sender.join();
    const int rest = waitFor(2s).wakeUps; // what is in the ring, as fast as is allowed
    EXPECT_GE(rest, 5);
    EXPECT_LE(rest, 2048 / 45 + 20);
    EXPECT_EQ(waitFor(200ms).wakeUps, 0);
}

TEST_F(PacketsOnWire, ThatFindNoRoomAreSaidOnce)
{
    testing::internal::CaptureStderr();
    zynPktTraced(31, 32);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    testing::internal::CaptureStderr();
    for (int i = 0; i < 3; i++)
        zynPktTraced(32, 32);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[platform] warning: the table of traced sources is full; others are not named until "
              "it is reset\n");
}

} // namespace
