/**
 * Whether anybody sees what is denied, or what nobody counted.
 */
#ifndef REACH_DENIAL_H
#define REACH_DENIAL_H

#include "court.h"

/** Deny something, and send so many items. What gets around is heard by the court. */
void deny(Court *court, Denial denial, uint64_t items);

#endif
