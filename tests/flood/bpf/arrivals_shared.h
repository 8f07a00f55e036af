/* SPDX-License-Identifier: MIT OR GPL-2.0-only */
/*
 * What arrives at a port, or leaves it: what the counting program and the tests agree on.
 */
#ifndef ARRIVALS_SHARED_H
#define ARRIVALS_SHARED_H

#include <linux/types.h>

struct arrival {
    __u64 time; /* ns, CLOCK_MONOTONIC */
    __u32 length;
    __u32 priority;
    __u16 protocol; /* ethertype, behind an outer tag */
    __u16 queue_mapping;
    __u32 reserved;
};

#define ARRIVALS_LOG (1u << 20) /* arrivals that are kept one by one; all are counted */

struct arrival_totals {
    __u64 logged; /* also beyond the log's end */
    __u64 by_protocol[1u << 16];
};

#endif
