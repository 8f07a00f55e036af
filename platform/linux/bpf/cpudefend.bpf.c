/* SPDX-License-Identifier: MIT OR GPL-2.0-only */
/*
 * The packet program: what reaches the CPU through a protected port, and at which rate. A second
 * one, behind it, gives the socket buffers of what passes their queue and priority, and judges
 * those that hold several packets.
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

/* The length of the kernel's tick (ns). */
const volatile __u32 tick_length = 10000000;

static __always_inline __u32 cpd_tick_length(void)
{
    return tick_length;
}

#include "policer.h"

#include "maps.h"
#include "mark.h"
#include "sample.h"
#include "segments.h"
#include "select.h"

char LICENSE[] SEC("license") = "Dual MIT/GPL";

#define HEADERS_MAX 256 /* bytes of a frame in which all headers are looked for */
#define POLICED (CPD_RULE_PACKETS | CPD_RULE_BYTES)

/* The kernel's tick: a coarse clock that costs a load. */
static __always_inline __u32 tick_now(void)
{
    return (__u32)bpf_jiffies64();
}

/* The ACL entry that selects a packet, or 0; a packet of which that is not to be told becomes an
 * unread one, and of these an entry decides those only that it denies. What an entry permits is
 * policed only on its way to the box itself. */
static __always_inline const struct cpd_rule *selected(struct xdp_md *ctx,
                                                       struct cpd_packet *packet,
                                                       const struct cpd_policy *policy, __u32 *type,
                                                       __u32 *flags)
{
    if (!packet->version)
        return 0;
    __u32 entry = cpd_select(ctx, packet, policy->table_set) - 1;
    if (entry >= CPD_ACLS) {
        if (entry == CPD_ACL_UNTOLD - 1)
            *type = CPD_UNREAD;
        return 0;
    }
    const struct cpd_rule *rule = &policy->acls[entry];
    *flags = rule->flags;
    if (*flags & CPD_RULE_DENY)
        return rule;
    if (*type == CPD_UNREAD)
        return 0;
    if (*flags & POLICED && !cpd_for_the_box(ctx, packet))
        *flags &= ~POLICED;
    return rule;
}

/* The rule for a type, and with it the type by which the frame is counted. */
static __always_inline const struct cpd_rule *rule_of(const struct cpd_policy *policy, __u32 *type)
{
    __u32 other = policy->stand_in[*type];
    if (other != 0) {
        barrier_var(other); /* two comparisons in one are more than the verifier can follow */
        if (other < CPD_TYPES)
            *type = other;
    }
    return &policy->types[*type];
}

/* Whether what refused the last packet of this type refuses this one too. */
static __always_inline int refused_unseen(const struct cpd_offer *offer, struct cpd_stats *last)
{
    if (!last->spare || last->by != cpd_rule_id(offer))
        return 0;
    __u32 index = offer->policer;
    const struct cpd_policer *policer = bpf_map_lookup_elem(&cpudefend_meter, &index);
    return policer &&
           cpd_still_refused(last, cpd_read(&policer->word[last->kind % CPD_KINDS]), offer);
}

/* Packets that samples are still wanted of are all seen. */
static __always_inline int charge(const struct cpd_offer *offer, struct cpd_stats *stats,
                                  struct cpd_policer *policer, __u32 kind)
{
    const struct cpd_settings *settings = &policer->settings[kind];
    struct cpd_refusal refusal;
    if (cpd_charge(&policer->word[kind], settings, cpd_tokens(offer, kind), &refusal))
        return 1;
    cpd_remember(stats, settings, offer, kind, &refusal);
    if (!is_sampled(stats, offer->tick))
        stats->spare = stats->granted = 0;
    return 0;
}

/* Both policers, the packet policer first; a packet that either refuses is charged to neither. A
 * function of its own, which the verifier looks at once. */
__noinline int cpd_conforms(const struct cpd_offer *offer, struct cpd_stats *stats)
{
    if (!offer || !stats)
        return 1;
    __u32 index = offer->policer;
    struct cpd_policer *policer = bpf_map_lookup_elem(&cpudefend_meter, &index);
    if (!policer)
        return 1;
    if (offer->flags & CPD_RULE_PACKETS && !charge(offer, stats, policer, CPD_PACKETS))
        return 0;
    if (!(offer->flags & CPD_RULE_BYTES) || charge(offer, stats, policer, CPD_BYTES))
        return 1;
    if (offer->flags & CPD_RULE_PACKETS)
        cpd_refund(&policer->word[CPD_PACKETS], &policer->settings[CPD_PACKETS], 1);
    return 0;
}

static __always_inline int conforms(const struct cpd_offer *offer, struct cpd_stats *stats)
{
    if (offer->flags & CPD_RULE_DENY)
        return 0;
    return !(offer->flags & POLICED) || cpd_conforms(offer, stats);
}

/* What the program behind this one has to know of a frame that passes. */
static __always_inline void hand_on(struct xdp_md *ctx, __u32 port, __u32 type,
                                    const struct cpd_rule *rule, const struct cpd_offer *offer)
{
    struct cpd_mark wanted = mark_of(rule);
    if (port & CPD_PORT_SEGMENTS) {
        wanted.segments = 1;
        wanted.flags |= offer->flags & POLICED;
        wanted.policer = offer->policer;
        wanted.stats = cpd_stats_index(cpd_port_target(port), type);
    }
    if (wanted.flags & MARKED || wanted.segments)
        mark(ctx, &wanted);
}

static __always_inline int admit(struct xdp_md *ctx, __u32 port, __u32 type,
                                 const struct cpd_rule *rule, struct cpd_offer offer,
                                 struct cpd_stats *stats)
{
    int passed = conforms(&offer, stats);
    count(&stats->counters, 1, offer.octets, passed);
    if (offer.flags)
        sample(ctx, stats, type, offer.tick, !passed);
    if (passed)
        hand_on(ctx, port, type, rule, &offer);
    return passed ? XDP_PASS : XDP_DROP;
}

/* Police a packet by the rule that is in force for it. The way of a flood comes first, and is kept
 * free of all that it can do without: an offer in memory, a look at the samples. */
static __always_inline int police(struct xdp_md *ctx, __u32 port, __u32 type,
                                  const struct cpd_rule *rule, __u32 flags, __u32 octets)
{
    struct cpd_stats *stats = stats_of(cpd_port_target(port), type);
    if (!stats)
        return XDP_PASS;
    const struct cpd_offer offer = {flags, rule->policer, octets, tick_now()};
    if (!cpd_likely(refused_unseen(&offer, stats)))
        return admit(ctx, port, type, rule, offer, stats);
    count(&stats->counters, 1, offer.octets, 0);
    return XDP_DROP;
}

/* Where nothing is in force. */
static __always_inline int pass(struct xdp_md *ctx, __u32 port, __u32 type, __u32 octets)
{
    const struct cpd_rule none = {};
    const struct cpd_offer offer = {};
    struct cpd_stats *stats = stats_of(cpd_port_target(port), type);
    if (stats) {
        count(&stats->counters, 1, octets, 1);
        hand_on(ctx, port, type, &none, &offer);
    }
    return XDP_PASS;
}

/* Where ACL entries are in force, they decide on what they select. */
static __always_inline const struct cpd_rule *
classify_and_select(struct xdp_md *ctx, const struct cpd_policy *policy, __u32 *type, __u32 *flags)
{
    struct cpd_packet packet = {};
    *type = cpd_known_type(cpd_classify(ctx, &packet));
    return selected(ctx, &packet, policy, type, flags);
}

/* Without them, a packet's type is all that has to be known of it. */
static __always_inline __u32 type_of(struct xdp_md *ctx)
{
    struct cpd_packet unused = {};
    return classify(ctx, &unused);
}

/* Of a frame in several buffers the headers are to be in the first. There are drivers that put them
 * elsewhere, and before Linux 6.18 nothing can be done about that. */
extern int bpf_xdp_pull_data(struct xdp_md *ctx, __u32 length) __weak __ksym;

/* Returns whether the headers are in reach. */
static __always_inline int gather_headers(struct xdp_md *ctx, __u32 octets)
{
    __u32 first = ctx->data_end - ctx->data;
    if (cpd_likely(first == octets) || first >= HEADERS_MAX)
        return 1;
    return bpf_xdp_pull_data &&
           bpf_xdp_pull_data(ctx, octets < HEADERS_MAX ? octets : HEADERS_MAX) == 0;
}

/* Judge a packet of a type. */
static __always_inline int judge(struct xdp_md *ctx, __u32 port, const struct cpd_policy *policy,
                                 __u32 type, __u32 octets)
{
    if (!policy)
        return pass(ctx, port, type, octets);
    const struct cpd_rule *rule = rule_of(policy, &type);
    return police(ctx, port, type, rule, rule->flags, octets);
}

/* A frame whose headers are out of reach. A function of its own, out of the flood's way. */
__noinline int cpd_judge_unread(struct xdp_md *ctx)
{
    __u32 port = port_of(ctx->ingress_ifindex);
    const struct cpd_policy *policy = policy_of(cpd_port_target(port));
    return judge(ctx, port, policy, CPD_UNREAD, bpf_xdp_get_buff_len(ctx));
}

SEC("xdp.frags")
int cpudefend_xdp(struct xdp_md *ctx)
{
    __u32 octets = bpf_xdp_get_buff_len(ctx);
    if (!gather_headers(ctx, octets))
        return cpd_judge_unread(ctx) == XDP_PASS ? XDP_PASS : XDP_DROP;
    __u32 port = port_of(ctx->ingress_ifindex);
    const struct cpd_policy *policy = policy_of(cpd_port_target(port));
    __u32 type, flags = 0;

    if (policy && policy->acl_count) {
        const struct cpd_rule *rule = classify_and_select(ctx, policy, &type, &flags);
        if (rule)
            return police(ctx, port, type, rule, flags, octets);
    } else {
        type = type_of(ctx);
    }
    return type == CPD_NO_TYPE ? XDP_PASS : judge(ctx, port, policy, type, octets);
}

/* Behind it, on the socket buffer. Whatever other filters there are decide on the packet. */
SEC("tc")
int cpudefend_tc(struct __sk_buff *skb)
{
    __u32 mac;
    const struct cpd_mark *found = find_mark(skb, &mac);
    if (!found)
        return TC_ACT_UNSPEC;
    const struct cpd_mark mark = *found;
    take_mark(skb, &mark);
    if (mark.segments && skb->gso_size && !admit_rest(skb, &mark, skb->len + mac))
        return TC_ACT_SHOT;
    return TC_ACT_UNSPEC;
}
