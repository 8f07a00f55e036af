/**
 * What the layer tells of a received packet.
 */
#include <array>

#include "layer_on_wire.h"

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

} // namespace
