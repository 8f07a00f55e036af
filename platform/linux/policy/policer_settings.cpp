#include "policy/policer_settings.h"

#include <algorithm>

namespace zynlinux
{

namespace
{

__extension__ using Wide = unsigned __int128;

constexpr uint64_t nsPerSecond = 1'000'000'000;
constexpr uint64_t bytesPerKbit = 125;
constexpr uint64_t bucketsPerSecond = 50;
constexpr uint64_t smallestBucket = 2;

/**
 * How many units a token is at least. The cost of a packet is cut to whole units, so this bounds
 * the error of the rate: a packet is a token of one policer and 14 or more of the other. Cut, never
 * rounded up: an even stream at the very rate must not run into debt, however long it lasts.
 */
constexpr uint64_t unitsPerPacket = 1024;
constexpr uint64_t unitsPerByte = 64;

constexpr cpd_settings closed = {1ull << CPD_COST_BITS, 0, 0, 0};

/** The smallest shift with which a token at @a rate per second is at least @a units long. */
uint32_t shiftFor(uint64_t rate, uint64_t units)
{
    uint32_t shift = 0;
    while (nsPerSecond << shift < units * rate)
        shift++;
    return shift;
}

/** Units of 2^-shift ns that a token takes, times 2^fraction. */
uint64_t tokenTime(uint64_t rate, uint32_t shift, uint32_t fraction)
{
    return (nsPerSecond << (shift + fraction)) / rate;
}

} // namespace

uint64_t packetBucket(uint32_t pps)
{
    return std::max(smallestBucket, (pps + bucketsPerSecond - 1) / bucketsPerSecond);
}

cpd_settings packetSettings(uint32_t pps)
{
    if (pps == 0)
        return closed;
    uint32_t shift = shiftFor(pps, unitsPerPacket);
    uint64_t token = tokenTime(pps, shift, 0);
    return {token << CPD_COST_BITS, packetBucket(pps) * token, shift, 0};
}

cpd_settings byteSettings(uint32_t cir, uint32_t cbs)
{
    if (cir == 0 || cbs == 0)
        return closed;
    uint64_t rate = cir * bytesPerKbit;
    uint32_t shift = shiftFor(rate, unitsPerByte);
    uint64_t cost = tokenTime(rate, shift, CPD_COST_BITS);
    uint64_t depth = static_cast<uint64_t>((Wide{cbs} * cost) >> CPD_COST_BITS);
    return {cost, depth, shift, 0};
}

namespace
{

/** A time in the units of one policer as what it is worth in those of another. */
uint64_t convert(uint64_t units, const cpd_settings &from, const cpd_settings &to, Carry carry)
{
    const bool tokens = carry == Carry::Tokens;
    const Wide whole = tokens ? from.cost : from.depth;
    if (whole == 0)
        return 0;
    return static_cast<uint64_t>(
        std::min<Wide>(Wide{units} * (tokens ? to.cost : to.depth) / whole, to.depth));
}

} // namespace

uint64_t carryOver(uint64_t word, const cpd_settings &before, const cpd_settings &after,
                   uint64_t now, Carry carry)
{
    uint64_t credit = before.depth - std::min(before.depth, cpd_debt(word, &before, now));
    if (carry == Carry::Share)
        credit -= credit % cpd_cost(1, &before);
    return cpd_units(now, &after) + after.depth - convert(credit, before, after, carry);
}

uint64_t chargeLate(uint64_t word, const cpd_settings &settings, const LateUse &use, uint64_t now,
                    Carry carry)
{
    uint64_t unused = cpd_debt(use.wordThen, &use.settings, now);
    uint64_t used = cpd_debt(use.wordNow, &use.settings, now);
    if (used <= unused)
        return word;
    uint64_t debt =
        cpd_debt(word, &settings, now) + convert(used - unused, use.settings, settings, carry);
    return cpd_units(now, &settings) + std::min<uint64_t>(debt, settings.depth);
}

} // namespace zynlinux
