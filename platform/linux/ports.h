/**
 * The protected ports: those that are there have the packet program on them.
 */
#ifndef ZYNLINUX_PORTS_H
#define ZYNLINUX_PORTS_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "config.h"
#include "dataplane.h"
#include "descriptor.h"
#include "pin_folder.h"

namespace zynlinux
{

class Ports
{
public:
    /** All arguments must outlast this object. */
    Ports(const Config &config, DataPlane &plane, const PinFolder &pins);

    /**
     * Protect the configured ports that are there, last those that a former daemon left protected.
     * A port that is not there is said, and protected once it comes.
     * @throw Failure for one that cannot be protected; then all are as they were
     */
    void start();

    /** Look again: protect what has come, forget what has gone. Says what it did, and a failure
     *  once for each port. */
    void refresh();

    /** Set all ports free. */
    void stop();

    /** Carry queue and priority on all ports from now on. Where the kernel can't, it is said. */
    void carryPriority();

    /** Where an interface is, or was when it went; null for one that is not configured. */
    const PortConfig *find(uint32_t ifindex) const;

private:
    struct Port {
        const PortConfig *config;
        uint32_t ifindex;
        Descriptor link; /**< the program on the port; invalid when it is pinned */
        Descriptor tc;   /**< the one behind it, as above */
        bool marks;      /**< whether that is there: not while nobody needs it */
    };

    bool isProtected(uint32_t ifindex) const;
    bool isLeft(uint32_t ifindex) const;
    void protect(const PortConfig &port, uint32_t ifindex);
    void tryToProtect(const PortConfig &port, uint32_t ifindex);
    Descriptor takeOver(uint32_t ifindex) const;
    Descriptor attach(const PortConfig &port, uint32_t ifindex) const;
    void attachTc(Port &port);
    Descriptor unlessPinned(Descriptor made) const;
    void setFree(uint32_t ifindex) const;
    void dropGone();
    void dropStrangers() const;

    const Config &config_;
    DataPlane &plane_;
    const PinFolder &pins_;
    std::vector<Port> ports_;
    std::map<uint32_t, const PortConfig *> lastPlaces_;  /**< of interfaces that have gone too */
    std::map<const PortConfig *, std::string> failures_; /**< what was said of a port last */
    bool carriesPriority_ = false;
    bool saidNoTc_ = false;
};

} // namespace zynlinux

#endif
