/**
 * Programs that read frames off a port, with filters of their own.
 */
#ifndef REACH_READERS_H
#define REACH_READERS_H

#include <cstdint>
#include <string>
#include <vector>

#include "base/descriptor.h"
#include "consumers.h"

/** What must stand somewhere in a frame. */
struct Match {
    uint32_t offset;
    unsigned size; /**< 1, 2 or 4 octets */
    uint32_t value;
    uint32_t mask = UINT32_MAX;
    bool isBound = false; /**< less than the value will do, and only that */
};

/**
 * A reader of frames.
 * @param device   whose frames; empty for those of all
 * @param protocol the ethertype by which the kernel hands them out; ETH_P_ALL for all
 * @param matches  its filter
 */
zynlinux::Descriptor openReader(const std::string &device, uint16_t protocol,
                                const std::vector<Match> &matches);

/** What DHCP servers and clients read: UDP in IPv4, no later fragment, to that port. */
zynlinux::Descriptor openDhcpReader(const std::string &device, uint16_t port);

/** Learning packets: sent by somebody to himself. */
zynlinux::Descriptor openLearningReader(const std::string &device, uint16_t ethertype);

struct Reader {
    const char *name;
    Verdicts verdicts;
    bool onPort; /**< reads off the port itself, whoever else does */
    uint16_t protocol;
    std::vector<Match> matches;
};

const std::vector<Reader> &readers();

#endif
