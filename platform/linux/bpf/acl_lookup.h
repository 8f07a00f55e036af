/* SPDX-License-Identifier: MIT OR GPL-2.0-only */
/*
 * Which ACL entry selects a packet: a walk through compiled tables, of the same few loads whatever
 * the number of rules. acl_compiler.h makes the tables. No helper is called, so that the same code
 * runs in the packet program and in user space.
 *
 * Each field of a packet is first turned into a class: values of a field that no rule tells apart
 * share one. Classes are then combined in pairs until the answer is left:
 *
 *     source, destination             -> addresses
 *     addresses, extra                -> rest; left out where no rule looks at extra
 *     destination port, source port   -> ports
 *     rest, ports                     -> answer
 *
 * and each step ends as soon as the remaining ones can change nothing. Protocols have such a set of
 * tables each, where their rules differ.
 */
#ifndef CPUDEFEND_ACL_LOOKUP_H
#define CPUDEFEND_ACL_LOOKUP_H

#include <linux/types.h>

#ifndef __always_inline
#define __always_inline inline __attribute__((always_inline))
#endif

/* What the lookup needs of a packet. Integers are in host order. */
struct cpd_acl_key {
    __u32 source[4]; /* an IPv4 address is in the first word, the others are not looked at */
    __u32 destination[4];
    __u32 source_port; /* of TCP, UDP, SCTP; CPD_ACL_NO_PORT with any other protocol, or cut off */
    __u32 destination_port; /* the same */
    __u32 extra;            /* TCP: flags, the 8 bits from CWR to FIN; ICMP: type; see below */
    __u8 protocol;          /* behind the extension headers of IPv6 */
    __u8 v6;                /* 1 for IPv6, 0 for IPv4 */
};

#define CPD_ACL_NO_PORT 0x10000
#define CPD_ACL_NO_EXTRA 0x100      /* the protocol has no such field, or it is cut off */
#define CPD_ACL_FRAGMENT 0x101      /* a later fragment, with CPD_ACL_NO_PORT in both ports */
#define CPD_ACL_NEXT_FRAGMENT 0x102 /* a first fragment, too short to hold the field */

/* The answer when rules ask for a field that is in the next fragment: RFC 1858, RFC 3128. */
#define CPD_ACL_UNTOLD 0x7ffff

/*
 * All tables are cells of one array. The first 512 are indexed by v6 * 256 + protocol and hold the
 * place of the protocol's record, or 0 when no rule can match.
 */
#define CPD_ACL_CELLS (1u << 20)
#define CPD_ACL_PROTOCOLS 512

struct cpd_tables {
    __u32 cells[CPD_ACL_CELLS];
};

/* Record of a protocol: where the walk through each field begins; for extra 0 if it is left out. */
enum cpd_acl_field {
    CPD_ACL_SOURCE,
    CPD_ACL_DESTINATION,
    CPD_ACL_DESTINATION_PORT,
    CPD_ACL_SOURCE_PORT,
    CPD_ACL_EXTRA,
    CPD_ACL_FIELDS
};

/*
 * From a field to its class: a trie over words of 32 bits. A reference is a leaf, which holds a
 * value, or leads to a node:
 *
 *     bit 31     leaf; bits 0 to 19 are the value
 *     bits 29-30 word of the field that the node looks at
 *     bits 25-28 width: the node has 2^width references, indexed by so many bits of the word;
 *                0: it has four cells, lowest value, span, reference inside, reference outside
 *     bits 20-24 shift of these bits
 *     bits 0-19  first cell of the node
 */
#define CPD_ACL_LEAF 0x80000000u
#define CPD_ACL_WORD_SHIFT 29
#define CPD_ACL_WIDTH_SHIFT 25
#define CPD_ACL_SHIFT_SHIFT 20
#define CPD_ACL_STEPS 8 /* nodes for each word at most */

/*
 * From two classes to one: a row of a table, and a column in it. A value names a row by half the
 * place of its two cells:
 *
 *     first   bits 0-19 the place of column 0, bits 20-31 the row's mark
 *     second  the value in every column whose cell does not have the row's mark
 *
 * So rows share cells. The mark of a cell is in bits 20-31, its value in bits 0-19. A value with
 * CPD_ACL_FINAL is what the chain of tables leads to, whatever is in the remaining columns.
 */
#define CPD_ACL_MARK_SHIFT 20
#define CPD_ACL_VALUE 0xfffffu
#define CPD_ACL_FINAL 0x80000u

static __always_inline __u32 cpd_acl_cell(const struct cpd_tables *tables, __u32 place)
{
    return tables->cells[place & (CPD_ACL_CELLS - 1)];
}

static __always_inline __u32 cpd_acl_next(const struct cpd_tables *tables, __u32 node, __u32 word)
{
    __u32 place = node & (CPD_ACL_CELLS - 1);
    __u32 width = node >> CPD_ACL_WIDTH_SHIFT & 15;
    if (width)
        place += word >> (node >> CPD_ACL_SHIFT_SHIFT & 31) & ((1u << width) - 1);
    else
        place += word - cpd_acl_cell(tables, place) <= cpd_acl_cell(tables, place + 1) ? 2 : 3;
    return cpd_acl_cell(tables, place);
}

/* Go on as long as nodes look at this word; index is known at compile time. */
static __always_inline __u32 cpd_acl_walk(const struct cpd_tables *tables, __u32 reference,
                                          __u32 word, __u32 index)
{
    for (int i = 0; i < CPD_ACL_STEPS; i++) {
        if (reference >> CPD_ACL_WORD_SHIFT != index)
            break;
        reference = cpd_acl_next(tables, reference, word);
    }
    return reference;
}

static __always_inline __u32 cpd_acl_address(const struct cpd_tables *tables, __u32 reference,
                                             const __u32 *address, int v6)
{
    reference = cpd_acl_walk(tables, reference, address[0], 0);
    if (v6) {
        reference = cpd_acl_walk(tables, reference, address[1], 1);
        reference = cpd_acl_walk(tables, reference, address[2], 2);
        reference = cpd_acl_walk(tables, reference, address[3], 3);
    }
    return reference & CPD_ACL_VALUE;
}

static __always_inline __u32 cpd_acl_number(const struct cpd_tables *tables, __u32 reference,
                                            __u32 number)
{
    return cpd_acl_walk(tables, reference, number, 0) & CPD_ACL_VALUE;
}

static __always_inline __u32 cpd_acl_cross(const struct cpd_tables *tables, __u32 row, __u32 column)
{
    __u32 first = cpd_acl_cell(tables, row * 2);
    __u32 other = cpd_acl_cell(tables, row * 2 + 1);
    __u32 cell = cpd_acl_cell(tables, (first & CPD_ACL_VALUE) + column);
    return (cell ^ first) >> CPD_ACL_MARK_SHIFT ? other : cell & CPD_ACL_VALUE;
}

static __always_inline __u32 cpd_acl_ports(const struct cpd_tables *tables, __u32 record,
                                           const struct cpd_acl_key *key)
{
    __u32 value = cpd_acl_number(tables, cpd_acl_cell(tables, record + CPD_ACL_DESTINATION_PORT),
                                 key->destination_port);
    if (!(value & CPD_ACL_FINAL))
        value =
            cpd_acl_cross(tables, value,
                          cpd_acl_number(tables, cpd_acl_cell(tables, record + CPD_ACL_SOURCE_PORT),
                                         key->source_port));
    return value & ~CPD_ACL_FINAL;
}

static __always_inline __u32 cpd_acl_search(const struct cpd_tables *tables,
                                            const struct cpd_acl_key *key, int v6)
{
    __u32 record = cpd_acl_cell(tables, (v6 ? 256u : 0u) + key->protocol);
    if (!record)
        return 0;
    __u32 extra = cpd_acl_cell(tables, record + CPD_ACL_EXTRA);
    __u32 value =
        cpd_acl_address(tables, cpd_acl_cell(tables, record + CPD_ACL_SOURCE), key->source, v6);
    if (!(value & CPD_ACL_FINAL))
        value = cpd_acl_cross(tables, value,
                              cpd_acl_address(tables,
                                              cpd_acl_cell(tables, record + CPD_ACL_DESTINATION),
                                              key->destination, v6));
    if (extra && !(value & CPD_ACL_FINAL)) {
        if (key->extra == CPD_ACL_NEXT_FRAGMENT)
            return CPD_ACL_UNTOLD;
        value = cpd_acl_cross(tables, value, cpd_acl_number(tables, extra, key->extra));
    }
    if (!(value & CPD_ACL_FINAL))
        value = cpd_acl_cross(tables, value, cpd_acl_ports(tables, record, key));
    return value & ~CPD_ACL_FINAL;
}

/*
 * The ACL entry that selects the packet: its number among those that the tables were made from,
 * counted from 1; 0 when none does, CPD_ACL_UNTOLD when that is not to be told of this fragment.
 */
static __always_inline __u32 cpd_acl_decide(const struct cpd_tables *tables,
                                            const struct cpd_acl_key *key)
{
    return key->v6 ? cpd_acl_search(tables, key, 1) : cpd_acl_search(tables, key, 0);
}

#endif
