#include "protection.h"

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "base/failure.h"
#include "zynosal.h"

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

constexpr char doesNotFit[] = "with those before it, its tables do not fit";
constexpr char takesLong[] = "compiling it takes a while; try again in a moment";

/** How long a change may wait for lists to be compiled, while all else waits for the change. */
constexpr std::chrono::milliseconds compileTime{200};

/** An ACL entry that was taken and does not fit. */
layer::tDropped droppedAcl(const cpd_place *slot, const layer::tAclSetting &acl)
{
    layer::tDropped dropped{};
    dropped.reason = doesNotFit;
    dropped.entry.result = ENOSPC;
    dropped.entry.isAcl = 1;
    dropped.entry.isSlot = slot != nullptr;
    if (slot)
        dropped.entry.slot = {slot->sys, slot->slot, 0};
    dropped.entry.acl = acl.acl;
    dropped.entry.action = acl.action;
    dropped.entry.cir = acl.cir;
    dropped.entry.cbs = acl.cbs;
    dropped.entry.ebs = acl.ebs;
    return dropped;
}

} // namespace

Protection::Protection(DataPlane &plane, Ports &ports, AclLists lists, const Slots &slots,
                       uint32_t unreadPps, std::function<void()> compiled)
    : plane_(plane), ports_(ports), tables_(plane, std::move(lists), std::move(compiled)),
      pool_(plane.policers()), unreadPps_(unreadPps)
{
    for (uint32_t target : claimTargets(plane, slots))
        makePlace(target);
    plane_.saveInfo();
    putLeftInForce();
    if (plane_.takenOver())
        tables_.dropUnknown();
}

/** Have a place, and know what was left in force there. */
void Protection::makePlace(uint32_t target)
{
    Place &place = places_.try_emplace(target, pool_, unreadPps_).first->second;
    const cpd_policy *left = leftInForce(plane_, target);
    if (!left)
        return;
    place.inherited = true;
    place.programmed.inherit(*left);
    if (left->acl_count != 0)
        tables_.inherit(left->table_set);
    if (carriesPriority(*left))
        ports_.carryPriority();
}

/** What was left is in force already, unless the former daemon was cut short putting it there. */
void Protection::putLeftInForce()
{
    if (!plane_.takenOver())
        return;
    Policies policies;
    for (const auto &[target, place] : places_)
        policies[target] = place.inherited ? &plane_.info().targets[target].policy : nullptr;
    plane_.replace(plane_.prepare(policies));
}

void Protection::keepTablesReady()
{
    tables_.keepOneReady();
}

void Protection::dropFormerSlots()
{
    dropUnclaimed(plane_, [this](uint32_t target) { return places_.contains(target); });
    keepTables();
}

uint32_t Protection::targetOf(const tSlotIndex *slot) const
{
    return slot ? zynlinux::targetOf(plane_.info(), slot->sys, slot->slot) : systemTarget;
}

Protection::Place *Protection::find(const tSlotIndex *slot)
{
    auto place = places_.find(targetOf(slot));
    reason_ = place == places_.end() ? "the platform file has no such slot" : nullptr;
    return place == places_.end() ? nullptr : &place->second;
}

/* ---- Calls ---------------------------------------------------------------------------- */

int32_t Protection::refuse(int32_t code, const char *reason)
{
    reason_ = reason;
    return code;
}

int32_t Protection::checkCar(const Place *place, const tHwCpuDefendPktCarEntry &entry)
{
    if (!place)
        return ENODEV;
    return zynPktHasFrames(entry.pktType) ? 0 : refuse(ENOTSUP, "no frame is of this type");
}

/** What a type has counted belongs to the entry that was in force so far. */
void Protection::attribute(uint32_t target, Place &place, uint32_t type)
{
    std::optional<cpd_counters> read = readCounters(plane_.counters(), target, type);
    if (!read)
        return; // and the next reading tells of this time too
    const cpd_counters &now = *read;
    auto [last, first] = place.lastCounters.try_emplace(type, now);
    CarEntry *entry = place.programmed.cars.inForce(type);
    if (entry && !first) {
        entry->counted.passPkt += now.passed_packets - last->second.passed_packets;
        entry->counted.passOct += now.passed_octets - last->second.passed_octets;
        entry->counted.dropPkt += now.dropped_packets - last->second.dropped_packets;
        entry->counted.dropOct += now.dropped_octets - last->second.dropped_octets;
    }
    last->second = now;
}

/** Change what is programmed at a place. Outside of a change that is in force at once, or undone.
 */
template <class Operation> int32_t Protection::apply(Place &place, Operation operation)
{
    CarTable cars;
    std::vector<layer::tAclSetting> acls;
    bool dirty = std::exchange(place.dirty, true);
    place.fresh = true;
    if (!inChange_) {
        cars = place.programmed.cars;
        acls = place.programmed.acls;
    }
    operation(place.programmed);
    if (inChange_)
        return 0;
    int32_t result = commit();
    if (result != 0) {
        place.programmed.cars = std::move(cars);
        place.programmed.acls = std::move(acls);
        place.dirty = dirty;
    }
    return result;
}

int32_t Protection::carAdd(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry)
{
    Place *place = find(slot);
    if (int32_t refused = checkCar(place, entry))
        return refused;
    attribute(targetOf(slot), *place, entry.pktType);
    return apply(*place, [&](Programmed &programmed) { programmed.cars.add(entry); });
}

int32_t Protection::carDel(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry)
{
    Place *place = find(slot);
    if (int32_t refused = checkCar(place, entry))
        return refused;
    if (!place->programmed.cars.find(entry))
        return ENOENT;
    attribute(targetOf(slot), *place, entry.pktType);
    return apply(*place, [&](Programmed &programmed) { programmed.cars.remove(entry); });
}

int32_t Protection::carCount(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry,
                             layer::tCarCounts *counts)
{
    Place *place = find(slot);
    if (int32_t refused = checkCar(place, entry))
        return refused;
    CarEntry *counted = place->programmed.cars.find(entry);
    if (!counted)
        return ENOENT;
    attribute(targetOf(slot), *place, entry.pktType);
    *counts = std::exchange(counted->counted, {});
    return 0;
}

int32_t Protection::aclAdd(const tSlotIndex *slot, const layer::tAclSetting &acl)
{
    Place *place = find(slot);
    if (!place)
        return ENODEV;
    std::vector<uint16_t> numbers = place->programmed.aclNumbers();
    numbers.push_back(acl.acl);
    if (!tables_.known({acl.acl}))
        return refuse(ENOENT, "the platform file has no such list");
    if (numbers.size() > CPD_ACLS)
        return refuse(ENOSPC, "there are too many at this place");
    if (!inChange_) { // in a change all are looked at together, at its end
        tables_.waitFor(compileTime);
        const Fit fit = tables_.fits(numbers);
        if (fit != Fit::Yes)
            return fit == Fit::No ? refuse(ENOSPC, doesNotFit) : refuse(EAGAIN, takesLong);
    }
    return apply(*place, [&](Programmed &programmed) { programmed.acls.push_back(acl); });
}

int32_t Protection::aclDel(const tSlotIndex *slot, const layer::tAclSetting &acl)
{
    Place *place = find(slot);
    if (!place)
        return ENODEV;
    if (!place->programmed.hasAcl(acl))
        return ENOENT;
    return apply(*place, [&](Programmed &programmed) { programmed.removeAcl(acl); });
}

/* ---- Putting it in force -------------------------------------------------------------- */

void Protection::changeBegin()
{
    inChange_ = true;
    dropped_.clear();
}

int32_t Protection::changeEnd()
{
    inChange_ = false;
    return commit();
}

/** Drop the ACL entries that do not fit behind the others. @return false: it is not known yet */
bool Protection::trimAcls(uint32_t target, Place &place)
{
    const AclNumbers numbers = place.programmed.aclNumbers();
    bool sure = true;
    const size_t fitting = tables_.countFitting(numbers, &sure);
    if (!sure)
        return false;
    const cpd_place *slot = target != systemTarget ? &plane_.info().targets[target] : nullptr;
    for (size_t i = numbers.size(); i-- > fitting;)
        dropped_.push_back(droppedAcl(slot, place.programmed.acls[i]));
    place.programmed.acls.resize(fitting);
    return true;
}

/**
 * Have the ACLs of all places compiled. What was programmed just now is waited for; what has been
 * late before goes on beside that, without another word.
 */
void Protection::compile()
{
    bool anyLate = false;
    for (bool fresh : {true, false}) {
        tables_.waitFor(fresh ? compileTime : std::chrono::milliseconds(0));
        for (auto &[target, place] : places_) {
            if (!place.dirty || place.fresh != fresh)
                continue;
            const bool wasLate = std::exchange(place.late, !trimAcls(target, place));
            anyLate = anyLate || (fresh && place.late);
            if (wasLate && !place.late && !place.programmed.acls.empty())
                NM_DEBUG_OUTPUT("[platform] access lists that took a while are compiled\n");
        }
    }
    for (auto &[target, place] : places_)
        place.fresh = false;
    if (anyLate)
        NM_DEBUG_OUTPUT("[platform] access lists are being compiled; what was programmed comes in "
                        "force when that is done\n");
}

Drafts Protection::makeDrafts()
{
    Drafts drafts;
    for (auto &[target, place] : places_) {
        if (!place.dirty || place.late)
            continue;
        Draft draft = place.programmed.draft();
        if (draft.policy().acl_count != 0)
            draft.policy().table_set = tables_.use(place.programmed.aclNumbers());
        if (carriesPriority(draft.policy()))
            ports_.carryPriority();
        drafts.emplace(target, std::move(draft));
    }
    return drafts;
}

void Protection::keepTables()
{
    std::vector<uint32_t> inForce;
    for (const cpd_place &place : plane_.info().targets)
        if (place.used && place.in_force && place.policy.acl_count != 0)
            inForce.push_back(place.policy.table_set);
    tables_.keep(inForce);
}

/** Put in force what is not. @return 0, or an errno value, the reason having been said */
int32_t Protection::commit()
try {
    compile();
    Drafts drafts = makeDrafts();
    if (drafts.empty())
        return 0;
    putInForce(plane_, drafts);
    for (const auto &[target, draft] : drafts) {
        Place &place = places_.at(target);
        place.dirty = false;
        place.inherited = false;
    }
    keepTables();
    return 0;
} catch (const std::exception &failure) {
    NM_DEBUG_OUTPUT("couldn't put what was programmed in force: %s\n", failure.what());
    keepTables();
    return EIO;
}

std::set<AclNumbers> Protection::boundAcls() const
{
    std::set<AclNumbers> bound;
    for (const auto &[target, place] : places_)
        bound.insert(place.programmed.aclNumbers());
    bound.erase(AclNumbers{});
    return bound;
}

/** What keeps the lists from being those of all that is bound; null when nothing does. */
const char *Protection::wrongWith(const CompiledLists &lists) const
{
    for (const AclNumbers &bound : boundAcls()) {
        if (!lists.known(bound))
            return "one that is bound is not there any more";
        auto tables = lists.tables.find(bound);
        if (tables == lists.tables.end() || tables->second.empty())
            return "those that are bound together do not fit";
    }
    return nullptr;
}

void Protection::reload(CompiledLists lists)
{
    if (const char *wrong = wrongWith(lists))
        throw Failure("take the new ACLs", wrong);
    std::vector<Place *> changed;
    for (auto &[target, place] : places_)
        if (!place.dirty && !place.programmed.acls.empty())
            changed.push_back(&place);
    for (Place *place : changed)
        place->dirty = true;
    tables_.exchange(lists);
    if (commit() == 0)
        return;
    tables_.exchange(lists);
    for (Place *place : changed)
        place->dirty = false;
    throw Failure("take the new ACLs", "they could not be put in force");
}

bool Protection::hasInherited() const
{
    return std::any_of(places_.begin(), places_.end(),
                       [](const auto &each) { return each.second.inherited; });
}

void Protection::dropInherited()
{
    for (auto &[target, place] : places_)
        place.dirty = place.dirty || place.inherited;
    commit();
}

} // namespace zynlinux
