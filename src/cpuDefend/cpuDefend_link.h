/**
 * Ports: the kernel's links, as far as the platform has them in a slot.
 */
#ifndef CPUDEFEND_LINK_H
#define CPUDEFEND_LINK_H

#include "cpuDefend_netlink.h"

/** System 0 with slot 0, the system itself, stands for no slot. */
struct tCpuDefendPlace {
    uint32_t sys;
    uint32_t slot;

    bool isSlot() const { return sys != 0 || slot != 0; }
    bool operator==(const tCpuDefendPlace &) const = default;
};

constexpr tCpuDefendPlace CPUDEFEND_NO_SLOT{0, 0};

/** A link of the kernel. */
struct tCpuDefendLink {
    uint32_t ifUnit;
    tCpuDefendPlace now; /**< CPUDEFEND_NO_SLOT when it is gone */
    tCpuDefendPlace was; /**< when the records last were as the links are */
    bool isListed;
};

/** Take note of a message about a link, of which @a len bytes are there; others tell nothing. */
void cpuDefendLinkTake(const tCpuDefendLinkMessage &message, size_t len);

/**
 * Ask the kernel for all links, and take note of them. When it has told of all, the others are
 * gone.
 * @return whether it has
 */
bool cpuDefendLinkListAll();

#endif
