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

#include <linux/if_ether.h>
#include <linux/types.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "cpudefend_shared.h"

#define VLAN_TAGS_MAX 2
#define VLAN_STACKED 0x9100 /* outer tag before IEEE 802.1ad gave it 0x88a8 */
#define LENGTH_MAX 1500     /* IEEE 802.3, 3.2.6: up to this it is a length, not an ethertype */
#define IPV4_HEADER_MIN 20
#define IPV4_FRAGMENT_OFFSET 0x1fff
#define PROTOCOL_IGMP 2
#define PROTOCOL_UDP 17
#define DHCP_SERVER_PORT 67 /* RFC 2131, 4.1 */
#define DHCP_CLIENT_PORT 68

/* IGMP messages that tell of a host's membership: RFC 1112, RFC 2236, RFC 3376. */
#define IGMP_V1_REPORT 0x12
#define IGMP_V2_REPORT 0x16
#define IGMP_V2_LEAVE 0x17
#define IGMP_V3_REPORT 0x22

#define LLC_BRIDGE 0x42 /* IEEE 802.1: bridge spanning tree protocol, also used by GARP */
#define LLC_SNAP 0xaa
#define LLC_UI 0x03
#define SNAP_PID_UDLD 0x0111 /* RFC 5171 */
#define SNAP_PID_VTP 0x2003

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

struct ports {
    __be16 source;
    __be16 destination;
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

/* Group addresses of IEEE 802.1: 01:80:c2:00:00:xx. */
static __always_inline int is_bridge_group(const __u8 *address, __u8 last)
{
    const __u16 *a = (const __u16 *)address;
    return a[0] == bpf_htons(0x0180) && a[1] == bpf_htons(0xc200) && a[2] == bpf_htons(last);
}

/* 01:00:0c:cc:cc:cc, which UDLD and VTP share. */
static __always_inline int is_snap_group(const __u8 *address)
{
    const __u16 *a = (const __u16 *)address;
    return a[0] == bpf_htons(0x0100) && a[1] == bpf_htons(0x0ccc) && a[2] == bpf_htons(0xcccc);
}

static __always_inline int classify_bridge(const struct ethhdr *eth, const struct llc_header *llc)
{
    if (llc->dsap != LLC_BRIDGE || llc->ssap != LLC_BRIDGE || llc->control != LLC_UI)
        return CPD_NO_TYPE;
    return eth->h_dest[5] == 0x00 ? CPD_STPCUSTOMER : CPD_GVRP;
}

static __always_inline int classify_snap(const struct llc_header *llc, const void *end,
                                         __u32 length)
{
    const struct snap_header *snap = (const void *)(llc + 1);
    if ((const void *)(snap + 1) > end || length < sizeof(*llc) + sizeof(*snap))
        return CPD_NO_TYPE;
    if (llc->dsap != LLC_SNAP || llc->ssap != LLC_SNAP || llc->control != LLC_UI)
        return CPD_NO_TYPE;
    if (snap->oui[0] != 0x00 || snap->oui[1] != 0x00 || snap->oui[2] != 0x0c)
        return CPD_NO_TYPE;
    switch (bpf_ntohs(snap->pid)) {
    case SNAP_PID_UDLD: return CPD_UDLD;
    case SNAP_PID_VTP: return CPD_VTP;
    default: return CPD_NO_TYPE;
    }
}

/* An IEEE 802.3 frame of the given length: an LLC header, and SNAP behind it. */
static __always_inline int classify_llc(const struct ethhdr *eth, const void *next, const void *end,
                                        __u32 length)
{
    const struct llc_header *llc = next;
    if ((const void *)(llc + 1) > end || length < sizeof(*llc))
        return CPD_NO_TYPE;
    if (is_bridge_group(eth->h_dest, 0x00) || is_bridge_group(eth->h_dest, 0x21))
        return classify_bridge(eth, llc);
    if (is_snap_group(eth->h_dest))
        return classify_snap(llc, end, length);
    return CPD_NO_TYPE;
}

/* IGMP, with what follows the IPv4 header (nothing that can be read: null). */
static __always_inline int classify_igmp(const __u8 *message)
{
    if (!message)
        return CPD_IGMP;
    switch (*message) {
    case IGMP_V1_REPORT:
    case IGMP_V2_REPORT:
    case IGMP_V2_LEAVE:
    case IGMP_V3_REPORT: return CPD_IGMPSNOOP;
    default: return CPD_IGMP;
    }
}

static __always_inline int is_dhcp_port(__be16 port)
{
    return port == bpf_htons(DHCP_SERVER_PORT) || port == bpf_htons(DHCP_CLIENT_PORT);
}

static __always_inline int classify_ipv4(const void *next, const void *end)
{
    const struct ipv4_header *ip = next;
    if ((const void *)(ip + 1) > end || ip->version_ihl >> 4 != 4)
        return CPD_NO_TYPE;
    if (ip->protocol != PROTOCOL_UDP && ip->protocol != PROTOCOL_IGMP)
        return CPD_NO_TYPE;

    __u32 header = (ip->version_ihl & 0x0f) * 4;
    __u32 total = bpf_ntohs(ip->total_length);
    const __u8 *payload = (const __u8 *)next + header;
    if (header < IPV4_HEADER_MIN || total < header || (const void *)payload > end)
        return CPD_NO_TYPE;
    int first = !(ip->fragment & bpf_htons(IPV4_FRAGMENT_OFFSET));

    if (ip->protocol == PROTOCOL_IGMP)
        return classify_igmp(first && total > header && (const void *)(payload + 1) <= end ? payload
                                                                                           : 0);
    const struct ports *ports = (const void *)payload;
    if (!first || total < header + sizeof(*ports) || (const void *)(ports + 1) > end)
        return CPD_NO_TYPE;
    return is_dhcp_port(ports->source) || is_dhcp_port(ports->destination) ? CPD_DHCPSNOOPIP
                                                                           : CPD_NO_TYPE;
}

/* A learning packet of adaptive load balancing goes from an address to itself. */
static __always_inline int classify_loopback(const struct ethhdr *eth)
{
    return same_address(eth->h_dest, eth->h_source) ? CPD_ALB : CPD_NO_TYPE;
}

static __always_inline int classify(const void *data, const void *end)
{
    const struct ethhdr *eth = data;
    const void *next = eth + 1;
    if (next > end)
        return CPD_NO_TYPE;
    __be16 proto = eth->h_proto;

#pragma clang loop unroll(full)
    for (int i = 0; i < VLAN_TAGS_MAX && is_vlan(proto); i++) {
        const struct vlan_tag *tag = next;
        if ((const void *)(tag + 1) > end)
            return CPD_NO_TYPE;
        proto = tag->proto;
        next = tag + 1;
    }

    switch (bpf_ntohs(proto)) {
    case ETH_P_IP: return classify_ipv4(next, end);
    case ETH_P_ARP: return CPD_ARP;
    case ETH_P_PAE: return CPD_DOT1X;
    case ETH_P_LOOP: /* what learning packets bore before ETH_P_LOOPBACK */
    case ETH_P_LOOPBACK: return classify_loopback(eth);
    default: break;
    }
    if (bpf_ntohs(proto) > LENGTH_MAX)
        return CPD_NO_TYPE;
    return classify_llc(eth, next, end, bpf_ntohs(proto));
}

#endif
