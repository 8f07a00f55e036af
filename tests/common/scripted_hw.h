/**
 * A hardware layer for tests: it programs nothing, records every call in order, and answers as
 * the test told it to.
 */
#ifndef SCRIPTED_HW_H
#define SCRIPTED_HW_H

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "zynacl.h"
#include "zynhwal.h"
#include "zynif.h"

namespace scripted
{

enum class Call {
    SlotSet,
    ScalarSet,
    ScalarGet,
    CpuGet,
    ScalarSync,
    SlotSync,
    AclAdd,
    AclDel,
    CarCount
};

/** One recorded call. Fields that the call does not have are zero. */
struct Record {
    Call call;
    std::optional<std::pair<uint32_t, uint32_t>> slot; /**< (sys, slot); none: the system */
    int32_t slotType = 0;
    uint32_t cmd = 0;              /**< hardware command, scalar id, role id or CPU usage id */
    uint32_t flag = 0;             /**< last argument of SlotSet and of the synchronisation calls */
    tHwCpuDefendPktCarEntry car{}; /**< SlotSet, ScalarSet */
    tHwApiFunc descriptor{};       /**< ScalarSet; its arg is not to be followed */
    uint16_t acl = 0;              /**< AclAdd, AclDel, as the next four */
    uint32_t action = 0, cir = 0, cbs = 0, ebs = 0;
    uint32_t selector = 0; /**< CpuGet */
    std::string octets;    /**< synchronisation calls with ZYN_SYNC_OCTETS */
    uint32_t number = 0;   /**< the other synchronisation calls */
    bool isNumber = false; /**< it is one of those */
    int32_t result = 0;    /**< what the call was answered with */
    uint32_t change = 0;   /**< number of the change it was made in, from 1; 0 outside of any */

    /** On one line, for messages: "AclAdd system acl=2000 action=11 cir=16 cbs=6400 ebs=6400". */
    std::string text() const;
};

/** A target and a packet type, for what its CAR entry has counted. */
using Counted = std::pair<std::optional<std::pair<uint32_t, uint32_t>>, uint32_t>;

struct Counts {
    uint64_t passPkt = 0, dropPkt = 0, passOct = 0, dropOct = 0;
};

/** A packet that the platform has for the daemon. */
struct Packet {
    packet_rxpktinfo info{};
    uint16_t protocol = 0;
    std::vector<uint8_t> frame;
};

/** What the next calls are answered with. */
struct Script {
    bool slave = false;  /**< the role of this card */
    bool noRole = false; /**< neither master nor slave, as while the cards make out who is */
    /** Result of the nth recorded programming or synchronisation call (from 0) of all. */
    std::map<size_t, int32_t> failAt;
    /** Result of every call of a kind, unless failAt speaks. */
    std::map<Call, int32_t> failAll;
    /** Results of the ends of outermost changes: used up in turn, then they are 0. */
    std::deque<int32_t> changeEnds;
    /** What is dropped at these ends, in turn, then nothing is. */
    std::deque<std::vector<tHwDropped>> drops;
    /** Answers every call but role queries, instead of failAt and failAll. */
    std::function<int32_t(const Record &)> answer;
    /** What is dropped at the end of an outermost change, instead of what drops says. */
    std::function<std::vector<tHwDropped>()> dropping;
    /** Readings of the CPU usage by selector: used up in turn, the last one stays. */
    std::map<uint32_t, std::deque<uint32_t>> cpu;
    /** Interface unit to (sys, slot); others cannot be translated. */
    std::map<uint32_t, std::pair<uint32_t, uint32_t>> ports;
    /** What entries have counted and not told yet; the others have counted nothing. */
    std::map<Counted, Counts> counts;

    std::function<void(const Record &)> queried; /**< called at role queries and readings */

    int32_t pktSock = 0;            /**< the source of packets; 0: there is none */
    std::deque<Packet> packets;     /**< taken in turn */
    bool flood = false;             /**< the last packet stays: there is always another one */
    int32_t platformFd = -1;        /**< for the platform's own work; -1: there is none */
    std::function<void()> platform; /**< that work */
    int32_t portsMoved = 1;         /**< what came of it: ports have other places, or 0 */
};

extern Script script;
extern std::vector<Record> calls;
extern std::vector<Record> counted; /**< calls of zynHwCarCount, which are not among the others */
extern uint32_t changeDepth;        /**< changes begun and not ended */
extern uint32_t changes;            /**< outermost changes begun so far */
extern uint32_t changesEnded;       /**< of which are over */
extern size_t packetsTaken;
extern std::vector<std::pair<uint32_t, uint32_t>>
    room; /**< told of the table of sources: used, all */
extern size_t platformRuns;
extern bool loneEnd; /**< a change was ended that had not begun */

/** Forget all calls and instructions. */
void reset();

/** Recorded calls that program something: CAR entries and ACLs. */
std::vector<Record> programming();

/** Number of recorded calls of a kind. */
size_t count(Call call);

} // namespace scripted

#endif
