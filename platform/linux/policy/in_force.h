/**
 * Getting drafts of policies in force, all of them or none.
 */
#ifndef ZYNLINUX_IN_FORCE_H
#define ZYNLINUX_IN_FORCE_H

#include <cstdint>
#include <map>

#include "kernel/dataplane.h"
#include "policy/programmed.h"

namespace zynlinux
{

using Drafts = std::map<uint32_t, Draft>; /**< by target */

/**
 * Put drafts in force and settle them.
 * @throw Failure when that was not possible: what was in force is so again, as far as the kernel
 *        lets it
 */
void putInForce(DataPlane &plane, Drafts &drafts);

} // namespace zynlinux

#endif
