/**
 * What a former daemon has left in force at the places that there are now.
 */
#ifndef ZYNLINUX_TAKEOVER_H
#define ZYNLINUX_TAKEOVER_H

#include <cstdint>
#include <functional>
#include <set>
#include <utility>
#include <vector>

#include "kernel/dataplane.h"

namespace zynlinux
{

using Slots = std::set<std::pair<uint32_t, uint32_t>>; /**< system and slot number */

/**
 * Targets of the system and of each slot; where none is free for a slot, that of one which is no
 * more. The plane's info is to be saved then.
 * @throw Failure when there are too many slots
 */
std::vector<uint32_t> claimTargets(DataPlane &plane, const Slots &slots);

/**
 * What was left in force at a target. What is not whole does not stay in force, as is said.
 * @return null when there is nothing
 */
const cpd_policy *leftInForce(DataPlane &plane, uint32_t target);

/** Drop what was left at the targets that are not claimed, and save the plane's info. */
void dropUnclaimed(DataPlane &plane, const std::function<bool(uint32_t)> &isClaimed);

} // namespace zynlinux

#endif
