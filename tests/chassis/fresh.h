/**
 * What the hardware should hold, told from the configuration alone: what binding all of it to
 * empty hardware would program.
 */
#ifndef CHASSIS_FRESH_H
#define CHASSIS_FRESH_H

#include <map>
#include <string>
#include <vector>

#include "hardware.h"

namespace chassis
{

/** Names of the policies that are in force at each place, the first one below the others. */
using Bound = std::map<Place, std::vector<std::string>>;

/** What is held at each place, the oldest first. Places that hold nothing are left out. */
using Held = std::map<Place, std::vector<Item>>;

Bound freshBindings();
Held freshHardware(); /**< as far as there is room for it */

/** What the modelled hardware holds, and what the daemon takes it to hold. */
Held hardwareHeld();
Held daemonHeld();

std::string text(const Held &held);
std::string text(const Bound &bound);

} // namespace chassis

#endif
