/**
 * From the rates of an entry to the settings of its policers, all the division there is.
 */
#ifndef ZYNLINUX_POLICER_SETTINGS_H
#define ZYNLINUX_POLICER_SETTINGS_H

#include <cstdint>

#include "bpf/cpudefend_shared.h"

namespace zynlinux
{

/**
 * Packets that may come at once under a limit of @a pps: a fiftieth of a second's worth, rounded
 * up, and at least two, so that an even stream at the very rate survives the jitter of its way.
 */
uint64_t packetBucket(uint32_t pps);

/** The packet policer. @param pps packets per second; 0 lets nothing pass */
cpd_settings packetSettings(uint32_t pps);

/**
 * The byte policer.
 * @param cir kbit/s; 0 lets nothing pass
 * @param cbs bytes; a longer frame never passes, and so with 0 nothing does
 */
cpd_settings byteSettings(uint32_t cir, uint32_t cbs);

/** What a policer takes over from another one. */
enum class Carry {
    Tokens, /**< as many as there are, as far as they fit: it is of the same kind */
    Share,  /**< the same part of a full bucket, whole tokens alone, as a flood leaves the rest: it
                 is of the other kind */
};

/**
 * The state with which a policer goes on under new settings, so that a change never gives a second
 * burst.
 *
 * @param word state under the old settings, read before @a now
 * @param now  ns of the monotonic clock
 * @return the word under the new settings
 */
uint64_t carryOver(uint64_t word, const cpd_settings &before, const cpd_settings &after,
                   uint64_t now, Carry carry = Carry::Tokens);

/** What a policer was charged between two readings of its word. */
struct LateUse {
    cpd_settings settings;
    uint64_t wordThen;
    uint64_t wordNow;
};

/**
 * The word of a policer after it was charged what its predecessor still let pass after the tokens
 * had been carried over. A bucket does not get emptier than empty.
 * @param now read after all the words
 */
uint64_t chargeLate(uint64_t word, const cpd_settings &settings, const LateUse &use, uint64_t now,
                    Carry carry = Carry::Tokens);

} // namespace zynlinux

#endif
