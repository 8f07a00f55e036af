/* SPDX-License-Identifier: MIT OR GPL-2.0-only */
/*
 * From a frame to its packet type. docs/packet-types.md is the table behind this.
 *
 * A frame is what the kernel's own receivers, packet sockets among them, would take it for. So its
 * type goes by the bytes that are there, not by how many a length field says there are; what
 * follows the field that decides does not matter, because a request that is cut off behind its
 * ethertype still costs CPU time. Where the field that decides is out of reach, the frame is
 * unread.
 */
#ifndef CPUDEFEND_CLASSIFY_H
#define CPUDEFEND_CLASSIFY_H

#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <linux/types.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "acl_lookup.h"
#include "cpudefend_shared.h"

_Static_assert(CPD_TOTALPKT == ZYN_PKT_MAX - 1,
               "a type behind TOTALPKT needs CPD_TYPES to be ZYN_PKT_MAX, and another CPD_LAYOUT");

/* What most of the usual floods take. */
#define cpd_likely(condition) __builtin_expect(!!(condition), 1)

#define CPD_TAGS_MAX 8      /* the kernel takes off any number of them with VLAN id 0 */
#define TAGS_MASK 15        /* holds that number, and tells the verifier so */
#define TYPE_OFFSET 12      /* of the ethertype in a frame without tags */
#define VLAN_STACKED 0x9100 /* outer tag before IEEE 802.1ad gave it 0x88a8 */
/* IEEE 802.3, 3.2.6: from here on it is an ethertype. Up to 1500 it is a length; what lies between
 * is undefined there, and a length to the kernel. */
#define ETHERTYPE_MIN 0x600

#define ETHERTYPE_CFM 0x8902 /* IEEE 802.1Q, clause 21; ITU-T G.8013 */
#define CFM_CCM 1            /* the first and the last operation code of IEEE 802.1Q, clause 21 */
#define CFM_LTM 5
#define CFM_RAPS 40 /* ITU-T G.8032 */
#define SLOW_OAM 3  /* subtype of the slow protocols: IEEE 802.3, annex 57A */

#define IPV4_FRAGMENT_OFFSET 0x1fff
#define IPV4_MORE_FRAGMENTS 0x2000
#define IPV6_FRAGMENT_OFFSET 0xfff8
#define IPV6_MORE_FRAGMENTS 0x0001
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
#define PROTOCOL_SCTP 132

/* TCP's flags are in its fourteenth byte, and fragments are cut to a multiple of eight: RFC 3128.
 */
#define TCP_FLAGS_OFFSET 13
#define TCP_FLAGS_FRAGMENT 16

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

#define IPV4_WORDS 5 /* of a header without options */
#define ND_FIRST 133 /* ICMPv6 types of neighbour discovery: RFC 4861, 4 */
#define ND_LAST 137

/* IGMP messages that tell of a host's membership: RFC 1112, RFC 2236, RFC 3376. */
#define IGMP_V1_REPORT 0x12
#define IGMP_V2_REPORT 0x16
#define IGMP_V2_LEAVE 0x17
#define IGMP_V3_REPORT 0x22

/* DSAP. Packet sockets commonly ask for neither SSAP nor control field. */
#define LLC_BRIDGE 0x42 /* IEEE 802.1: spanning tree, also GARP */
#define LLC_SNAP 0xaa
#define LLC_OSI 0xfe
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

/* What classification sees on its way. Offsets count from the frame's start. */
struct cpd_packet {
    __u16 ethertype; /* behind the tags; 0 where a length stands there */
    __u8 network;    /* offset of what ethertype announces */
    __u8 tags;       /* VLAN tags before it */
    __u8 version;    /* 4 or 6 with an IP header that is all there, else 0 */
    __u8 protocol;   /* behind the last IP header; this and the rest for IP alone */
    __u16 reserved;
    __u32 source_port; /* these as struct cpd_acl_key has them */
    __u32 destination_port;
    __u32 extra;
};

/* What the IP headers carry. */
struct upper {
    const void *at;
    __u8 protocol;
    __u8 later; /* a fragment, but not the first: nothing can be read here */
    __u8 tiny;  /* the first fragment, and TCP's flags are in the next */
    __u8 v6;
};

/* The result of a function of its own, of which the verifier knows nothing. */
static __always_inline __u32 cpd_known_type(__u32 type)
{
    barrier_var(type); /* so that it is compared where it is kept */
    return type < CPD_RULES ? type : CPD_NO_TYPE;
}

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

static __always_inline int is_group(const __u8 *address)
{
    return address[0] & 1;
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
                                         const void *end)
{
    const struct snap_header *snap = next;
    if ((const void *)(snap + 1) > end)
        return CPD_UNREAD;
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

static __always_inline int classify_osi(const __u8 *nlpid, const void *end)
{
    if ((const void *)(nlpid + 1) > end)
        return CPD_UNREAD;
    return *nlpid == NLPID_ISIS ? CPD_ISIS : CPD_NO_TYPE;
}

/* An IEEE 802.3 frame: an LLC header, and what it announces. Its length is not looked at, because
 * packet sockets do not, either. */
static __always_inline int classify_llc(const struct ethernet_header *eth, const void *next,
                                        const void *end)
{
    const struct llc_header *llc = next;
    if ((const void *)(llc + 1) > end)
        return CPD_UNREAD;
    switch (llc->dsap) {
    case LLC_BRIDGE: return classify_bridge(eth);
    case LLC_SNAP: return classify_snap(eth, llc + 1, end);
    case LLC_OSI: return classify_osi((const void *)(llc + 1), end);
    default: return CPD_NO_TYPE;
    }
}

static __always_inline int classify_igmp(const struct upper *ip, const void *end)
{
    const __u8 *message = ip->at;
    if (ip->later || (const void *)(message + 1) > end)
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
    if (ip->later || (const void *)(ports + 1) > end)
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
static __always_inline int classify_udp(const struct upper *ip, const void *end)
{
    const struct ports *ports = ip->at;
    if (ip->later)
        return CPD_NO_TYPE;
    if ((const void *)(ports + 1) > end)
        return CPD_UNREAD;
    int type = udp_destination(ports->destination, ip->v6);
    if (type == CPD_NO_TYPE)
        return udp_source(ports->source, ip->v6);
    if (type != CPD_DHCPSNOOPIP)
        return type;
    if (ports->source == bpf_htons(PORT_DHCP_CLIENT))
        return CPD_DHCPCLIENT;
    return ports->source == bpf_htons(PORT_DHCP_SERVER) ? CPD_DHCPSERVER : CPD_DHCPSNOOPIP;
}

static __always_inline void read_ports(struct cpd_packet *packet, const struct upper *ip,
                                       const void *end)
{
    const struct ports *ports = ip->at;
    if ((const void *)(ports + 1) > end)
        return;
    packet->source_port = bpf_ntohs(ports->source);
    packet->destination_port = bpf_ntohs(ports->destination);
}

static __always_inline void read_byte(struct cpd_packet *packet, const struct upper *ip,
                                      __u32 offset, const void *end)
{
    const __u8 *at = ip->at;
    if ((const void *)(at + offset + 1) <= end)
        packet->extra = at[offset];
}

/* What rules of access lists ask for, as long as no more is known than the protocol. */
static __always_inline void begin_transport(struct cpd_packet *packet, __u8 version, __u8 protocol)
{
    packet->version = version;
    packet->protocol = protocol;
    packet->source_port = packet->destination_port = CPD_ACL_NO_PORT;
    packet->extra = CPD_ACL_NO_EXTRA;
}

static __always_inline void read_transport(struct cpd_packet *packet, const struct upper *ip,
                                           const void *end)
{
    begin_transport(packet, ip->v6 ? 6 : 4, ip->protocol);
    if (ip->later) {
        packet->extra = CPD_ACL_FRAGMENT;
        return;
    }
    switch (ip->protocol) {
    case PROTOCOL_TCP:
        if (ip->tiny)
            packet->extra = CPD_ACL_NEXT_FRAGMENT;
        else
            read_byte(packet, ip, TCP_FLAGS_OFFSET, end);
        /* fall through */
    case PROTOCOL_UDP:
    case PROTOCOL_SCTP: return read_ports(packet, ip, end);
    case PROTOCOL_ICMP:
    case PROTOCOL_ICMPV6: return read_byte(packet, ip, 0, end);
    default: return;
    }
}

/* By the protocol behind the IP headers. */
static __always_inline int classify_upper(struct cpd_packet *packet, const struct upper *ip,
                                          const void *end)
{
    read_transport(packet, ip, end);
    if (cpd_likely(ip->protocol == PROTOCOL_UDP))
        return classify_udp(ip, end);
    switch (ip->protocol) {
    case PROTOCOL_ICMP: return ip->v6 ? CPD_NO_TYPE : CPD_ICMP;
    case PROTOCOL_ICMPV6: return ip->v6 ? CPD_ICMPV6 : CPD_NO_TYPE;
    case PROTOCOL_IGMP: return ip->v6 ? CPD_NO_TYPE : classify_igmp(ip, end);
    case PROTOCOL_TCP: return classify_tcp(ip, end);
    case PROTOCOL_OSPF: return ip->v6 ? CPD_OSPF6 : CPD_OSPF;
    case PROTOCOL_PIM: return ip->v6 ? CPD_PIM6 : CPD_PIM;
    case PROTOCOL_VRRP: return ip->v6 ? CPD_VRRP6 : CPD_VRRP;
    default: return CPD_NO_TYPE;
    }
}

/* The version that the header says, and a header length below the least, are the kernel's to
 * refuse: packet sockets ask for neither. */
static __always_inline int classify_ipv4(struct cpd_packet *packet, const void *next,
                                         const void *end)
{
    const struct ipv4_header *ip = next;
    if ((const void *)(ip + 1) > end)
        return CPD_UNREAD;
    __u32 header = (ip->version_ihl & 0x0f) * 4;
    struct upper up = {.at = (const __u8 *)next + header, .protocol = ip->protocol};
    up.later = (ip->fragment & bpf_htons(IPV4_FRAGMENT_OFFSET)) != 0;
    up.tiny = ip->fragment & bpf_htons(IPV4_MORE_FRAGMENTS) &&
              bpf_ntohs(ip->total_length) < header + TCP_FLAGS_FRAGMENT;
    return classify_upper(packet, &up, end);
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

/* A way through the extension headers of IPv6. */
struct walk {
    __u32 offset; /* of the next header in the frame */
    __u32 limit;  /* where the fragment ends, if this is the first */
    __u8 protocol;
    __u8 later;
    __u8 first;
};

static __always_inline int enter_fragment(struct xdp_md *ctx, __u32 network, __be16 fragment,
                                          struct walk *walk)
{
    __be16 length;
    walk->later = (fragment & bpf_htons(IPV6_FRAGMENT_OFFSET)) != 0;
    walk->first = !walk->later && fragment & bpf_htons(IPV6_MORE_FRAGMENTS);
    if (!walk->first)
        return 0;
    __u32 at = network + __builtin_offsetof(struct ipv6_header, payload_length);
    if (bpf_xdp_load_bytes(ctx, at, &length, sizeof(length)) != 0)
        return -1;
    walk->limit = network + sizeof(struct ipv6_header) + bpf_ntohs(length);
    return 0;
}

/* Go past an extension header. Returns 0 if it could be read. */
static __always_inline int step_over(struct xdp_md *ctx, __u32 network, struct walk *walk)
{
    struct extension_header header;
    if (bpf_xdp_load_bytes(ctx, walk->offset, &header, sizeof(header)) != 0)
        return -1;
    if (walk->protocol == PROTOCOL_FRAGMENT &&
        (walk->first || enter_fragment(ctx, network, header.fragment, walk) != 0))
        return -1; /* a fragment within a first one ends who knows where */
    walk->offset += extension_size(walk->protocol, header.length);
    walk->protocol = header.next_header;
    return 0;
}

/* As many bytes of the frame as there are, TRANSPORT_BYTES at most. The count is kept in a register
 * that the verifier knows bounds of. */
#define TRANSPORT_BYTES 16

static __always_inline __u32 load_transport(struct xdp_md *ctx, __u32 offset, __u8 *bytes)
{
    __u32 octets = bpf_xdp_get_buff_len(ctx);
    __u32 count = octets > offset ? octets - offset : 0;
    if (count > TRANSPORT_BYTES)
        count = TRANSPORT_BYTES;
    asm volatile("" : "+r"(count));
    if (count == 0 || count > TRANSPORT_BYTES)
        return 0;
    return bpf_xdp_load_bytes(ctx, offset, bytes, count) == 0 ? count : 0;
}

/*
 * A packet of IPv6 with extension headers, wherever in the frame they lie; its fixed header has
 * been found to be there, and to announce packet->protocol. RFC 7112: a first fragment holds all
 * headers up to that of the upper layer, or it is unread. A function of its own, so that the
 * verifier looks at its many ways once.
 */
__noinline int cpd_classify_extended(struct xdp_md *ctx, struct cpd_packet *packet)
{
    if (!packet)
        return CPD_UNREAD;
    __u32 network = packet->network;
    begin_transport(packet, 6, packet->protocol);
    struct walk walk = {.offset = network + sizeof(struct ipv6_header),
                        .protocol = packet->protocol};
    for (int i = 0; i < IPV6_EXTENSIONS_MAX; i++) {
        if (!is_extension(walk.protocol) || walk.later)
            break;
        if (step_over(ctx, network, &walk) != 0)
            return CPD_UNREAD;
    }
    if (is_extension(walk.protocol) || (walk.first && walk.offset > walk.limit))
        return CPD_UNREAD;

    __u8 bytes[TRANSPORT_BYTES] = {};
    struct upper up = {.at = bytes, .protocol = walk.protocol, .later = walk.later, .v6 = 1};
    up.tiny = walk.first && walk.offset + TCP_FLAGS_FRAGMENT > walk.limit;
    return classify_upper(packet, &up, bytes + load_transport(ctx, walk.offset, bytes));
}

static __always_inline int classify_ipv6(struct xdp_md *ctx, struct cpd_packet *packet,
                                         const void *next, const void *end)
{
    const struct ipv6_header *ip = next;
    if ((const void *)(ip + 1) > end)
        return CPD_UNREAD;
    if (is_extension(ip->next_header)) {
        struct cpd_packet extended = {.network = packet->network, .protocol = ip->next_header};
        int type = cpd_known_type(cpd_classify_extended(ctx, &extended));
        extended.ethertype = packet->ethertype;
        extended.tags = packet->tags;
        *packet = extended;
        return type;
    }
    struct upper up = {.at = ip + 1, .protocol = ip->next_header, .v6 = 1};
    return classify_upper(packet, &up, end);
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
    if ((const void *)(subtype + 1) > end)
        return CPD_UNREAD;
    return *subtype == SLOW_OAM ? CPD_EFM : CPD_NO_TYPE;
}

/* Where a length stands. Learning packets of adaptive load balancing, which go from a station to
 * itself, bore an ethertype before that is one. */
static __always_inline int classify_length(const struct ethernet_header *eth, __u16 length,
                                           const void *next, const void *end)
{
    if (length == ETH_P_LOOP && same_address(eth->destination, eth->source) &&
        !is_group(eth->destination))
        return CPD_ALB;
    return classify_llc(eth, next, end);
}

/* By the ethertype, or length, behind the tags. */
static __always_inline int classify_payload(struct xdp_md *ctx, struct cpd_packet *packet,
                                            const struct ethernet_header *eth, __u16 proto,
                                            const void *next, const void *end)
{
    if (cpd_likely(proto == ETH_P_IP))
        return classify_ipv4(packet, next, end);
    if (proto == ETH_P_ARP)
        return CPD_ARP;
    switch (proto) {
    case ETH_P_IPV6: return classify_ipv6(ctx, packet, next, end);
    case ETH_P_SLOW: return classify_slow(next, end);
    case ETH_P_MPLS_UC:
    case ETH_P_MPLS_MC: return CPD_MPLS;
    case ETH_P_PPP_DISC: return CPD_PPPOE;
    case ETH_P_PAE: return CPD_DOT1X;
    case ETH_P_LLDP: return CPD_LLDP;
    case ETHERTYPE_CFM: return classify_cfm(eth, next, end);
    case ETH_P_LOOPBACK:
        return same_address(eth->destination, eth->source) ? CPD_ALB : CPD_LOOPBACK;
    default: break;
    }
    return proto >= ETHERTYPE_MIN ? CPD_NO_TYPE : classify_length(eth, proto, next, end);
}

/* How many tags a frame has that begins with one; 0 when what is behind them is out of reach. A
 * function of its own, so that the verifier need not follow each number of tags. */
__noinline int cpd_count_tags(struct xdp_md *ctx)
{
    const void *data = (const void *)(long)ctx->data, *end = (const void *)(long)ctx->data_end;
    const struct vlan_tag *tag = data + sizeof(struct ethernet_header);
    for (int tags = 1; tags <= CPD_TAGS_MAX; tags++, tag++) {
        if ((const void *)(tag + 1) > end)
            return 0;
        if (!is_vlan(tag->proto))
            return tags;
    }
    return 0;
}

/* By what stands behind the addresses. */
static __always_inline int classify_behind(struct xdp_md *ctx, struct cpd_packet *packet,
                                           const struct ethernet_header *eth, const void *end)
{
    __u32 tags = 0;
    if (is_vlan(eth->proto)) {
        const struct vlan_tag *tag = (const void *)(eth + 1);
        if ((const void *)(tag + 1) > end)
            return CPD_UNREAD;
        tags = cpd_likely(!is_vlan(tag->proto)) ? 1 : cpd_count_tags(ctx) & TAGS_MASK;
        if (tags == 0)
            return CPD_UNREAD;
    }
    const __be16 *proto = (const void *)eth + TYPE_OFFSET + tags * sizeof(struct vlan_tag);
    if ((const void *)(proto + 1) > end)
        return CPD_UNREAD;
    __u16 ethertype = bpf_ntohs(*proto);
    packet->tags = tags;
    packet->network = sizeof(*eth) + tags * sizeof(struct vlan_tag);
    packet->ethertype = ethertype >= ETHERTYPE_MIN ? ethertype : 0;
    return classify_payload(ctx, packet, eth, ethertype, proto + 1, end);
}

/* What the address of tunnelled bridge protocols makes of a type: what the host itself takes by its
 * ethertype, it takes at any group address. */
static __always_inline int classify_tunnel(int type)
{
    switch (type) {
    case CPD_NO_TYPE:
    case CPD_STPCUSTOMER:
    case CPD_STPPROVIDER:
    case CPD_GVRP:
    case CPD_UDLD:
    case CPD_VTP: return CPD_BPDUTUNNEL;
    default: return type;
    }
}

/* The type of a frame, of which there is at least the Ethernet header; packet starts out as zeros.
 */
static __always_inline int classify(struct xdp_md *ctx, struct cpd_packet *packet)
{
    const void *data = (const void *)(long)ctx->data, *end = (const void *)(long)ctx->data_end;
    const struct ethernet_header *eth = data;
    if ((const void *)(eth + 1) > end)
        return CPD_UNREAD;
    int type = classify_behind(ctx, packet, eth, end);
    if (is_address(eth->destination, 0x0100, 0x0ccd, 0xcdd0))
        return classify_tunnel(type);
    return type;
}

/* The same for those who ask for more than the type. */
__noinline int cpd_classify(struct xdp_md *ctx, struct cpd_packet *packet)
{
    return packet ? classify(ctx, packet) : CPD_UNREAD;
}

#endif
