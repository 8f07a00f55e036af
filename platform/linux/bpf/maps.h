/* SPDX-License-Identifier: MIT OR GPL-2.0-only */
/*
 * The maps of the packet program, and the ways to their elements.
 */
#ifndef CPUDEFEND_MAPS_H
#define CPUDEFEND_MAPS_H

#include <linux/bpf.h>

#include <bpf/bpf_helpers.h>

#include "acl_lookup.h"
#include "cpudefend_shared.h"

/* The place of a port, as cpd_port() makes it; one that is not here belongs to the system. */
struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, CPD_PORTS);
    __type(key, __u32); /* ifindex */
    __type(value, __u32);
} cpudefend_ports SEC(".maps");

/* The same by a mere load, for ports with a low ifindex; 0 says nothing. */
struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, CPD_NEAR);
    __type(key, __u32);
    __type(value, __u32);
} cpudefend_near SEC(".maps");

struct cpd_policy_map {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct cpd_policy);
};

/* What is in force at each target; nothing where there is no policy. */
struct {
    __uint(type, BPF_MAP_TYPE_ARRAY_OF_MAPS);
    __uint(max_entries, CPD_TARGETS);
    __type(key, __u32);
    __array(values, struct cpd_policy_map);
} cpudefend_rules SEC(".maps");

struct cpd_tables_map {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(map_flags, BPF_F_MMAPABLE); /* user space writes the cells in use, a small part */
    __uint(max_entries, 1);
    __uint(key_size, sizeof(__u32));
    __uint(value_size, sizeof(struct cpd_tables));
};

/* Compiled sets of ACLs. */
struct {
    __uint(type, BPF_MAP_TYPE_ARRAY_OF_MAPS);
    __uint(max_entries, CPD_TABLE_SETS);
    __type(key, __u32);
    __array(values, struct cpd_tables_map);
} cpudefend_acls SEC(".maps");

/* Pairs of policers. User space reads and writes their words in place. */
struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(map_flags, BPF_F_MMAPABLE);
    __uint(max_entries, CPD_POLICERS);
    __type(key, __u32);
    __type(value, struct cpd_policer);
} cpudefend_meter SEC(".maps");

/* Counters, by cpd_stats_index(); only ever added to. */
struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, CPD_STATS);
    __type(key, __u32);
    __type(value, struct cpd_stats);
} cpudefend_stats SEC(".maps");

/* Addresses that the host's routing tables deliver to itself, of IPv4 as ::ffff:a.b.c.d. */
struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __uint(max_entries, CPD_ADDRESSES);
    __type(key, struct cpd_address);
    __type(value, __u8);
} cpudefend_local SEC(".maps");

/* The same of whole prefixes. */
struct {
    __uint(type, BPF_MAP_TYPE_LPM_TRIE);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __uint(max_entries, CPD_ADDRESSES);
    __type(key, struct cpd_prefix);
    __type(value, __u8);
} cpudefend_nets SEC(".maps");

/* Samples for source tracing. */
struct {
    __uint(type, BPF_MAP_TYPE_RINGBUF);
    __uint(max_entries, CPD_RING_BYTES);
} cpudefend_ring SEC(".maps");

/* For the daemon alone: what is pinned here. */
struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct cpd_info);
} cpudefend_info SEC(".maps");

/* The place of a port; its target is cpd_port_target() of that. */
static __always_inline __u32 port_of(__u32 ifindex)
{
    const __u32 *near = bpf_map_lookup_elem(&cpudefend_near, &ifindex);
    if (near && *near)
        return *near;
    const __u32 *far = bpf_map_lookup_elem(&cpudefend_ports, &ifindex);
    return far ? *far : cpd_port(0, 0);
}

static __always_inline const struct cpd_policy *policy_of(__u32 target)
{
    void *inner = bpf_map_lookup_elem(&cpudefend_rules, &target);
    __u32 first = 0;
    return inner ? bpf_map_lookup_elem(inner, &first) : 0;
}

static __always_inline const struct cpd_tables *tables_of(__u32 set)
{
    void *inner = bpf_map_lookup_elem(&cpudefend_acls, &set);
    __u32 first = 0;
    return inner ? bpf_map_lookup_elem(inner, &first) : 0;
}

static __always_inline struct cpd_stats *stats_of(__u32 target, __u32 type)
{
    __u32 index = cpd_stats_index(target, type);
    return bpf_map_lookup_elem(&cpudefend_stats, &index);
}

static __always_inline void count(struct cpd_counters *counters, __u32 packets, __u32 octets,
                                  int passed)
{
    if (passed) {
        counters->passed_packets += packets;
        counters->passed_octets += octets;
    } else {
        counters->dropped_packets += packets;
        counters->dropped_octets += octets;
    }
}

#endif
