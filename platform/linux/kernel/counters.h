/**
 * Reading the data plane's counters, from its own process or from any other that may (root).
 */
#ifndef ZYNLINUX_COUNTERS_H
#define ZYNLINUX_COUNTERS_H

#include <cstdint>
#include <optional>
#include <vector>

#include "base/descriptor.h"
#include "bpf/cpudefend_shared.h"

namespace zynlinux
{

/** The name of the map, as bpftool shows it. */
constexpr char countersMapName[] = "cpudefend_stats";

/**
 * Find the counters of the data plane that protects a port.
 * @param port its name, in the caller's network name space
 * @return an invalid descriptor when there is no such port or no data plane of ours on it
 */
Descriptor findCounters(const char *port);

/**
 * Read those of one packet type, or of CPD_UNREAD or CPD_NO_TYPE, summed over the CPUs.
 * @param map    DataPlane::counters() or the result of findCounters
 * @param target 0 for the system, else a slot's number
 * @return nothing when that failed
 */
std::optional<cpd_counters> readCounters(int map, uint32_t target, uint32_t type);

/** Read those of all packet types. @return CPD_TYPES records; empty when that failed */
std::vector<cpd_counters> readCounters(int map, uint32_t target = 0);

} // namespace zynlinux

#endif
