/**
 * All that is programmed, at all places, and getting it in force.
 */
#ifndef ZYNLINUX_PROTECTION_H
#define ZYNLINUX_PROTECTION_H

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "host/ports.h"
#include "kernel/counters.h"
#include "kernel/dataplane.h"
#include "kernel/target.h"
#include "layer.h"
#include "policy/in_force.h"
#include "policy/policer_pool.h"
#include "policy/programmed.h"
#include "policy/table_sets.h"
#include "policy/takeover.h"

namespace zynlinux
{

/**
 * Calls add and remove; what came of them is put in force at the end of a change, or at once
 * outside of one. Results are those of the contract. What a former daemon left in force stays so at
 * every place until something is programmed there, or until it is dropped.
 */
class Protection
{
public:
    /**
     * Have a place for the system and one for each slot, with what was left in force there.
     * Plane and ports must outlast this object.
     * @param unreadPps see Programmed
     * @param compiled  is called, in another thread, when the end of a change has something to do:
     *                  lists that took a while are compiled. May be empty
     * @throw Failure
     */
    Protection(DataPlane &plane, Ports &ports, AclLists lists, const Slots &slots,
               uint32_t unreadPps, std::function<void()> compiled = {});

    /** Do beforehand what would take time when something is bound. */
    void keepTablesReady();

    /** Drop what was left for slots that are no more; first let no port belong to them. */
    void dropFormerSlots();

    int32_t carAdd(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry);
    int32_t carDel(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry);
    int32_t carCount(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry,
                     layer::tCarCounts *counts);
    int32_t aclAdd(const tSlotIndex *slot, const layer::tAclSetting &acl);
    int32_t aclDel(const tSlotIndex *slot, const layer::tAclSetting &acl);

    void changeBegin();

    /**
     * Put in force what is not. ACLs that take long to compile have their place wait for them: what
     * was programmed there is put in force as a whole at the end of a later change.
     * @return 0, or why nothing is in force; it is then tried again at the end of the next change
     */
    int32_t changeEnd();

    /** What was dropped since the change began, as it did not fit. */
    const std::vector<layer::tDropped> &dropped() const { return dropped_; }

    /** Why a call was refused that was made last, in words; null where its result says all. */
    const char *reason() const { return reason_; }

    /** The ACLs that are bound together, at any place. */
    std::set<AclNumbers> boundAcls() const;

    /**
     * Take other ACL lists, and have all that is bound judge by them.
     * @param lists with what is compiled of them: all that is bound, as far as it is known there
     * @throw Failure with nothing changed, also when one that is bound is missing or they do not
     * fit
     */
    void reload(CompiledLists lists);

    /** Whether something that a former daemon left is still in force. */
    bool hasInherited() const;
    void dropInherited();

private:
    struct Place {
        Place(PolicerPool &pool, uint32_t unreadPps) : programmed(pool, unreadPps) {}

        Programmed programmed;
        bool inherited = false; /**< in force is what a former daemon left */
        bool dirty = false;     /**< what is in force is not what was programmed */
        bool fresh = false;     /**< it was programmed since that was last looked at */
        bool late = false;      /**< its ACLs are being compiled */
        std::map<uint32_t, cpd_counters> lastCounters; /**< by packet type with an entry */
    };

    Place *find(const tSlotIndex *slot); /**< for the call that begins: also sets reason_ */
    uint32_t targetOf(const tSlotIndex *slot) const;
    int32_t checkCar(const Place *place, const tHwCpuDefendPktCarEntry &entry);
    void attribute(uint32_t target, Place &place, uint32_t type);
    void makePlace(uint32_t target);
    void putLeftInForce();
    int32_t commit();
    template <class Operation> int32_t apply(Place &place, Operation operation);
    int32_t refuse(int32_t code, const char *reason);
    bool trimAcls(uint32_t target, Place &place);
    void compile();
    Drafts makeDrafts();
    void keepTables();
    const char *wrongWith(const CompiledLists &lists) const;

    DataPlane &plane_;
    Ports &ports_;
    TableSets tables_;
    PolicerPool pool_;
    uint32_t unreadPps_;
    std::map<uint32_t, Place> places_; /**< by target */
    std::vector<layer::tDropped> dropped_;
    const char *reason_ = nullptr;
    bool inChange_ = false;
};

} // namespace zynlinux

#endif
