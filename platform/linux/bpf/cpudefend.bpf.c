/* SPDX-License-Identifier: MIT OR GPL-2.0-only */
/*
 * The packet program: what reaches the CPU through a protected port, and at which rate.
 */
#include <linux/bpf.h>

#include <bpf/bpf_helpers.h>

#include "classify.h"
#include "cpudefend_shared.h"

static __always_inline __u64 cpd_now(void)
{
    return bpf_ktime_get_ns();
}

#include "policer.h"

char LICENSE[] SEC("license") = "Dual MIT/GPL";

/* Rules in force, by packet type. User space writes them in place. */
struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(map_flags, BPF_F_MMAPABLE);
    __uint(max_entries, CPD_TYPES);
    __type(key, __u32);
    __type(value, struct cpd_rule);
} cpudefend_rules SEC(".maps");

/* States of their policers. */
struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(map_flags, BPF_F_MMAPABLE);
    __uint(max_entries, CPD_TYPES);
    __type(key, __u32);
    __type(value, struct cpd_state);
} cpudefend_state SEC(".maps");

/* Counters, by packet type; only ever added to. */
struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, CPD_TYPES);
    __type(key, __u32);
    __type(value, struct cpd_counters);
} cpudefend_stats SEC(".maps");

/* Both policers, the packet policer first; a packet that either refuses is charged to neither. */
static __always_inline int conforms(struct cpd_rule *rule, struct cpd_state *state, __u32 flags,
                                    __u64 octets)
{
    if (flags & CPD_RULE_PACKETS &&
        !cpd_charge(&state->word[CPD_PACKETS], rule->settings[CPD_PACKETS], 1))
        return 0;
    if (!(flags & CPD_RULE_BYTES) ||
        cpd_charge(&state->word[CPD_BYTES], rule->settings[CPD_BYTES], octets))
        return 1;
    if (flags & CPD_RULE_PACKETS)
        cpd_refund(&state->word[CPD_PACKETS], rule->settings[CPD_PACKETS], 1);
    return 0;
}

static __always_inline int admit(__u32 type, __u64 octets)
{
    struct cpd_rule *rule = bpf_map_lookup_elem(&cpudefend_rules, &type);
    struct cpd_state *state = bpf_map_lookup_elem(&cpudefend_state, &type);
    if (!rule || !state)
        return 1;
    __u32 flags = *(volatile __u32 *)&rule->flags;
    return !(flags & CPD_RULE_DENY) && conforms(rule, state, flags, octets);
}

static __always_inline void count(__u32 type, __u64 octets, int passed)
{
    struct cpd_counters *counters = bpf_map_lookup_elem(&cpudefend_stats, &type);
    if (!counters)
        return;
    if (passed) {
        counters->passed_packets++;
        counters->passed_octets += octets;
    } else {
        counters->dropped_packets++;
        counters->dropped_octets += octets;
    }
}

static __always_inline int in_force(__u32 type)
{
    struct cpd_rule *rule = bpf_map_lookup_elem(&cpudefend_rules, &type);
    return rule && *(volatile __u32 *)&rule->flags;
}

/* The type that stands in for one without an entry: DHCP snooping for the directions of DHCP. */
static __always_inline int stand_in(int type)
{
    switch (type) {
    case CPD_DHCPCLIENT:
    case CPD_DHCPSERVER: return CPD_DHCPSNOOPIP;
    case CPD_DHCP6REPLY:
    case CPD_DHCP6REQUEST: return CPD_DHCPSNOOPIP6;
    default: return CPD_NO_TYPE;
    }
}

/* The type by which a frame is policed and counted. */
static __always_inline int policed_as(int type)
{
    int other = stand_in(type);
    return other != CPD_NO_TYPE && !in_force(type) && in_force(other) ? other : type;
}

/* Frames in several buffers are welcome: their headers are in the first. */
SEC("xdp.frags")
int cpudefend_xdp(struct xdp_md *ctx)
{
    int type = classify((const void *)(long)ctx->data, (const void *)(long)ctx->data_end);
    if (type == CPD_NO_TYPE)
        return XDP_PASS;
    type = policed_as(type);
    __u64 octets = bpf_xdp_get_buff_len(ctx);
    int passed = admit(type, octets);
    count(type, octets, passed);
    return passed ? XDP_PASS : XDP_DROP;
}
