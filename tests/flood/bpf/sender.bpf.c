/* SPDX-License-Identifier: MIT OR GPL-2.0-only */
/*
 * Sends every frame that it is run on away through a port, and counts them.
 */
#include <linux/bpf.h>

#include <bpf/bpf_helpers.h>

#define CPUS 64 /* that have a counter of their own */

char LICENSE[] SEC("license") = "Dual MIT/GPL";

const volatile __u32 ifindex = 0; /* of the port */

__u64 sent[CPUS];

SEC("xdp")
int send_away(struct xdp_md *ctx)
{
    (void)ctx;
    __sync_fetch_and_add(&sent[bpf_get_smp_processor_id() % CPUS], 1);
    return (int)bpf_redirect(ifindex, 0);
}
