/**
 * Which routing tables the host looks a packet up in that comes in, as its rules have it.
 */
#ifndef ZYNLINUX_LOOKED_UP_H
#define ZYNLINUX_LOOKED_UP_H

#include <cstdint>
#include <set>

#include "host/netlink.h"

namespace zynlinux
{

/**
 * Those of one address family. A rule that asks for more than the mark of a packet (its addresses,
 * ports, or the interface) counts as one that asks for nothing: so more is taken for the host's
 * than is, and never less.
 */
class LookedUp
{
public:
    /** Take in a rule: the body of a message RTM_NEWRULE. */
    void add(NetlinkBytes rule);

    bool contains(uint32_t table) const { return all_ || tables_.contains(table); }

private:
    std::set<uint32_t> tables_{RT_TABLE_MAIN}; // also without rules, as a kernel may be
    bool all_ = false;
};

} // namespace zynlinux

#endif
