/* SPDX-License-Identifier: MIT OR GPL-2.0-only */
/*
 * Which ACL entry selects a packet, and whether the packet is for the box itself.
 */
#ifndef CPUDEFEND_SELECT_H
#define CPUDEFEND_SELECT_H

#include "acl_lookup.h"
#include "classify.h"
#include "maps.h"

/* Where a frame is. */
struct frame {
    const __u8 *data;
    const __u8 *end;
    const struct cpd_packet *packet;
};

/* The compiler is kept from copying the bounds as the 32-bit numbers that the context shows: the
 * verifier would not know them for bounds any more. */
static __always_inline struct frame frame_of(struct xdp_md *ctx, const struct cpd_packet *packet)
{
    struct frame frame = {(const __u8 *)(long)ctx->data, (const __u8 *)(long)ctx->data_end, packet};
    asm volatile("" : "+r"(frame.data), "+r"(frame.end));
    return frame;
}

/* The network header of an IP packet. Classification has found it to be all there, but the
 * verifier has to be told. */
static __always_inline const void *network_header(const struct frame *frame, __u32 size)
{
    const __u8 *at = frame->data + frame->packet->network;
    return at + size <= frame->end ? at : 0;
}

static __always_inline int read_addresses(const struct frame *frame, struct cpd_acl_key *key)
{
    if (frame->packet->version == 4) {
        const struct ipv4_header *ip = network_header(frame, sizeof(*ip));
        if (!ip)
            return 0;
        key->source[0] = bpf_ntohl(ip->source);
        key->destination[0] = bpf_ntohl(ip->destination);
        return 1;
    }
    const struct ipv6_header *ip = network_header(frame, sizeof(*ip));
    if (!ip)
        return 0;
    for (int i = 0; i < 4; i++) {
        key->source[i] = bpf_ntohl(((const __be32 *)ip->source)[i]);
        key->destination[i] = bpf_ntohl(((const __be32 *)ip->destination)[i]);
    }
    return 1;
}

/* A packet of IP: 1 for the first ACL entry when that selects it, and so on; 0 when none does,
 * CPD_ACL_UNTOLD when this fragment does not tell. */
__noinline int cpd_select(struct xdp_md *ctx, struct cpd_packet *packet, __u32 table_set)
{
    const struct cpd_tables *tables = tables_of(table_set);
    if (!packet || !tables)
        return 0;
    struct cpd_acl_key key = {
        .source_port = packet->source_port,
        .destination_port = packet->destination_port,
        .extra = packet->extra,
        .protocol = packet->protocol,
        .v6 = packet->version == 6,
    };
    struct frame frame = frame_of(ctx, packet);
    if (!read_addresses(&frame, &key))
        return 0;
    return cpd_acl_decide(tables, &key);
}

static __always_inline int is_multicast(const struct cpd_acl_key *key)
{
    __u32 address = key->destination[0];
    return key->v6 ? address >> 24 == 0xff : address >> 28 == 0xe || address == 0xffffffff;
}

/* No route leads there: the kernel takes the one of IPv4 for a broadcast (RFC 1122, 3.2.1.3). */
static __always_inline int is_unspecified(const struct cpd_acl_key *key)
{
    const __u32 *word = key->destination;
    return !(word[0] | (key->v6 ? word[1] | word[2] | word[3] : 0));
}

/* What the kernel's routing tables deliver to the host: single addresses, then whole prefixes. */
static __always_inline int is_own(const struct cpd_acl_key *key)
{
    struct cpd_prefix prefix = {CPD_ADDRESS_BITS,
                                {{0, 0, bpf_htonl(0xffff), bpf_htonl(key->destination[0])}}};
    if (key->v6)
        for (int i = 0; i < 4; i++)
            prefix.address.words[i] = bpf_htonl(key->destination[i]);
    return bpf_map_lookup_elem(&cpudefend_local, &prefix.address) != 0 ||
           bpf_map_lookup_elem(&cpudefend_nets, &prefix) != 0;
}

/* What the box itself acts upon wherever it goes: hop limits that end here (RFC 1812, 5.3.1; RFC
 * 4443, 3.3), IP options, of which the router alert is one (RFC 2113, RFC 2711), neighbour
 * discovery, which it answers for others as a proxy (RFC 4861, 6 and 7), and DHCP, as a client
 * without an address. */
#define HOP_LIMIT_ND 255

static __always_inline int is_dhcp(const struct cpd_packet *packet)
{
    __u32 port = packet->destination_port;
    if (packet->protocol != PROTOCOL_UDP)
        return 0;
    return packet->version == 4 ? port == PORT_DHCP_SERVER || port == PORT_DHCP_CLIENT
                                : port == PORT_DHCP6_SERVER || port == PORT_DHCP6_CLIENT;
}

static __always_inline int is_discovery(const struct cpd_packet *packet)
{
    return packet->protocol == PROTOCOL_ICMPV6 && packet->extra >= ND_FIRST &&
           packet->extra <= ND_LAST;
}

static __always_inline int ends_here(const struct frame *frame)
{
    if (frame->packet->version == 4) {
        const struct ipv4_header *ip = network_header(frame, sizeof(*ip));
        return !ip || ip->ttl <= 1 || (ip->version_ihl & 0x0f) > IPV4_WORDS;
    }
    const struct ipv6_header *ip = network_header(frame, sizeof(*ip));
    return !ip || ip->hop_limit <= 1 || ip->next_header == PROTOCOL_HOP_BY_HOP ||
           (ip->hop_limit == HOP_LIMIT_ND && is_discovery(frame->packet));
}

/* Whether a packet of IP is for the box itself and not for it to forward. */
__noinline int cpd_for_the_box(struct xdp_md *ctx, struct cpd_packet *packet)
{
    if (!packet)
        return 1;
    struct frame frame = frame_of(ctx, packet);
    struct cpd_acl_key key = {.v6 = packet->version == 6};
    if (frame.data + sizeof(struct ethernet_header) > frame.end || !read_addresses(&frame, &key))
        return 1;
    return is_group(frame.data) || is_multicast(&key) || is_unspecified(&key) || is_own(&key) ||
           is_dhcp(packet) || ends_here(&frame);
}

#endif
