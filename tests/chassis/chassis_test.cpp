// The chassis as a whole: three slots, six policies, both controllers, failing hardware.
#include <gtest/gtest.h>

#include <algorithm>

#include "world.h"

using namespace chassis;

using Steps = std::vector<Step>;

static Steps operator+(Steps a, const Steps &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

/** Run steps; what is found after one ends the run. */
static void run(World &world, const Steps &steps)
{
    for (size_t i = 0; i < steps.size(); i++) {
        const std::vector<std::string> found = world.run(steps[i]);
        for (const std::string &line : found)
            ADD_FAILURE() << "step " << i << ", " << steps[i].text() << ": " << line;
        if (!found.empty())
            return;
    }
}

/** Indexes into the values of the steps' table. */
enum { T10 = 1, T30, T50, T60, T90 };
enum { U0, U1, U10, U11, U31, U50, U51, U75, U90, U91, U100 };
enum { MS1, MS100, MS250, MS499, MS500 };
enum { AHEAD3 = 5 };
enum { NO_POSITION, POSITION1, POSITION4 = 4, POSITION255 };
enum { SYSTEM = 4 };

static Step usage(uint32_t percent)
{
    return {Op::Usage, percent, 99};
}

static const Step tick{Op::Advance, MS500};

static const Steps threeSlots{{Op::AddSlot, S1}, {Op::AddSlot, S2}, {Op::AddSlot, S3}};

static const Steps systemLevels{
    {Op::SystemThreshold, 0, T30}, {Op::SystemThreshold, 1, T60}, {Op::SystemThreshold, 2, T90},
    {Op::SystemLevel, 0, A},       {Op::SystemLevel, 1, B},       {Op::SystemLevel, 2, CC},
};

static Steps slotLevels(uint32_t slot)
{
    return {{Op::SlotThreshold, slot, 0, T30}, {Op::SlotThreshold, slot, 1, T60},
            {Op::SlotThreshold, slot, 2, T90}, {Op::SlotLevel, slot, 0, B},
            {Op::SlotLevel, slot, 1, CC},      {Op::SlotLevel, slot, 2, DDD}};
}

/* ---- Orders ---------------------------------------------------------------------------------- */

/** Run @a steps in each of their orders, each time on a chassis prepared by @a before. */
static void inEveryOrder(const Steps &before, const Steps &steps)
{
    std::vector<size_t> order(steps.size());
    for (size_t i = 0; i < order.size(); i++)
        order[i] = i;
    do {
        World world(8);
        EXPECT_EQ(world.prepare(before), std::vector<std::string>());
        for (size_t i : order)
            run(world, {steps[i]});
        if (testing::Test::HasFailure()) {
            for (size_t i : order)
                ADD_FAILURE() << "in the order: " << steps[i].text();
            return;
        }
    } while (std::next_permutation(order.begin(), order.end()));
}

static const Steps twoPolicies{{Op::CreatePolicy, A},
                               {Op::CreatePolicy, B},
                               {Op::ConfigurePolicy, A, WHITE_IP4, 1},
                               {Op::CreateRule, A, 1},
                               {Op::ConfigureRule, A * 4 + 1, 1, 2}};

TEST(Chassis, ModesAndSamplesMeetInEveryOrder)
{
    inEveryOrder(threeSlots + twoPolicies + systemLevels + slotLevels(S1) + Steps{usage(U50)},
                 {{Op::SystemMode, 1},
                  {Op::SlotMode, S1, 1},
                  tick,
                  {Op::SystemLevel, 0, B},
                  {Op::DeleteSlot, S1},
                  {Op::AddSlot, S2}});
}

/* ---- refCount against the hardware ------------------------------------------------------------
 */

TEST(Chassis, RefCountDiffersFromWhatTheHardwareHoldsWhereRemovalsAreUnpaired)
{
    const Steps some = twoPolicies + Steps{{Op::CreatePolicy, CC}};
    const std::vector<std::pair<const char *, Steps>> exceptions{
        {"slot added while the system is bound", threeSlots + Steps{{Op::DeleteSlot, S3},
                                                                    {Op::BindSystem, A},
                                                                    {Op::AddSlot, S3},
                                                                    {Op::BindSystem, EMPTY}}},
        {"first slot added while the system is bound",
         {{Op::BindSystem, A}, {Op::AddSlot, S1}, {Op::BindSystem, EMPTY}}},
        {"last slot deleted while the system is bound",
         {{Op::AddSlot, S1}, {Op::BindSystem, A}, {Op::DeleteSlot, S1}, {Op::BindSystem, EMPTY}}},
        {"slot relieved of its policy while the system is bound",
         {{Op::AddSlot, S1},
          {Op::BindSlot, S1, B},
          {Op::BindSystem, A},
          {Op::BindSlot, S1, EMPTY},
          {Op::BindSystem, EMPTY}}},
        {"slot back from CPU-rate mode under the system's level",
         systemLevels + Steps{{Op::AddSlot, S1},
                              {Op::SlotMode, S1, 1},
                              {Op::SystemMode, 1},
                              usage(U31),
                              tick,
                              {Op::SlotMode, S1, 0},
                              usage(U0),
                              tick}},
        {"L2 renamed with slots present", systemLevels + Steps{{Op::AddSlot, S1},
                                                               {Op::SystemMode, 1},
                                                               usage(U75),
                                                               tick,
                                                               {Op::SystemLevel, 1, A}}},
        {"position replayed from the peer",
         systemLevels +
             Steps{{Op::SystemMode, 1}, {Op::ReceiveSync, SYSTEM, POSITION1}, usage(U0), tick}},
        {"role changed in between",
         {{Op::Role, 0}, {Op::BindSystem, A}, {Op::Role, 1}, {Op::BindSystem, EMPTY}}},
        {"call failed", {{Op::FailCall, AHEAD3}, {Op::BindSystem, A}}},
    };
    for (const auto &[what, steps] : exceptions) {
        World world(8);
        run(world, some + steps);
        EXPECT_FALSE(world.isPaired()) << what;
    }
}

/* ---- Failing calls ----------------------------------------------------------------------------
 */

/** A day in the life of a chassis, short enough to be lived once for each of its calls. */
static const Steps aDay = Steps{{Op::CreatePolicy, A},
                                {Op::CreatePolicy, B},
                                {Op::ConfigurePolicy, A, WHITE_IP4, 1},
                                {Op::ConfigurePolicy, B, TRACING, 0},
                                {Op::ConfigurePolicy, B, TRACE_THRESHOLD, 0},
                                {Op::CreateRule, A, 1},
                                {Op::ConfigureRule, A * 4 + 1, 1, 2},
                                {Op::BindSystem, A},
                                {Op::BindSystem, EMPTY},
                                {Op::AddSlot, S1},
                                {Op::AddSlot, S2},
                                {Op::AddSlot, S3},
                                {Op::BindSlot, S1, B},
                                {Op::BindSystem, A},
                                {Op::Packet, 1, 0, 1},
                                {Op::ResetSlotTraces, S1},
                                {Op::BindSlot, S1, A},
                                {Op::DestroyPolicy, B},
                                {Op::CreatePolicy, B},
                                {Op::SlotThreshold, S2, 0, T60},
                                {Op::SlotLevel, S2, 0, B},
                                {Op::SlotMode, S2, 1},
                                usage(U50),
                                tick,
                                {Op::SystemThreshold, 1, T30},
                                {Op::SystemLevel, 1, A},
                                {Op::SystemMode, 1},
                                tick,
                                {Op::SystemLevel, 1, B},
                                tick,
                                usage(U75),
                                {Op::SlotLevel, S2, 0, A},
                                tick,
                                {Op::DeleteSlot, S2},
                                {Op::DeleteSlot, S1},
                                {Op::AddSlot, S1},
                                {Op::SystemMode, 0},
                                {Op::ResetSystemTraces},
                                {Op::DestroyPolicy, A},
                                tick};

TEST(Chassis, AFailureOfAnyOneCallLeavesEverythingSound)
{
    size_t calls = 0;
    {
        World world(8);
        run(world, aDay);
        calls = hardware.failable;
    }
    EXPECT_GT(calls, 200u);
    for (size_t n = 0; n < calls && !HasFailure(); n++) {
        SCOPED_TRACE("call " + std::to_string(n) + " fails");
        World world(8);
        hardware.failAt = n;
        run(world, aDay);
        EXPECT_GT(hardware.failable, n) << "the call was never made";
    }
}

/* ---- Reuse ------------------------------------------------------------------------------------
 */
