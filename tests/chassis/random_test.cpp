// Random steps, the same ones for the same seed.
//
// CPUDEFEND_SEED and CPUDEFEND_STEPS replace the seed and the number of steps. A failure tells
// the seed and the step, so that a run with that seed and one step more ends with the failure.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <set>
#include <tuple>

#include "world.h"

using namespace chassis;

constexpr uint32_t DEFAULT_SEED = 20031;
constexpr uint32_t DEFAULT_STEPS = 10000;
constexpr uint32_t STEPS_PER_CHASSIS = 250;

static uint32_t fromEnvironment(const char *name, uint32_t otherwise)
{
    const char *text = getenv(name);
    return text ? static_cast<uint32_t>(strtoul(text, nullptr, 0)) : otherwise;
}

/** Pools of many sizes, too small for six policies and larger. */
static std::unique_ptr<World> newWorld(std::mt19937 &random)
{
    static const uint32_t sizes[] = {3, 5, 6, 8, 16, 24};
    return std::make_unique<World>(sizes[static_cast<uint32_t>(random()) % 6]);
}

/** What comes first on a chassis: policies that trace eagerly, slots, levels. */
static std::vector<Step> provisions(std::mt19937 &random)
{
    std::vector<Step> steps;
    for (uint32_t policy = A; policy <= DEFAULT; policy++)
        for (const Step &step :
             {Step{Op::CreatePolicy, policy}, Step{Op::ConfigurePolicy, policy, TRACING, 0},
              Step{Op::ConfigurePolicy, policy, TRACE_THRESHOLD, 0}})
            steps.push_back(step);
    for (Op op :
         {Op::AddSlot, Op::SystemThreshold, Op::SystemLevel, Op::SlotThreshold, Op::SlotLevel,
          Op::SlotThreshold, Op::SlotLevel, Op::CreateRule, Op::ConfigureRule, Op::ConfigurePolicy})
        for (int i = 0; i < 3; i++)
            steps.push_back(randomStep(random, op));
    return steps;
}

/** A kind of step, and what the hardware answered to one of its calls. */
using Event = std::tuple<Op, Kind, int32_t>;

static void note(std::set<Event> *seen, Op op)
{
    for (const Call &call : hardware.log)
        seen->emplace(op, call.kind, call.result);
}

/** What so many steps must have come to, or they test little. */
static void expectVariety(const std::set<Event> &seen)
{
    for (Op op : {Op::BindSystem, Op::BindSlot, Op::Advance})
        for (int32_t result : {0, HARDWARE_FAILURE})
            EXPECT_TRUE(seen.count({op, Kind::Add, result})) << Step{op}.text();
    for (Op op : {Op::BindSystem, Op::BindSlot, Op::Advance, Op::SystemMode, Op::SystemLevel,
                  Op::SlotMode, Op::SlotLevel, Op::DeleteSlot})
        EXPECT_TRUE(seen.count({op, Kind::Del, 0})) << Step{op}.text();
    for (Op op : {Op::BindSystem, Op::BindSlot, Op::Advance, Op::SystemMode, Op::DeleteSlot}) {
        EXPECT_TRUE(seen.count({op, Kind::Del, ENOENT})) << Step{op}.text();
        EXPECT_TRUE(seen.count({op, Kind::Del, HARDWARE_FAILURE})) << Step{op}.text();
    }
    for (Op op : {Op::BindSystem, Op::SystemMode, Op::SystemLevel, Op::SystemThreshold,
                  Op::ResetSystemTraces})
        EXPECT_TRUE(seen.count({op, Kind::ScalarSync, HARDWARE_FAILURE})) << Step{op}.text();
    for (Op op :
         {Op::BindSlot, Op::SlotMode, Op::SlotLevel, Op::SlotThreshold, Op::ResetSlotTraces})
        EXPECT_TRUE(seen.count({op, Kind::SlotSync, HARDWARE_FAILURE})) << Step{op}.text();
}

TEST(Chassis, RandomStepsLeaveEverythingSound)
{
    const uint32_t seed = fromEnvironment("CPUDEFEND_SEED", DEFAULT_SEED);
    const uint32_t steps = fromEnvironment("CPUDEFEND_STEPS", DEFAULT_STEPS);
    std::mt19937 random(seed);
    std::unique_ptr<World> world;
    std::vector<Step> first;
    std::set<Event> seen;
    uint32_t tracing = 0;
    for (uint32_t n = 0; n < steps; n++) {
        const uint32_t age = n % STEPS_PER_CHASSIS;
        if (age == 0) {
            world.reset();
            world = newWorld(random);
            first = provisions(random);
        }
        const Step step = age < first.size() ? first[age] : randomStep(random);
        const std::vector<std::string> found = world->run(step);
        for (const std::string &line : found)
            ADD_FAILURE() << "CPUDEFEND_SEED=" << seed << ", step " << n << ", " << step.text()
                          << ": " << line;
        if (!found.empty())
            return;
        note(&seen, step.op);
        tracing += gCpuDefend.useSrcTraceNum != 0;
    }
    if (steps >= DEFAULT_STEPS) {
        expectVariety(seen);
        EXPECT_GT(tracing, steps / 10);
    }
}
