/**
 * What holds for the daemon's tables between any two calls. For tests that call the core from
 * inside the process.
 *
 * - Every record of a pool is on its free list or on its table's list (or tree), once, and the
 *   count in use says how many are on the latter. The count of rules in use is the exception: it
 *   grows with every add and every delete, so it exceeds the number of rules by an even number.
 * - A policy that is free is all zero behind its link.
 * - A rule or CAR entry in use is on the list of its policy, in order, or, left over from a
 *   destroyed policy, on no policy's list.
 * - The tree of traced sources is in order, and a free record of it is all zero behind its link.
 * - Rules, CAR entries and slots point to a policy record of the pool, slots perhaps to none. No
 *   name is longer than its field.
 * - The timer list is sound and in order, its timers belong to records in use, and every timer
 *   that is linked is on it.
 */
#ifndef INVARIANTS_H
#define INVARIANTS_H

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "cpuDefend.h"

namespace invariants
{

enum class Place { Nowhere, Used, Free };

/** Where the records of one pool are found. */
template <typename T> class Census
{
public:
    Census(const char *what, const T *table, uint32_t max, std::vector<std::string> &found)
        : what_(what), table_(table), max_(max), places_(max, Place::Nowhere), found_(found)
    {
    }

    void add(const void *record, Place place)
    {
        const uintptr_t offset =
            reinterpret_cast<uintptr_t>(record) - reinterpret_cast<uintptr_t>(table_);
        const uintptr_t index = offset / sizeof(T);
        if (offset % sizeof(T) != 0 || index >= max_)
            return complain("a list holds what is no record of the pool");
        if (places_[index] != Place::Nowhere)
            complain("record " + std::to_string(index) + " is in two places");
        places_[index] = place;
    }

    Place of(const T *record) const
    {
        const uintptr_t index =
            (reinterpret_cast<uintptr_t>(record) - reinterpret_cast<uintptr_t>(table_)) / sizeof(T);
        return index < max_ ? places_[index] : Place::Nowhere;
    }

    uint32_t used() const
    {
        uint32_t n = 0;
        for (Place place : places_)
            n += place == Place::Used;
        return n;
    }

    void finish()
    {
        for (uint32_t i = 0; i < max_; i++)
            if (places_[i] == Place::Nowhere)
                complain("record " + std::to_string(i) + " is lost");
    }

    void expectCount(uint32_t counted)
    {
        if (counted != used())
            complain("counts " + std::to_string(counted) + " in use of " + std::to_string(used()));
    }

    void complain(const std::string &text) { found_.push_back(what_ + ": " + text); }

private:
    std::string what_;
    const T *table_;
    uint32_t max_;
    std::vector<Place> places_;
    std::vector<std::string> &found_;
};

/** The links of a list in order; a broken or endless list ends early and is complained about. */
inline std::vector<const list_head *> links(const char *what, const list_head &head, size_t limit,
                                            std::vector<std::string> &found)
{
    std::vector<const list_head *> all;
    for (const list_head *link = &head;;) {
        if (!link->next || link->next->prev != link) {
            found.push_back(std::string(what) + ": a link is broken");
            return all;
        }
        link = link->next;
        if (link == &head)
            return all;
        if (all.size() == limit) {
            found.push_back(std::string(what) + ": longer than its pool");
            return all;
        }
        all.push_back(link);
    }
}

class Checker
{
public:
    std::vector<std::string> run()
    {
        policies();
        ruleCount(children("rules", rules_, &tCpuDefendPolicyEntry::userDefinedList,
                           &tCpuDefendUserDefinedEntry::index, g.userDefinedList,
                           g.userDefinedFreeList, g.maxUserDefinedNum));
        children("CAR entries", cars_, &tCpuDefendPolicyEntry::carPktList,
                 &tCpuDefendCarPktEntry::pktType, g.carPktList, g.carPktFreeList, g.maxCarPktNum);
        cars_.expectCount(g.useCarPktNum);
        traces();
        slots();
        names();
        timers();
        return found_;
    }

private:
    void policies()
    {
        for (const list_head *link :
             links("free policies", g.policyFreeList, g.maxPolicyNum, found_))
            policies_.add(link, Place::Free);
        const tCpuDefendPolicyEntry *before = nullptr;
        uint32_t n = 0;
        for (void *at = avl_first(&g.policyList); at && n < g.maxPolicyNum;
             at = avl_next(&g.policyList, at), n++) {
            auto *policy = static_cast<tCpuDefendPolicyEntry *>(at);
            policies_.add(policy, Place::Used);
            if (before && cpuDefendPolicyCmp(before, policy) >= 0)
                policies_.complain("the tree is out of order");
            before = policy;
        }
        policies_.finish();
        policies_.expectCount(g.usePolicyNum);
        if (g.policyList.count != g.usePolicyNum)
            policies_.complain("the tree counts otherwise");
        for (uint32_t i = 0; i < g.maxPolicyNum; i++)
            if (policies_.of(&g.policyTable[i]) == Place::Free && !clear(g.policyTable[i]))
                policies_.complain("a free record is not clear");
    }

    template <typename T> static bool clear(const T &record)
    {
        const char *at = reinterpret_cast<const char *>(&record);
        for (size_t i = sizeof(list_head); i < sizeof record; i++)
            if (at[i] != 0)
                return false;
        return true;
    }

    /** Whether it is one of the policy pool, in use or free. */
    bool isPolicyRecord(const tCpuDefendPolicyEntry *policy) const
    {
        const uintptr_t offset =
            reinterpret_cast<uintptr_t>(policy) - reinterpret_cast<uintptr_t>(g.policyTable);
        return offset % sizeof *policy == 0 && offset / sizeof *policy < g.maxPolicyNum;
    }

    /** Check rules or CAR entries. @return how many are on no policy's list */
    template <typename T>
    uint32_t children(const char *what, Census<T> &census, list_head tCpuDefendPolicyEntry::*own,
                      uint8_t T::*key, const list_head &used, const list_head &free, uint32_t max)
    {
        const auto all = links(what, used, max, found_);
        for (const list_head *link : all)
            census.add(list_entry(link, const T, node), Place::Used);
        for (const list_head *link : links(what, free, max, found_))
            census.add(list_entry(link, const T, node), Place::Free);
        census.finish();

        std::map<const T *, const tCpuDefendPolicyEntry *> owner;
        for (uint32_t i = 0; i < g.maxPolicyNum; i++)
            if (policies_.of(&g.policyTable[i]) == Place::Used)
                owned(what, census, g.policyTable[i], own, key, max, owner);

        uint32_t leftover = 0;
        for (const list_head *link : all) {
            const T *child = list_entry(link, const T, node);
            if (!isPolicyRecord(child->policyEntry))
                census.complain("one points to no policy record");
            if (owner.count(child))
                continue;
            leftover++;
            if (child->policyNode.next != &child->policyNode ||
                child->policyNode.prev != &child->policyNode)
                census.complain("one on no policy's list does not point to itself");
        }
        if (leftover == 0)
            globalOrder(census, all, key);
        return leftover;
    }

    template <typename T>
    void owned(const char *what, Census<T> &census, const tCpuDefendPolicyEntry &policy,
               list_head tCpuDefendPolicyEntry::*own, uint8_t T::*key, uint32_t max,
               std::map<const T *, const tCpuDefendPolicyEntry *> &owner)
    {
        const T *before = nullptr;
        for (const list_head *link : links(what, policy.*own, max, found_)) {
            const T *child = list_entry(link, const T, policyNode);
            if (census.of(child) != Place::Used)
                census.complain("a policy's list holds one that is not in use");
            if (child->policyEntry != &policy)
                census.complain("a policy's list holds one of another policy");
            if (before && before->*key > child->*key)
                census.complain("a policy's list is out of order");
            if (!owner.emplace(child, &policy).second)
                census.complain("one is on two policies' lists");
            before = child;
        }
        if constexpr (std::is_same_v<T, tCpuDefendUserDefinedEntry>)
            if (links(what, policy.*own, max, found_).size() != policy.userDefinedNum)
                census.complain("a policy miscounts its own");
    }

    /** By length of the policy name, then name, then number. Holds while none is left over. */
    template <typename T>
    void globalOrder(Census<T> &census, const std::vector<const list_head *> &all, uint8_t T::*key)
    {
        for (size_t i = 1; i < all.size(); i++) {
            const T *a = list_entry(all[i - 1], const T, node);
            const T *b = list_entry(all[i], const T, node);
            const uint8_t len = a->policyEntry->policyNameLen;
            int order = len - b->policyEntry->policyNameLen;
            if (order == 0)
                order = memcmp(a->policyEntry->policyName, b->policyEntry->policyName, len);
            if (order == 0)
                order = a->*key - b->*key;
            if (order > 0)
                census.complain("the global list is out of order");
        }
    }

    void ruleCount(uint32_t)
    {
        const uint32_t excess = g.useUserDefinedNum - rules_.used();
        if (excess > 0x7fffffff || excess % 2 != 0)
            rules_.complain("the count in use is not the adds and the deletes");
    }

    void traces()
    {
        uint32_t n = 0;
        const void *before = nullptr;
        for (void *at = avl_first(&g.srcTraceList); at && n < g.maxSrcTraceNum;
             at = avl_next(&g.srcTraceList, at), n++) {
            traces_.add(at, Place::Used);
            if (before && cpuDefendSrcTraceCmp(before, at) >= 0)
                traces_.complain("the tree is out of order");
            before = at;
        }
        for (const list_head *link :
             links("free traces", g.srcTraceFreeList, g.maxSrcTraceNum, found_)) {
            traces_.add(link, Place::Free);
            if (!clear(*list_entry(link, const tCpuDefendSrcTraceEntry, freeNode)))
                traces_.complain("a free record is not clear");
        }
        traces_.finish();
        traces_.expectCount(g.useSrcTraceNum);
    }

    void slots()
    {
        for (const list_head *link : links("slots", g.slotList, g.maxSlotNum, found_))
            slots_.add(link, Place::Used);
        for (const list_head *link : links("free slots", g.slotFreeList, g.maxSlotNum, found_))
            slots_.add(link, Place::Free);
        slots_.finish();
        slots_.expectCount(g.useSlotNum);
        for (uint32_t i = 0; i < g.maxSlotNum; i++)
            if (g.slotTable[i].policyEntry && !isPolicyRecord(g.slotTable[i].policyEntry))
                slots_.complain("one points to no policy record");
    }

    void name(const char *what, uint8_t len)
    {
        if (len > CPUDEFEND_NAME_MAXLEN)
            found_.push_back(std::string(what) + ": a name is too long");
    }

    void names()
    {
        name("system", g.policyNameLen);
        for (const tCpuDefendCpuRatControl &level : g.cpuRatControl)
            name("system", level.policyNameLen);
        for (uint32_t i = 0; i < g.maxSlotNum; i++) {
            name("slots", g.slotTable[i].policyNameLen);
            for (const tCpuDefendCpuRatControl &level : g.slotTable[i].cpuRatControl)
                name("slots", level.policyNameLen);
        }
        for (uint32_t i = 0; i < g.maxPolicyNum; i++)
            name("policies", g.policyTable[i].policyNameLen);
    }

    /** Timers that are linked, wherever to. */
    uint32_t linkedTimers() const
    {
        uint32_t n = g.cpuRatControlTimer.link.next != nullptr;
        for (uint32_t i = 0; i < g.maxPolicyNum; i++)
            n += g.policyTable[i].srcTraceTimer.link.next != nullptr;
        for (uint32_t i = 0; i < g.maxSlotNum; i++)
            n += g.slotTable[i].cpuRatControlTimer.link.next != nullptr;
        return n;
    }

    /** A slot's timer keeps running when the slot is deleted: its callback sees to that. */
    bool mayRun(const tTimerNode *timer) const
    {
        bool known = timer == &g.cpuRatControlTimer;
        for (uint32_t i = 0; i < g.maxPolicyNum; i++)
            known |= timer == &g.policyTable[i].srcTraceTimer &&
                     policies_.of(&g.policyTable[i]) == Place::Used;
        for (uint32_t i = 0; i < g.maxSlotNum; i++)
            known |= timer == &g.slotTable[i].cpuRatControlTimer;
        return known;
    }

    void timers()
    {
        uint64_t before = 0;
        const auto all = links("timers", g.timerList, 1 + g.maxPolicyNum + g.maxSlotNum, found_);
        if (all.size() != linkedTimers())
            found_.push_back("timers: one that is linked is not on the list");
        for (const list_head *link : all) {
            const tTimerNode *timer = list_entry(link, const tTimerNode, link);
            if (!mayRun(timer))
                found_.push_back("timers: one of a record not in use is armed");
            if (timer->expiry < before)
                found_.push_back("timers: out of order");
            before = timer->expiry;
        }
    }

    tCpuDefendSystem &g = gCpuDefend;
    std::vector<std::string> found_;
    Census<tCpuDefendPolicyEntry> policies_{"policies", g.policyTable, g.maxPolicyNum, found_};
    Census<tCpuDefendUserDefinedEntry> rules_{"rules", g.userDefinedTable, g.maxUserDefinedNum,
                                              found_};
    Census<tCpuDefendCarPktEntry> cars_{"CAR entries", g.carPktTable, g.maxCarPktNum, found_};
    Census<tCpuDefendSrcTraceEntry> traces_{"traces", g.srcTraceTable, g.maxSrcTraceNum, found_};
    Census<tCpuDefendSlotEntry> slots_{"slots", g.slotTable, g.maxSlotNum, found_};
};

/** One line for each invariant that does not hold. */
inline std::vector<std::string> violations()
{
    return Checker().run();
}

} // namespace invariants

#endif
