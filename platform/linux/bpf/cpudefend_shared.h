/* SPDX-License-Identifier: MIT OR GPL-2.0-only */
/*
 * What the packet program and user space agree on: packet types, rules, policers, counters.
 */
#ifndef CPUDEFEND_SHARED_H
#define CPUDEFEND_SHARED_H

#include <linux/types.h>

#include "zynpkttype.h"

/* Packet types, CPD_DOT1X and so on: those of zynpkttype.h, which CAR entries are for. */
enum cpd_type {
    CPD_TYPES = ZYN_PKT_TOTALPKT, /* how many a frame can be of; that one stands for all of them */
    CPD_UNREAD = CPD_TYPES,       /* what cannot be judged to the end: limited, never free */
    CPD_RULES,                    /* how many kinds of packets a policy has rules for */
    CPD_NO_TYPE = CPD_RULES,      /* anything else: passes, unless an ACL entry selects it */
#define CPD_TYPE(number, name, word, frames) CPD_##name = number,
    ZYN_PKT_TYPES(CPD_TYPE)
#undef CPD_TYPE
};

/* The two policers that a rule may put in force, and what a token of each is. */
enum cpd_kind {
    CPD_PACKETS, /* a packet */
    CPD_BYTES,   /* a byte of the frame, from the destination address on, without the FCS */
    CPD_KINDS
};

/* What a rule does. Without any of the first three, its packets pass. */
enum cpd_rule_flag {
    CPD_RULE_DENY = 1,          /* drop */
    CPD_RULE_PACKETS = 1 << 1,  /* the packet policer is in force */
    CPD_RULE_BYTES = 1 << 2,    /* the byte policer is in force */
    CPD_RULE_QUEUE = 1 << 3,    /* packets that pass get the rule's queue */
    CPD_RULE_PRIORITY = 1 << 4, /* packets that pass get the rule's priority */
};

#define CPD_TARGETS 32    /* places that policies are programmed at; number 0 is the system */
#define CPD_POLICERS 8192 /* pairs of policers that rules may refer to; number 0 is nobody's */
#define CPD_ACLS 64       /* ACL entries in force at a target */
#define CPD_TABLE_SETS 64 /* compiled sets of ACLs; two for each target */
#define CPD_PORTS 1024
#define CPD_NEAR 4096 /* ports with an ifindex below are found without hashing */
#define CPD_ADDRESSES 65536
#define CPD_RING_BYTES (1 << 18)

/* The place of a port: its target, and whether frames on it may hold several packets. Never 0. */
#define CPD_PORT_SEGMENTS 0x80000000u
#define CPD_PORT_PLACED 0x40000000u
#define CPD_PORT_TARGET 0xffu

static inline __u32 cpd_port(__u32 target, int segments)
{
    return target | CPD_PORT_PLACED | (segments ? CPD_PORT_SEGMENTS : 0);
}

static inline __u32 cpd_port_target(__u32 port)
{
    return port & CPD_PORT_TARGET;
}

struct cpd_rule {
    __u8 flags; /* CPD_RULE_* */
    __u8 queue;
    __u8 priority;
    __u8 reserved;
    __u32 policer; /* index of its policers, below CPD_POLICERS */
};

/*
 * All that is in force at a target. It is never changed: another one takes its place, and so every
 * packet is judged by one or the other. The map of rules holds one for each target, or none.
 */
struct cpd_policy {
    struct cpd_rule types[CPD_RULES]; /* CAR entries, by packet type; the last is for the unread */
    __u8 stand_in[CPD_RULES];         /* see cpd_let_stand_in() */
    struct cpd_rule acls[CPD_ACLS];   /* ACL entries, in the order in which they were programmed */
    __u32 acl_count;
    __u32 table_set; /* which compiled set finds the ACL entry of a packet; with acl_count 0 none */
    __u16 acl_number[CPD_ACLS]; /* of the entries' ACLs, for user space */
};

/* The type that stands in for one without an entry: DHCP snooping for the directions of DHCP. */
static inline __u32 cpd_stand_in(__u32 type)
{
    switch (type) {
    case CPD_DHCPCLIENT:
    case CPD_DHCPSERVER: return CPD_DHCPSNOOPIP;
    case CPD_DHCP6REPLY:
    case CPD_DHCP6REQUEST: return CPD_DHCPSNOOPIP6;
    default: return type;
    }
}

/* The last step of a policy's making: for types without an entry, whose entry decides; 0 for none.
 * What another type's entry decides is counted as that type too. */
static inline void cpd_let_stand_in(struct cpd_policy *policy)
{
    for (__u32 type = 0; type < CPD_TYPES; type++) {
        __u32 other = cpd_stand_in(type);
        int needed = !policy->types[type].flags && policy->types[other].flags;
        policy->stand_in[type] = needed ? (__u8)other : 0;
    }
}

/*
 * A policer is a virtual scheduling algorithm (ITU-T I.371, annex on the generic cell rate
 * algorithm): its whole state is the time at which the bucket will be full again, one word.
 *
 * Time is counted in units of 2^-shift ns, modulo 2^64, with a shift per policer so that a token of
 * a fast one is still many units long. Settings never change while a rule refers to them: a change
 * of rate takes another policer, which starts with the tokens that the former one had.
 */
#define CPD_COST_BITS 16 /* fraction bits of cpd_settings::cost */

struct cpd_settings {
    __u64 cost;  /* units that one token takes, times 2^CPD_COST_BITS; never 0 */
    __u64 depth; /* units from an empty bucket to a full one; 0 lets nothing pass; below 2^62 */
    __u32 shift;
    __u32 reserved;
};

/* One cache line of its own, because every CPU writes to it. */
struct cpd_policer {
    struct cpd_settings settings[CPD_KINDS];
    __u64 word[CPD_KINDS];
};

/* Counters of a packet type at a target. Octets as the byte policer counts. */
struct cpd_counters {
    __u64 passed_packets;
    __u64 passed_octets;
    __u64 dropped_packets;
    __u64 dropped_octets;
};

/*
 * What a CPU knows of a packet type at a target, on a cache line: its counters, the last refusal
 * for which it read the clock (policer.h says what that is good for), and the samples of the
 * current tick.
 */
struct cpd_stats {
    struct cpd_counters counters;
    __u64 word;   /* of the policer that refused, as it was */
    __u32 at;     /* when that was: ns, the low half */
    __u32 tick;   /* of the refusal */
    __u32 by;     /* the rule that refused, as cpd_rule_id() gives it */
    __u32 octets; /* a shorter frame may conform; 0 with the packet policer */
    __u8 kind;    /* of the policer that refused */
    __u8 spare;   /* packets that may still be refused without reading the clock */
    __u8 granted; /* what spare was at that refusal */
    __u8 samples; /* of the tick below */
    __u32 sample_tick;
};

/* Of these, each target has one for each packet type, one for the unread, and one for packets of no
 * type, which counts those that an ACL entry decided. */
#define CPD_STATS_EACH (CPD_NO_TYPE + 1)
#define CPD_STATS (CPD_TARGETS * CPD_STATS_EACH)

static inline __u32 cpd_stats_index(__u32 target, __u32 type)
{
    return target * CPD_STATS_EACH + type;
}

/* An address of IPv6, or one of IPv4 as ::ffff:a.b.c.d; in network order. */
struct cpd_address {
    __u32 words[4];
};

#define CPD_ADDRESS_BITS 128

/* The network of an address; both as the kernel's tries have them. */
struct cpd_prefix {
    __u32 bits;
    struct cpd_address address;
};

/* A sample of what is policed, in the ring. Its data is what the frame begins with. */
#define CPD_SAMPLE_DATA 96

struct cpd_sample {
    __u32 ifindex;
    __u32 length;    /* of the frame */
    __u16 ethertype; /* behind the tags; 0 where a length stands there */
    __u16 outer_tci; /* tag control information of the tags, in host order; 0 without */
    __u16 inner_tci;
    __u8 network_offset; /* of the header that ethertype announces */
    __u8 tags;           /* all of them; 0 when they were too many to follow */
    __u8 dropped;
    __u8 reserved[3];
    __u8 data[CPD_SAMPLE_DATA];
};

/*
 * From the packet program to the one behind it that has a socket buffer. Where a frame may turn out
 * to be several packets, also what was charged for the first of them.
 */
struct cpd_mark {
    __u32 magic;    /* CPD_MARK_MAGIC */
    __u32 priority; /* socket buffer priority */
    __u16 queue;    /* queue mapping, one more than the queue; 0 for none */
    __u16 stats;    /* where the frame was counted, by cpd_stats_index(); this and the next: */
    __u16 policer;  /* if the frame may hold several packets */
    __u8 flags;     /* CPD_RULE_* */
    __u8 segments;  /* whether it may */
};
#define CPD_MARK_MAGIC 0x63704467

/* It goes in the metadata before the frame, at the end of that: Linux forgets how long the MAC
 * header is when it copies a buffer for a program in generic mode, and then shows the program
 * behind a window that begins so many bytes too late. */
struct cpd_meta {
    __u8 shift[16];
    struct cpd_mark mark;
};

/*
 * What user space must know of a pinned data plane to take it over: the program does not read it. A
 * policy is written here before it comes in force.
 */
#define CPD_LAYOUT 3 /* rises with every change of a structure in a map */

struct cpd_place {
    __u32 used;
    __u32 sys;
    __u32 slot;
    __u32 in_force; /* whether there is a policy */
    struct cpd_policy policy;
};

#define CPD_PINNED_MAPS 16 /* there are no more */

struct cpd_info {
    __u32 layout; /* CPD_LAYOUT; written last, so anything else is not ours, or not finished */
    __u32 size;   /* sizeof(struct cpd_info), which tells layouts apart that forgot to say so */
    __u32 maps[CPD_PINNED_MAPS]; /* those that belong together, by the kernel's numbers */
    struct cpd_place targets[CPD_TARGETS];
};

/* The clocks of two CPUs, and the place where each is read, differ by less than this (ns). */
#define CPD_CLOCK_SLACK (1ull << 20)

/* A time in ns in the units of the word. */
static inline __u64 cpd_units(__u64 ns, const struct cpd_settings *settings)
{
    return ns << settings->shift;
}

/* What a number of tokens costs. At most 2^20 tokens. */
static inline __u64 cpd_cost(__u64 tokens, const struct cpd_settings *settings)
{
    return (tokens * settings->cost) >> CPD_COST_BITS;
}

/*
 * Time that the bucket still needs to be full. A time in the past, or one so far ahead that only
 * the modulus can have put it there, means that it is full.
 */
static inline __u64 cpd_debt(__u64 word, const struct cpd_settings *settings, __u64 now)
{
    __u64 debt = word - cpd_units(now, settings);
    return debt <= settings->depth + cpd_units(CPD_CLOCK_SLACK, settings) ? debt : 0;
}

/* Whether so many tokens can ever conform: a frame longer than the bucket cannot. */
static inline int cpd_fits(const struct cpd_settings *settings, __u64 tokens)
{
    return cpd_cost(tokens, settings) <= settings->depth;
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
    return cpd_units(now, settings) + debt;
}

#endif
