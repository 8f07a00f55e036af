/**
 * What is addressed to the host itself: kept up to date for the packet program.
 */
#ifndef ZYNLINUX_ADDRESSES_H
#define ZYNLINUX_ADDRESSES_H

#include <cstdint>
#include <functional>

#include "host/looked_up.h"
#include "host/netlink.h"
#include "kernel/dataplane.h"

namespace zynlinux
{

class Addresses
{
public:
    /** @param plane must outlast this object */
    explicit Addresses(DataPlane &plane) : plane_(plane) {}

    /**
     * Some may have come or gone.
     * @param host   of the host's addresses, or of what the routing table `local` delivers
     * @param tables of what other tables deliver, or of the rules that look those up
     * @return whether refresh() has something to do, of this or of former times
     */
    bool hear(bool host, bool tables);

    /** Tell the packet program what is delivered to the host at this moment: everything the first
     *  time, and then what hear() was told of. Says once that it is too much.
     *  @throw Failure with what was told before kept, and still to do */
    void refresh();

private:
    using Counts = std::function<bool(uint32_t table)>;

    bool listAddresses(Prefixes &own);
    bool listRoutes(const rtmsg &request, const Counts &counts, Prefixes &own);
    bool listLocal(int family, Prefixes &own);
    bool listRules(int family, LookedUp &tables);
    bool listTables(int family, Prefixes &own);
    void refreshHost();
    void refreshTables();
    void keep(Prefixes &known, Prefixes now, bool whole);

    DataPlane &plane_;
    Netlink netlink_{"the host's addresses"};
    bool hostDue_ = true, tablesDue_ = true;
    Prefixes host_;   /**< of the host's addresses, and of the table `local` */
    Prefixes tables_; /**< of other tables: these may be long, and change less often */
    bool saidTooMany_ = false;
};

} // namespace zynlinux

#endif
