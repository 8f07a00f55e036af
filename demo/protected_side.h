/**
 * The protected host: its port, what arrives behind the protection, and what that costs.
 */
#ifndef DEMO_PROTECTED_SIDE_H
#define DEMO_PROTECTED_SIDE_H

#include <atomic>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <thread>

/** Packets that reached the host's network stack, by type. */
struct Arrived {
    uint64_t arp;
    uint64_t dhcp;
    uint64_t trickle;
};

class ProtectedSide
{
public:
    /**
     * In the caller's network name space, make the port, wired to one in the peer's.
     * @param peer a process in the peer's name space
     */
    ProtectedSide(const std::string &port, const std::string &peerPort, pid_t peer);
    ~ProtectedSide();
    ProtectedSide(const ProtectedSide &) = delete;
    ProtectedSide &operator=(const ProtectedSide &) = delete;

    /** What has arrived since this object was made. */
    Arrived arrived();

    /**
     * CPU time, in seconds, that receiving has cost so far: of the kernel thread that polls the
     * port and takes every frame through the protection and the stack, and of a DHCP server that
     * reads what comes to it.
     */
    double cpuTime();

private:
    void serveDhcp();

    uint64_t counted_[3] = {};
    int counters_[3];
    int dhcp_;
    pid_t poller_;
    std::atomic<bool> stop_ = false;
    std::thread server_;
};

#endif
