/**
 * The daemon's state within a fuzzer: fresh for each input, on the hardware layer kept in
 * memory, without sockets and on a clock that only the fuzzer moves.
 */
#ifndef FUZZ_STATE_H
#define FUZZ_STATE_H

#include <stddef.h>
#include <stdint.h>

/**
 * Start the daemon's state with small pools and slot 1/2, diagnostics on (into a buffer) and a CPU
 * usage that changes with every sample.
 */
void fuzzStart();

/** Free all that fuzzStart and the requests since then have allocated. */
void fuzzEnd();

/** Let @a ms milliseconds pass and run the timers that fall due. */
void fuzzPass(uint32_t ms);

/**
 * Stop the fuzzer when tables, lists and counters contradict each other.
 */
void fuzzCheckState();

/** Stop the fuzzer, naming what does not hold. */
#define FUZZ_REQUIRE(condition)                                                                    \
    do {                                                                                           \
        if (!(condition))                                                                          \
            fuzzFail(#condition, __FILE__, __LINE__);                                              \
    } while (0)

[[noreturn]] void fuzzFail(const char *condition, const char *file, int line);

#endif
