/**
 * Hardware layer: CAR (committed access rate) entries, CPU usage, role and synchronisation.
 *
 * All functions are called from the daemon's one thread and must not block for long. Results
 * are 0 for success and an errno value (above 0) for a failure that changed nothing, unless a
 * function says otherwise. Arguments stay the caller's; a layer copies what it keeps.
 */
#ifndef ZYNHWAL_H
#define ZYNHWAL_H

#include "zynosal.h"
#include "zynpkttype.h"

#ifdef __cplusplus
extern "C" {
#endif

/** A slot (line card). Where a pointer to one is null, the system as a whole is meant. */
typedef struct tSlotIndex {
    uint32_t sys;  /**< system (chassis) number */
    uint32_t slot; /**< slot number */
    int32_t type;  /**< 0 */
} tSlotIndex;

/** Treatment of matching packets, in CAR and ACL entries. */
enum {
    ZYN_HW_OP_DENY = 3,   /**< drop */
    ZYN_HW_OP_PERMIT = 11 /**< pass at the rate given */
};

/** What is in force of a CAR entry: the bits of tHwCpuDefendPktCarEntry::res. */
enum {
    ZYN_HW_CAR_CIR = 0x80,     /**< the byte policer's rate `cir` */
    ZYN_HW_CAR_CBS = 0x40,     /**< the byte policer's burst `cbs` */
    ZYN_HW_CAR_PPS = 0x20,     /**< the packet policer `pps` */
    ZYN_HW_CAR_QUEUE = 0x10,   /**< a queue was chosen */
    ZYN_HW_CAR_PRIORITY = 0x08 /**< a priority was chosen */
};

/**
 * One CAR entry: the treatment of one protocol packet type on its way to the CPU.
 *
 * The byte policer is in force with ZYN_HW_CAR_CIR or _CBS, the packet policer with
 * ZYN_HW_CAR_PPS, both with both; with none of them the packet policer is.
 */
typedef struct tHwCpuDefendPktCarEntry {
    uint32_t pktType; /**< protocol packet type, ZYN_PKT_* */
    uint32_t cir;     /**< committed information rate, kbit/s */
    uint32_t cbs;     /**< committed burst size, bytes */
    uint32_t pps;     /**< packets per second */
    uint8_t queue;    /**< CPU queue */
    uint8_t priority;
    uint8_t op;     /**< ZYN_HW_OP_PERMIT or ZYN_HW_OP_DENY */
    uint8_t res;    /**< ZYN_HW_CAR_* bits */
    U_INT8 PassPkt; /**< counters: 0 as sent */
    U_INT8 DropPkt;
    U_INT8 PassOct;
    U_INT8 DropOct;
} tHwCpuDefendPktCarEntry;

/** A command for the system as a whole. */
typedef struct tHwApiFunc {
    uint32_t hwCmd;  /**< HW_SYS_CPUDEFENDPKTCARADD or _DEL */
    void *arg;       /**< the tHwCpuDefendPktCarEntry */
    uint8_t action;  /**< 0 */
    uint8_t res;     /**< 0 */
    uint16_t argLen; /**< 0: the length of arg is implied by hwCmd */
    uint32_t flag;   /**< 0 */
} tHwApiFunc;

enum {
    HW_SYS_SWRUNNINGROLEISMASTER = 53,       /**< role query: 0 when this card is the master */
    HW_SYS_SWRUNNINGROLEISSLAVE = 54,        /**< role query: 0 when this card is the slave */
    HW_SYS_CPUDEFENDPKTCARADD = 385,         /**< add a CAR entry, system path */
    HW_SYS_CPUDEFENDPKTCARDEL = 386,         /**< remove a CAR entry, system path */
    HW_SLOT_CPUDEFENDPKTCARADD = 0x01F4003F, /**< add a CAR entry, slot path */
    HW_SLOT_CPUDEFENDPKTCARDEL = 0x01F40040, /**< remove a CAR entry, slot path */
    HW_CPU_USED = 0x06D60003                 /**< CPU usage */
};

/** An entry that a layer had taken within a change and dropped at its end. */
typedef struct tHwDropped {
    int32_t result; /**< why, an errno value above 0 */
    uint8_t isSlot; /**< 0: it was programmed on the system as a whole */
    uint8_t isAcl;  /**< 0: a CAR entry */
    uint16_t acl;   /**< of an ACL, as the next four: the arguments of acl_cpudefend_add */
    uint32_t action;
    uint32_t cir;
    uint32_t cbs;
    uint32_t ebs;
    tSlotIndex slot;             /**< where, if on a slot */
    tHwCpuDefendPktCarEntry car; /**< of a CAR entry: its settings */
} tHwDropped;

/** Whose change it is: the flag of what is programmed and synchronised. */
enum {
    ZYN_FLAG_PEER = 1, /**< replayed from the other card */
    ZYN_FLAG_LOCAL = 3 /**< made here, for the running hardware */
};

/** Bit of a synchronisation flag: the value is an octetstring. */
#define ZYN_SYNC_OCTETS 0x80000000u

/**
 * Synchronisation ids: each table's first one, to which the id of the attribute is added. The
 * ranges overlap, for it is the call that tells the table.
 */
enum {
    ZYN_SYNC_GLOBAL = 8000, /**< zynHwScalarSync */
    ZYN_SYNC_SLOT,          /**< zynHwSlotSync */
    ZYN_SYNC_POLICY,
    ZYN_SYNC_USERDEFINED,
    ZYN_SYNC_CARPKT
};

/** Of these, those whose value is special; that of an order means nothing. */
enum {
    ZYN_SYNC_SLOT_RESET = 8002,   /**< zynHwSlotSync: an order */
    ZYN_SYNC_SLOT_L1NAME = 8005,  /**< zynHwSlotSync: an octetstring without ZYN_SYNC_OCTETS */
    ZYN_SYNC_SLOT_L2NAME = 8007,  /**< the same */
    ZYN_SYNC_SLOT_L3NAME = 8009,  /**< the same */
    ZYN_SYNC_GLOBAL_RESET = 8011, /**< zynHwScalarSync: an order */
    ZYN_SYNC_SELECTED = 8020      /**< zynHwScalarSync: selected CPU-rate levels, as octets */
};

/** Status of a daemon that another configuration alone helps: starting it again does not. */
#define ZYN_EXIT_CONFIG 78

/**
 * Find out what the host's configuration asks for, and do nothing about it yet. Called once by
 * main, before the daemon's own start-up; it may replace the process by another executable that
 * is linked with the layer which is asked for.
 * @param argv the command line, null-terminated
 * @return 0, or the status with which the daemon ends, with the reason printed on standard error:
 *         ZYN_EXIT_CONFIG for a configuration that cannot be, or -1
 */
int32_t zynPlatformInit(char *const argv[]);

/**
 * Bring the hardware into service. Called once by main, when all else that can fail at a start is
 * done. Optional: a layer that has nothing to bring up leaves it out.
 * @return 0, or -1 with the reason printed on standard error and all as it was before: the daemon
 *         then ends with this status
 */
int32_t zynPlatformStart(void);

/**
 * A descriptor that turns readable when the layer has work of its own to do (a signal, a time
 * that is up, a port that comes or goes); the event loop then calls zynPlatformRun.
 * Optional, with zynPlatformRun: a layer without such work leaves both out.
 * @return the descriptor, which stays the layer's, or -1 for none
 */
int32_t zynPlatformFd(void);

/**
 * Do the work that is due; none is no error. It may end the process, when it was told to. It is
 * called within a change, at whose end comes in force what is ready by then.
 * @return 0, or non-zero when ports may have come to other places by it, or there may be room for
 * what was refused: the daemon then looks at all of them anew, and asks again
 */
int32_t zynPlatformRun(void);

/**
 * Begin a change: what is added and removed until its end is put in force together then, so that
 * every packet is judged by all that was in force before, or by all that is after. Changes nest;
 * the outermost one counts. A call outside of a change is one by itself. Optional, with
 * zynHwChangeEnd: a layer that leaves both out puts each call in force by itself.
 */
void zynHwChangeBegin(void);

/**
 * End a change.
 *
 * A layer that can tell only now that an entry does not fit drops that entry, puts the others in
 * force, and tells of it by zynHwDropped. One that has to work on something for long takes the
 * change, has what was in force stay, and puts all of it in force at the end of a later change: it
 * tells by zynPlatformFd when there is one to make.
 *
 * @return 0, also for a change within another, and one that was taken; or why nothing of the
 * outermost one could be put in force: what was in force stays so, and the layer goes on trying by
 * itself
 */
int32_t zynHwChangeEnd(void);

/**
 * The entries that were dropped at the end of the last outermost change. They are no longer
 * programmed: their removal would be that of what is not there. Optional: a layer that drops
 * nothing leaves it out.
 * @param n       which one, from 0 on; of equal entries at a place the newest went first
 * @param dropped receives it; untouched on failure
 * @return 0, or ENOENT beyond the last one
 */
int32_t zynHwDropped(uint32_t n, tHwDropped *dropped);

/**
 * Add or remove a CAR entry of a slot.
 *
 * Entries form a multiset per slot. An added entry covers an older one of the same packet type;
 * when it is removed, the older one is in force again. Removal takes the newest entry that was
 * added with the same settings (counters aside).
 *
 * @param slot the slot, not null
 * @param cmd  HW_SLOT_CPUDEFENDPKTCARADD or HW_SLOT_CPUDEFENDPKTCARDEL
 * @param arg  the tHwCpuDefendPktCarEntry
 * @param flag ZYN_FLAG_LOCAL
 * @return 0; EINVAL for what no hardware could do, ENOENT for the removal of what is not there
 */
int32_t zynHwSlotSet(const tSlotIndex *slot, uint32_t cmd, void *arg, int32_t flag);

/**
 * The same for the system as a whole.
 * @param index 0
 * @param cmd   0: the command is in @a func
 * @param func  hwCmd HW_SYS_CPUDEFENDPKTCARADD or _DEL, arg the tHwCpuDefendPktCarEntry
 */
int32_t zynScalarSetApi(uint32_t index, uint32_t cmd, tHwApiFunc *func);

/**
 * Take what the newest entry with these settings has counted while it was in force, since it was
 * added or since this was last asked. Optional: without it the daemon's counters stay as they are.
 * @param slot  the slot, or null for the system as a whole
 * @param entry the settings; receives PassPkt, DropPkt, PassOct and DropOct
 * @return 0, or ENOENT when there is no such entry; the counters are then untouched
 */
int32_t zynHwCarCount(const tSlotIndex *slot, tHwCpuDefendPktCarEntry *entry);

/**
 * Ask for a condition of this card.
 * @param index 0
 * @param id    HW_SYS_SWRUNNINGROLEISMASTER or HW_SYS_SWRUNNINGROLEISSLAVE
 * @param value null
 * @return 0 when the condition holds, non-zero otherwise
 */
int32_t zynHwScalarGet(uint32_t index, uint32_t id, void *value);

/**
 * Read the CPU usage since the last reading of the same selector.
 * @param selector 0: in percent; 1: in hundredths of a percent
 * @param id       HW_CPU_USED
 * @param value    receives the usage; untouched on failure
 */
int32_t zynHwCpuGet(uint32_t selector, uint32_t id, uint32_t *value);

/**
 * Hand a changed system-wide attribute to the standby card.
 * @param index    0
 * @param scalarId ZYN_SYNC_GLOBAL plus the attribute's id, ZYN_SYNC_SELECTED among them
 * @param value    an octetstring when @a flag has ZYN_SYNC_OCTETS, else a 32-bit number
 * @param flag     ZYN_FLAG_LOCAL or ZYN_FLAG_PEER; and ZYN_SYNC_OCTETS
 * @return 0 (also without a standby card), or a code that makes the daemon abandon the change
 */
int32_t zynHwScalarSync(uint32_t index, uint32_t scalarId, const void *value, uint32_t flag);

/**
 * The same for an attribute of a slot.
 * @param scalarId ZYN_SYNC_SLOT plus the attribute's id
 * @param value    as above; of ZYN_SYNC_SLOT_L1NAME, _L2NAME and _L3NAME always an octetstring
 */
int32_t zynHwSlotSync(const tSlotIndex *slot, uint32_t scalarId, const void *value, uint32_t flag);

#ifdef __cplusplus
}
static_assert(sizeof(tSlotIndex) == 12);
static_assert(sizeof(tHwCpuDefendPktCarEntry) == 52);
static_assert(sizeof(void *) != 4 || sizeof(tHwApiFunc) == 16);
#endif

#endif
