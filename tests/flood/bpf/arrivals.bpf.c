/* SPDX-License-Identifier: MIT OR GPL-2.0-only */
/*
 * Counts what the stack is handed, at the first place behind the packet hook, where no queue can
 * have lost anything. It looks on: what comes after it decides as ever.
 */
#include <linux/bpf.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "arrivals_shared.h"

#define NEXT (-1) /* verdict: ask the next program */

char LICENSE[] SEC("license") = "Dual MIT/GPL";

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(map_flags, BPF_F_MMAPABLE);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct arrival_totals);
} totals SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(map_flags, BPF_F_MMAPABLE);
    __uint(max_entries, ARRIVALS_LOG);
    __type(key, __u32);
    __type(value, struct arrival);
} arrivals SEC(".maps");

SEC("tc")
int count_arrivals(struct __sk_buff *skb)
{
    __u32 zero = 0;
    struct arrival_totals *all = bpf_map_lookup_elem(&totals, &zero);
    if (!all)
        return NEXT;
    __u16 protocol = bpf_ntohs((__u16)skb->protocol);
    __sync_fetch_and_add(&all->by_protocol[protocol], 1);
    __u64 place = __sync_fetch_and_add(&all->logged, 1);
    if (place >= ARRIVALS_LOG)
        return NEXT;
    __u32 key = (__u32)place;
    struct arrival *each = bpf_map_lookup_elem(&arrivals, &key);
    if (!each)
        return NEXT;
    each->length = skb->len;
    each->priority = skb->priority;
    each->protocol = protocol;
    each->queue_mapping = (__u16)skb->queue_mapping;
    each->time = bpf_ktime_get_ns();
    return NEXT;
}
