/* SPDX-License-Identifier: MIT OR GPL-2.0-only */
/*
 * Samples of what is policed, for source tracing: at a bounded rate, whatever the flood.
 */
#ifndef CPUDEFEND_SAMPLE_H
#define CPUDEFEND_SAMPLE_H

#include "classify.h"
#include "maps.h"

/* Samples that a CPU takes of a packet type at a target in one tick of the kernel. */
const volatile __u8 samples_per_tick = 40;

/* The tag control information of one of the frame's tags, 0 being the outer one. */
static __always_inline __u16 tci_of(const struct cpd_sample *sample, __u32 tag)
{
    const __u8 *tci = sample->data + sizeof(struct ethernet_header) + tag * sizeof(struct vlan_tag);
    return tci[0] << 8 | tci[1];
}

/* What the frame begins with. The count is kept in a register that the verifier knows bounds of. */
static __always_inline void load_data(struct xdp_md *ctx, struct cpd_sample *sample)
{
    __u32 count = sample->length;
    if (count > CPD_SAMPLE_DATA)
        count = CPD_SAMPLE_DATA;
    asm volatile("" : "+r"(count));
    if (count > 0 && count <= CPD_SAMPLE_DATA)
        bpf_xdp_load_bytes(ctx, 0, sample->data, count);
}

/* The first sample of a tick wakes the daemon, in whatever state the ring is: an adaptive wake-up
 * would be lost when samples that came without one lie unread. */
__noinline int cpd_take_sample(struct xdp_md *ctx, int dropped, int first)
{
    struct cpd_packet packet = {};
    cpd_classify(ctx, &packet);
    struct cpd_sample *sample = bpf_ringbuf_reserve(&cpudefend_ring, sizeof(*sample), 0);
    if (!sample)
        return 0;
    __builtin_memset(sample, 0, sizeof(*sample));
    sample->ifindex = ctx->ingress_ifindex;
    sample->length = bpf_xdp_get_buff_len(ctx);
    sample->ethertype = packet.ethertype;
    sample->network_offset = packet.network;
    sample->tags = packet.tags;
    sample->dropped = dropped;
    load_data(ctx, sample);
    if (packet.tags > 0)
        sample->outer_tci = tci_of(sample, 0);
    if (packet.tags > 1)
        sample->inner_tci = tci_of(sample, 1);
    bpf_ringbuf_submit(sample, first ? BPF_RB_FORCE_WAKEUP : BPF_RB_NO_WAKEUP);
    return 0;
}

/* Whether a type has had its samples of this tick. */
static __always_inline int is_sampled(const struct cpd_stats *stats, __u32 tick)
{
    return stats->sample_tick == tick && stats->samples >= samples_per_tick;
}

static __always_inline void sample(struct xdp_md *ctx, struct cpd_stats *stats, __u32 type,
                                   __u32 tick, int dropped)
{
    if (stats->sample_tick != tick) {
        stats->sample_tick = tick;
        stats->samples = 0;
    }
    if (stats->samples >= samples_per_tick)
        return;
    stats->samples++;
    if (type < CPD_TYPES)
        cpd_take_sample(ctx, dropped, stats->samples == 1);
}

#endif
