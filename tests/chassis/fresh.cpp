#include "fresh.h"

#include <sstream>

#include "cpuDefend/cpuDefend_hw.h"

using namespace cpudefend;

namespace chassis
{

static const tCpuDefendPolicyEntry *find(const std::string &name)
{
    return cpuDefendPolicyEntryGet(reinterpret_cast<const uint8_t *>(name.data()),
                                   static_cast<uint32_t>(name.size()));
}

static std::string text(const uint8_t *name, uint8_t len)
{
    return std::string(reinterpret_cast<const char *>(name), len);
}

/* ---- Where what is bound ------------------------------------------------------------------ */

/** The name of the level in force; none for a position that is no level. */
static std::string level(const tCpuDefendCpuRatControl *levels, uint8_t position)
{
    if (position == 0 || position > 3)
        return "";
    return text(levels[position - 1].policyName, levels[position - 1].policyNameLen);
}

Bound freshBindings()
{
    const tCpuDefendSystem &g = gCpuDefend;
    const std::string fixed = text(g.policyName, g.policyNameLen);
    const std::string systemLevel = level(g.cpuRatControl, g.selectedPosition);
    Bound bound;
    const auto bind = [&bound](const Place &place, const std::string &name) {
        if (!name.empty() && find(name))
            bound[place].push_back(name);
    };
    if (g.useSlotNum == 0) {
        bind(std::nullopt, fixed);
        bind(std::nullopt, systemLevel);
    }
    list_for_each_entry(const tCpuDefendSlotEntry, slot, &g.slotList, node)
    {
        const Place place = std::pair<uint32_t, uint32_t>(slot->sysId, slot->slotId);
        const std::string own = text(slot->policyName, slot->policyNameLen);
        bind(place, own.empty() ? fixed : own);
        if (slot->policyMode == 0)
            bind(place, systemLevel);
        bind(place, level(slot->cpuRatControl, slot->selectedPosition));
    }
    return bound;
}

/* ---- What a policy stands for ------------------------------------------------------------- */

class Items
{
public:
    explicit Items(std::vector<Item> &items) : items_(items) {}

    void add(const tCpuDefendPolicyEntry &policy)
    {
        if (policy.whiteListEnable == 1) {
            permit(policy.whiteListIp4Acl, policy.whiteListIp4Cir, policy.whiteListIp4Cbs);
            permit(policy.whiteListIp6Acl, policy.whiteListIp6Cir, policy.whiteListIp6Cbs);
        }
        if (policy.blackListEnable == 1) {
            deny(policy.blackListIp4Acl);
            deny(policy.blackListIp6Acl);
        }
        list_for_each_entry(const tCpuDefendUserDefinedEntry, rule, &policy.userDefinedList,
                            policyNode) add(*rule);
        list_for_each_entry(const tCpuDefendCarPktEntry, car, &policy.carPktList, policyNode)
            items_.push_back({false, car->pktType, car->deny == 1 ? 3u : 11u, car->cir, car->cbs,
                              car->pps, car->queue, car->priority, car->bit});
    }

private:
    void add(const tCpuDefendUserDefinedEntry &rule)
    {
        for (const uint16_t acl : {rule.ip4Acl, rule.ip6Acl})
            if (rule.index != 0 && rule.deny != 0)
                deny(acl);
            else if (rule.index != 0)
                permit(acl, rule.cir, rule.cbs);
    }

    void permit(uint32_t acl, uint32_t cir, uint32_t cbs)
    {
        if (acl != 0)
            items_.push_back({true, acl, 11, cir, cbs});
    }

    void deny(uint32_t acl)
    {
        if (acl != 0)
            items_.push_back({true, acl, 3, 0, 0});
    }

    std::vector<Item> &items_;
};

Held freshHardware()
{
    Held held;
    for (const auto &[place, names] : freshBindings()) {
        std::vector<Item> items;
        for (const std::string &name : names)
            Items(items).add(*find(name));
        if (!items.empty())
            held[place] = fitting(items);
    }
    return held;
}

/* ---- What is there ------------------------------------------------------------------------ */

Held hardwareHeld()
{
    Held held;
    for (const auto &[place, items] : hardware.held)
        if (!items.empty())
            held[place] = items;
    return held;
}

Held daemonHeld()
{
    Held held;
    for (const tHwItem &item : gCpuDefend.held) {
        if (item.isRefused)
            continue;
        const tHwSetting &s = item.setting;
        const Place place = item.target.isSlot
                                ? Place(std::pair(item.target.index.sys, item.target.index.slot))
                                : std::nullopt;
        held[place].push_back(
            {s.isAcl, s.number, s.op, s.cir, s.cbs, s.pps, s.queue, s.priority, s.bit});
    }
    return held;
}

static std::string text(const Place &place)
{
    if (!place)
        return "system:";
    return std::to_string(place->first) + '/' + std::to_string(place->second) + ':';
}

std::string text(const Held &held)
{
    std::ostringstream out;
    for (const auto &[place, items] : held) {
        out << text(place);
        for (const Item &item : items)
            out << (item.acl ? " acl " : " car ") << item.number << '/' << item.op << '/'
                << item.cir << '/' << item.cbs << '/' << item.pps;
        out << "; ";
    }
    return out.str();
}

std::string text(const Bound &bound)
{
    std::string out;
    for (const auto &[place, names] : bound) {
        out += text(place);
        for (const std::string &name : names)
            out += ' ' + name;
        out += "; ";
    }
    return out;
}

} // namespace chassis
