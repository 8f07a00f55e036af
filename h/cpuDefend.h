/**
 * Records, limits and functions of the daemon.
 *
 * Every record belongs to a pool in gCpuDefend for the life of the process; the tables only
 * link, unlink and clear records. Callers of the table and engine functions hold
 * gCpuDefend.cpuDefendSem; the management API (cpuDefend_nm_api.h) takes it itself.
 */
#ifndef CPUDEFEND_H
#define CPUDEFEND_H

#include "cpuDefend_array.h"
#include "cpuDefend_nm.h"
#include "zynacl.h"
#include "zynhwal.h"
#include "zynif.h"
#include "zynosal.h"

/* ---- Limits and defaults -------------------------------------------------------------- */

constexpr uint32_t CPUDEFEND_DEFAULT_POLICYNUM = 32;
constexpr uint32_t CPUDEFEND_DEFAULT_SLOTNUM = 10;
constexpr uint32_t CPUDEFEND_USERDEFINED_PER_POLICY = 8;
constexpr uint32_t CPUDEFEND_CPURAT_LEVELS = 3;

constexpr uint32_t CPUDEFEND_CPURAT_PERIOD = 500;   /**< ms between CPU usage samples */
constexpr uint32_t CPUDEFEND_SRCTRACE_PERIOD = 100; /**< ms in a source-trace window */

/* ---- Records -------------------------------------------------------------------------- */

/** A named protection policy. */
struct tCpuDefendPolicyEntry {
    union {
        avl_node_t node;    /**< in policyList while live */
        list_head freeNode; /**< in policyFreeList while free: the node's first two words */
    };
    list_head userDefinedList;                 /**< its rules, by index */
    list_head carPktList;                      /**< its CAR entries, by packet type */
    uint8_t policyName[CPUDEFEND_NAME_MAXLEN]; /**< not NUL-terminated */
    uint8_t policyDescription[CPUDEFEND_DESCRIPTION_MAXLEN];
    uint8_t policyNameLen;
    uint8_t policyDescriptionLen;
    uint8_t whiteListEnable; /**< 1 on, anything else off */
    uint8_t policyStatus;    /**< 1 active, 3 created by a row status */
    uint8_t priority[4];     /**< the API reads three */
    uint16_t whiteListIp4Acl;
    uint16_t whiteListIp6Acl;
    uint32_t whiteListIp4Cir; /**< kbit/s */
    uint32_t whiteListIp4Cbs; /**< bytes */
    uint32_t whiteListIp6Cir;
    uint32_t whiteListIp6Cbs;
    uint16_t blackListIp4Acl;
    uint16_t blackListIp6Acl;
    uint8_t blackListEnable;
    uint8_t srcTraceAlarmEnable;
    uint8_t srcTraceEnable;
    uint8_t srcTracePktDataEnable;
    uint16_t srcTraceThreshold;      /**< packets per window */
    uint16_t srcTraceAlarmThreshold; /**< packets per window */
    tTimerNode srcTraceTimer;        /**< closes the window; armed while srcTraceEnable is 1 */
    uint32_t userDefinedNum;         /**< rules on userDefinedList */
    uint32_t refCount;               /**< places where the policy is programmed */
};

/** A rule of a policy for what an ACL selects. */
struct tCpuDefendUserDefinedEntry {
    list_head node;       /**< in the global list while live, in the free list while free */
    list_head policyNode; /**< in its policy's list; to itself once the policy is destroyed */
    uint8_t index;        /**< number within the policy; 0 is never programmed */
    uint8_t status;
    uint8_t deny; /**< non-zero drops, 0 limits to cir and cbs */
    uint8_t res;
    uint16_t ip4Acl;
    uint16_t ip6Acl;
    uint32_t cir; /**< kbit/s */
    uint32_t cbs; /**< bytes */
    tCpuDefendPolicyEntry *policyEntry;
};

/** Rate and treatment of one packet type within a policy. */
struct tCpuDefendCarPktEntry {
    list_head node;       /**< in the global list while live, in the free list while free */
    list_head policyNode; /**< in its policy's list; to itself once the policy is destroyed */
    uint8_t pktType;
    uint8_t queue;
    uint8_t deny; /**< 1 drops, 2 does not */
    uint8_t priority;
    uint8_t bit; /**< ZYN_HW_CAR_* bits of what was configured */
    uint8_t res[3];
    uint32_t cir;  /**< kbit/s */
    uint32_t cbs;  /**< bytes */
    uint32_t pps;  /**< packets per second */
    uint32_t mode; /**< CPUDEFEND_CARPKTMODE_* */
    uint32_t totalPktPps;
    uint32_t totalPktBps;
    uint32_t timePre; /**< up-time, in hundredths of a second, of the last packet traced */
    uint32_t pktSrcTraceTotalNum;
    uint32_t pktSrcTraceNum;      /**< packets of the current window */
    uint32_t pktSrcTraceAlarmNum; /**< packets of the current window */
    uint32_t pktPassNum;          /**< as of the last cpuDefendHwCarCount, as the next */
    uint32_t pktDropNum;
    tCpuDefendPolicyEntry *policyEntry;
};

/** A CPU-usage threshold and the policy that goes with it. */
struct tCpuDefendCpuRatControl {
    list_head node;
    uint16_t res;
    uint8_t cpuRat;        /**< percent */
    uint8_t policyNameLen; /**< 0: not configured */
    uint8_t policyName[CPUDEFEND_NAME_MAXLEN];
};

/** A line card with a binding of its own. */
struct tCpuDefendSlotEntry {
    list_head node;
    uint8_t policyName[CPUDEFEND_NAME_MAXLEN];
    uint8_t policyNameLen; /**< 0: no policy bound */
    uint8_t sysId;
    uint8_t slotId;
    uint8_t selectedPosition; /**< level in force, 1 to 3, 0 for none */
    uint8_t policyMode;       /**< CPUDEFEND_FIXED or CPUDEFEND_CPURAT_CONTROL */
    uint8_t res[3];
    tTimerNode cpuRatControlTimer;
    tCpuDefendCpuRatControl cpuRatControl[CPUDEFEND_CPURAT_LEVELS];
    tCpuDefendPolicyEntry *policyEntry;
};

/** A source seen in a burst. */
struct tCpuDefendSrcTraceEntry {
    union {
        avl_node_t node;    /**< in srcTraceList while in use */
        list_head freeNode; /**< in srcTraceFreeList while free: the node's first two words */
    };
    uint32_t ifUnit;
    uint8_t srcIp[4];
    uint8_t dstIp[4]; /**< of the last packet, as all that follows the key */
    uint8_t pktType;
    uint8_t sysId;
    uint8_t slotId;
    uint8_t res[3];
    uint8_t srcMac[6];
    uint16_t outerVlan;
    uint16_t innerVlan;
    uint8_t pktData[CPUDEFEND_PKTDATA_LEN]; /**< from the Ethernet header on */
    uint32_t totalNum;                      /**< the CAR entry's total at that packet */
};

/** Work that is done when it is due, but only once in a second of the clock. */
struct tCpuDefendOnceASecond {
    uint64_t second; /**< when it was done last */
    uint8_t due;
};

/** On the place of the management socket. It comes before start-up, and outlasts one that failed.
 */
struct tCpuDefendClaim {
    int32_t lock; /**< descriptor that holds it; 0: none */
    uint8_t isMade;
};

struct tCpuDefendBinding;
struct tCpuDefendLink;
namespace cpudefend
{
struct tHwItem;
}

/** All state of the daemon. */
struct tCpuDefendSystem {
    tOsixSemId cpuDefendSem;
    tOsixTaskId cpuDefendTaskId; /**< never set */
    avl_tree_t policyList;       /**< by name, byte-wise */
    list_head policyFreeList;
    list_head userDefinedList; /**< by policy name length, name, index */
    list_head userDefinedFreeList;
    list_head carPktList; /**< by policy name length, name, packet type */
    list_head carPktFreeList;
    avl_tree_t srcTraceList; /**< by interface, source address, packet type, source MAC */
    list_head srcTraceFreeList;
    list_head slotList; /**< in the order of creation */
    list_head slotFreeList;
    int32_t cmdSock; /**< management channel, listening */
    int32_t rtSock;  /**< netlink, link group */
    int32_t pktSock; /**< the platform's packets; 0 without a source of them */
    uint32_t maxPolicyNum;
    uint32_t maxUserDefinedNum;
    uint32_t maxCarPktNum;
    uint32_t maxSrcTraceNum;
    uint32_t maxSlotNum;
    uint32_t usePolicyNum;
    uint32_t useUserDefinedNum; /**< grows with every add and every delete */
    uint32_t useCarPktNum;
    uint32_t useSrcTraceNum;
    uint32_t useSlotNum;
    uint8_t policyName[CPUDEFEND_NAME_MAXLEN]; /**< bound to the system; not NUL-terminated */
    uint8_t policyNameLen;
    uint8_t cpuDefendDebug; /**< 1 prints diagnostics */
    uint8_t selectedPosition;
    uint8_t policyMode;
    tTimerNode cpuRatControlTimer;
    tCpuDefendCpuRatControl cpuRatControl[CPUDEFEND_CPURAT_LEVELS];
    tTimerLst timerList;
    tCpuDefendPolicyEntry *policyTable;
    tCpuDefendUserDefinedEntry *userDefinedTable;
    tCpuDefendCarPktEntry *carPktTable;
    tCpuDefendSrcTraceEntry *srcTraceTable;
    tCpuDefendSlotEntry *slotTable;
    cpuDefendArray<tCpuDefendLink> links; /**< ports that are in a slot, as they came */
    /**
     * What the hardware has taken and not given back, the oldest first: what contract and results
     * of the calls say, so that it is right about calls that failed, too. And what it was wanted
     * to take and has refused, which stands where it would be.
     */
    cpuDefendArray<cpudefend::tHwItem> held;
    cpuDefendArray<cpudefend::tHwItem> asked;   /**< what the current change has asked for */
    cpuDefendArray<tCpuDefendBinding> bindings; /**< of policies to places, as configured */
    cpuDefendArray<tCpuDefendBinding> followed; /**< the same, when cpuDefendFollow last ran */
    cpuDefendArray<cpudefend::tHwItem> wanted;  /**< what the bindings stand for */
    uint32_t hwCallNum;                         /**< calls that programmed or removed something */
    uint32_t hwChangeNum;                       /**< policies programmed and removed */
    uint32_t followedChangeNum; /**< the same, when cpuDefendFollow last saw to them */
    uint8_t followsCards;       /**< 1 once a card has a slot's record */
    uint8_t retryDue;           /**< 1 when there may be room for what the hardware refused */
    uint32_t changeDepth;       /**< changes that are under way, one in the other */
    tCpuDefendClaim claim;
    uint64_t cmdSocketInode;        /**< of the socket in its place; 0: not made yet */
    uint32_t tracedNum;             /**< packets taken for tracing in tracedSecond */
    uint64_t tracedSecond;          /**< of the clock */
    tCpuDefendOnceASecond cardLook; /**< at all links, for cards: there may be many */
    /** Of what was refused, as the platform's work may have made room: it may be a lot. */
    tCpuDefendOnceASecond platformRetry;
};

extern tCpuDefendSystem gCpuDefend;
extern int32_t cpuDefendTest; /**< non-zero prints the decisions of CPU-rate switching */

/** Print a diagnostic when debugging is on. */
#define CPUDEFEND_DEBUG(...)                                                                       \
    do {                                                                                           \
        if (gCpuDefend.cpuDefendDebug == 1)                                                        \
            NM_DEBUG_OUTPUT(__VA_ARGS__);                                                          \
    } while (0)

/* ---- Start-up, event loop, channel ---------------------------------------------------- */

/**
 * Claim the place of the management socket, before anything else is touched. What a daemon left
 * that has ended, and what belongs to users other than root and our own, may be replaced then.
 * @return 0, or -1 with the reason printed on standard error: another daemon serves there or is
 *         starting, or a folder is in the way
 */
int32_t cpuDefendSocketClaim();

/**
 * Bind a socket to its place, with mode 0600 from its first instant, also while others keep putting
 * things there: these give way, but for a folder of root's or our own.
 * @return 0, or -1 with errno set, and the reason printed where the place was claimed
 */
int32_t cpuDefendSocketBind(int32_t fd);

/** Remove the socket from its place, if it is ours still. */
void cpuDefendSocketRemove();

/** Give up the claim, if there is one. */
void cpuDefendSocketUnclaim();

/**
 * Build the pools, the default policy and the sockets.
 * @param maxPolicyNumber size of the policy pool, 0 for 32; the pools of rules, CAR entries and
 *                        traced sources are 8, 10 and 1 times as large
 * @param maxSlotNumber   size of the slot pool, 0 for 10
 * @return 0, or -1 with errno set and everything but open sockets released
 */
int32_t cpuDefendInit(uint32_t maxPolicyNumber, uint32_t maxSlotNumber);

/**
 * Give back all that the claim, cpuDefendInit and what followed took: pools, semaphore, sockets and
 * their place. What is programmed stays so. There may be a cpuDefendInit again afterwards; where
 * nothing was taken there is nothing to do.
 */
void cpuDefendRelease();

/** The event loop. Does not return. */
[[noreturn]] void cpuDefenTask();

/**
 * What the event loop does before its first turn: start the sampling timer, open the platform's
 * source of packets, look for cards.
 */
void cpuDefenTaskStart();

/**
 * One turn of the event loop: due timers, then at most one second's wait for a socket, then what
 * has come. Of packets a turn and a second take a limited number.
 */
void cpuDefenTaskTurn();

/** Walk a buffer of netlink messages. @return 0 */
int32_t cpudefendNotifyRecv(unsigned char *buf, int32_t len);

/** Accept one connection, answer its request, close it. @return 0, or -1 when that failed */
int32_t cpudefendCmdServer();

/**
 * Carry out one request and turn it into its reply, in place.
 * @param bufRx message body
 * @param lenRx its length in bytes
 * @return @a lenRx, or 0 for a malformed request
 */
uint32_t cpudefendCmdProcess(unsigned char *bufRx, uint32_t lenRx);

/* ---- Policy table --------------------------------------------------------------------- */

int cpuDefendPolicyCmp(const void *a, const void *b);

/** @return the policy so named, or null (also for a name longer than 32 bytes) */
tCpuDefendPolicyEntry *cpuDefendPolicyEntryGet(const uint8_t *name, uint32_t nameLen);

/**
 * Create a policy with its defaults and one CAR entry for each of the types 0 to 9, as far as
 * the CAR pool goes.
 * @return the policy, or null when the pool is exhausted or the name taken or too long
 */
tCpuDefendPolicyEntry *cpuDefendPolicyEntryAdd(const uint8_t *name, uint32_t nameLen);

/**
 * Destroy a policy. Its rules and CAR entries stay allocated, listed globally and counted.
 * @return 0, or CPUDEFEND_EBOUND with nothing changed
 */
int32_t cpuDefendPolicyEntryDel(tCpuDefendPolicyEntry *pPolicy);

/* ---- User-defined rules --------------------------------------------------------------- */

/** @return the first rule of that policy name and index, or null */
tCpuDefendUserDefinedEntry *cpuDefendUserDefinedEntryGet(const uint8_t *name, uint32_t nameLen,
                                                         uint32_t index);

/**
 * Create a rule. Fields other than the index and the status keep what the record last held.
 * @param ret receives CPUDEFEND_ENOPOLICY or CPUDEFEND_ENOMEM on failure, else is untouched
 * @return the rule, or null
 */
tCpuDefendUserDefinedEntry *cpuDefendUserDefinedEntryAdd(const uint8_t *name, uint32_t nameLen,
                                                         uint32_t index, int32_t *ret);

/** Release a rule. @return 0, or -1 for one without a policy */
int32_t cpuDefendUserDefinedEntryDel(tCpuDefendUserDefinedEntry *pUserDefined);

/* ---- CAR entries ---------------------------------------------------------------------- */

/** @return the first entry of that policy name and packet type, or null */
tCpuDefendCarPktEntry *cpuDefendCarPktEntryGet(const uint8_t *name, uint32_t nameLen,
                                               uint32_t pktType);

/**
 * Create a CAR entry with the default rates. Its counters keep what the record last held.
 * @param ret receives CPUDEFEND_ENOPOLICY or CPUDEFEND_ENOMEM on failure, else is untouched
 * @return the entry, or null
 */
tCpuDefendCarPktEntry *cpuDefendCarPktEntryAdd(const uint8_t *name, uint32_t nameLen,
                                               uint32_t pktType, int32_t *ret);

/** Release a CAR entry. @return 0, or -1 for one without a policy */
int32_t cpuDefendCarPktEntryDel(tCpuDefendCarPktEntry *pCarPkt);

/* ---- Slots ---------------------------------------------------------------------------- */

/** @return the first slot with these numbers, or null */
tCpuDefendSlotEntry *cpuDefendSlotEntryGet(uint32_t sysId, uint32_t slotId);

/**
 * Create a slot's record and start its sampling. Numbers are cut to 8 bits; mode, levels and
 * binding stay what the record last held.
 * @return the slot, or null when the pool is exhausted
 */
tCpuDefendSlotEntry *cpuDefendSlotEntryAdd(uint32_t sysId, uint32_t slotId);

/**
 * Release a slot, and remove from its hardware the policy that is in force. Its timer runs on.
 * @return the removal's result, 0 when there was nothing to remove
 */
int32_t cpuDefendSlotEntryDel(tCpuDefendSlotEntry *pSlotEntry);

/** The slot as the platform knows it. */
tSlotIndex cpuDefendSlotIndex(const tCpuDefendSlotEntry *pSlotEntry);

/* ---- Cards ---------------------------------------------------------------------------- */

/**
 * Ask the kernel for its links: records of slots are made and released as their ports are there.
 * Asked again it mends what lost messages left.
 */
void cpuDefendCardStart();

/** Take note of links coming and going. @param buf netlink messages; the last one may be cut */
void cpuDefendCardNotify(const unsigned char *buf, int32_t len);

/**
 * Have the hardware hold what binding all that is bound afresh would program, and the policies'
 * refCount say so. Does nothing until a card has a slot's record, nor on a slave card.
 */
void cpuDefendFollow();

/**
 * Ask again for what the hardware refused of what is bound, or dropped at the end of a change. Due
 * (retryDue) after every change of what is programmed: it may have made room.
 */
void cpuDefendRetry();

/* ---- Source tracing ------------------------------------------------------------------- */

/** Close a counting window of the policy's CAR entries and open the next. @return 0 */
int32_t cpuDefendsrcTraceTimeOut(tCpuDefendPolicyEntry *pPolicy);

/** Arm the timer that closes the policy's current window. */
void cpuDefendSrcTraceTimerStart(tCpuDefendPolicyEntry *pPolicy);

/** Order of traced sources. */
int cpuDefendSrcTraceCmp(const void *a, const void *b);

/** A record with nothing but these keys: 4 bytes of address, 6 of MAC, the type's low byte. */
tCpuDefendSrcTraceEntry cpuDefendSrcTraceKey(uint32_t ifUnit, const uint8_t *srcIp,
                                             uint32_t pktType, const uint8_t *srcMac);

/** @return the source with these keys, or null */
tCpuDefendSrcTraceEntry *cpuDefendSrcTraceEntryGet(uint32_t ifUnit, const uint8_t *srcIp,
                                                   uint32_t pktType, const uint8_t *srcMac);

/** @return the source with these keys, made if need be; null when the pool is exhausted */
tCpuDefendSrcTraceEntry *cpuDefendSrcTraceEntryAdd(uint32_t ifUnit, const uint8_t *srcIp,
                                                   uint32_t pktType, const uint8_t *srcMac);

/** Release a source and clear its record. @return 0 */
int32_t cpuDefendSrcTraceEntryDel(tCpuDefendSrcTraceEntry *pSrcTrace);

/**
 * Classify a packet, count it on the CAR entries of the policy in force where it came in, and
 * record its sender when it is one of a burst.
 * @param ifUnit   interface unit on which it arrived
 * @param protocol ethertype; only IPv4 (0x0800) and ARP (0x0806) are traced
 * @param buf      the frame from its destination address on, 80 readable bytes
 * @param offSet   of the network header in the frame, in bytes, within these 80
 * @param innervid inner VLAN id, @param outervid outer VLAN id
 * @return 0 when it was examined; -1 without a place for the interface, a policy there, or
 *         source tracing in it
 */
int32_t cpuDefendSrcTracePktData(uint32_t ifUnit, uint32_t protocol, const unsigned char *buf,
                                 uint32_t offSet, uint16_t innervid, uint16_t outervid);

/**
 * Where a platform's packets come in: each goes to cpuDefendSrcTracePktData.
 * @param ifUnit    interface unit on which it arrived
 * @param protocol  ethertype behind the VLAN tags
 * @param rxpktInfo offset of the network header, and VLAN ids in the low 12 bits
 * @param buf       the frame from its destination address on; what a short one lacks counts as 0
 * @param length    readable bytes at @a buf
 * @return its result; -1 also without a frame, and for an offset outside of what is looked at
 */
int32_t cpuDefendSrcTracePkt(uint32_t ifUnit, uint16_t protocol, packet_rxpktinfo *rxpktInfo,
                             unsigned char *buf, int32_t length);

/** Where an alarm of a traced source would go out: there is no trap to send. @return 0 */
int32_t sendCpuDefendSrcTraceAlarmTrap();

/* ---- Hardware programming and CPU-rate switching -------------------------------------- */

/**
 * Program a policy: ACLs, rules and CAR entries. Failures do not stop the sequence.
 * @param pSlotIndex the slot, or null for the system as a whole
 * @return the last call's result; 0 with nothing done on a slave card
 */
int32_t cpuDefendHwAdd(tSlotIndex *pSlotIndex, tCpuDefendPolicyEntry *pPolicy);

/**
 * Remove what cpuDefendHwAdd programmed.
 * @return the last call's result; CPUDEFEND_ENONAME for an unknown policy; 0 with nothing done
 *         on a slave card
 */
int32_t cpuDefendHwDel(tSlotIndex *pSlotIndex, const uint8_t *name, uint32_t nameLen);

/**
 * End an outermost change. What the hardware drops then is noted, and asked for again by
 * cpuDefendRetry.
 * @return 0; or why it is not in force, or something is not that cpuDefendHwAdd programmed in it
 */
int32_t cpuDefendHwChangeEnd();

/** Add to the entry's counters what it has counted since, wherever it is programmed. */
void cpuDefendHwCarCount(const tCpuDefendCarPktEntry *pCarPkt);

/** Whether this card is the slave, which leaves the hardware to the master. */
bool cpuDefendIsSlave();

/** Sample the CPU usage and switch the system's policy to the level that fits. @return 0 */
int32_t cpuDefendCpuRatControlSysTimeOut();

/** Arm the timer behind cpuDefendCpuRatControlSysTimeOut. */
void cpuDefendCpuRatControlSysTimerStart();

/** Sample the CPU usage and switch the slot's policy to the level that fits. @return the
 *  result of programming the new policy, 0 without one */
int32_t cpuDefendCpuRatControlSlotTimeOut(tCpuDefendSlotEntry *pSlotEntry);

/** Arm the timer behind cpuDefendCpuRatControlSlotTimeOut. */
void cpuDefendCpuRatControlSlotTimerStart(tCpuDefendSlotEntry *pSlotEntry);

/* ---- Standby synchronisation ---------------------------------------------------------- */

/**
 * Write the record of one selected level.
 * @param pSlotEntry the slot, or null for the system
 * @param pBuf       12 bytes
 * @return 12
 */
uint32_t cpuDefendSyncData(const tCpuDefendSlotEntry *pSlotEntry, unsigned char *pBuf,
                           uint32_t selectedPosition);

/** Send the records of the system and all slots. @return the last result */
int32_t cpuDefendSyncSend(uint32_t flag, uint32_t isDSS);

/** Send the record of one slot, or of the system for null, if this card is the master. */
int32_t cpuDefendSlotSyncSend(const tCpuDefendSlotEntry *pSlotEntry);

/** Apply received records; a last one that is not whole is ignored. @return 0, -1 for null */
int32_t cpuDefendSyncRcv(const unsigned char *pBuf, int32_t len);

#endif
