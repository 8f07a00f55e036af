#include "policy/takeover.h"

#include <string>

#include "base/failure.h"
#include "kernel/target.h"
#include "zynosal.h"

namespace zynlinux
{

namespace
{

uint32_t claim(DataPlane &plane, const std::pair<uint32_t, uint32_t> &slot, const Slots &slots)
{
    cpd_info &info = plane.info();
    const uint32_t known = targetOf(info, slot.first, slot.second);
    if (known != noTarget)
        return known;
    uint32_t target = claimTarget(info, slot.first, slot.second);
    for (uint32_t each = 1; target == noTarget && each < CPD_TARGETS; each++) {
        if (slots.contains({info.targets[each].sys, info.targets[each].slot}))
            continue;
        plane.remove(each);
        info.targets[each] = {};
        target = claimTarget(info, slot.first, slot.second);
    }
    if (target == noTarget)
        throw Failure("make room for slot " + std::to_string(slot.second),
                      "there are too many slots");
    if (plane.takenOver())
        plane.clearCounters(target);
    return target;
}

std::string nameOf(uint32_t target, const cpd_place &place)
{
    if (target == systemTarget)
        return "for the system";
    return "at slot " + std::to_string(place.slot) + " of system " + std::to_string(place.sys);
}

} // namespace

std::vector<uint32_t> claimTargets(DataPlane &plane, const Slots &slots)
{
    std::vector<uint32_t> targets{systemTarget};
    for (const auto &slot : slots)
        targets.push_back(claim(plane, slot, slots));
    return targets;
}

const cpd_policy *leftInForce(DataPlane &plane, uint32_t target)
{
    cpd_place &left = plane.info().targets[target];
    if (left.in_force && left.policy.acl_count != 0 && !plane.hasTables(left.policy.table_set)) {
        NM_DEBUG_OUTPUT("[platform] what was left %s is not whole (the tables of its ACLs are "
                        "missing): it does not stay in force\n",
                        nameOf(target, left).c_str());
        left.in_force = 0;
    }
    return left.in_force ? &left.policy : nullptr;
}

void dropUnclaimed(DataPlane &plane, const std::function<bool(uint32_t)> &isClaimed)
{
    for (uint32_t target = 0; target < CPD_TARGETS; target++) {
        cpd_place &place = plane.info().targets[target];
        if (!place.used || isClaimed(target))
            continue;
        plane.remove(target);
        place = {};
    }
    plane.saveInfo();
}

} // namespace zynlinux
