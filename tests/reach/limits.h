/**
 * Whether anybody sees more than a limit allows.
 */
#ifndef REACH_LIMITS_H
#define REACH_LIMITS_H

#include "court.h"

/** Flood the port with each of so many items in turn, of those that somebody sees whom the policy
 * is there for, and see to it that it holds them. */
void limit(Court *court, const RatePolicy &policy, uint64_t items);

/** The same while two policies with like limits take turns: none of them is a fresh start. */
void limitByTurns(Court *court, uint64_t items);

#endif
