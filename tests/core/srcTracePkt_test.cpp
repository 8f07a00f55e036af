// Packet source tracing: what a packet is counted on, and when its sender is recorded.
#include <algorithm>
#include <array>
#include <cstring>

#include "channel/guarded.h"
#include "core_test.h"

using channel::Guarded;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

using Ip = std::array<uint8_t, 4>;
using Mac = std::array<uint8_t, 6>;

static constexpr uint32_t IPV4 = 0x0800, ARP = 0x0806;
static constexpr uint8_t ICMP = 1, IGMP = 2, TCP = 6, UDP = 17;
static constexpr Ip source{10, 1, 2, 3}, target{192, 168, 4, 5};
static constexpr Mac sender{2, 0x11, 0x22, 0x33, 0x44, 0x55};

/** A frame as the routine is given it: 80 bytes, zero past its end. */
struct Packet {
    uint32_t protocol = IPV4;
    uint32_t offSet = 14;
    std::vector<uint8_t> bytes = std::vector<uint8_t>(80, 0);
    uint32_t ifUnit = 7;
    uint16_t inner = 0;
    uint16_t outer = 0;

    uint8_t *network() { return &bytes[offSet]; }
    template <size_t N> void put(size_t at, const std::array<uint8_t, N> &what)
    {
        std::copy(what.begin(), what.end(), bytes.begin() + static_cast<long>(at));
    }
    void putShort(size_t at, uint16_t value)
    {
        bytes[at] = static_cast<uint8_t>(value >> 8);
        bytes[at + 1] = static_cast<uint8_t>(value);
    }
};

static Packet frame(uint32_t protocol, uint32_t offSet)
{
    Packet packet;
    packet.protocol = protocol;
    packet.offSet = offSet;
    packet.put(0, Mac{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
    packet.put(6, sender);
    packet.putShort(12, static_cast<uint16_t>(protocol));
    return packet;
}

static Packet arp(const Ip &from = source, const Ip &to = target, uint32_t offSet = 14)
{
    Packet packet = frame(ARP, offSet);
    packet.put(offSet, std::array<uint8_t, 8>{0, 1, 8, 0, 6, 4, 0, 1});
    packet.put(offSet + 8, Mac{9, 9, 9, 9, 9, 9}); // not where the source address is taken from
    packet.put(offSet + 14, from);
    packet.put(offSet + 24, to);
    return packet;
}

static Packet ipv4(uint8_t ipType, uint16_t srcPort = 0, uint16_t dstPort = 0, uint8_t words = 5,
                   uint32_t offSet = 14)
{
    Packet packet = frame(IPV4, offSet);
    packet.network()[0] = static_cast<uint8_t>(0x40 | words);
    packet.network()[8] = 64; // time to live
    packet.network()[9] = ipType;
    packet.put(offSet + 12, source);
    packet.put(offSet + 16, target);
    packet.putShort(offSet + 4u * words, srcPort);
    packet.putShort(offSet + 4u * words + 2, dstPort);
    return packet;
}

class SrcTracePkt : public CoreTest
{
protected:
    void SetUp() override
    {
        CoreTest::SetUp();
        policy = addBarePolicy("p");
        policy->srcTraceEnable = 1;
        policy->srcTraceThreshold = policy->srcTraceAlarmThreshold = 0xFFFF;
        bindSystem("p");
        scripted::script.ports[7] = {3, 4};
        scripted::script.ports[8] = {3, 4};
    }

    static void bindSystem(const std::string &name)
    {
        memset(gCpuDefend.policyName, 0, sizeof gCpuDefend.policyName);
        memcpy(gCpuDefend.policyName, name.data(), name.size());
        gCpuDefend.policyNameLen = static_cast<uint8_t>(name.size());
    }

    static int32_t trace(const Packet &packet)
    {
        return cpuDefendSrcTracePktData(packet.ifUnit, packet.protocol, packet.bytes.data(),
                                        packet.offSet, packet.inner, packet.outer);
    }

    static tCpuDefendSrcTraceEntry *recorded(uint32_t pktType, const Ip &ip = source,
                                             const Mac &mac = sender, uint32_t ifUnit = 7)
    {
        return cpuDefendSrcTraceEntryGet(ifUnit, ip.data(), pktType, mac.data());
    }

    /** A CAR entry whose next packet is not the first of its tick, and over the threshold. */
    tCpuDefendCarPktEntry *addBursting(uint32_t pktType)
    {
        tCpuDefendCarPktEntry *entry = addCar("p", pktType);
        policy->srcTraceThreshold = 10;
        entry->pktSrcTraceNum = 11;
        entry->timePre = sysGetUpTime();
        return entry;
    }

    /** Total, window and alarm counts. */
    static std::array<uint32_t, 3> counts(const tCpuDefendCarPktEntry *entry)
    {
        return {entry->pktSrcTraceTotalNum, entry->pktSrcTraceNum, entry->pktSrcTraceAlarmNum};
    }

    /** Types whose entries of the policy counted a packet, all three counters by one. */
    std::vector<uint32_t> counted(const Packet &packet)
    {
        for (tCpuDefendCarPktEntry *entry : carEntries(policy)) {
            entry->pktSrcTraceTotalNum = 100;
            entry->pktSrcTraceNum = 200;
            entry->pktSrcTraceAlarmNum = 300;
        }
        EXPECT_EQ(trace(packet), 0);
        std::vector<uint32_t> types;
        for (const tCpuDefendCarPktEntry *entry : carEntries(policy)) {
            if (counts(entry) == std::array<uint32_t, 3>{101, 201, 301})
                types.push_back(entry->pktType);
            else
                EXPECT_EQ(counts(entry), (std::array<uint32_t, 3>{100, 200, 300}));
        }
        return types;
    }

    static std::string printedBy(const Packet &packet, uint8_t debug = 1)
    {
        gCpuDefend.cpuDefendDebug = debug;
        CaptureStderr();
        trace(packet);
        return GetCapturedStderr();
    }

    tCpuDefendPolicyEntry *policy;
};

/* ---- Which policy -----------------------------------------------------------------------------
 */

TEST_F(SrcTracePkt, InterfaceWithoutAPlaceIsRefused)
{
    const tCpuDefendCarPktEntry *entry = addBursting(1);
    const std::string before = image(*entry);
    Packet packet = arp();
    packet.ifUnit = 9;
    EXPECT_EQ(trace(packet), -1);
    EXPECT_EQ(image(*entry), before);
    EXPECT_EQ(gCpuDefend.useSrcTraceNum, 0u);
}

TEST_F(SrcTracePkt, SystemsPolicyServesWhereThereIsNoSlot)
{
    const tCpuDefendCarPktEntry *entry = addCar("p", 1);
    cpuDefendSlotEntryAdd(4, 3); // the numbers the other way round
    EXPECT_EQ(trace(arp()), 0);
    EXPECT_EQ(entry->pktSrcTraceNum, 1u);
}

TEST_F(SrcTracePkt, SlotsOwnPolicyComesBeforeTheSystems)
{
    const tCpuDefendCarPktEntry *systems = addCar("p", 1);
    addPolicy("slot")->srcTraceEnable = 1;
    for (uint8_t mode : {CPUDEFEND_FIXED, CPUDEFEND_CPURAT_CONTROL}) {
        addSlot(3, 4, "slot")->policyMode = mode;
        EXPECT_EQ(trace(arp()), 0);
        EXPECT_EQ(findCar("slot", 1)->pktSrcTraceNum, mode + 1u);
        EXPECT_EQ(systems->pktSrcTraceNum, 0u);
    }
}

TEST_F(SrcTracePkt, SlotWithoutAPolicyDoesNotFallBackOnTheSystems)
{
    const tCpuDefendCarPktEntry *systems = addCar("p", 1);
    tCpuDefendSlotEntry *slot = addSlot(3, 4, "");
    EXPECT_EQ(trace(arp()), -1);
    memcpy(slot->policyName, "nobody", 6);
    slot->policyNameLen = 6;
    EXPECT_EQ(trace(arp()), -1);
    EXPECT_EQ(systems->pktSrcTraceNum, 0u);
}

TEST_F(SrcTracePkt, NoPolicyIsRefused)
{
    bindSystem("");
    EXPECT_EQ(trace(arp()), -1);
    bindSystem("nobody");
    EXPECT_EQ(trace(arp()), -1);
}

TEST_F(SrcTracePkt, TracingMustBeSwitchedOnByAOne)
{
    const tCpuDefendCarPktEntry *entry = addBursting(1);
    const std::string before = image(*entry);
    for (uint8_t value : {0, 2, 3, 255}) {
        policy->srcTraceEnable = value;
        EXPECT_EQ(trace(arp()), -1) << +value;
    }
    EXPECT_EQ(image(*entry), before);
    EXPECT_EQ(gCpuDefend.useSrcTraceNum, 0u);
}

TEST_F(SrcTracePkt, PlaceIsLookedUpWholeAndRecordedByItsLowBytes)
{
    addBursting(1);
    scripted::script.ports[7] = {257, 0xFFFFFF02};
    addSlot(1, 2, "nobody"); // not that slot
    EXPECT_EQ(trace(arp()), 0);
    ASSERT_NE(recorded(1), nullptr);
    EXPECT_EQ(recorded(1)->sysId, 1);
    EXPECT_EQ(recorded(1)->slotId, 2);
}

/* ---- Classification ---------------------------------------------------------------------------
 */

TEST_F(SrcTracePkt, PacketsAreCountedByType)
{
    for (uint32_t type = 0; type <= 58; type++)
        ASSERT_NE(addCar("p", type), nullptr);
    Packet arpAsIp = arp(), reply = arp(), ttl1 = ipv4(89);
    arpAsIp.protocol = IPV4;
    reply.network()[7] = 2;
    ttl1.network()[8] = 1;
    Packet ipAsArp = ipv4(TCP, 0, 23), wide = arp(), wideIp = ipv4(ICMP);
    ipAsArp.protocol = ARP;
    wide.protocol = 0x10806;
    wideIp.protocol = 0x10800;
    Packet noHeader = ipv4(TCP);
    noHeader.network()[0] = 0x40; // header of 0 bytes: the ports are the first words
    noHeader.network()[3] = 23;
    const std::vector<uint32_t> none;
    const struct {
        const char *what;
        Packet packet;
        std::vector<uint32_t> types;
    } rows[] = {
        {"ARP request", arp(), {1}},
        {"ARP reply", reply, {1}},
        {"ICMP", ipv4(ICMP), {14}},
        {"ICMP has no ports", ipv4(ICMP, 68, 23), {14}},
        {"IGMP", ipv4(IGMP), {7}},
        {"TCP", ipv4(TCP, 1024, 80), {12}},
        {"telnet is TCP as well", ipv4(TCP, 1024, 23), {11, 12}},
        {"from port 23 is not telnet", ipv4(TCP, 23, 1024), {12}},
        {"port 279 is not 23", ipv4(TCP, 0, 0x0117), {12}},
        {"telnet behind options", ipv4(TCP, 1024, 23, 6), {11, 12}},
        {"telnet behind the longest header", ipv4(TCP, 1024, 23, 15), {11, 12}},
        {"telnet in the middle of a tagged frame", ipv4(TCP, 1024, 23, 5, 18), {11, 12}},
        {"telnet without a header", noHeader, {11, 12}},
        {"DHCP client", ipv4(UDP, 68, 67), {21}},
        {"from port 68 to any", ipv4(UDP, 68, 1024), {21}},
        {"DHCP server", ipv4(UDP, 67, 68), {22}},
        {"from port 1024 to 67", ipv4(UDP, 1024, 67), none},
        {"UDP to port 23", ipv4(UDP, 1024, 23), none},
        {"DHCP behind options", ipv4(UDP, 68, 67, 7), {21}},
        {"OSPF with a time to live of 1", ttl1, none},
        {"protocol 255", ipv4(255, 68, 23), none},
        {"protocol by the argument: IPv4 as ARP", ipAsArp, {1}},
        {"ethertype is not cut to 16 bits", wide, none},
        {"ethertype of IPv4 neither", wideIp, none},
    };
    for (const auto &row : rows)
        EXPECT_EQ(counted(row.packet), row.types) << row.what;
    EXPECT_EQ(gCpuDefend.useSrcTraceNum, 0u);
}

/* ---- The burst --------------------------------------------------------------------------------
 */

TEST_F(SrcTracePkt, FirstPacketOfATickOnlyCounts)
{
    tCpuDefendCarPktEntry *entry = addBursting(1);
    policy->srcTraceThreshold = policy->srcTraceAlarmThreshold = 0;
    entry->pktSrcTraceNum = entry->pktSrcTraceAlarmNum = 1000000;
    for (uint32_t pre : {0u, 99u, 101u, 0xFFFFFFFFu}) {
        entry->timePre = pre;
        EXPECT_EQ(trace(arp()), 0);
        EXPECT_EQ(entry->timePre, 100u);
    }
    EXPECT_EQ(gCpuDefend.useSrcTraceNum, 0u);
    EXPECT_EQ(counts(entry), (std::array<uint32_t, 3>{4, 1000004, 1000004}));
    trace(arp());
    EXPECT_NE(recorded(1), nullptr);
}

TEST_F(SrcTracePkt, PacketIsComparedBeforeItIsCounted)
{
    tCpuDefendCarPktEntry *entry = addBursting(1);
    for (uint32_t threshold : {0u, 1u, 5u, 0xFFFFu}) {
        policy->srcTraceThreshold = static_cast<uint16_t>(threshold);
        entry->pktSrcTraceNum = threshold; // exceeds it only once this packet is counted
        trace(arp());
        EXPECT_EQ(recorded(1), nullptr) << threshold;
        EXPECT_EQ(entry->pktSrcTraceNum, threshold + 1);
        trace(arp());
        ASSERT_NE(recorded(1), nullptr) << threshold;
        cpuDefendSrcTraceEntryDel(recorded(1));
    }
}

TEST_F(SrcTracePkt, CountsAreUnsigned)
{
    addBursting(1)->pktSrcTraceNum = 0x80000000;
    trace(arp());
    EXPECT_NE(recorded(1), nullptr);
}

TEST_F(SrcTracePkt, AlarmThresholdAloneRecords)
{
    tCpuDefendCarPktEntry *entry = addBursting(1);
    policy->srcTraceThreshold = 1000;
    policy->srcTraceAlarmThreshold = 3;
    entry->pktSrcTraceAlarmNum = 3;
    trace(arp());
    EXPECT_EQ(recorded(1), nullptr);
    EXPECT_EQ(printedBy(arp()), "[cpudefend]come to arp \r\n"); // and no word of a threshold
    EXPECT_NE(recorded(1), nullptr);
}

TEST_F(SrcTracePkt, AlarmSwitchIsNotRead)
{
    tCpuDefendCarPktEntry *entry = addBursting(1);
    policy->srcTraceThreshold = 1000;
    policy->srcTraceAlarmThreshold = 3;
    for (uint8_t value : {0, 1, 2, 255}) {
        policy->srcTraceAlarmEnable = value;
        entry->pktSrcTraceAlarmNum = 4;
        trace(arp());
        ASSERT_NE(recorded(1), nullptr) << +value;
        cpuDefendSrcTraceEntryDel(recorded(1));
    }
}

static uint64_t restless;

TEST_F(SrcTracePkt, UpTimeIsReadOncePerPacket)
{
    const tCpuDefendCarPktEntry *telnet = addCar("p", 11), *tcp = addCar("p", 12);
    restless = 0;
    osClockSet([] { return restless += 1000; }); // a new tick at each reading
    trace(ipv4(TCP, 1024, 23));
    osClockSet(now);
    EXPECT_EQ(restless, 1000u);
    EXPECT_EQ(telnet->timePre, 100u);
    EXPECT_EQ(tcp->timePre, 100u);
}

/* ---- What is recorded -------------------------------------------------------------------------
 */

TEST_F(SrcTracePkt, RecordedPacketCountsTwiceInTheTotal)
{
    tCpuDefendCarPktEntry *entry = addBursting(1);
    entry->pktSrcTraceTotalNum = 50;
    entry->pktSrcTraceAlarmNum = 7;
    trace(arp());
    EXPECT_EQ(counts(entry), (std::array<uint32_t, 3>{52, 12, 8}));
    EXPECT_EQ(recorded(1)->totalNum, 51u); // between the two
    trace(arp());
    EXPECT_EQ(counts(entry), (std::array<uint32_t, 3>{54, 13, 9}));
    EXPECT_EQ(recorded(1)->totalNum, 53u);
}

TEST_F(SrcTracePkt, ArpRecordsTheProtocolAddresses)
{
    addBursting(1);
    Packet packet = arp({1, 2, 3, 4}, {5, 6, 7, 8}, 22);
    packet.inner = 0x0123;
    packet.outer = 0x0FED;
    trace(packet);
    const tCpuDefendSrcTraceEntry *entry = recorded(1, {1, 2, 3, 4});
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(memcmp(entry->dstIp, "\5\6\7\10", 4), 0);
    EXPECT_EQ(entry->innerVlan, 0x0123);
    EXPECT_EQ(entry->outerVlan, 0x0FED);
    EXPECT_EQ(entry->sysId, 3);
    EXPECT_EQ(entry->slotId, 4);
    EXPECT_EQ(entry->ifUnit, 7u);
    EXPECT_EQ(memcmp(entry->srcMac, sender.data(), 6), 0); // of the frame, not of the ARP body
}

TEST_F(SrcTracePkt, TelnetPacketIsRecordedOnBothEntries)
{
    const tCpuDefendCarPktEntry *tcp = addBursting(12), *telnet = addBursting(11);
    trace(ipv4(TCP, 1024, 23));
    EXPECT_NE(recorded(11), nullptr);
    EXPECT_NE(recorded(12), nullptr);
    EXPECT_EQ(gCpuDefend.useSrcTraceNum, 2u);
    EXPECT_EQ(tcp->pktSrcTraceTotalNum, 2u);
    EXPECT_EQ(telnet->pktSrcTraceTotalNum, 2u);
    // In list order, TELNET before TCP.
    EXPECT_EQ(recorded(11), &gCpuDefend.srcTraceTable[7]);
    EXPECT_EQ(recorded(12), &gCpuDefend.srcTraceTable[6]);
}

TEST_F(SrcTracePkt, LaterPacketOfASourceOverwritesItsEntry)
{
    tCpuDefendCarPktEntry *car = addBursting(1);
    policy->srcTracePktDataEnable = 1;
    Packet packet = arp();
    packet.inner = 10;
    packet.outer = 20;
    trace(packet);
    const tCpuDefendSrcTraceEntry *entry = recorded(1);

    Packet next = arp(source, {1, 1, 1, 1});
    next.inner = 11;
    next.outer = 21;
    next.bytes[79] = 0xAB;
    scripted::script.ports[7] = {5, 6};
    trace(next);
    EXPECT_EQ(recorded(1), entry);
    EXPECT_EQ(gCpuDefend.useSrcTraceNum, 1u);
    EXPECT_EQ(memcmp(entry->dstIp, "\1\1\1\1", 4), 0);
    EXPECT_EQ(entry->innerVlan, 11);
    EXPECT_EQ(entry->outerVlan, 21);
    EXPECT_EQ(entry->pktData[79], 0xAB);
    EXPECT_EQ(entry->sysId, 5);
    EXPECT_EQ(entry->slotId, 6);
    EXPECT_EQ(entry->totalNum, car->pktSrcTraceTotalNum - 1);
}

TEST_F(SrcTracePkt, AnotherAddressMacOrInterfaceIsAnotherEntry)
{
    addBursting(1);
    trace(arp());
    trace(arp({10, 1, 2, 4}));
    Packet otherMac = arp(), otherPort = arp();
    otherMac.bytes[11]++;
    otherPort.ifUnit = 8;
    trace(otherMac);
    trace(otherPort);
    EXPECT_EQ(gCpuDefend.useSrcTraceNum, 4u);
    EXPECT_NE(recorded(1, source, {2, 0x11, 0x22, 0x33, 0x44, 0x56}), nullptr);
    EXPECT_NE(recorded(1, source, sender, 8), nullptr);
}

TEST_F(SrcTracePkt, DataIsKeptFromTheFramesStartWhenSwitchedOnByAOne)
{
    addBursting(1);
    Packet packet = arp(source, target, 30);
    for (size_t i = 60; i < 80; i++)
        packet.bytes[i] = static_cast<uint8_t>(i);
    const std::string zero(80, '\0');
    for (uint8_t value : {0, 2, 255, 1}) {
        policy->srcTracePktDataEnable = value;
        trace(packet);
        ASSERT_NE(recorded(1), nullptr);
        const std::string kept = image(recorded(1)->pktData);
        EXPECT_EQ(kept, value == 1 ? std::string(packet.bytes.begin(), packet.bytes.end()) : zero)
            << +value;
    }
}

TEST_F(SrcTracePkt, DataOnceKeptStaysWhenSwitchedOff)
{
    addBursting(1);
    policy->srcTracePktDataEnable = 1;
    trace(arp());
    const std::string kept = image(recorded(1)->pktData);
    policy->srcTracePktDataEnable = 2;
    trace(arp(source, {1, 1, 1, 1}));
    EXPECT_EQ(image(recorded(1)->pktData), kept);
    EXPECT_EQ(recorded(1)->dstIp[0], 1);
}

TEST_F(SrcTracePkt, FullPoolGoesOnWithTheNextEntry)
{
    addBursting(11);
    const tCpuDefendCarPktEntry *tcp = addBursting(12);
    cpuDefendSrcTraceEntryAdd(7, source.data(), 12, sender.data());
    for (uint8_t i = 1; i < gCpuDefend.maxSrcTraceNum; i++)
        cpuDefendSrcTraceEntryAdd(100, Ip{0, 0, 0, i}.data(), 1, sender.data());
    trace(ipv4(TCP, 1024, 23));
    EXPECT_EQ(recorded(11), nullptr);
    EXPECT_EQ(recorded(12)->totalNum, 1u); // a source that it has is still brought up to date
    EXPECT_EQ(tcp->pktSrcTraceTotalNum, 2u);
}

/* ---- Debug lines ------------------------------------------------------------------------------
 */

TEST_F(SrcTracePkt, ArpLineIsPrintedOncePerCarEntry)
{
    for (uint32_t type : {0, 1, 14})
        addCar("p", type);
    const std::string line = "[cpudefend]come to arp \r\n";
    EXPECT_EQ(printedBy(arp()), line + line + line);
}

TEST_F(SrcTracePkt, IpLineIsPrintedOncePerCarEntry)
{
    for (uint32_t type : {1, 7, 14, 58})
        addCar("p", type);
    for (uint8_t ipType : {ICMP, TCP, uint8_t{0}, uint8_t{255}}) {
        const std::string line =
            "[cpudefend]come to ip,ipType :" + std::to_string(ipType) + " \r\n";
        EXPECT_EQ(printedBy(ipv4(ipType)), line + line + line + line);
    }
}

TEST_F(SrcTracePkt, ThresholdLineNamesArpWhateverThePacket)
{
    addBursting(14);
    policy->srcTraceThreshold = 5;
    EXPECT_EQ(printedBy(ipv4(ICMP)),
              "[cpudefend]come to ip,ipType :1 \r\n"
              "\r\narp pkt packet over the srcTrace threshold number: 5.\r\n");
}

TEST_F(SrcTracePkt, FullPoolPrintsTheCarTablesMessage)
{
    addBursting(1);
    for (uint8_t i = 0; i < gCpuDefend.maxSrcTraceNum; i++)
        cpuDefendSrcTraceEntryAdd(100, Ip{0, 0, 0, i}.data(), 1, sender.data());
    EXPECT_EQ(printedBy(arp()), "[cpudefend]come to arp \r\n"
                                "\r\narp pkt packet over the srcTrace threshold number: 10.\r\n"
                                "[cpuDefend] no memery to add carPkt!\r\n");
}

TEST_F(SrcTracePkt, LinesArePrintedInDebugOnly)
{
    addBursting(1);
    for (uint8_t debug : {0, 2, 255})
        EXPECT_EQ(printedBy(arp(), debug), "") << +debug;
}

/* ---- Safety and the rest ----------------------------------------------------------------------
 */

TEST_F(SrcTracePkt, NeverReadsBeyond80Bytes)
{
    for (uint32_t type : {1, 7, 11, 12, 14, 21, 22})
        addBursting(type);
    policy->srcTracePktDataEnable = 1;
    Guarded memory(std::vector<uint8_t>(80, 0xFF));
    for (uint32_t offSet = 0; offSet < 80; offSet++)
        for (uint32_t words = 0; words <= 15; words++)
            for (uint8_t ipType : {ICMP, IGMP, TCP, UDP}) {
                memory.data()[offSet] = static_cast<uint8_t>(0x40 | words);
                if (offSet + 9 < 80)
                    memory.data()[offSet + 9] = ipType;
                for (uint32_t protocol : {IPV4, ARP})
                    ASSERT_EQ(cpuDefendSrcTracePktData(7, protocol, memory.data(), offSet, 0, 0),
                              0);
            }
    EXPECT_TRUE(memory.intact());
    EXPECT_GT(gCpuDefend.useSrcTraceNum, 0u);
}

TEST_F(SrcTracePkt, WhatLiesBeyondTheFrameIsZero)
{
    addBursting(1);
    Guarded memory(std::vector<uint8_t>(80, 0xFF));
    cpuDefendSrcTracePktData(7, ARP, memory.data(), 64, 0, 0); // sender at 78, target at 88
    const Mac broadcast{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    const tCpuDefendSrcTraceEntry *entry = recorded(1, {0xFF, 0xFF, 0, 0}, broadcast);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(memcmp(entry->dstIp, "\0\0\0\0", 4), 0);
}

TEST_F(SrcTracePkt, FrameMayStandAtAnOddAddress)
{
    addBursting(11);
    const Packet packet = ipv4(TCP, 1024, 23, 5, 15);
    std::vector<uint8_t> shifted(packet.bytes);
    shifted.insert(shifted.begin(), 0);
    EXPECT_EQ(cpuDefendSrcTracePktData(7, IPV4, shifted.data() + 1, 15, 0, 0), 0);
    EXPECT_NE(recorded(11), nullptr);
}

TEST_F(SrcTracePkt, AlarmSendsNoTrap)
{
    sendCpuDefendSrcTraceAlarmTrap();
    EXPECT_TRUE(scripted::calls.empty());
}

/* ---- The hook that packets come in by --------------------------------------------------------
 */

class SrcTraceHook : public SrcTracePkt
{
protected:
    /** Hand over @a length bytes of the packet, which nobody may read beyond. */
    static int32_t receive(const Packet &packet, size_t length)
    {
        std::vector<uint8_t> frame = packet.bytes;
        frame.resize(length);
        Guarded memory(frame);
        packet_rxpktinfo info{};
        info.pkt_inport = packet.ifUnit;
        info.pkt_dataoffset = static_cast<uint8_t>(packet.offSet);
        info.pkt_innervid = packet.inner;
        info.pkt_outervid = packet.outer;
        const int32_t result =
            cpuDefendSrcTracePkt(packet.ifUnit, static_cast<uint16_t>(packet.protocol), &info,
                                 memory.data(), static_cast<int32_t>(length));
        EXPECT_EQ(memory.content(), frame);
        EXPECT_TRUE(memory.intact());
        return result;
    }
};

TEST_F(SrcTraceHook, PacketIsTracedWithAllThatIsKnownOfIt)
{
    addBursting(1);
    policy->srcTracePktDataEnable = 1;
    Packet packet = arp(source, target, 18);
    packet.inner = 0x0123;
    packet.outer = 0x0ABC;
    EXPECT_EQ(receive(packet, 80), 0);
    const tCpuDefendSrcTraceEntry *entry = recorded(1);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->ifUnit, 7u);
    EXPECT_EQ(entry->sysId, 3);
    EXPECT_EQ(entry->slotId, 4);
    EXPECT_EQ(entry->innerVlan, 0x0123);
    EXPECT_EQ(entry->outerVlan, 0x0ABC);
    EXPECT_EQ(memcmp(entry->dstIp, target.data(), 4), 0);
    EXPECT_EQ(memcmp(entry->pktData, packet.bytes.data(), 80), 0);
}

TEST_F(SrcTraceHook, ShortFrameCountsAsZeroPastItsEnd)
{
    policy->srcTracePktDataEnable = 1;
    for (size_t length : {size_t{1}, size_t{6}, size_t{14}, size_t{34}, size_t{42}, size_t{79}}) {
        addBursting(14);
        const Packet whole = ipv4(ICMP, 0x1234, 0x5678);
        Packet packet = whole;
        std::fill(packet.bytes.begin() + 42, packet.bytes.end(), uint8_t{0xEE});
        EXPECT_EQ(receive(packet, length), 0);
        if (length < 34) { // the protocol, or a part of the addresses, is missing
            EXPECT_EQ(recorded(14), nullptr) << length;
        } else {
            ASSERT_NE(recorded(14), nullptr) << length;
            std::vector<uint8_t> kept(packet.bytes.begin(),
                                      packet.bytes.begin() + static_cast<long>(length));
            kept.resize(80);
            EXPECT_EQ(memcmp(recorded(14)->pktData, kept.data(), 80), 0) << length;
            cpuDefendSrcTraceEntryDel(recorded(14));
        }
        cpuDefendCarPktEntryDel(findCar("p", 14));
    }
}

TEST_F(SrcTraceHook, LongFrameIsLookedAtForItsFirstEightyBytes)
{
    addBursting(1);
    policy->srcTracePktDataEnable = 1;
    const Packet packet = arp();
    EXPECT_EQ(receive(packet, 1500), 0);
    ASSERT_NE(recorded(1), nullptr);
    EXPECT_EQ(memcmp(recorded(1)->pktData, packet.bytes.data(), 80), 0);
}

TEST_F(SrcTraceHook, OffsetMustLieWithinTheEightyBytes)
{
    const tCpuDefendCarPktEntry *entry = addCar("p", 1);
    Packet packet = arp();
    for (uint32_t offSet : {80u, 81u, 128u, 255u}) {
        packet.offSet = offSet;
        EXPECT_EQ(receive(packet, 80), -1) << offSet;
    }
    EXPECT_EQ(entry->pktSrcTraceNum, 0u);
    packet.offSet = 79;
    EXPECT_EQ(receive(packet, 80), 0);
    EXPECT_EQ(entry->pktSrcTraceNum, 1u);
}

TEST_F(SrcTraceHook, VlanIdsAreTheLowTwelveBits)
{
    addBursting(1);
    Packet packet = arp();
    packet.inner = 0xF123;
    packet.outer = 0xEFFF;
    EXPECT_EQ(receive(packet, 80), 0);
    ASSERT_NE(recorded(1), nullptr);
    EXPECT_EQ(recorded(1)->innerVlan, 0x0123);
    EXPECT_EQ(recorded(1)->outerVlan, 0x0FFF);
}

TEST_F(SrcTraceHook, WithoutAFrameThereIsNothingToTrace)
{
    const tCpuDefendCarPktEntry *entry = addCar("p", 1);
    Packet packet = arp();
    packet_rxpktinfo info{};
    info.pkt_dataoffset = 14;
    EXPECT_EQ(cpuDefendSrcTracePkt(7, ARP, nullptr, packet.bytes.data(), 80), -1);
    EXPECT_EQ(cpuDefendSrcTracePkt(7, ARP, &info, nullptr, 80), -1);
    for (int32_t length : {0, -1, INT32_MIN})
        EXPECT_EQ(cpuDefendSrcTracePkt(7, ARP, &info, packet.bytes.data(), length), -1) << length;
    EXPECT_EQ(entry->pktSrcTraceNum, 0u);
}
