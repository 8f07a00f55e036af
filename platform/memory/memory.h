/**
 * A look into the hardware layer kept in memory, and ways to script it, for tests and dry runs.
 * The daemon itself uses zynhwal.h, zynacl.h and zynif.h alone.
 *
 * A target is a slot, or the system as a whole where the pointer to a slot is null.
 */
#ifndef ZYN_MEMORY_H
#define ZYN_MEMORY_H

#include "zynacl.h"
#include "zynhwal.h"

#ifdef __cplusplus
extern "C" {
#endif

/** An attached ACL: the arguments of acl_cpudefend_add. */
typedef struct tZynMemoryAcl {
    uint16_t acl;
    uint32_t action;
    uint32_t cir;
    uint32_t cbs;
    uint32_t ebs;
} tZynMemoryAcl;

/**
 * The CAR entry in force for a packet type: the newest one of that type.
 * @return the entry, valid until it is removed, or null without one
 */
const tHwCpuDefendPktCarEntry *zynMemoryCarInForce(const tSlotIndex *slot, uint32_t pktType);

/** CAR entries of a target, those that are covered included. */
uint32_t zynMemoryCarCount(const tSlotIndex *slot);

/**
 * Walk the ACLs of a target in the order of their attachment.
 * @param previous an ACL that this function returned and that is still attached, or null for
 *                 the first
 * @return the next one, valid until it is detached, or null after the last
 */
const tZynMemoryAcl *zynMemoryAclNext(const tSlotIndex *slot, const tZynMemoryAcl *previous);

/** ACLs attached to a target. */
uint32_t zynMemoryAclCount(const tSlotIndex *slot);

/** Make this card the slave (non-zero) or the master (0, as at start), from now on. */
void zynMemoryRoleSet(int32_t isSlave);

/**
 * Read the CPU usage from another file, from its next reading on.
 * @param path kept, not copied; null for /proc/stat
 */
void zynMemoryCpuStatSet(const char *path);

/**
 * Give the CPU usage as a series of readings instead of measuring it.
 * @param selector 0: the readings are percent; 1: hundredths of a percent
 * @param values   used in turn, the last one from then on; kept, not copied. Null: measure again
 * @param count    of @a values, at least 1
 * @return 0, or EINVAL with nothing changed
 */
int32_t zynMemoryUsageSet(uint32_t selector, const uint32_t *values, uint32_t count);

/**
 * Have the nth call from now on fail with a code: nothing of it is done, and the journal says so.
 * Every call counts that the journal has a line for, queries too; 1 is the next one. Up to 16 may
 * wait. A role query that fails is a condition that does not hold.
 * @return 0, EINVAL for an @a n or a @a code of 0, or ENOSPC when 16 wait
 */
int32_t zynMemoryFailAt(uint32_t n, int32_t code);

/**
 * Back to the state at start: nothing programmed, master, no CPU usage read yet and none given,
 * no failure ordered.
 */
void zynMemoryReset(void);

#ifdef __cplusplus
}
#endif

#endif
