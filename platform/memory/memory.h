/**
 * A look into the hardware layer kept in memory, for tests and dry runs. The daemon itself uses
 * zynhwal.h, zynacl.h and zynif.h alone.
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

/** Make this card the slave (non-zero) or the master (0, as at start). */
void zynMemoryRoleSet(int32_t slave);

/**
 * Read the CPU usage from another file, from its next reading on.
 * @param path kept, not copied; null for /proc/stat
 */
void zynMemoryCpuStatSet(const char *path);

/** Back to the state at start: nothing programmed, master, no CPU usage read yet. */
void zynMemoryReset(void);

#ifdef __cplusplus
}
#endif

#endif
