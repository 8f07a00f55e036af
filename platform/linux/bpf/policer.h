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

/* Packets that may be refused after a reading of the clock without another one. */
#define CPD_SPARE 16

/* Why a policer refused: the word that it had, and the time. */
struct cpd_refusal {
    __u64 word;
    __u64 now; /* ns; 0 when it did not refuse, but the attempts were used up */
};

/* Read a word that others write. */
static inline __u64 cpd_read(const __u64 *word)
{
    return *(const volatile __u64 *)word;
}

/* Let a packet pass and charge its tokens (returns 1), or leave everything as it is (returns 0 and
 * says why). */
static inline int cpd_charge(__u64 *word, const struct cpd_settings *settings, __u64 tokens,
                             struct cpd_refusal *refusal)
{
    for (int i = 0; i < CPD_ATTEMPTS; i++) {
        __u64 seen = cpd_read(word);
        __u64 now = cpd_now();
        __u64 next = cpd_police(seen, settings, tokens, now);
        if (next == seen) {
            refusal->word = seen;
            refusal->now = now;
            return 0;
        }
        if (__sync_val_compare_and_swap(word, seen, next) == seen)
            return 1;
    }
    refusal->now = 0;
    return 0;
}

/* Give back what a packet was charged that another policer then refused. */
static inline void cpd_refund(__u64 *word, const struct cpd_settings *settings, __u64 tokens)
{
    __sync_fetch_and_sub(word, cpd_cost(tokens, settings));
}

/*
 * Most of a flood is refused without reading the clock, which would cost more than all the rest.
 *
 * A refusal at a known time also knows how long it will be until a packet of that many tokens can
 * conform. When the packets of a flood have been coming so fast that CPD_SPARE more will be here
 * within half that time, these are refused unseen, as long as the policer's word stays what it was
 * and the kernel's tick lasts. So no packet of an even flood is refused that would conform; when a
 * flood ends abruptly, CPD_SPARE of those behind it may be, all within a tick. To pass, the clock
 * is always read: the rate is never exceeded.
 */

/* The wait is cut to what fits 32 bits, a span longer than any tick. */
#define CPD_WAIT_MAX 0xffffffffull

/* How long a refused packet must wait at least to conform (ns). */
static inline __u64 cpd_wait(const struct cpd_settings *settings, __u64 tokens,
                             const struct cpd_refusal *refusal)
{
    if (!cpd_fits(settings, tokens))
        return CPD_WAIT_MAX;
    __u64 debt = cpd_debt(refusal->word, settings, refusal->now) + cpd_cost(tokens, settings);
    __u64 wait = (debt - settings->depth) >> settings->shift;
    return wait < CPD_WAIT_MAX ? wait : CPD_WAIT_MAX;
}

/*
 * Remember a refusal; one without a time says nothing. No factor below has more than 32 bits, so
 * that nothing overflows.
 */
static inline void cpd_remember(struct cpd_stats *last, const struct cpd_settings *settings,
                                __u16 meter, __u64 tokens, const struct cpd_refusal *refusal,
                                __u32 tick)
{
    __u64 refused = last->granted - last->spare + 1u;
    last->spare = last->granted = 0;
    if (!refusal->now)
        return;

    __u32 now = (__u32)refusal->now;
    __u64 since = now - last->at;
    int again = last->tick == tick && last->meter == meter && last->word == refusal->word;
    int dense = since * (2 * CPD_SPARE) <= cpd_wait(settings, tokens, refusal) * refused;
    if (again && dense)
        last->spare = last->granted = CPD_SPARE;
    last->word = refusal->word;
    last->meter = meter;
    last->tokens = (__u32)tokens;
    last->at = now;
    last->tick = tick;
}

/* Whether the last refusal, by a policer of this word, holds for a packet too. */
static inline int cpd_still_refused(struct cpd_stats *last, __u64 word, __u64 tokens, __u32 tick)
{
    if (!last->spare || last->tick != tick || last->word != word || tokens < last->tokens)
        return 0;
    last->spare--;
    return 1;
}

#endif
