/**
 * What a hardware layer does, where layers differ.
 *
 * The functions of the contract (zynhwal.h, zynacl.h, zynif.h) stand in contract.cpp, once for
 * all layers: they refuse what no hardware could do, ask the layer for the rest and tell the
 * journal. So a layer sees sound arguments only, and all layers refuse and journal alike.
 *
 * A target is a slot, or the system as a whole where the pointer to a slot is null. Results are
 * those of the contract. Nothing may be thrown.
 */
#ifndef ZYN_LAYER_H
#define ZYN_LAYER_H

#include "zynhwal.h"
#include "zynif.h"

namespace layer
{

/** The arguments of an ACL call behind the target. */
struct tAclSetting {
    uint16_t acl;
    uint32_t action;
    uint32_t cir;
    uint32_t cbs;
    uint32_t ebs;
};

int32_t carAdd(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry) noexcept;
int32_t carDel(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry) noexcept;
int32_t aclAdd(const tSlotIndex *slot, const tAclSetting &acl) noexcept;
int32_t aclDel(const tSlotIndex *slot, const tAclSetting &acl) noexcept;

/** Why one of these failed that was called last, in words; null where its result says all. */
const char *reason() noexcept;

/** Counters of an entry, each a number that only grows. */
struct tCarCounts {
    uint64_t passPkt;
    uint64_t dropPkt;
    uint64_t passOct;
    uint64_t dropOct;
};

/** What the newest entry with these settings counted since this was last asked. */
int32_t carCount(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry,
                 tCarCounts *counts) noexcept;

/**
 * The outermost change begins, or ends. A call outside of a change takes effect by itself, and one
 * that fails has changed nothing. The end's result is that of zynHwChangeEnd.
 */
void changeBegin() noexcept;
int32_t changeEnd() noexcept;

/** What was taken within a change and dropped at its end. */
struct tDropped {
    tHwDropped entry;
    const char *reason; /**< in words; null where the entry's result says all */
};

/** The nth of them, or null. Valid until the next change begins. */
const tDropped *dropped(uint32_t n) noexcept;

/** Whether this card is the slave. */
bool isSlave() noexcept;

/** The CPU usage for selector 0 or 1. */
int32_t cpuUsage(uint32_t selector, uint32_t *value) noexcept;

/** The place of an interface unit. @param info all zero; only looked at on success */
int32_t place(uint32_t ifUnit, tPhyIfInfo *info) noexcept;

} // namespace layer

#endif
