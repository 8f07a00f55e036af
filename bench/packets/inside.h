/**
 * This project's daemon and packet program by themselves.
 */
#ifndef BENCH_PACKETS_INSIDE_H
#define BENCH_PACKETS_INSIDE_H

/** Nanoseconds per packet, by the kernel's test runs. */
void measurePaths();

/** How long it takes to load a policy with 256 access rules, and to bind it. */
void measureLoading();

#endif
