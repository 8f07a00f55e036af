/**
 * Reading the data plane's counters, from its own process or from any other that may (root).
 */
#ifndef ZYNLINUX_COUNTERS_H
#define ZYNLINUX_COUNTERS_H

#include <cstdint>
#include <vector>

#include "bpf/cpudefend_shared.h"
#include "descriptor.h"

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
 * Read them, summed over the CPUs.
 * @param map DataPlane::counters() or the result of findCounters
 * @return CPD_TYPES records by packet type; empty when that failed (errno says why)
 */
std::vector<cpd_counters> readCounters(int map);

} // namespace zynlinux

#endif
