/* SPDX-License-Identifier: MIT OR GPL-2.0-only */
/*
 * What the packet program has to say of a packet that passes to the one behind it: put into the
 * metadata before the frame, because there is no socket buffer yet, and taken from there as soon as
 * there is one.
 */
#ifndef CPUDEFEND_MARK_H
#define CPUDEFEND_MARK_H

#include <linux/bpf.h>

#include <bpf/bpf_helpers.h>

#include "classify.h"
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

#define MARKED (CPD_RULE_QUEUE | CPD_RULE_PRIORITY)

/* Where the driver leaves no room for metadata, the packet passes without. */
static __always_inline void mark(struct xdp_md *ctx, const struct cpd_mark *wanted)
{
    struct cpd_meta *meta;
    if (bpf_xdp_adjust_meta(ctx, -(int)sizeof(*meta)) != 0)
        return;
    meta = (void *)(long)ctx->data_meta;
    if ((const void *)(meta + 1) > (const void *)(long)ctx->data)
        return;
    __builtin_memset(meta->shift, 0, sizeof(meta->shift));
    meta->mark = *wanted;
}

/* What a rule says of queue and priority. */
static __always_inline struct cpd_mark mark_of(const struct cpd_rule *rule)
{
    struct cpd_mark mark = {.magic = CPD_MARK_MAGIC, .flags = rule->flags & MARKED};
    mark.priority =
        mark.flags & CPD_RULE_PRIORITY ? rule->priority : priority_of_queue(rule->queue);
    if (mark.flags & CPD_RULE_QUEUE)
        mark.queue = rule->queue + 1;
    return mark;
}

/* Returns the mark of a socket buffer, or 0. The bytes before the buffer's data are the MAC header
 * where that has been forgotten: how many is in *mac then, else 0. */
static __always_inline const struct cpd_mark *find_mark(struct __sk_buff *skb, __u32 *mac)
{
    const struct cpd_meta *meta = (const void *)(long)skb->data_meta;
    if ((const void *)(meta + 1) > (const void *)(long)skb->data)
        return 0;
    *mac = 0;
    if (meta->mark.magic == CPD_MARK_MAGIC)
        return &meta->mark;
    *mac = sizeof(struct ethernet_header);
    const struct cpd_mark *late = (const void *)&meta->mark - *mac;
    return late->magic == CPD_MARK_MAGIC ? late : 0;
}

static __always_inline void take_mark(struct __sk_buff *skb, const struct cpd_mark *mark)
{
    if (mark->flags & MARKED)
        skb->priority = mark->priority;
    if (mark->flags & CPD_RULE_QUEUE)
        skb->queue_mapping = mark->queue;
}

#endif
