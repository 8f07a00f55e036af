#include "policy/in_force.h"

#include <memory>

#include "base/failure.h"
#include "zynosal.h"

namespace zynlinux
{

namespace
{

/** All that is wanted of the kernel beforehand, so that little is left to go wrong. */
PreparedPolicies prepare(DataPlane &plane, const Drafts &drafts)
{
    Policies policies;
    for (const auto &[target, draft] : drafts)
        policies[target] = draft.rulesAnything() ? &draft.policy() : nullptr;
    return plane.prepare(policies);
}

/** What is kept for the next daemon is written first: it makes good what is cut short here. */
void put(DataPlane &plane, Drafts &drafts, const PreparedPolicies &policies)
{
    for (auto &[target, draft] : drafts) {
        cpd_place &kept = plane.info().targets[target];
        kept.in_force = draft.rulesAnything();
        kept.policy = draft.policy();
    }
    for (auto &[target, draft] : drafts)
        draft.moveTokens(monotonicNow()); // first: whoever makes this good finds no token twice
    plane.saveInfo();
    plane.replace(policies);
}

/** What was in force is so again, as far as the kernel lets it. */
void putBack(DataPlane &plane, Drafts &drafts, const cpd_info &before)
try {
    Policies policies;
    plane.info() = before;
    for (const auto &[target, draft] : drafts) {
        const cpd_place &place = before.targets[target];
        policies[target] = place.in_force ? &place.policy : nullptr;
    }
    plane.saveInfo();
    plane.replace(plane.prepare(policies));
    const uint64_t now = monotonicNow();
    for (auto &[target, draft] : drafts)
        draft.undo(now);
} catch (const Failure &failure) {
    NM_DEBUG_OUTPUT("%s\n", failure.what());
    for (auto &[target, draft] : drafts)
        draft.abandon();
}

} // namespace

void putInForce(DataPlane &plane, Drafts &drafts)
{
    const PreparedPolicies policies = prepare(plane, drafts);
    const auto before = std::make_unique<cpd_info>(plane.info());
    try {
        put(plane, drafts, policies);
    } catch (...) {
        putBack(plane, drafts, *before);
        throw;
    }
    const uint64_t now = monotonicNow();
    for (auto &[target, draft] : drafts)
        draft.settle(now);
}

} // namespace zynlinux
