/* SPDX-License-Identifier: MIT OR GPL-2.0-only */
/*
 * Charging a policer from any number of CPUs. The includer declares cpd_now() first.
 */
#ifndef CPUDEFEND_POLICER_H
#define CPUDEFEND_POLICER_H

#include "cpudefend_shared.h"

/*
 * Attempts to update a word that other CPUs update too. One CPU fails an attempt only when another
 * has succeeded, so a packet that fails them all has seen this many others pass in the meantime: it
 * is dropped, and nothing is charged for it.
 */
#define CPD_ATTEMPTS 16

/* Read a word that others write. */
static inline __u64 cpd_read(const __u64 *word)
{
    return *(const volatile __u64 *)word;
}

/* Let a packet pass and charge its tokens (returns 1), or leave everything as it is (returns 0). */
static inline int cpd_charge(__u64 *word, const struct cpd_settings settings[2], __u64 tokens)
{
    for (int i = 0; i < CPD_ATTEMPTS; i++) {
        __u64 seen = cpd_read(word);
        __u64 next = cpd_police(seen, &settings[seen & 1], tokens, cpd_now());
        if (next == seen)
            return 0;
        if (__sync_val_compare_and_swap(word, seen, next) == seen)
            return 1;
    }
    return 0;
}

/* Give back what a packet was charged that another policer then refused. */
static inline void cpd_refund(__u64 *word, const struct cpd_settings settings[2], __u64 tokens)
{
    for (int i = 0; i < CPD_ATTEMPTS; i++) {
        __u64 seen = cpd_read(word);
        __u64 next = seen - cpd_cost(tokens, &settings[seen & 1]);
        if (__sync_val_compare_and_swap(word, seen, next) == seen)
            return;
    }
}

#endif
