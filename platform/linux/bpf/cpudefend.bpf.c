/* SPDX-License-Identifier: MIT OR GPL-2.0-only */
/*
 * The packet program: what reaches the CPU through a protected port, and at which rate. A second
 * one, behind it, gives the socket buffers of what passes their queue and priority.
 */
#include <linux/bpf.h>
#include <linux/pkt_cls.h>

#include <bpf/bpf_helpers.h>

#include "classify.h"
#include "cpudefend_shared.h"

static __always_inline __u64 cpd_now(void)
{
    return bpf_ktime_get_ns();
}

#include "policer.h"

#include "maps.h"
#include "mark.h"
#include "sample.h"
#include "select.h"

char LICENSE[] SEC("license") = "Dual MIT/GPL";

#define POLICED (CPD_RULE_PACKETS | CPD_RULE_BYTES)

/* The kernel's tick: a coarse clock that costs a load. */
static __always_inline __u32 tick_now(void)
{
    return (__u32)bpf_jiffies64();
}

/* A function of its own, so that the verifier looks at its many ways once. */
__noinline int cpd_classify(struct xdp_md *ctx, struct cpd_packet *packet)
{
    if (!packet)
        return CPD_NO_TYPE;
    return classify(packet, (const void *)(long)ctx->data, (const void *)(long)ctx->data_end);
}

/* The ACL entry that selects a packet, or 0. What it permits is policed only on its way to the box
 * itself. */
static __always_inline const struct cpd_rule *selected(struct xdp_md *ctx,
                                                       struct cpd_packet *packet,
                                                       const struct cpd_policy *policy,
                                                       __u32 *flags)
{
    if (!policy->acl_count || !packet->version)
        return 0;
    __u32 entry = cpd_select(ctx, packet, policy->table_set) - 1;
    if (entry >= CPD_ACLS)
        return 0;
    const struct cpd_rule *rule = &policy->acls[entry];
    *flags = rule->flags;
    if (*flags & POLICED && !(*flags & CPD_RULE_DENY) && !cpd_for_the_box(ctx, packet))
        *flags &= ~POLICED;
    return rule;
}

/* The type that stands in for one without an entry: DHCP snooping for the directions of DHCP. */
static __always_inline int stand_in(int type)
{
    switch (type) {
    case CPD_DHCPCLIENT:
    case CPD_DHCPSERVER: return CPD_DHCPSNOOPIP;
    case CPD_DHCP6REPLY:
    case CPD_DHCP6REQUEST: return CPD_DHCPSNOOPIP6;
    default: return type;
    }
}

/* The type by which a frame is policed and counted. */
static __always_inline int policed_as(const struct cpd_policy *policy, int type)
{
    if (policy->types[type].flags)
        return type;
    int other = stand_in(type);
    return policy->types[other].flags ? other : type;
}

/* A packet on its way through a policer pair. */
struct offer {
    struct cpd_policer *policer;
    struct cpd_stats *stats;
    __u32 flags;
    __u32 index; /* of the policer */
    __u32 octets;
    __u32 tick;
};

/* Whether what refused the last packet of this type refuses this one too. */
static __always_inline int refused_unseen(const struct offer *offer)
{
    struct cpd_stats *last = offer->stats;
    __u32 kind = last->meter % CPD_KINDS;
    if (!last->spare || last->meter != offer->index * CPD_KINDS + kind ||
        !(offer->flags & CPD_RULE_PACKETS << kind))
        return 0;
    return cpd_still_refused(last, cpd_read(&offer->policer->word[kind]),
                             kind == CPD_BYTES ? offer->octets : 1, offer->tick);
}

static __always_inline int charge(const struct offer *offer, __u32 kind, __u64 tokens)
{
    struct cpd_policer *policer = offer->policer;
    struct cpd_refusal refusal;
    if (cpd_charge(&policer->word[kind], &policer->settings[kind], tokens, &refusal))
        return 1;
    cpd_remember(offer->stats, &policer->settings[kind], offer->index * CPD_KINDS + kind, tokens,
                 &refusal, offer->tick);
    return 0;
}

/* Both policers, the packet policer first; a packet that either refuses is charged to neither. */
static __always_inline int conforms(const struct offer *offer)
{
    if (offer->flags & CPD_RULE_PACKETS && !charge(offer, CPD_PACKETS, 1))
        return 0;
    if (!(offer->flags & CPD_RULE_BYTES) || charge(offer, CPD_BYTES, offer->octets))
        return 1;
    if (offer->flags & CPD_RULE_PACKETS)
        cpd_refund(&offer->policer->word[CPD_PACKETS], &offer->policer->settings[CPD_PACKETS], 1);
    return 0;
}

static __always_inline int admit(struct offer *offer)
{
    if (offer->flags & CPD_RULE_DENY)
        return 0;
    if (!(offer->flags & POLICED))
        return 1;
    offer->policer = bpf_map_lookup_elem(&cpudefend_meter, &offer->index);
    return !offer->policer || (!refused_unseen(offer) && conforms(offer));
}

static __always_inline void count(struct cpd_counters *counters, __u32 octets, int passed)
{
    if (passed) {
        counters->passed_packets++;
        counters->passed_octets += octets;
    } else {
        counters->dropped_packets++;
        counters->dropped_octets += octets;
    }
}

/* Police a packet by the rule that is in force for it, if any. */
static __always_inline int police(struct xdp_md *ctx, struct cpd_packet *packet,
                                  const struct cpd_rule *rule, __u32 flags, struct cpd_stats *stats,
                                  int type)
{
    struct offer offer = {
        .stats = stats,
        .flags = flags,
        .index = rule ? rule->policer : 0,
        .octets = bpf_xdp_get_buff_len(ctx),
        .tick = tick_now(),
    };
    int passed = admit(&offer);
    count(&stats->counters, offer.octets, passed);
    if (flags && type != CPD_NO_TYPE)
        sample(ctx, packet, stats, offer.tick, !passed);
    if (passed && rule && flags & (CPD_RULE_QUEUE | CPD_RULE_PRIORITY))
        mark(ctx, rule);
    return passed ? XDP_PASS : XDP_DROP;
}

/* Frames in several buffers are welcome: their headers are in the first. */
SEC("xdp.frags")
int cpudefend_xdp(struct xdp_md *ctx)
{
    struct cpd_packet packet = {};
    int type = cpd_classify(ctx, &packet);
    if ((__u32)type >= CPD_TYPES)
        type = CPD_NO_TYPE;
    __u32 target = target_of(ctx->ingress_ifindex);
    const struct cpd_policy *policy = policy_of(target);
    const struct cpd_rule *rule = 0;
    __u32 flags = 0;

    if (policy)
        rule = selected(ctx, &packet, policy, &flags);
    if (!rule) {
        if (type == CPD_NO_TYPE)
            return XDP_PASS;
        if (policy) {
            type = policed_as(policy, type);
            rule = &policy->types[type];
            flags = rule->flags;
        }
    }
    struct cpd_stats *stats = stats_of(target, type);
    return stats ? police(ctx, &packet, rule, flags, stats, type) : XDP_PASS;
}

/* Behind it, on the socket buffer. Whatever other filters there are decide on the packet. */
SEC("tc")
int cpudefend_tc(struct __sk_buff *skb)
{
    take_mark(skb);
    return TC_ACT_UNSPEC;
}
