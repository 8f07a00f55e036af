#include "model.h"

#include <algorithm>

namespace chassis
{

const Level *Controller::at(uint32_t which) const
{
    return which >= 1 && which <= levels.size() ? &levels[which - 1] : nullptr;
}

Model::Model(uint32_t policyCount, uint32_t slotCount, uint64_t startedAt)
    : slotRecords(slotCount), now(startedAt)
{
    for (int i = static_cast<int>(policyCount); i-- > 0;)
        freePolicies.push_back(i);
    for (int i = static_cast<int>(slotCount); i-- > 0;)
        freeSlots.push_back(i);
    createPolicy("default");
    arm(Timer::System, 0, CPUDEFEND_CPURAT_PERIOD);
}

/* ---- The log ---------------------------------------------------------------------------- */

void Model::beginStep()
{
    at_ = 0;
    complaints_.clear();
}

std::vector<std::string> Model::endStep()
{
    for (; at_ < hardware.log.size(); at_++)
        complaints_.push_back("unexpected: " + hardware.log[at_].text());
    return complaints_;
}

int32_t Model::next(const Call &expected)
{
    if (at_ == hardware.log.size()) {
        complaints_.push_back("missing: " + expected.text());
        return 0;
    }
    const Call &made = hardware.log[at_++];
    if (!made.sameAs(expected))
        complaints_.push_back("expected " + expected.text() + ", saw " + made.text());
    return made.result;
}

int32_t Model::scalarSync(uint32_t id, const std::string &value, uint32_t flag)
{
    return next({Kind::ScalarSync, std::nullopt, id, flag, value, {}});
}

int32_t Model::slotSync(const Slot &slot, uint32_t id, const std::string &value, uint32_t flag)
{
    return next({Kind::SlotSync, slot.place(), id, flag, value, {}});
}

/* ---- Programming ------------------------------------------------------------------------ */

bool Model::isSlave()
{
    return next({Kind::Role, std::nullopt, HW_SYS_SWRUNNINGROLEISSLAVE, 0, "", {}}) == 0;
}

static void aclItem(std::vector<Item> *items, bool deny, uint16_t acl, uint32_t cir, uint32_t cbs)
{
    if (acl != 0)
        items->push_back(deny ? Item{true, acl, ZYN_HW_OP_DENY}
                              : Item{true, acl, ZYN_HW_OP_PERMIT, cir, cbs});
}

/** What a policy, as it is configured now, programs: in this order. */
static std::vector<Item> itemsOf(const tCpuDefendPolicyEntry &p)
{
    std::vector<Item> items;
    if (p.whiteListEnable == 1) {
        aclItem(&items, false, p.whiteListIp4Acl, p.whiteListIp4Cir, p.whiteListIp4Cbs);
        aclItem(&items, false, p.whiteListIp6Acl, p.whiteListIp6Cir, p.whiteListIp6Cbs);
    }
    if (p.blackListEnable == 1) {
        aclItem(&items, true, p.blackListIp4Acl, 0, 0);
        aclItem(&items, true, p.blackListIp6Acl, 0, 0);
    }
    list_for_each_entry(const tCpuDefendUserDefinedEntry, rule, &p.userDefinedList, policyNode)
    {
        if (rule->index == 0)
            continue;
        aclItem(&items, rule->deny != 0, rule->ip4Acl, rule->cir, rule->cbs);
        aclItem(&items, rule->deny != 0, rule->ip6Acl, rule->cir, rule->cbs);
    }
    list_for_each_entry(const tCpuDefendCarPktEntry, car, &p.carPktList, policyNode)
    {
        const uint32_t op = car->deny == 1 ? ZYN_HW_OP_DENY : ZYN_HW_OP_PERMIT;
        items.push_back(Item{false, car->pktType, op, car->cir, car->cbs, car->pps, car->queue,
                             car->priority, car->bit});
    }
    return items;
}

static bool isMark(const Policy &policy, const Item &item)
{
    return policy.mark != 0 && !item.acl && item.cir == policy.mark;
}

int32_t Model::hwAdd(const Place &place, const std::string &name)
{
    if (isSlave())
        return 0;
    Policy &policy = *findPolicy(name);
    int32_t result = 0;
    bool programmed = false;
    for (const Item &item : itemsOf(gCpuDefend.policyTable[policy.record])) {
        result = next({Kind::Add, place, 0, 0, "", item});
        programmed |= isMark(policy, item) && result == 0;
    }
    policy.refCount++;
    policy.unpaired += !programmed;
    return result;
}

int32_t Model::hwDel(const Place &place, const std::string &name)
{
    if (isSlave())
        return 0;
    if (!findPolicy(name))
        return CPUDEFEND_ENONAME;
    Policy &policy = *findPolicy(name);
    int32_t result = 0;
    bool removed = false;
    for (const Item &item : itemsOf(gCpuDefend.policyTable[policy.record])) {
        result = next({Kind::Del, place, 0, 0, "", item});
        removed |= isMark(policy, item) && result == 0;
    }
    policy.refCount--;
    policy.unpaired -= !removed;
    return result;
}

template <typename Concerns, typename Do> int32_t Model::everywhere(Concerns concerns, Do act)
{
    if (slots.empty())
        return act(std::nullopt);
    int32_t result = 0;
    for (int record : slots)
        if (concerns(slotRecords[static_cast<size_t>(record)]))
            result = act(slotRecords[static_cast<size_t>(record)].place());
    return result;
}

static bool hasNoPolicy(const Slot &slot)
{
    return slot.name.empty();
}

static bool isFixed(const Slot &slot)
{
    return slot.mode == CPUDEFEND_FIXED;
}

/* ---- The system's attributes ------------------------------------------------------------ */

int32_t Model::unbindSystem()
{
    if (system.name.empty())
        return 0;
    const int32_t result =
        everywhere(hasNoPolicy, [this](const Place &place) { return hwDel(place, system.name); });
    system.name.clear();
    return result;
}

int32_t Model::setSystemPolicy(const std::string &name, uint32_t flag)
{
    if (name == system.name)
        return 0;
    if (!name.empty() && !findPolicy(name))
        return CPUDEFEND_ENONAME;
    if (const int32_t failure = scalarSync(8000, name, flag | ZYN_SYNC_OCTETS))
        return failure;
    const int32_t result = unbindSystem();
    if (name.empty())
        return result;
    system.name = name;
    return everywhere(hasNoPolicy, [&](const Place &place) { return hwAdd(place, name); });
}

int32_t Model::setSystemMode(uint32_t mode, uint32_t flag)
{
    if (mode == system.mode)
        return 0;
    if (const int32_t failure = scalarSync(8013, numberValue(mode), flag))
        return failure;
    system.mode = mode;
    if (mode != CPUDEFEND_CPURAT_CONTROL)
        return 0;
    system.position = 0;
    return unbindSystem();
}

int32_t Model::setSystemThreshold(uint32_t position, uint32_t value, uint32_t flag)
{
    uint32_t &threshold = system.levels[position - 1].threshold;
    if (value == threshold)
        return 0;
    if (const int32_t failure = scalarSync(8012 + 2 * position, numberValue(value), flag))
        return failure;
    threshold = value;
    return 0;
}

int32_t Model::setSystemLevel(uint32_t position, const std::string &name, uint32_t flag)
{
    std::string &old = system.levels[position - 1].name;
    if (name == old)
        return 0;
    if (!name.empty() && !findPolicy(name))
        return CPUDEFEND_ENONAME;
    if (const int32_t failure = scalarSync(8013 + 2 * position, name, flag | ZYN_SYNC_OCTETS))
        return failure;
    int32_t result = 0;
    if (system.position == position) {
        result = everywhere(isFixed, [&](const Place &place) {
            return hwDel(place, place && position == 2 ? system.levels[0].name : old);
        });
        system.position = 0;
    }
    old = name;
    return result;
}

int32_t Model::resetSystemTraces(uint32_t value, uint32_t flag)
{
    return scalarSync(8011, numberValue(value), flag);
}

/* ---- A slot's attributes ---------------------------------------------------------------- */

int32_t Model::setSlotPolicy(Slot *slot, const std::string &name, uint32_t flag)
{
    if (name == slot->name)
        return 0;
    if (!name.empty() && !findPolicy(name))
        return CPUDEFEND_ENONAME;
    if (const int32_t failure = slotSync(*slot, 8001, name, flag | ZYN_SYNC_OCTETS))
        return failure;
    const int32_t removal = slot->name.empty() ? 0 : hwDel(slot->place(), slot->name);
    if (removal == 0) {
        slot->policy = NO_RECORD;
        slot->name.clear();
    }
    if (name.empty())
        return removal;
    if (const int32_t failure = hwAdd(slot->place(), name))
        return failure;
    slot->policy = findPolicy(name)->record;
    slot->name = name;
    return 0;
}

int32_t Model::setSlotMode(Slot *slot, uint32_t mode, uint32_t flag)
{
    if (mode == slot->mode)
        return 0;
    if (const int32_t failure = slotSync(*slot, 8003, numberValue(mode), flag))
        return failure;
    slot->mode = mode;
    if (mode != CPUDEFEND_CPURAT_CONTROL)
        return 0;
    slot->position = 0;
    return setSystemPolicy("", 3);
}

int32_t Model::setSlotThreshold(Slot *slot, uint32_t position, uint32_t value, uint32_t flag)
{
    uint32_t &threshold = slot->levels[position - 1].threshold;
    if (value == threshold)
        return 0;
    if (const int32_t failure = slotSync(*slot, 8002 + 2 * position, numberValue(value), flag))
        return failure;
    threshold = value;
    return 0;
}

int32_t Model::setSlotLevel(Slot *slot, uint32_t position, const std::string &name, uint32_t flag)
{
    std::string &old = slot->levels[position - 1].name;
    if (name == old)
        return 0;
    if (!name.empty() && !findPolicy(name))
        return CPUDEFEND_ENONAME;
    if (const int32_t failure = slotSync(*slot, 8003 + 2 * position, name, flag))
        return failure;
    int32_t result = 0;
    if (slot->position == position) {
        result = hwDel(slot->place(), old);
        slot->position = 0;
    }
    old = name;
    return result;
}

int32_t Model::resetSlotTraces(Slot *slot, uint32_t value, uint32_t flag)
{
    return slotSync(*slot, 8002, numberValue(value), flag);
}

/* ---- Slots ------------------------------------------------------------------------------ */

Slot *Model::findSlot(uint32_t sys, uint32_t slot)
{
    for (int record : slots) {
        Slot &found = slotRecords[static_cast<size_t>(record)];
        if (found.sys == sys && found.slot == slot)
            return &found;
    }
    return nullptr;
}

Slot *Model::addSlot(uint32_t sys, uint32_t slot)
{
    if (freeSlots.empty())
        return nullptr;
    const int record = freeSlots.front();
    freeSlots.pop_front();
    slots.push_back(record);
    Slot &added = slotRecords[static_cast<size_t>(record)];
    added.sys = sys & 0xFF;
    added.slot = slot & 0xFF;
    arm(Timer::OfSlot, record, CPUDEFEND_CPURAT_PERIOD);
    return &added;
}

int32_t Model::deleteSlot(Slot *slot)
{
    int32_t result = 0;
    if (slot->mode != CPUDEFEND_CPURAT_CONTROL && !slot->name.empty())
        result = hwDel(slot->place(), slot->name);
    if (slot->mode == CPUDEFEND_CPURAT_CONTROL && slot->at(slot->position))
        result = hwDel(slot->place(), slot->at(slot->position)->name);
    if (result == 0) {
        slot->policy = NO_RECORD;
        slot->name.clear();
    }
    const int record = static_cast<int>(slot - slotRecords.data());
    slots.erase(std::find(slots.begin(), slots.end(), record));
    freeSlots.push_front(record);
    return result;
}

/* ---- Policies --------------------------------------------------------------------------- */

Policy *Model::findPolicy(const std::string &name)
{
    const auto found = policies.find(name);
    return found == policies.end() ? nullptr : &found->second;
}

Policy *Model::createPolicy(const std::string &name)
{
    if (freePolicies.empty())
        return nullptr;
    const int record = freePolicies.front();
    freePolicies.pop_front();
    for (int at : slots) {
        Slot &slot = slotRecords[static_cast<size_t>(at)];
        if (slot.name == name)
            slot.policy = record;
    }
    return &policies.emplace(name, Policy{record, 0}).first->second;
}

int32_t Model::destroyPolicy(const std::string &name)
{
    const Policy *policy = findPolicy(name);
    if (!policy)
        return 0;
    if (policy->refCount != 0)
        return CPUDEFEND_EBOUND;
    disarm(Timer::OfPolicy, policy->record);
    freePolicies.push_front(policy->record);
    policies.erase(name);
    return 0;
}

/* ---- Time ------------------------------------------------------------------------------- */

void Model::arm(Timer::Owner owner, int record, uint32_t period)
{
    disarm(owner, record);
    const Timer timer{owner, record, now + period};
    const auto later = [&](const Timer &other) { return other.expiry > timer.expiry; };
    timers.insert(std::find_if(timers.begin(), timers.end(), later), timer);
}

void Model::disarm(Timer::Owner owner, int record)
{
    std::erase_if(timers, [&](const Timer &t) { return t.owner == owner && t.record == record; });
}

void Model::setTracing(const Policy &policy, bool on)
{
    if (on)
        arm(Timer::OfPolicy, policy.record, CPUDEFEND_SRCTRACE_PERIOD);
    else
        disarm(Timer::OfPolicy, policy.record);
}

void Model::advance(uint32_t ms)
{
    now += ms;
    std::vector<Timer> due;
    while (!timers.empty() && timers.front().expiry <= now) {
        due.push_back(timers.front());
        timers.pop_front();
    }
    for (const Timer &timer : due)
        fire(timer);
}

void Model::fire(const Timer &timer)
{
    arm(timer.owner, timer.record,
        timer.owner == Timer::OfPolicy ? CPUDEFEND_SRCTRACE_PERIOD : CPUDEFEND_CPURAT_PERIOD);
    if (timer.owner == Timer::System)
        sampleSystem();
    if (timer.owner == Timer::OfSlot)
        sampleSlot(&slotRecords[static_cast<size_t>(timer.record)]);
}

/* ---- The controllers -------------------------------------------------------------------- */

/** The highest threshold that qualifies, the lowest position among equals; 0 for none. */
template <typename Qualifies> static uint32_t best(const Controller &of, Qualifies qualifies)
{
    uint32_t match = 0;
    for (uint32_t position = 1; position <= of.levels.size(); position++)
        if (qualifies(of.at(position)->threshold) &&
            (match == 0 || of.at(match)->threshold < of.at(position)->threshold))
            match = position;
    return match;
}

void Model::sampleSystem()
{
    if (system.mode != CPUDEFEND_CPURAT_CONTROL || isSlave())
        return;
    if (next({Kind::Cpu, std::nullopt, 1, 0, "", {}}) != 0)
        return;
    const uint32_t match = best(system, [](uint32_t t) { return t < hardware.percent; });
    if (match != system.position)
        switchSystem(match);
}

void Model::switchSystem(uint32_t match)
{
    const Level *from = system.at(system.position);
    const Level *to = system.at(match);
    if (to && !findPolicy(to->name))
        return;
    everywhere(isFixed, [&](const Place &place) {
        if (from)
            hwDel(place, from->name);
        return to ? hwAdd(place, to->name) : 0;
    });
    system.position = match;
}

void Model::sampleSlot(Slot *slot)
{
    if (slot->mode != CPUDEFEND_CPURAT_CONTROL || isSlave())
        return;
    if (next({Kind::Cpu, std::nullopt, 0, 0, "", {}}) != 0)
        return;
    const uint32_t match = best(*slot, [](uint32_t t) { return hardware.percent < t; });
    if (match == slot->position)
        return;
    if (const Level *from = slot->at(slot->position))
        hwDel(slot->place(), from->name);
    if (const Level *to = slot->at(match); to && findPolicy(to->name))
        hwAdd(slot->place(), to->name);
    slot->position = match;
    sendPosition(*slot);
}

void Model::sendPosition(const Slot &slot)
{
    if (next({Kind::Role, std::nullopt, HW_SYS_SWRUNNINGROLEISMASTER, 0, "", {}}) != 0)
        return;
    std::string record(12, '\0');
    record[3] = static_cast<char>(slot.sys);
    record[7] = static_cast<char>(slot.slot);
    record[11] = static_cast<char>(slot.position);
    scalarSync(8020, record, 3 | ZYN_SYNC_OCTETS);
}

void Model::receiveSync(uint32_t sys, uint32_t slot, uint8_t position)
{
    Controller *of = &system;
    if (sys != 0 || slot != 0)
        of = findSlot(sys, slot);
    if (of)
        of->position = position;
}

} // namespace chassis
