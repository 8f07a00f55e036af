/* SPDX-License-Identifier: MIT OR GPL-2.0-only */
/*
 * Frames that hold several packets: a peer on a tap device, or a card that joins segments, hands up
 * to 64 KiB over as one, and the host takes it apart again. The packet program has seen a single
 * frame and charged it; only the socket buffer tells how many packets are in it. The rest of them
 * are charged and counted here: the frame's octets have been, and so only their headers are left.
 */
#ifndef CPUDEFEND_SEGMENTS_H
#define CPUDEFEND_SEGMENTS_H

#include "classify.h"
#include "maps.h"
#include "policer.h"

#define TCP_LENGTH_OFFSET                                                                          \
    12 /* in the upper half of this byte: the header's words (RFC 9293, 3.1) */
#define UDP_HEADER 8
#define TOKENS_MAX (1u << 20) /* that cpd_cost() can take */

static __always_inline __u8 byte_at(struct __sk_buff *skb, __u32 offset)
{
    __u8 byte = 0;
    bpf_skb_load_bytes_relative(skb, offset, &byte, sizeof(byte), BPF_HDR_START_NET);
    return byte;
}

/* The headers that each of the packets has, the MAC header included; 0 when they are not
 * understood, as behind a second tag. */
static __always_inline __u32 headers_of(struct __sk_buff *skb)
{
    int v6 = skb->protocol == bpf_htons(ETH_P_IPV6);
    if (!v6 && skb->protocol != bpf_htons(ETH_P_IP))
        return 0;
    __u8 protocol = byte_at(skb, v6 ? __builtin_offsetof(struct ipv6_header, next_header)
                                    : __builtin_offsetof(struct ipv4_header, protocol));
    __u32 transport = v6 ? sizeof(struct ipv6_header) : (byte_at(skb, 0) & 0x0f) * 4;
    if (protocol == PROTOCOL_UDP)
        return sizeof(struct ethernet_header) + transport + UDP_HEADER;
    if (protocol != PROTOCOL_TCP)
        return 0;
    return sizeof(struct ethernet_header) + transport +
           (byte_at(skb, transport + TCP_LENGTH_OFFSET) >> 4) * 4;
}

/* How many packets a buffer holds besides the first. Who gives the kernel a buffer need not say how
 * many, and then the kernel does not know yet: rather one too many is charged than one too few. */
static __always_inline __u32 more_packets(struct __sk_buff *skb, __u32 octets, __u32 headers)
{
    __u32 segments = skb->gso_segs, size = skb->gso_size;
    if (segments == 0 && size != 0) {
        __u32 payload = octets > headers ? octets - headers : octets;
        segments = (payload + size - 1) / size;
    }
    return segments > 1 ? segments - 1 : 0;
}

static __always_inline int charge_more(struct cpd_policer *policer, __u32 kind, __u64 tokens)
{
    struct cpd_refusal unused;
    return cpd_charge(&policer->word[kind], &policer->settings[kind],
                      tokens < TOKENS_MAX ? tokens : TOKENS_MAX, &unused);
}

/* Charge the other packets to the policers that let the first one pass, all of them or none. The
 * first one stays charged: packet sockets for all protocols have seen the frame already. */
static __always_inline int rest_conforms(const struct cpd_mark *mark, __u32 packets, __u32 octets)
{
    __u32 index = mark->policer;
    struct cpd_policer *policer = bpf_map_lookup_elem(&cpudefend_meter, &index);
    if (!policer)
        return 1;
    int by_packets = mark->flags & CPD_RULE_PACKETS, by_bytes = mark->flags & CPD_RULE_BYTES;
    if (by_packets && !charge_more(policer, CPD_PACKETS, packets))
        return 0;
    if (!by_bytes || charge_more(policer, CPD_BYTES, octets))
        return 1;
    if (by_packets)
        cpd_refund(&policer->word[CPD_PACKETS], &policer->settings[CPD_PACKETS], packets);
    return 0;
}

/* Judge and count the packets behind the first. Returns whether the frame passes. */
static __always_inline int admit_rest(struct __sk_buff *skb, const struct cpd_mark *mark,
                                      __u32 octets)
{
    __u32 headers = headers_of(skb), index = mark->stats;
    __u32 packets = more_packets(skb, octets, headers);
    if (packets == 0)
        return 1;
    int passed = rest_conforms(mark, packets, packets * headers);
    struct cpd_stats *stats = bpf_map_lookup_elem(&cpudefend_stats, &index);
    if (stats)
        count(&stats->counters, packets, packets * headers, passed);
    return passed;
}

#endif
