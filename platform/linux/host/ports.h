/**
 * The protected ports: those that are there have the packet program on them.
 */
#ifndef ZYNLINUX_PORTS_H
#define ZYNLINUX_PORTS_H

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/descriptor.h"
#include "base/failure.h"
#include "host/config.h"
#include "host/links.h"
#include "kernel/dataplane.h"
#include "kernel/pin_folder.h"

namespace zynlinux
{

class Ports
{
public:
    /** What a refresh came to. */
    struct Refreshed {
        bool changed = false;  /**< a port is protected now that was not, or the other way round */
        bool finished = false; /**< nothing is left to do that would have taken too long */
    };

    /** All arguments must outlast this object. */
    Ports(const Config &config, DataPlane &plane, const PinFolder &pins);

    /**
     * Protect the configured ports that are there, last those that a former daemon left protected.
     * A port that is not there is said, and protected once it comes.
     * @throw Failure for one that cannot be protected, or that another one is by another name; then
     *        all are as they were
     */
    void start();

    /**
     * Look at all links: protect what has come or is without its program, forget what has gone.
     * Says what it did, and a failure once for each port. Takes some 20 ms at most.
     * @param retry whether to try again with ports that could not be protected
     * @throw Failure when the links cannot be had, with nothing changed
     */
    Refreshed refresh(bool retry);

    /** Pin again what is not there any more. @param there the names that are. @return how many
     *  @throw Failure */
    size_t pinAgain(const std::set<std::string> &there) const;

    /** Set all ports free. */
    void stop();

    /** Carry queue and priority on all ports from now on. Where the kernel can't, it is said. */
    void carryPriority();

    /** Where an interface is, or was when it went; null for one that is not configured. */
    const PortConfig *find(uint32_t ifindex) const;

private:
    struct Port {
        const PortConfig *config;
        uint32_t ifindex = 0; /**< where the program is; 0: nowhere */
        Descriptor link;      /**< the program on the port; held also where it is pinned */
        Descriptor tc;        /**< the one behind it, as above */
        bool marks = false;   /**< whether that is there: not where nobody needs it */
        std::string trouble;  /**< what was said of it last */
    };

    /** A program on a port, and in which mode it runs. */
    struct Attached {
        Descriptor link;
        Mode mode;
    };

    /** What the list of links says of a configured port. */
    struct Sighting {
        uint32_t ifindex = 0; /**< 0: it was not seen */
        bool isProtected = false;
        const Port *namesake = nullptr; /**< the one that it is by another name */
    };
    struct Look {
        std::vector<Sighting> ports; /**< as they are configured */
        bool whole;                  /**< what was not seen is not there */
    };

    Look look();
    void findNamesakes(std::vector<Sighting> &seen) const;
    static Failure sameAs(const Port &port, const Sighting &seen);
    std::vector<std::pair<Port *, Sighting>> protectNew();
    bool isLeft(uint32_t ifindex) const;
    void protect(Port &port, uint32_t ifindex);
    bool tryToProtect(Port &port, const Sighting &seen);
    static void complain(Port &port, const std::string &trouble);
    Descriptor takeOver(uint32_t ifindex) const;
    Attached attach(const PortConfig &port, uint32_t ifindex) const;
    Mode holdLink(Port &port, uint32_t ifindex, Descriptor left) const;
    void attachTc(Port &port);
    Descriptor aside(Descriptor made) const;
    Descriptor keep(Descriptor made, const std::string &name) const;
    void remember(const Port &port);
    void release(Port &port);
    void setFree(uint32_t ifindex) const;
    bool dropIfGone(Port &port, const Sighting &seen, bool whole);
    void dropStrangers() const;

    const Config &config_;
    DataPlane &plane_;
    const PinFolder &pins_;
    Links links_;
    std::vector<Port> ports_; /**< as they are configured */
    std::map<std::string, size_t, std::less<>> byName_;
    std::map<uint32_t, const Port *> lastPlaces_; /**< of interfaces that have gone too */
    bool started_ = false;
    bool carriesPriority_ = false;
    bool saidNoTc_ = false;
};

} // namespace zynlinux

#endif
