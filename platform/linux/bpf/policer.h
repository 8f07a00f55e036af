/* SPDX-License-Identifier: MIT OR GPL-2.0-only */
/*
 * Charging a policer from any number of CPUs. The includer declares cpd_now() and cpd_tick_length()
 * first, both in ns.
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

/* Packets that may be refused after a reading of the clock without another one: at most, and what
 * is worth it. */
#define CPD_SPARE_MAX 64
#define CPD_SPARE_MIN 16

/* A packet on its way through the policers of a rule. */
struct cpd_offer {
    __u32 flags;   /* CPD_RULE_*, as they hold for this packet */
    __u32 policer; /* the rule's */
    __u32 octets;
    __u32 tick; /* the kernel's */
};

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

/* Give back what a packet was charged that another policer then refused. When other CPUs have
 * emptied a full bucket in between, that is a packet more than it holds. */
static inline void cpd_refund(__u64 *word, const struct cpd_settings *settings, __u64 tokens)
{
    __sync_fetch_and_sub(word, cpd_cost(tokens, settings));
}

/*
 * Most of a flood is refused without reading the clock, which would cost more than all the rest.
 *
 * A refusal at a known time also knows how long it will be until such a packet can conform. As many
 * as will be here within half that time, going by how densely they came since the reading before,
 * are refused unseen, as long as the policer's word stays what it was and the kernel's tick lasts.
 * So no packet of an even flood is refused that would conform. Where a flood comes in bursts or
 * ends abruptly, CPD_SPARE_MAX of those behind it may be, all within a tick; the tokens wait for
 * later ones, because this is done with no bucket that would run over before the tick ends. To
 * pass, the clock is always read: the rate is never exceeded.
 */

/* The wait is cut to what fits 32 bits, a span longer than any tick. */
#define CPD_WAIT_MAX 0xffffffffull

/* The rule that decides on a packet, as it holds for that. */
static inline __u32 cpd_rule_id(const struct cpd_offer *offer)
{
    return offer->policer << 8 | offer->flags;
}

/* Tokens that a packet costs. */
static inline __u32 cpd_tokens(const struct cpd_offer *offer, __u32 kind)
{
    return kind == CPD_BYTES ? offer->octets : 1;
}

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

/* Whether a bucket that such a packet found too empty is not full again within a tick, so that it
 * loses no tokens when all of that tick's packets are refused. */
static inline int cpd_outlasts_a_tick(const struct cpd_settings *settings, __u64 tokens)
{
    __u64 room = settings->depth - cpd_cost(tokens, settings);
    return !cpd_fits(settings, tokens) || room >> settings->shift >= cpd_tick_length();
}

/* How many packets will be here within half the wait when so many came within a time (ns). No
 * argument has more than 32 bits, so that nothing overflows. */
static inline __u8 cpd_spare(__u64 wait, __u64 came, __u64 within)
{
    if (within == 0)
        return 0;
    if (wait * came >= 2 * within * CPD_SPARE_MAX)
        return CPD_SPARE_MAX;
    __u64 spare = wait * came / (2 * within);
    return spare >= CPD_SPARE_MIN ? (__u8)spare : 0;
}

/* Remember the refusal of a packet; one without a time says nothing. */
static inline void cpd_remember(struct cpd_stats *last, const struct cpd_settings *settings,
                                const struct cpd_offer *offer, __u32 kind,
                                const struct cpd_refusal *refusal)
{
    __u32 came = last->granted - last->spare + 1u;
    last->spare = last->granted = 0;
    if (!refusal->now)
        return;

    __u32 by = cpd_rule_id(offer), now = (__u32)refusal->now;
    __u32 since = now - last->at;
    __u32 tokens = cpd_tokens(offer, kind);
    if (last->tick == offer->tick && last->word == refusal->word && last->by == by &&
        cpd_outlasts_a_tick(settings, tokens))
        last->spare = last->granted = cpd_spare(cpd_wait(settings, tokens, refusal), came, since);
    last->word = refusal->word;
    last->by = by;
    last->kind = (__u8)kind;
    last->octets = kind == CPD_BYTES ? offer->octets : 0;
    last->at = now;
    last->tick = offer->tick;
}

/* Whether the last refusal, by a policer of this word, holds for a packet of the same rule too. */
static inline int cpd_still_refused(struct cpd_stats *last, __u64 word,
                                    const struct cpd_offer *offer)
{
    if (last->tick != offer->tick || last->word != word || offer->octets < last->octets)
        return 0;
    last->spare--;
    return 1;
}

#endif
