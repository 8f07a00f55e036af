/**
 * Comparisons on the wire.
 */
#ifndef BENCH_PACKETS_COMPARE_H
#define BENCH_PACKETS_COMPARE_H

#include <string>

#include "wire.h"

/** Packets per second of all who compete, with goals. @param svg where to plot, or empty */
void compareRates(Wire &wire, const std::string &svg);

/** CPU time of the protected side per million packets offered. */
void compareCosts(Wire &wire);

#endif
