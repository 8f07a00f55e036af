/**
 * ACL layer: numbered access lists, attached to a slot (or the system) with an action.
 */
#ifndef ZYNACL_H
#define ZYNACL_H

#include "zynhwal.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Attach an ACL to a slot, behind those attached before.
 *
 * What the ACL permits is then limited or dropped on its way to the CPU of the slot. Attached
 * entries form a multiset: the same arguments twice make two entries. The order of attachment
 * decides, the first match wins.
 *
 * @param slot   the slot, or null for the system as a whole
 * @param acl    number of the ACL, 1 to 65535
 * @param action ZYN_HW_OP_PERMIT (11) at the rate given, or ZYN_HW_OP_DENY (3) with rate 0
 * @param cir    committed information rate, kbit/s
 * @param cbs    committed burst size, bytes
 * @param ebs    excess burst size, bytes
 * @return 0, or a code above 0 (an errno value) with nothing attached
 */
int32_t acl_cpudefend_add(const tSlotIndex *slot, uint16_t acl, uint32_t action, uint32_t cir,
                          uint32_t cbs, uint32_t ebs);

/**
 * Detach the newest entry that was attached with the same arguments.
 * @return 0, or a code above 0 when there is none (ENOENT) or the layer failed; nothing changes
 */
int32_t acl_cpudefend_del(const tSlotIndex *slot, uint16_t acl, uint32_t action, uint32_t cir,
                          uint32_t cbs, uint32_t ebs);

#ifdef __cplusplus
}
#endif

#endif
