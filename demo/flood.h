/**
 * The peer that floods: a process in a network name space of its own, at the far end of the wire.
 */
#ifndef DEMO_FLOOD_H
#define DEMO_FLOOD_H

#include <cstdint>
#include <string>
#include <sys/types.h>

constexpr unsigned FLOOD_SENDERS = 16; /**< different sources in each flood */

/** What is sent, in packets per second; all of it in frames that any host would take as real. */
struct Offer {
    uint32_t arp;     /**< requests for the protected address, from many senders */
    uint32_t dhcp;    /**< DISCOVER broadcasts, from many clients */
    uint32_t trickle; /**< 802.1X EAPOL-Start, evenly spaced: the legitimate traffic */
};

/** What went out. */
struct Sent {
    uint64_t arp;
    uint64_t dhcp;
    uint64_t trickle;
};

class Peer
{
public:
    /** Start the process; it waits in a network name space of its own. */
    Peer();
    ~Peer();
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    pid_t pid() const { return pid_; }

    /** Start sending on @a port, which is the peer's end of the wire. */
    void start(const std::string &port, const Offer &offer);

    /** What has been sent since start(), up to this moment. */
    Sent sent();

    /** Stop sending. The flood ends before the trickle does. @return all that was sent */
    Sent stop();

private:
    Sent ask(char what);

    pid_t pid_ = -1;
    int fd_ = -1;
};

#endif
