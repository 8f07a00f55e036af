/* SPDX-License-Identifier: MIT OR GPL-2.0-only */
/*
 * From a frame to its packet type. docs/packet-types.md is the table behind this.
 *
 * A frame is of a type when every field that decides so lies within the frame, and within what the
 * headers before it say they hold. What follows these fields does not matter: a request that is cut
 * off behind its ethertype still costs the CPU time, and so it is policed.
 */
#ifndef CPUDEFEND_CLASSIFY_H
#define CPUDEFEND_CLASSIFY_H

#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <linux/types.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "cpudefend_shared.h"

/* What most of the usual floods take. */
#define cpd_likely(condition) __builtin_expect(!!(condition), 1)

#define CPD_TAGS_MAX 2
#define VLAN_STACKED 0x9100 /* outer tag before IEEE 802.1ad gave it 0x88a8 */
#define LENGTH_MAX 1500     /* IEEE 802.3, 3.2.6: up to this it is a length, not an ethertype */

#define ETHERTYPE_CFM 0x8902 /* IEEE 802.1Q, clause 21; ITU-T G.8013 */
#define CFM_CCM 1            /* the first and the last operation code of IEEE 802.1Q, clause 21 */
#define CFM_LTM 5
#define CFM_RAPS 40 /* ITU-T G.8032 */
#define SLOW_OAM 3  /* subtype of the slow protocols: IEEE 802.3, annex 57A */

#define IPV4_HEADER_MIN 20
#define IPV4_FRAGMENT_OFFSET 0x1fff
#define IPV6_FRAGMENT_OFFSET 0xfff8
#define IPV6_EXTENSIONS_MAX 6

#define PROTOCOL_HOP_BY_HOP 0
#define PROTOCOL_ICMP 1
#define PROTOCOL_IGMP 2
#define PROTOCOL_TCP 6
#define PROTOCOL_UDP 17
#define PROTOCOL_ROUTING 43
#define PROTOCOL_FRAGMENT 44
#define PROTOCOL_AH 51
#define PROTOCOL_ICMPV6 58
#define PROTOCOL_DESTINATION_OPTIONS 60
#define PROTOCOL_OSPF 89
#define PROTOCOL_PIM 103
#define PROTOCOL_VRRP 112

#define PORT_FTP_DATA 20
#define PORT_FTP 21
#define PORT_TELNET 23
#define PORT_DHCP_SERVER 67 /* RFC 2131, 4.1 */
#define PORT_DHCP_CLIENT 68
#define PORT_NTP 123
#define PORT_SNMP 161
#define PORT_SNMP_TRAP 162
#define PORT_BGP 179
#define PORT_RIP 520
#define PORT_RIPNG 521
#define PORT_DHCP6_CLIENT 546 /* RFC 8415, 7.2 */
#define PORT_DHCP6_SERVER 547
#define PORT_LDP 646
#define PORT_BFD 3784      /* RFC 5881, 4 */
#define PORT_BFD_ECHO 3785 /* RFC 5881, 4 */
#define PORT_BFD_MULTIHOP 4784
#define PORT_BFD_LAG 6784

/* IGMP messages that tell of a host's membership: RFC 1112, RFC 2236, RFC 3376. */
#define IGMP_V1_REPORT 0x12
#define IGMP_V2_REPORT 0x16
#define IGMP_V2_LEAVE 0x17
#define IGMP_V3_REPORT 0x22

/* DSAP, SSAP and control field of unnumbered information. */
#define LLC_BRIDGE 0x424203 /* IEEE 802.1: spanning tree, also GARP */
#define LLC_SNAP 0xaaaa03
#define LLC_OSI 0xfefe03
#define NLPID_ISIS 0x83 /* ISO/IEC 10589, clause 9 */

#define OUI_UDLD 0x00000c
#define OUI_EAPS 0x00e02b
#define SNAP_PID_UDLD 0x0111 /* RFC 5171 */
#define SNAP_PID_VTP 0x2003
#define SNAP_PID_EAPS 0x00bb /* RFC 3619 */

/* The kernel's is packed, and so read byte by byte. */
struct ethernet_header {
    __u8 destination[6];
    __u8 source[6];
    __be16 proto;
};

struct vlan_tag {
    __be16 tci;
    __be16 proto; /* of what follows */
};

struct llc_header {
    __u8 dsap;
    __u8 ssap;
    __u8 control;
};

struct snap_header {
    __u8 oui[3];
    __be16 pid;
} __attribute__((packed));

struct ipv4_header {
    __u8 version_ihl;
    __u8 tos;
    __be16 total_length;
    __be16 id;
    __be16 fragment;
    __u8 ttl;
    __u8 protocol;
    __be16 checksum;
    __be32 source;
    __be32 destination;
};

struct ipv6_header {
    __u8 version;
    __u8 label[3];
    __be16 payload_length;
    __u8 next_header;
    __u8 hop_limit;
    __u8 source[16];
    __u8 destination[16];
};

/* The first eight bytes of an extension header: RFC 8200, 4; RFC 4302, 2. */
struct extension_header {
    __u8 next_header;
    __u8 length; /* not in the fragment header */
    __be16 fragment;
    __u8 rest[4];
};

struct ports {
    __be16 source;
    __be16 destination;
};

/*
 * What classification sees on its way. Offsets count from the frame's start. A network header with
 * a version is all there; that what follows it is there has to be checked.
 */
struct cpd_packet {
    __u16 ethertype; /* behind the tags; 0 where a length stands there, or behind cut tags */
    __u16 transport; /* offset of what the IP headers carry */
    __u16 room;      /* bytes of it that the packet says there are; 0 in a later fragment */
    __u8 network;    /* offset of the header that ethertype announces */
    __u8 tags;       /* VLAN tags before it, CPD_TAGS_MAX at most */
    __u8 version;    /* 4 or 6 with an IP header, else 0 */
    __u8 protocol;   /* behind the last IP header that could be read */
    __u8 later;      /* a fragment, but not the first */
    __u8 reserved;
};

/* What an IP header carries, as far as the headers have been read. */
struct upper {
    const void *at;
    __u32 offset; /* from the frame's start */
    __u32 room; /* bytes that the packet says there are; 0 where they belong to a later fragment */
    __u8 protocol;
    __u8 later;
};

static __always_inline int is_vlan(__be16 proto)
{
    return proto == bpf_htons(ETH_P_8021Q) || proto == bpf_htons(ETH_P_8021AD) ||
           proto == bpf_htons(VLAN_STACKED);
}

static __always_inline int same_address(const __u8 *a, const __u8 *b)
{
    const __u16 *x = (const __u16 *)a, *y = (const __u16 *)b;
    return x[0] == y[0] && x[1] == y[1] && x[2] == y[2];
}

static __always_inline int is_address(const __u8 *address, __u16 high, __u16 middle, __u16 low)
{
    const __u16 *a = (const __u16 *)address;
    return a[0] == bpf_htons(high) && a[1] == bpf_htons(middle) && a[2] == bpf_htons(low);
}

/* Bridge protocols go to group addresses of IEEE 802.1, 01:80:c2:00:00:xx. */
static __always_inline int classify_bridge(const struct ethernet_header *eth)
{
    if (!is_address(eth->destination, 0x0180, 0xc200, eth->destination[5]))
        return CPD_NO_TYPE;
    switch (eth->destination[5]) {
    case 0x00: return CPD_STPCUSTOMER;
    case 0x08: return CPD_STPPROVIDER;
    case 0x21: return CPD_GVRP;
    default: return CPD_NO_TYPE;
    }
}

static __always_inline int classify_snap(const struct ethernet_header *eth, const void *next,
                                         const void *end, __u32 length)
{
    const struct snap_header *snap = next;
    if ((const void *)(snap + 1) > end || length < sizeof(*snap))
        return CPD_NO_TYPE;
    __u32 oui = snap->oui[0] << 16 | snap->oui[1] << 8 | snap->oui[2];
    __u16 pid = bpf_ntohs(snap->pid);
    if (oui == OUI_EAPS && pid == SNAP_PID_EAPS &&
        is_address(eth->destination, 0x00e0, 0x2b00, 0x0004))
        return CPD_EAPS;
    if (oui != OUI_UDLD || !is_address(eth->destination, 0x0100, 0x0ccc, 0xcccc))
        return CPD_NO_TYPE;
    if (pid == SNAP_PID_UDLD)
        return CPD_UDLD;
    return pid == SNAP_PID_VTP ? CPD_VTP : CPD_NO_TYPE;
}

static __always_inline int classify_osi(const __u8 *nlpid, const void *end, __u32 length)
{
    if ((const void *)(nlpid + 1) > end || length < 1)
        return CPD_NO_TYPE;
    return *nlpid == NLPID_ISIS ? CPD_ISIS : CPD_NO_TYPE;
}

/* An IEEE 802.3 frame of the given length: an LLC header, and what it announces. */
static __always_inline int classify_llc(const struct ethernet_header *eth, const void *next,
                                        const void *end, __u32 length)
{
    const struct llc_header *llc = next;
    if ((const void *)(llc + 1) > end || length < sizeof(*llc))
        return CPD_NO_TYPE;
    length -= sizeof(*llc);
    switch (llc->dsap << 16 | llc->ssap << 8 | llc->control) {
    case LLC_BRIDGE: return classify_bridge(eth);
    case LLC_SNAP: return classify_snap(eth, llc + 1, end, length);
    case LLC_OSI: return classify_osi((const void *)(llc + 1), end, length);
    default: return CPD_NO_TYPE;
    }
}

static __always_inline int classify_igmp(const struct upper *ip, const void *end)
{
    const __u8 *message = ip->at;
    if (ip->room < 1 || (const void *)(message + 1) > end)
        return CPD_IGMP;
    switch (*message) {
    case IGMP_V1_REPORT:
    case IGMP_V2_REPORT:
    case IGMP_V2_LEAVE:
    case IGMP_V3_REPORT: return CPD_IGMPSNOOP;
    default: return CPD_IGMP;
    }
}

static __always_inline int tcp_service(__be16 port)
{
    switch (bpf_ntohs(port)) {
    case PORT_FTP_DATA:
    case PORT_FTP: return CPD_FTP;
    case PORT_TELNET: return CPD_TELNET;
    case PORT_BGP: return CPD_BGP;
    case PORT_LDP: return CPD_LDP;
    default: return CPD_TCP;
    }
}

static __always_inline int classify_tcp(const struct upper *ip, const void *end)
{
    const struct ports *ports = ip->at;
    if (ip->room < sizeof(*ports) || (const void *)(ports + 1) > end)
        return CPD_TCP;
    int type = tcp_service(ports->destination);
    return type != CPD_TCP ? type : tcp_service(ports->source);
}

/* Services whose packets have their port at one end, whichever. */
static __always_inline int udp_service(__be16 port, int v6)
{
    switch (bpf_ntohs(port)) {
    case PORT_NTP: return v6 ? CPD_SNTP6 : CPD_NTP;
    case PORT_SNMP:
    case PORT_SNMP_TRAP: return CPD_SNMP;
    case PORT_RIP: return v6 ? CPD_NO_TYPE : CPD_RIP;
    case PORT_RIPNG: return v6 ? CPD_RIP6 : CPD_NO_TYPE;
    case PORT_LDP: return CPD_LDP;
    default: return CPD_NO_TYPE;
    }
}

static __always_inline int udp_source(__be16 port, int v6)
{
    switch (bpf_ntohs(port)) {
    case PORT_DHCP_CLIENT: return v6 ? CPD_NO_TYPE : CPD_DHCPCLIENT;
    case PORT_DHCP_SERVER: return v6 ? CPD_NO_TYPE : CPD_DHCPSERVER;
    case PORT_DHCP6_CLIENT:
    case PORT_DHCP6_SERVER: return v6 ? CPD_DHCPSNOOPIP6 : CPD_NO_TYPE;
    default: return udp_service(port, v6);
    }
}

static __always_inline int udp_destination(__be16 port, int v6)
{
    switch (bpf_ntohs(port)) {
    case PORT_DHCP_CLIENT:
    case PORT_DHCP_SERVER: return v6 ? CPD_NO_TYPE : CPD_DHCPSNOOPIP;
    case PORT_DHCP6_CLIENT: return v6 ? CPD_DHCP6REPLY : CPD_NO_TYPE;
    case PORT_DHCP6_SERVER: return v6 ? CPD_DHCP6REQUEST : CPD_NO_TYPE;
    case PORT_BFD:
    case PORT_BFD_ECHO:
    case PORT_BFD_MULTIHOP: return v6 ? CPD_BFD6 : CPD_BFD;
    case PORT_BFD_LAG: return CPD_BFDETHER;
    default: return udp_service(port, v6);
    }
}

/* The destination says what a packet is; the source where that says nothing, and for DHCP, where
 * it says from whom it is. */
static __always_inline int classify_udp(const struct upper *ip, const void *end, int v6)
{
    const struct ports *ports = ip->at;
    if (ip->room < sizeof(*ports) || (const void *)(ports + 1) > end)
        return CPD_NO_TYPE;
    int type = udp_destination(ports->destination, v6);
    if (type == CPD_NO_TYPE)
        return udp_source(ports->source, v6);
    if (type != CPD_DHCPSNOOPIP)
        return type;
    if (ports->source == bpf_htons(PORT_DHCP_CLIENT))
        return CPD_DHCPCLIENT;
    return ports->source == bpf_htons(PORT_DHCP_SERVER) ? CPD_DHCPSERVER : CPD_DHCPSNOOPIP;
}

static __always_inline void found_ip(struct cpd_packet *packet, __u8 version,
                                     const struct upper *up)
{
    packet->version = version;
    packet->protocol = up->protocol;
    packet->later = up->later;
    packet->transport = up->offset;
    packet->room = up->room;
}

static __always_inline int classify_ipv4(struct cpd_packet *packet, const void *next,
                                         const void *end)
{
    const struct ipv4_header *ip = next;
    if ((const void *)(ip + 1) > end || ip->version_ihl >> 4 != 4)
        return CPD_NO_TYPE;
    __u32 header = (ip->version_ihl & 0x0f) * 4;
    __u32 total = bpf_ntohs(ip->total_length);
    struct upper up = {(const __u8 *)next + header, packet->network + header, total - header,
                       ip->protocol, (ip->fragment & bpf_htons(IPV4_FRAGMENT_OFFSET)) != 0};
    int sound = header >= IPV4_HEADER_MIN && total >= header && up.at <= end;
    if (!sound || up.later)
        up.room = 0;
    found_ip(packet, 4, &up);
    if (!sound)
        return CPD_NO_TYPE;

    if (cpd_likely(up.protocol == PROTOCOL_UDP))
        return classify_udp(&up, end, 0);
    switch (up.protocol) {
    case PROTOCOL_ICMP: return CPD_ICMP;
    case PROTOCOL_IGMP: return classify_igmp(&up, end);
    case PROTOCOL_TCP: return classify_tcp(&up, end);
    case PROTOCOL_OSPF: return CPD_OSPF;
    case PROTOCOL_PIM: return CPD_PIM;
    case PROTOCOL_VRRP: return CPD_VRRP;
    default: return CPD_NO_TYPE;
    }
}

static __always_inline int is_extension(__u8 protocol)
{
    return protocol == PROTOCOL_HOP_BY_HOP || protocol == PROTOCOL_ROUTING ||
           protocol == PROTOCOL_FRAGMENT || protocol == PROTOCOL_AH ||
           protocol == PROTOCOL_DESTINATION_OPTIONS;
}

static __always_inline __u32 extension_size(__u8 protocol, __u8 length)
{
    if (protocol == PROTOCOL_FRAGMENT)
        return sizeof(struct extension_header);
    return protocol == PROTOCOL_AH ? (length + 2) * 4 : (length + 1) * 8;
}

/* Go past an extension header. Returns 0 when it is not all there. */
static __always_inline int step_over(struct upper *up, const void *end)
{
    const struct extension_header *header = up->at;
    if ((const void *)(header + 1) > end)
        return 0;
    __u32 size = extension_size(up->protocol, header->length);
    if (size > up->room)
        return 0;
    up->room -= size;
    up->at = (const __u8 *)up->at + size;
    up->offset += size;
    if (up->protocol == PROTOCOL_FRAGMENT && header->fragment & bpf_htons(IPV6_FRAGMENT_OFFSET)) {
        up->room = 0;
        up->later = 1;
    }
    up->protocol = header->next_header;
    return up->at <= end;
}

/* Go past the extension headers. Returns 0 when one of them is not all there. */
static __always_inline int step_over_all(struct upper *up, const void *end)
{
#pragma clang loop unroll(full)
    for (int i = 0; i < IPV6_EXTENSIONS_MAX && is_extension(up->protocol); i++)
        if (!step_over(up, end)) {
            up->room = 0;
            return 0;
        }
    return 1;
}

static __always_inline int classify_ipv6(struct cpd_packet *packet, const void *next,
                                         const void *end)
{
    const struct ipv6_header *ip = next;
    if ((const void *)(ip + 1) > end || ip->version >> 4 != 6)
        return CPD_NO_TYPE;
    struct upper up = {ip + 1, packet->network + sizeof(*ip), bpf_ntohs(ip->payload_length),
                       ip->next_header, 0};
    int sound = step_over_all(&up, end);
    found_ip(packet, 6, &up);
    if (!sound)
        return CPD_NO_TYPE;

    switch (up.protocol) {
    case PROTOCOL_TCP: return classify_tcp(&up, end);
    case PROTOCOL_UDP: return classify_udp(&up, end, 1);
    case PROTOCOL_ICMPV6: return CPD_ICMPV6;
    case PROTOCOL_OSPF: return CPD_OSPF6;
    case PROTOCOL_PIM: return CPD_PIM6;
    case PROTOCOL_VRRP: return CPD_VRRP6;
    default: return CPD_NO_TYPE;
    }
}

/* Connectivity fault management; message is its common header: level and version, then the code. */
static __always_inline int classify_cfm(const struct ethernet_header *eth, const __u8 *message,
                                        const void *end)
{
    if ((const void *)(message + 2) > end)
        return CPD_Y1731;
    if (message[1] >= CFM_CCM && message[1] <= CFM_LTM)
        return CPD_OAM;
    int ring = is_address(eth->destination, 0x0119, 0xa700, eth->destination[5]);
    return message[1] == CFM_RAPS && ring ? CPD_ERP : CPD_Y1731;
}

static __always_inline int classify_slow(const __u8 *subtype, const void *end)
{
    return (const void *)(subtype + 1) <= end && *subtype == SLOW_OAM ? CPD_EFM : CPD_NO_TYPE;
}

/* By the ethertype, or length, behind the tags. */
static __always_inline int classify_payload(struct cpd_packet *packet,
                                            const struct ethernet_header *eth, __u16 proto,
                                            const void *next, const void *end)
{
    if (cpd_likely(proto == ETH_P_IP))
        return classify_ipv4(packet, next, end);
    if (proto == ETH_P_ARP)
        return CPD_ARP;
    switch (proto) {
    case ETH_P_IPV6: return classify_ipv6(packet, next, end);
    case ETH_P_SLOW: return classify_slow(next, end);
    case ETH_P_MPLS_UC:
    case ETH_P_MPLS_MC: return CPD_MPLS;
    case ETH_P_PPP_DISC: return CPD_PPPOE;
    case ETH_P_PAE: return CPD_DOT1X;
    case ETH_P_LLDP: return CPD_LLDP;
    case ETHERTYPE_CFM: return classify_cfm(eth, next, end);
    /* A learning packet of adaptive load balancing goes from an address to itself. */
    case ETH_P_LOOPBACK:
        return same_address(eth->destination, eth->source) ? CPD_ALB : CPD_LOOPBACK;
    case ETH_P_LOOP: /* what learning packets bore before; also a length */
        if (same_address(eth->destination, eth->source))
            return CPD_ALB;
        break;
    default: break;
    }
    return proto > LENGTH_MAX ? CPD_NO_TYPE : classify_llc(eth, next, end, proto);
}

/* By what stands behind the addresses. */
static __always_inline int classify_behind(struct cpd_packet *packet,
                                           const struct ethernet_header *eth, const void *end)
{
    const void *next = eth + 1;
    __be16 proto = eth->proto;
    __u8 tags = 0;

#pragma clang loop unroll(full)
    for (; tags < CPD_TAGS_MAX && is_vlan(proto); tags++) {
        const struct vlan_tag *tag = next;
        if ((const void *)(tag + 1) > end)
            return CPD_NO_TYPE;
        proto = tag->proto;
        next = tag + 1;
    }
    __u16 ethertype = bpf_ntohs(proto);
    packet->tags = tags;
    packet->network = sizeof(*eth) + tags * sizeof(struct vlan_tag);
    packet->ethertype = ethertype > LENGTH_MAX ? ethertype : 0;
    return classify_payload(packet, eth, ethertype, next, end);
}

/* The type of a frame; packet starts out as zeros. */
static __always_inline int classify(struct cpd_packet *packet, const void *data, const void *end)
{
    const struct ethernet_header *eth = data;
    if ((const void *)(eth + 1) > end)
        return CPD_NO_TYPE;
    packet->network = sizeof(*eth);
    int type = classify_behind(packet, eth, end);
    return is_address(eth->destination, 0x0100, 0x0ccd, 0xcdd0) ? CPD_BPDUTUNNEL : type;
}

/* The same for those who ask for more than the type. A function of its own, so that the verifier
 * looks at its many ways once. */
__noinline int cpd_classify(struct xdp_md *ctx, struct cpd_packet *packet)
{
    if (!packet)
        return CPD_NO_TYPE;
    return classify(packet, (const void *)(long)ctx->data, (const void *)(long)ctx->data_end);
}

#endif
