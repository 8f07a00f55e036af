#include "protection.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>

#include "failure.h"

namespace zynlinux
{

namespace
{

bool carriesPriority(const cpd_policy &policy)
{
    return std::any_of(std::begin(policy.types), std::end(policy.types), [](const cpd_rule &rule) {
        return rule.flags & (CPD_RULE_QUEUE | CPD_RULE_PRIORITY);
    });
}

/** Refuse an ACL, and say why: who binds a policy hears of its last part only. */
int32_t refuse(uint16_t acl, int32_t code, const char *reason)
{
    std::fprintf(stderr, "[platform] ACL %u is not put in force: %s\n", acl, reason);
    return code;
}

} // namespace

Protection::Protection(DataPlane &plane, Ports &ports, AclLists lists, const Slots &slots)
    : plane_(plane), ports_(ports), lists_(std::move(lists)), tables_(plane, lists_),
      pool_(plane.policers())
{
    makeSite(systemTarget);
    for (const auto &[sys, slot] : slots) {
        uint32_t target = claimTarget(plane_.info(), sys, slot);
        if (target == noTarget)
            throw Failure("make room for slot " + std::to_string(slot), "there are too many slots");
        makeSite(target);
    }
    plane_.saveInfo();
}

/** Have a place, and what is in force there; a change that was cut short is made good. */
void Protection::makeSite(uint32_t target)
{
    Site &site = sites_.try_emplace(target, pool_).first->second;
    const cpd_place &left = plane_.info().targets[target];
    plane_.replace({{target, left.in_force ? &left.policy : nullptr}});
    if (!left.in_force)
        return;
    site.inherited = true;
    site.place.inherit(left.policy);
    if (left.policy.acl_count != 0)
        tables_.inherit(left.policy.table_set);
    if (carriesPriority(left.policy))
        ports_.carryPriority();
}

void Protection::prepare()
{
    tables_.prepare();
}

void Protection::dropFormerSlots()
{
    for (uint32_t target = 0; target < CPD_TARGETS; target++) {
        cpd_place &place = plane_.info().targets[target];
        if (!place.used || sites_.contains(target))
            continue;
        plane_.replace({{target, nullptr}});
        place = {};
    }
    plane_.saveInfo();
    keepTables();
}

uint32_t Protection::targetOf(const tSlotIndex *slot) const
{
    return slot ? zynlinux::targetOf(plane_.info(), slot->sys, slot->slot) : systemTarget;
}

Protection::Site *Protection::find(const tSlotIndex *slot)
{
    auto site = sites_.find(targetOf(slot));
    return site == sites_.end() ? nullptr : &site->second;
}

/* ---- Calls ---------------------------------------------------------------------------- */

int32_t Protection::checkCar(const Site *site, const tHwCpuDefendPktCarEntry &entry) const
{
    if (!site)
        return ENODEV;
    return cpd_classified(entry.pktType) ? 0 : ENOTSUP;
}

/** What a type has counted belongs to the entry that was in force so far. */
void Protection::attribute(uint32_t target, Site &site, uint32_t type)
{
    cpd_counters now = readCounters(plane_.counters(), target, type);
    auto [last, first] = site.lastCounters.try_emplace(type, now);
    CarEntry *entry = site.place.cars.inForce(type);
    if (entry && !first) {
        entry->counted.passPkt += now.passed_packets - last->second.passed_packets;
        entry->counted.passOct += now.passed_octets - last->second.passed_octets;
        entry->counted.dropPkt += now.dropped_packets - last->second.dropped_packets;
        entry->counted.dropOct += now.dropped_octets - last->second.dropped_octets;
    }
    last->second = now;
}

int32_t Protection::carAdd(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry)
{
    Site *site = find(slot);
    if (int32_t refused = checkCar(site, entry))
        return refused;
    attribute(targetOf(slot), *site, entry.pktType);
    site->place.cars.add(entry);
    return changed(*site);
}

int32_t Protection::carDel(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry)
{
    Site *site = find(slot);
    if (int32_t refused = checkCar(site, entry))
        return refused;
    if (!site->place.cars.find(entry))
        return ENOENT;
    attribute(targetOf(slot), *site, entry.pktType);
    site->place.cars.remove(entry);
    return changed(*site);
}

int32_t Protection::carCount(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry,
                             layer::tCarCounts *counts)
{
    Site *site = find(slot);
    if (int32_t refused = checkCar(site, entry))
        return refused;
    CarEntry *counted = site->place.cars.find(entry);
    if (!counted)
        return ENOENT;
    attribute(targetOf(slot), *site, entry.pktType);
    *counts = std::exchange(counted->counted, {});
    return 0;
}

int32_t Protection::aclAdd(const tSlotIndex *slot, const layer::tAclSetting &acl)
{
    Site *site = find(slot);
    if (!site)
        return ENODEV;
    std::vector<uint16_t> numbers = site->place.aclNumbers();
    numbers.push_back(acl.acl);
    if (!tables_.known({acl.acl}))
        return refuse(acl.acl, ENOENT, "the platform file has no such list");
    if (numbers.size() > CPD_ACLS)
        return refuse(acl.acl, ENOSPC, "there are too many at this place");
    if (!tables_.fits(numbers))
        return refuse(acl.acl, ENOSPC, "with those before it, its tables do not fit");
    site->place.acls.push_back(acl);
    return changed(*site);
}

int32_t Protection::aclDel(const tSlotIndex *slot, const layer::tAclSetting &acl)
{
    Site *site = find(slot);
    if (!site)
        return ENODEV;
    return site->place.removeAcl(acl) ? changed(*site) : ENOENT;
}

/* ---- Putting it in force -------------------------------------------------------------- */

int32_t Protection::changed(Site &site)
{
    site.dirty = true;
    if (!inChange_)
        commit();
    return site.dirty && !inChange_ ? EIO : 0;
}

void Protection::changeEnd()
{
    inChange_ = false;
    commit();
}

std::map<uint32_t, Draft> Protection::makeDrafts()
{
    std::map<uint32_t, Draft> drafts;
    for (auto &[target, site] : sites_) {
        if (!site.dirty)
            continue;
        Draft draft = site.place.draft();
        if (draft.policy().acl_count != 0)
            draft.policy().table_set = tables_.use(site.place.aclNumbers());
        drafts.emplace(target, std::move(draft));
    }
    return drafts;
}

/** What was in force is so again, as far as the kernel lets it. */
void Protection::putBack(const std::map<uint32_t, Draft> &drafts, const cpd_info &before)
{
    plane_.info() = before;
    plane_.saveInfo();
    for (const auto &[target, draft] : drafts) {
        const cpd_place &place = before.targets[target];
        plane_.replace({{target, place.in_force ? &place.policy : nullptr}});
    }
}

/** What is kept for the next daemon is written first: it makes good what is cut short here. */
void Protection::putInForce(std::map<uint32_t, Draft> &drafts)
{
    std::map<uint32_t, const cpd_policy *> policies;
    for (auto &[target, draft] : drafts) {
        cpd_place &kept = plane_.info().targets[target];
        kept.in_force = draft.rulesAnything();
        kept.policy = draft.policy();
        policies[target] = kept.in_force ? &draft.policy() : nullptr;
        if (carriesPriority(draft.policy()))
            ports_.carryPriority();
    }
    for (auto &[target, draft] : drafts)
        draft.moveTokens(monotonicNow()); // first: whoever makes this good finds no token twice
    plane_.saveInfo();
    plane_.replace(policies);
}

void Protection::settle(std::map<uint32_t, Draft> &drafts)
{
    uint64_t now = monotonicNow();
    for (auto &[target, draft] : drafts) {
        Site &site = sites_.at(target);
        draft.settle(now);
        site.dirty = false;
        site.inherited = false;
    }
    keepTables();
}

void Protection::keepTables()
{
    std::vector<uint32_t> inForce;
    for (const cpd_place &place : plane_.info().targets)
        if (place.used && place.in_force && place.policy.acl_count != 0)
            inForce.push_back(place.policy.table_set);
    tables_.keep(inForce);
}

void Protection::commit()
try {
    std::map<uint32_t, Draft> drafts = makeDrafts();
    if (drafts.empty())
        return;
    auto before = std::make_unique<cpd_info>(plane_.info());
    try {
        putInForce(drafts);
    } catch (...) {
        putBack(drafts, *before);
        throw;
    }
    settle(drafts);
} catch (const std::exception &failure) {
    std::fprintf(stderr, "couldn't put what was programmed in force: %s\n", failure.what());
}

void Protection::reload(AclLists lists)
{
    std::swap(lists_, lists);
    tables_.forget();
    for (auto &[target, site] : sites_) {
        std::vector<uint16_t> numbers = site.place.aclNumbers();
        const char *wrong = !tables_.known(numbers)  ? "one that is bound is not there any more"
                            : !tables_.fits(numbers) ? "those that are bound together do not fit"
                                                     : nullptr;
        if (wrong) {
            std::swap(lists_, lists);
            tables_.forget();
            throw Failure("take the new ACLs", wrong);
        }
        site.dirty = site.dirty || !numbers.empty();
    }
    commit();
    tables_.prepare();
}

bool Protection::hasInherited() const
{
    return std::any_of(sites_.begin(), sites_.end(),
                       [](const auto &each) { return each.second.inherited; });
}

void Protection::dropInherited()
{
    for (auto &[target, site] : sites_)
        site.dirty = site.dirty || site.inherited;
    commit();
}

} // namespace zynlinux
