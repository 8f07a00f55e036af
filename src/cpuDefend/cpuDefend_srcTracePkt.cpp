/**
 * Packet source tracing: classify a packet that reached the CPU, count it on its policy's CAR
 * entries, and record its sender when it comes in a burst.
 */
#include <string.h>

#include "cpuDefend.h"

namespace
{

constexpr uint32_t ETH_SRC = 6;      // offset of the source address in a frame
constexpr uint16_t VLAN_ID = 0x0FFF; // of the tag control information, IEEE 802.1Q
constexpr uint32_t ETHERTYPE_IPV4 = 0x0800;
constexpr uint32_t ETHERTYPE_ARP = 0x0806;
constexpr uint8_t ICMP = 1, IGMP = 2, TCP = 6, UDP = 17;
constexpr uint16_t TELNET_PORT = 23, DHCP_SERVER_PORT = 67, DHCP_CLIENT_PORT = 68;

/** What tracing reads of a packet. */
struct tPacket {
    uint32_t protocol;
    uint8_t srcMac[6];
    uint8_t srcIp[4];
    uint8_t dstIp[4];
    uint8_t ipType; /**< IPv4 protocol */
    uint16_t srcPort;
    uint16_t dstPort;
};

/** The bytes that a caller vouches for; what lies beyond them reads as zero. */
class Frame
{
public:
    explicit Frame(const unsigned char *buf) : buf_(buf) {}

    uint8_t byte(uint32_t at) const { return at < CPUDEFEND_PKTDATA_LEN ? buf_[at] : 0; }

    uint16_t word(uint32_t at) const { return static_cast<uint16_t>(byte(at) << 8 | byte(at + 1)); }

    template <uint32_t N> void copy(uint8_t (&to)[N], uint32_t at) const
    {
        for (uint32_t i = 0; i < N; i++)
            to[i] = byte(at + i);
    }

private:
    const unsigned char *buf_;
};

void parseArp(const Frame &frame, uint32_t at, tPacket *packet)
{
    frame.copy(packet->srcIp, at + 14); // sender protocol address, RFC 826
    frame.copy(packet->dstIp, at + 24); // target protocol address
}

void parseIpv4(const Frame &frame, uint32_t at, tPacket *packet)
{
    packet->ipType = frame.byte(at + 9);
    frame.copy(packet->srcIp, at + 12);
    frame.copy(packet->dstIp, at + 16);
    if (packet->ipType != TCP && packet->ipType != UDP)
        return;
    const uint32_t transport = at + 4u * (frame.byte(at) & 0x0F);
    packet->srcPort = frame.word(transport);
    packet->dstPort = frame.word(transport + 2);
}

tPacket parse(uint32_t protocol, const unsigned char *buf, uint32_t offSet)
{
    const Frame frame(buf);
    tPacket packet{};
    packet.protocol = protocol;
    if (protocol != ETHERTYPE_ARP && protocol != ETHERTYPE_IPV4)
        return packet;
    frame.copy(packet.srcMac, ETH_SRC);
    if (protocol == ETHERTYPE_ARP)
        parseArp(frame, offSet, &packet);
    else
        parseIpv4(frame, offSet, &packet);
    return packet;
}

/** Debug lines of a packet, printed once for every CAR entry that it is held against. */
void report(const tPacket &packet)
{
    if (packet.protocol == ETHERTYPE_ARP)
        CPUDEFEND_DEBUG("[cpudefend]come to arp \r\n");
    else if (packet.protocol == ETHERTYPE_IPV4)
        CPUDEFEND_DEBUG("[cpudefend]come to ip,ipType :%d \r\n", packet.ipType);
}

/** What makes a packet one of a type. A port of 0 stands for any. */
struct tMatch {
    uint8_t pktType;
    uint32_t protocol;
    uint8_t ipType;
    uint16_t srcPort;
    uint16_t dstPort;
};

/** A telnet packet is both TELNET and TCP. */
constexpr tMatch matches[] = {
    {CPUDEFEND_PKTTYPE_ARP, ETHERTYPE_ARP, 0, 0, 0},
    {CPUDEFEND_PKTTYPE_ICMP, ETHERTYPE_IPV4, ICMP, 0, 0},
    {CPUDEFEND_PKTTYPE_IGMP, ETHERTYPE_IPV4, IGMP, 0, 0},
    {CPUDEFEND_PKTTYPE_TCP, ETHERTYPE_IPV4, TCP, 0, 0},
    {CPUDEFEND_PKTTYPE_TELNET, ETHERTYPE_IPV4, TCP, 0, TELNET_PORT},
    {CPUDEFEND_PKTTYPE_DHCPCLIENT, ETHERTYPE_IPV4, UDP, DHCP_CLIENT_PORT, 0},
    {CPUDEFEND_PKTTYPE_DHCPSERVER, ETHERTYPE_IPV4, UDP, DHCP_SERVER_PORT, 0},
};

/** Whether all that is traced has frames: an entry of another type would never be counted on. */
constexpr bool haveFrames()
{
    for (const tMatch &match : matches)
        if (!zynPktHasFrames(match.pktType))
            return false;
    return true;
}
static_assert(haveFrames());

bool isOfType(const tPacket &packet, uint8_t pktType)
{
    for (const tMatch &match : matches) {
        if (match.pktType == pktType)
            return match.protocol == packet.protocol && match.ipType == packet.ipType &&
                   (match.srcPort == 0 || match.srcPort == packet.srcPort) &&
                   (match.dstPort == 0 || match.dstPort == packet.dstPort);
    }
    return false;
}

/**
 * Whether the packet is one of a burst: not the first in its tick of up-time, and beyond a
 * threshold of packets in the window.
 */
bool isBurst(const tCpuDefendPolicyEntry *pPolicy, tCpuDefendCarPktEntry *entry, uint32_t tickNow)
{
    if (entry->timePre != tickNow) {
        entry->timePre = tickNow;
        return false;
    }
    const bool overThreshold = pPolicy->srcTraceThreshold < entry->pktSrcTraceNum;
    if (overThreshold)
        CPUDEFEND_DEBUG("\r\narp pkt packet over the srcTrace threshold number: %d.\r\n",
                        pPolicy->srcTraceThreshold);
    return overThreshold || pPolicy->srcTraceAlarmThreshold < entry->pktSrcTraceAlarmNum;
}

void count(tCpuDefendCarPktEntry *entry)
{
    entry->pktSrcTraceTotalNum++;
    entry->pktSrcTraceNum++;
    entry->pktSrcTraceAlarmNum++;
}

/** What is recorded of a packet besides what parsing found. */
struct tReceived {
    uint32_t ifUnit;
    tPhyIfInfo phyInfo;
    uint16_t innerVlan;
    uint16_t outerVlan;
    const unsigned char *buf;
    bool keepData;
};

void record(const tPacket &packet, const tReceived &received, tCpuDefendCarPktEntry *entry)
{
    tCpuDefendSrcTraceEntry *trace =
        cpuDefendSrcTraceEntryAdd(received.ifUnit, packet.srcIp, entry->pktType, packet.srcMac);
    if (!trace)
        return;
    trace->innerVlan = received.innerVlan;
    trace->outerVlan = received.outerVlan;
    memcpy(trace->dstIp, packet.dstIp, sizeof trace->dstIp);
    trace->totalNum = entry->pktSrcTraceTotalNum;
    entry->pktSrcTraceTotalNum++; // twice for a recorded packet: front ends show such totals
    if (received.keepData)
        memcpy(trace->pktData, received.buf, sizeof trace->pktData);
    trace->sysId = static_cast<uint8_t>(received.phyInfo.unit);
    trace->slotId = static_cast<uint8_t>(received.phyInfo.slot);
}

/** The policy in force where the packet came in: the slot's own, else the system's. */
tCpuDefendPolicyEntry *policyAt(const tPhyIfInfo &phyInfo)
{
    const tCpuDefendSlotEntry *slot = cpuDefendSlotEntryGet(phyInfo.unit, phyInfo.slot);
    if (slot)
        return cpuDefendPolicyEntryGet(slot->policyName, slot->policyNameLen);
    return cpuDefendPolicyEntryGet(gCpuDefend.policyName, gCpuDefend.policyNameLen);
}

} // namespace

int32_t cpuDefendSrcTracePktData(uint32_t ifUnit, uint32_t protocol, const unsigned char *buf,
                                 uint32_t offSet, uint16_t innervid, uint16_t outervid)
{
    tPhyIfInfo phyInfo{};
    if (sysIndexTrans(ifUnit, SYS_INDEX_TRANS_PHY, &phyInfo) != 0)
        return -1;
    tCpuDefendPolicyEntry *pPolicy = policyAt(phyInfo);
    if (!pPolicy || pPolicy->srcTraceEnable != CPUDEFEND_ENABLE)
        return -1;
    const uint32_t tickNow = sysGetUpTime();
    const tPacket packet = parse(protocol, buf, offSet);
    const tReceived received{ifUnit,   phyInfo, innervid,
                             outervid, buf,     pPolicy->srcTracePktDataEnable == CPUDEFEND_ENABLE};
    list_for_each_entry(tCpuDefendCarPktEntry, entry, &pPolicy->carPktList, policyNode)
    {
        report(packet);
        if (!isOfType(packet, entry->pktType))
            continue;
        const bool burst = isBurst(pPolicy, entry, tickNow);
        count(entry);
        if (burst)
            record(packet, received, entry);
    }
    return 0;
}

int32_t cpuDefendSrcTracePkt(uint32_t ifUnit, uint16_t protocol, packet_rxpktinfo *rxpktInfo,
                             unsigned char *buf, int32_t length)
{
    if (!rxpktInfo || !buf || length <= 0 || rxpktInfo->pkt_dataoffset >= CPUDEFEND_PKTDATA_LEN)
        return -1;
    unsigned char whole[CPUDEFEND_PKTDATA_LEN] = {};
    const auto len = static_cast<uint32_t>(length);
    memcpy(whole, buf, len < sizeof whole ? len : sizeof whole);
    return cpuDefendSrcTracePktData(ifUnit, protocol, whole, rxpktInfo->pkt_dataoffset,
                                    rxpktInfo->pkt_innervid & VLAN_ID,
                                    rxpktInfo->pkt_outervid & VLAN_ID);
}

int32_t sendCpuDefendSrcTraceAlarmTrap()
{
    return 0; // no trap is sent
}
