/**
 * All that the core sees of the world in a recorded run: the hardware layer kept in memory, behind
 * one that writes each call down and lets some fail; sockets that are none; a clock that the run
 * steps. What it does is set here; what the core does comes out as lines.
 */
#ifndef RECORDED_SURROUNDINGS_H
#define RECORDED_SURROUNDINGS_H

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <utility>

#include "recorded/dice.h"
#include "recorded/random_packet.h"

namespace recorded
{

struct Surroundings {
    explicit Surroundings(uint32_t seed) : dice(seed) {}

    Dice dice; /**< what the hardware counts, drops and gives up; apart from what the run does */

    uint64_t now = 0; /**< ms */
    uint32_t percent = 0, hundredths = 0;
    uint32_t role = 0;        /**< master, slave, or neither */
    uint32_t failIn = 0;      /**< the call that fails, from 1 on; 0 for none */
    uint32_t changeFails = 0; /**< outermost changes to come that end in failure */
    uint32_t dropsIn = 0;     /**< the change with calls at whose end an ACL is dropped; 0: none */
    std::map<uint32_t, std::pair<uint32_t, uint32_t>> ports; /**< interface units to places */
    uint32_t links = 0;                                      /**< in the kernel's list */
    uint32_t listing = 0; /**< how the next list comes: whole, interrupted, not at all */
    std::deque<std::string> datagrams; /**< on the netlink socket */
    uint32_t sender = 0;               /**< of these; 0 is the kernel */
    bool overrun = false;              /**< some found no room there */
    std::deque<Packet> packets;
    bool platformIsDue = false, portsMoved = false;
};

extern Surroundings *surroundings;

} // namespace recorded

#endif
