// The checks themselves: damage of each kind is found, and none once it is repaired.
#include <gtest/gtest.h>

#include <functional>
#include <utility>

#include "core/invariants.h"
#include "world.h"

using namespace chassis;

/** A chassis with something of everything. */
class Damage : public testing::Test
{
protected:
    Damage() : world(8)
    {
        for (const Step &step : std::vector<Step>{{Op::AddSlot, S1},
                                                  {Op::AddSlot, S2},
                                                  {Op::CreatePolicy, A},
                                                  {Op::CreatePolicy, B},
                                                  {Op::CreateRule, A, 1},
                                                  {Op::CreateRule, A, 2},
                                                  {Op::CreateRule, B, 1},
                                                  {Op::DestroyPolicy, B},
                                                  {Op::ConfigurePolicy, A, TRACING, 0},
                                                  {Op::ConfigurePolicy, A, TRACE_THRESHOLD, 0},
                                                  {Op::BindSystem, A},
                                                  {Op::BindSlot, S1, A},
                                                  {Op::Packet, 1, 0, 1},
                                                  {Op::Packet, 1, 0, 2}})
            EXPECT_EQ(world.run(step), std::vector<std::string>());
        EXPECT_EQ(gCpuDefend.useSrcTraceNum, 2u);
    }

    /** A step that changes nothing, so that all that is found was there before. */
    bool found() { return !world.run({Op::Usage}).empty(); }

    World world;
};

template <typename T> static std::function<void()> exchange(T &field, T by)
{
    return [&field, by]() mutable { std::swap(field, by); };
}

template <typename T> static std::function<void()> off(T &field)
{
    return exchange(field, static_cast<T>(field + 1));
}

TEST_F(Damage, IsFoundAndNothingElseIs)
{
    tCpuDefendSystem &g = gCpuDefend;
    tCpuDefendPolicyEntry *a = &g.policyTable[world.model.findPolicy("a")->record];
    tCpuDefendSlotEntry *slot = list_entry(g.slotList.next, tCpuDefendSlotEntry, node);
    auto *rule = list_entry(a->userDefinedList.next, tCpuDefendUserDefinedEntry, policyNode);
    auto *trace = static_cast<tCpuDefendSrcTraceEntry *>(avl_first(&g.srcTraceList));
    auto *freeTrace = list_entry(g.srcTraceFreeList.next, tCpuDefendSrcTraceEntry, freeNode);
    // Each does damage, and repairs it when called again.
    const std::vector<std::pair<const char *, std::function<void()>>> all{
        {"refCount", off(a->refCount)},
        {"rule count", off(a->userDefinedNum)},
        {"rule's policy", exchange(rule->policyEntry, a + 1000)},
        {"hardware forgot",
         [held = decltype(hardware.held)()]() mutable { std::swap(held, hardware.held); }},
        {"system's policy", off(g.policyNameLen)},
        {"system's position", off(g.selectedPosition)},
        {"system's mode", off(g.policyMode)},
        {"system's level", off(g.cpuRatControl[2].policyNameLen)},
        {"system's threshold", off(g.cpuRatControl[1].cpuRat)},
        {"name too long", exchange(slot->cpuRatControl[0].policyNameLen, uint8_t{33})},
        {"slot's policy", exchange(slot->policyEntry, a + 1)},
        {"slot's policy outside the pool", exchange(slot->policyEntry, a + 1000)},
        {"slot's number", off(slot->slotId)},
        {"slot's position", off(slot->selectedPosition)},
        {"slot's mode", off(slot->policyMode)},
        {"slots in use", off(g.useSlotNum)},
        {"slots turned round",
         [slot] {
             list_head *first = gCpuDefend.slotList.next;
             list_del_init(first);
             list_add_tail(first, &gCpuDefend.slotList);
         }},
        {"timer's expiry", off(slot->cpuRatControlTimer.expiry)},
        {"timer off the list",
         [node = &slot->cpuRatControlTimer.link]() mutable {
             static list_head *before;
             if (before) {
                 list_add(node, std::exchange(before, nullptr));
             } else {
                 before = node->prev;
                 node->prev->next = node->next;
                 node->next->prev = node->prev;
             }
         }},
        {"traces out of order", off(trace->ifUnit)},
        {"free trace", off(freeTrace->totalNum)},
    };
    EXPECT_FALSE(found());
    for (const auto &[what, damage] : all) {
        damage();
        EXPECT_TRUE(found()) << what;
        damage();
        EXPECT_FALSE(found()) << what;
    }
}
