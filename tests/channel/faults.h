/**
 * System calls of the daemon that a test makes fail, watches or leads astray. The linker routes
 * the calls of the whole test process here, so clients in the tests use read and write.
 */
#ifndef CHANNEL_FAULTS_H
#define CHANNEL_FAULTS_H

#include <sys/select.h>
#include <sys/socket.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <vector>

namespace faults
{

enum class Call { Accept, SetSockOpt, Recv, RecvFrom, SendMsg, Select };

/** A datagram for the next recvfrom. */
struct Datagram {
    std::vector<uint8_t> data;
    uint32_t senderPort;
};

/** What select was asked. */
struct SelectAsked {
    int count;
    fd_set read;
    bool write, except;
    timeval wait;
};

struct Plan {
    /** What the next calls of a kind do: an errno value fails one, 0 lets it through. */
    std::map<Call, std::deque<int>> next;
    std::optional<Datagram> datagram; /**< given to the next recvfrom */
    /** Called with each accepted connection before the daemon sees it. */
    std::function<void(int)> accepted;
    std::function<void()> sending; /**< called before each sendmsg */
    std::function<void()> binding; /**< called before each bind */
    std::function<void()> moving;  /**< called before a file changes its name */
    size_t sendAtMost = 0;         /**< bytes that a sendmsg takes; 0: all that it can */
    bool noWait = false;           /**< select polls instead of waiting */
    std::optional<int> ready;      /**< the next select finds this one readable, and no other */

    std::vector<SelectAsked> selects;
    int lowWaterMark = 0;            /**< as last set with SO_RCVLOWAT */
    bool acceptedCloseOnExec = true; /**< of every connection accepted */
    mode_t modeWhenBound = 0;        /**< of the socket file right after bind */
    int modeChanges = 0;             /**< calls of chmod and fchmod */
    int semDepth = 0;                /**< takes of the semaphore not given back */
    std::vector<int> depthAtMessage; /**< semDepth at each diagnostic */
};

extern Plan plan;

} // namespace faults

#endif
