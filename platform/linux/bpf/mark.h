/* SPDX-License-Identifier: MIT OR GPL-2.0-only */
/*
 * Queue and priority of a packet that passes: put into the metadata before the frame, where the
 * packet program still has no socket buffer, and taken from there as soon as there is one.
 */
#ifndef CPUDEFEND_MARK_H
#define CPUDEFEND_MARK_H

#include <linux/bpf.h>

#include <bpf/bpf_helpers.h>

#include "cpudefend_shared.h"

/*
 * The socket buffer priority of a queue for which none is configured: a higher queue is in no worse
 * a band of the kernel's default priority map. A hexadecimal digit each, queue 0 on the right:
 * bulk (2, last band), best effort (0, middle), interactive bulk (4, middle), interactive (6,
 * first), and control (7, first) for all queues from 7 on.
 */
#define QUEUE_PRIORITIES 0x76440022u
#define QUEUE_LAST 7

static __always_inline __u32 priority_of_queue(__u8 queue)
{
    __u32 digit = queue < QUEUE_LAST ? queue : QUEUE_LAST;
    return QUEUE_PRIORITIES >> 4 * digit & 0xf;
}

/* Where the driver leaves no room for metadata, the packet passes without. */
static __always_inline void mark(struct xdp_md *ctx, const struct cpd_rule *rule)
{
    struct cpd_meta wanted = {CPD_META_MAGIC, rule->priority, 0,
                              rule->flags & (CPD_RULE_QUEUE | CPD_RULE_PRIORITY)};
    if (wanted.flags & CPD_RULE_QUEUE)
        wanted.queue = rule->queue + 1;
    if (!(wanted.flags & CPD_RULE_PRIORITY))
        wanted.priority = priority_of_queue(rule->queue);
    if (bpf_xdp_adjust_meta(ctx, -(int)sizeof(wanted)) != 0)
        return;
    struct cpd_meta *meta = (void *)(long)ctx->data_meta;
    if ((const void *)(meta + 1) <= (const void *)(long)ctx->data)
        *meta = wanted;
}

static __always_inline void take_mark(struct __sk_buff *skb)
{
    const struct cpd_meta *meta = (const void *)(long)skb->data_meta;
    if ((const void *)(meta + 1) > (const void *)(long)skb->data || meta->magic != CPD_META_MAGIC)
        return;
    skb->priority = meta->priority;
    if (meta->flags & CPD_RULE_QUEUE)
        skb->queue_mapping = meta->queue;
}

#endif
