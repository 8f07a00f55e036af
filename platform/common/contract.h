/**
 * Scripting the contract in tests, whatever the layer behind it.
 */
#ifndef ZYN_CONTRACT_H
#define ZYN_CONTRACT_H

#include <stdint.h>

/**
 * Have a call fail: the layer is not asked, nothing changes, and the journal gets its line as for
 * any failure. Every function that the journal knows counts as a call; a role query that fails is
 * a condition that does not hold.
 * @param n    which call from now on: 1 is the next one. Up to 16 failures may wait
 * @param code its result, not 0
 * @return 0, EINVAL for an @a n or a @a code of 0, or ENOSPC when 16 wait
 */
int32_t contractFailAt(uint32_t n, int32_t code);

/** Withdraw the failures that still wait. */
void contractFailNone();

#endif
