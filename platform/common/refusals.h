/**
 * What a layer refuses, said on standard error: once each, with the place, the entry and the
 * reason.
 */
#ifndef ZYN_REFUSALS_H
#define ZYN_REFUSALS_H

#include <stddef.h>

#include "layer.h"

namespace refusals
{

/** An entry at a place, with all by which one is told from another. */
struct tEntry {
    bool isSlot;
    uint32_t sys;
    uint32_t slot;
    bool isAcl;
    uint32_t number; /**< of the ACL, or the packet type */
    uint32_t op;     /**< ZYN_HW_OP_* */
    uint32_t rates[3];
    uint8_t queue;
    uint8_t priority;
    uint8_t bits;
    bool isRemoval; /**< what was refused is its removal */

    bool operator==(const tEntry &) const = default;
};

/** @param slot null for the system as a whole */
tEntry entryOf(const tSlotIndex *slot, const layer::tAclSetting &acl);
tEntry entryOf(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &car);
tEntry entryOf(const tHwDropped &dropped);

/**
 * An entry was refused, or dropped. That is said, unless the same was said before and the entry
 * was asked for ever since, or was refused so within the last minute.
 * @param result an errno value
 * @param reason in words; null for those of @a result
 */
void refused(const tEntry &entry, int32_t result, const char *reason);

/** Its removal was refused. That is said, unless it was within the last minute. */
void removalRefused(const tEntry &entry, int32_t result, const char *reason);

/** An entry was taken. It counts from the end of the change on, unless it is dropped there. */
void taken(const tEntry &entry);
void changeEnded();

/** An entry is not asked for any more. */
void withdrawn(const tEntry &entry);

/** Nothing was refused yet, as at start. */
void forget();

/** How many refusals are remembered. */
size_t count();

} // namespace refusals

#endif
