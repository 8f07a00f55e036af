/* SPDX-License-Identifier: MIT OR GPL-2.0-only */
/*
 * What the packet program and user space agree on: packet types, rules, policers, counters.
 */
#ifndef CPUDEFEND_SHARED_H
#define CPUDEFEND_SHARED_H

#include <linux/types.h>

/*
 * Packet types that the program tells apart. The numbers are those of the CAR entries that the
 * daemon sends; docs/packet-types.md says what each one stands for.
 */
enum cpd_type {
    CPD_NO_TYPE = -1, /* anything else: passed, never counted */
    CPD_DOT1X,
    CPD_ARP,
    CPD_IGMPSNOOP,
    CPD_STPCUSTOMER,
    CPD_GVRP,
    CPD_UDLD,
    CPD_VTP,
    CPD_IGMP,
    CPD_ALB,
    CPD_DHCPSNOOPIP,
    CPD_Y1731,
    CPD_TELNET,
    CPD_TCP,
    CPD_FTP,
    CPD_ICMP,
    CPD_ICMPV6,
    CPD_SNMP,
    CPD_NTP,
    CPD_BPDUTUNNEL,
    CPD_OSPF,
    CPD_OSPF6,
    CPD_DHCPCLIENT,
    CPD_DHCPSERVER,
    CPD_DHCP6REPLY,
    CPD_OAM,
    CPD_DHCP6REQUEST,
    CPD_RIP,
    CPD_RIP6,
    CPD_LDP,
    CPD_MPLS,
    CPD_BFD,
    CPD_BFD6,
    CPD_BGP,
    CPD_SNTP,
    CPD_SNTP6,
    CPD_PIM,
    CPD_PIM6,
    CPD_VRRP,
    CPD_VRRP6,
    CPD_ERP,
    CPD_DLIP,
    CPD_STPPROVIDER,
    CPD_ESR,
    CPD_EAPS,
    CPD_ISIS,
    CPD_BFDETHER,
    CPD_LOOPBACK,
    CPD_EFM,
    CPD_RLINK,
    CPD_RTRUNK,
    CPD_LLDP,
    CPD_SGM,
    CPD_PPPOE,
    CPD_FLUSH,
    CPD_ISS,
    CPD_ISSSYNC,
    CPD_DHCPSNOOPIP6,
    CPD_DHCPSNOOPARP,
    CPD_TYPES /* how many there are */
};

/* Whether there are frames that the program takes for this type: not of those that have no
 * published format, or one that another type has. */
static inline int cpd_classified(__u32 type)
{
    switch (type) {
    case CPD_SNTP:
    case CPD_DLIP:
    case CPD_ESR:
    case CPD_RLINK:
    case CPD_RTRUNK:
    case CPD_SGM:
    case CPD_FLUSH:
    case CPD_ISS:
    case CPD_ISSSYNC:
    case CPD_DHCPSNOOPARP: return 0;
    default: return type < CPD_TYPES;
    }
}

/* The two policers that a rule may put in force, and what a token of each is. */
enum cpd_kind {
    CPD_PACKETS, /* a packet */
    CPD_BYTES,   /* a byte of the frame, from the destination address on, without the FCS */
    CPD_KINDS
};

/* What a rule does. Without any of these, packets of the type pass. */
enum cpd_rule_flag {
    CPD_RULE_DENY = 1,         /* drop */
    CPD_RULE_PACKETS = 1 << 1, /* the packet policer is in force */
    CPD_RULE_BYTES = 1 << 2,   /* the byte policer is in force */
};

/*
 * A policer is a virtual scheduling algorithm (ITU-T I.371, annex on the generic cell rate
 * algorithm): its whole state is the time at which the bucket will be full again, one word.
 *
 * Time is counted in units of 2^-shift ns, with a shift per policer so that a token of a fast one
 * is still many units long. The word holds that time, modulo 2^60, above CPD_TURN_BITS that count
 * the changes of the policer's settings. The lowest of these says which of the two sets of settings
 * the time is told in, so that one store of the word replaces settings and state together.
 */
#define CPD_TURN_BITS 4
#define CPD_TURN_MASK ((1ull << CPD_TURN_BITS) - 1)
#define CPD_COST_BITS 16 /* fraction bits of cpd_settings::cost */

/* Times below are in the units of the word: 2^-(shift + CPD_TURN_BITS) ns. */
struct cpd_settings {
    __u64 cost;  /* units of 2^-shift ns that one token takes, times 2^CPD_COST_BITS; never 0 */
    __u64 depth; /* time from an empty bucket to a full one; 0 lets nothing pass; at most 2^59 */
    __u32 shift;
    __u32 reserved;
};

/* Rule of a packet type: an element of the map of rules. */
struct cpd_rule {
    __u32 flags; /* CPD_RULE_*; written at once */
    __u32 reserved;
    struct cpd_settings settings[CPD_KINDS][2];
};

/* State of a packet type's policers: an element of the map of states, on a cache line of its own
 * because every CPU writes to it. It outlives the rules. */
struct cpd_state {
    __u64 word[CPD_KINDS];
    __u64 reserved[8 - CPD_KINDS];
};

/* Counters of a packet type, one such record for each CPU. Octets as the byte policer counts. */
struct cpd_counters {
    __u64 passed_packets;
    __u64 passed_octets;
    __u64 dropped_packets;
    __u64 dropped_octets;
};

/* The clocks of two CPUs, and the place where each is read, differ by less than this (ns). */
#define CPD_CLOCK_SLACK (1ull << 20)

static inline unsigned int cpd_turn(__u64 word)
{
    return (unsigned int)(word & CPD_TURN_MASK);
}

/* A time in ns in the units of the word, with no turn. */
static inline __u64 cpd_units(__u64 ns, const struct cpd_settings *settings)
{
    return ns << (settings->shift + CPD_TURN_BITS);
}

/* What a number of tokens costs. At most 2^20 tokens. */
static inline __u64 cpd_cost(__u64 tokens, const struct cpd_settings *settings)
{
    return ((tokens * settings->cost) >> CPD_COST_BITS) << CPD_TURN_BITS;
}

/*
 * Time that the bucket still needs to be full. A time in the past, or one so far ahead that only
 * the modulus can have put it there, means that it is full.
 */
static inline __u64 cpd_debt(__u64 word, const struct cpd_settings *settings, __u64 now)
{
    __u64 debt = (word & ~CPD_TURN_MASK) - cpd_units(now, settings);
    return debt <= settings->depth + cpd_units(CPD_CLOCK_SLACK, settings) ? debt : 0;
}

/*
 * Decide on a packet at the time now, in ns, which must have been read after the word.
 * Returns the word to store when it conforms, or the word itself, unchanged, when it does not.
 */
static inline __u64 cpd_police(__u64 word, const struct cpd_settings *settings, __u64 tokens,
                               __u64 now)
{
    __u64 debt = cpd_debt(word, settings, now) + cpd_cost(tokens, settings);
    if (debt > settings->depth)
        return word;
    return (cpd_units(now, settings) + debt) | cpd_turn(word);
}

#endif
