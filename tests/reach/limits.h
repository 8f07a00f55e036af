/**
 * Whether anybody sees more than a limit allows.
 */
#ifndef REACH_LIMITS_H
#define REACH_LIMITS_H

#include "court.h"

/** Put limits in force, and flood the port with each of so many items in turn. */
void limit(Court *court, const RatePolicy &policy, uint64_t items);

/** The same while two policies with like limits take turns: none of them is a fresh start. */
void limitByTurns(Court *court, uint64_t items);

#endif
