/* SPDX-License-Identifier: MIT OR GPL-2.0-only */
/*
 * Sends every frame that it is run on away through a port, and counts them. An ARP request may be
 * made to come from many sources in turn.
 */
#include <linux/bpf.h>

#include <bpf/bpf_helpers.h>

#define CPUS 64 /* that have a counter of their own */

char LICENSE[] SEC("license") = "Dual MIT/GPL";

#define ARP_FRAME 42 /* octets, without tags and padding */

const volatile __u32 ifindex = 0; /* of the port */
const volatile __u32 sources = 0; /* that the frames come from in turn; 0: from whom they name */

__u64 sent[CPUS];

/* The last octets of the Ethernet source address, of the sender's in the ARP message (RFC 826), and
 * of its IPv4 address become the source's number. */
static __always_inline void spoof(struct xdp_md *ctx, __u32 source)
{
    __u8 *frame = (__u8 *)(long)ctx->data;
    if (frame + ARP_FRAME > (__u8 *)(long)ctx->data_end)
        return;
    for (int i = 0; i < 3; i++) {
        __u8 octet = (__u8)(source >> 8 * (2 - i));
        frame[9 + i] = octet;
        frame[25 + i] = octet;
        frame[29 + i] = octet;
    }
}

SEC("xdp")
int send_away(struct xdp_md *ctx)
{
    __u64 number = __sync_fetch_and_add(&sent[bpf_get_smp_processor_id() % CPUS], 1);
    if (sources > 0)
        spoof(ctx, (__u32)(number % sources));
    return (int)bpf_redirect(ifindex, 0);
}
