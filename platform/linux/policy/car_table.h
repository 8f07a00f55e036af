/**
 * The CAR entries that were programmed at one place, and which of them are in force. No input or
 * output.
 */
#ifndef ZYNLINUX_CAR_TABLE_H
#define ZYNLINUX_CAR_TABLE_H

#include <cstdint>
#include <map>
#include <vector>

#include "layer.h"
#include "zynhwal.h"

namespace zynlinux
{

/** A programmed entry, and what it has counted that nobody took yet. */
struct CarEntry {
    tHwCpuDefendPktCarEntry settings;
    layer::tCarCounts counted;
};

/**
 * A multiset of CAR entries. An entry covers the older ones of its packet type; what it covered is
 * in force again once it is removed.
 */
class CarTable
{
public:
    void add(const tHwCpuDefendPktCarEntry &entry);

    /** Remove the newest entry with the same settings. @return false when there is none */
    bool remove(const tHwCpuDefendPktCarEntry &entry);

    /** The newest entry with the same settings, or null. Valid until the table changes. */
    CarEntry *find(const tHwCpuDefendPktCarEntry &entry);

    /** The newest entry of a packet type, or null. Valid until the table changes. */
    CarEntry *inForce(uint32_t pktType);
    const CarEntry *inForce(uint32_t pktType) const;

    bool empty() const;

private:
    std::map<uint32_t, std::vector<CarEntry>> entries_; /**< by type, oldest first */
};

/** Whether two entries ask for the same; their counters do not matter. */
bool sameSettings(const tHwCpuDefendPktCarEntry &a, const tHwCpuDefendPktCarEntry &b);

} // namespace zynlinux

#endif
