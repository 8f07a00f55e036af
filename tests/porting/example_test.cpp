/**
 * The layer to copy: what it refuses and how, by itself and below the daemon.
 */
#include <cerrno>
#include <functional>
#include <gtest/gtest.h>

#include "cpuDefend.h"
#include "cpuDefend_nm_api.h"

namespace
{

/** What is said on standard error meanwhile. */
std::string said(const std::function<void()> &act)
{
    testing::internal::CaptureStderr();
    act();
    return testing::internal::GetCapturedStderr();
}

tSlotIndex slot{1, 2, 0};
tHwCpuDefendPktCarEntry car{9,  16, 6400, 200, 0, 0, ZYN_HW_OP_PERMIT, ZYN_HW_CAR_PPS,
                            {}, {}, {},   {}};

int32_t setSystem(uint32_t hwCmd)
{
    tHwApiFunc func{hwCmd, &car, 0, 0, 0, 0};
    return zynScalarSetApi(0, 0, &func);
}

int32_t refusedCar()
{
    return zynHwSlotSet(&slot, HW_SLOT_CPUDEFENDPKTCARADD, &car, 3);
}

int32_t refusedAcl()
{
    return acl_cpudefend_add(nullptr, 2000, ZYN_HW_OP_PERMIT, 16, 6400, 6400);
}

int32_t refusedRole()
{
    return zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISMASTER, nullptr);
}

int32_t refusedUse()
{
    uint32_t untouched = 4711;
    const int32_t result = zynHwCpuGet(1, HW_CPU_USED, &untouched);
    EXPECT_EQ(untouched, 4711u);
    return result;
}

int32_t refusedPlace()
{
    tPhyIfInfo untouched{7, 7, 7, 7, 7, 7, 7};
    const int32_t result = sysIndexTrans(2, SYS_INDEX_TRANS_PHY, &untouched);
    EXPECT_EQ(untouched.slot, 7u);
    return result;
}

struct Refusal {
    int32_t (*call)();
    int32_t code;
    const char *reason;
};

const Refusal refusals[] = {
    {refusedCar, ENODEV,
     "cpuDefend: couldn't add a CAR entry: the example layer has no hardware: No such device\n"},
    {refusedAcl, ENOTSUP,
     "cpuDefend: couldn't attach an access list: the example layer has no hardware: Operation not "
     "supported\n"},
    {refusedRole, ENOTSUP,
     "cpuDefend: couldn't tell the role of this card: the example layer has no hardware: Operation "
     "not supported\n"},
    {refusedUse, ENOTSUP,
     "cpuDefend: couldn't measure the use of the CPU: the example layer has no hardware: Operation "
     "not supported\n"},
    {refusedPlace, ENODEV,
     "cpuDefend: couldn't tell where an interface sits: the example layer has no hardware: No such "
     "device\n"}};

TEST(ExampleLayer, RefusesWithAReasonThatIsSaidOnce)
{
    for (const Refusal &refusal : refusals) {
        EXPECT_EQ(said([&] { EXPECT_EQ(refusal.call(), refusal.code); }), refusal.reason);
        EXPECT_EQ(said([&] { EXPECT_EQ(refusal.call(), refusal.code); }), "") << refusal.reason;
    }
}

TEST(ExampleLayer, RefusesTheSystemAsItDoesASlot)
{
    EXPECT_EQ(setSystem(HW_SYS_CPUDEFENDPKTCARADD), ENODEV);
    EXPECT_EQ(acl_cpudefend_add(&slot, 2000, ZYN_HW_OP_DENY, 0, 0, 0), ENOTSUP);
    EXPECT_EQ(zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISSLAVE, nullptr), ENOTSUP);
}

TEST(ExampleLayer, HasNothingToRemove)
{
    EXPECT_EQ(zynHwSlotSet(&slot, HW_SLOT_CPUDEFENDPKTCARDEL, &car, 3), ENOENT);
    EXPECT_EQ(setSystem(HW_SYS_CPUDEFENDPKTCARDEL), ENOENT);
    EXPECT_EQ(acl_cpudefend_del(&slot, 2000, ZYN_HW_OP_PERMIT, 16, 6400, 6400), ENOENT);
}

TEST(ExampleLayer, KnowsItsCommands)
{
    EXPECT_EQ(zynHwSlotSet(&slot, HW_SYS_CPUDEFENDPKTCARADD, &car, 3), EINVAL);
    EXPECT_EQ(setSystem(HW_SLOT_CPUDEFENDPKTCARADD), EINVAL);
}

TEST(ExampleLayer, LetsChangesGoOnWithoutAStandbyCard)
{
    const uint32_t value = 1;
    EXPECT_EQ(zynHwScalarSync(0, 8006, &value, 3), 0);
    EXPECT_EQ(zynHwSlotSync(&slot, 8007, &value, 3), 0);
}

TEST(ExampleLayer, SaysThatItServes)
{
    EXPECT_EQ(said([] { EXPECT_EQ(zynPlatformInit(nullptr), 0); }),
              "cpuDefend: the example layer serves: it refuses whatever is programmed\n");
}

TEST(ExampleLayer, HasTheDaemonRefuseABinding)
{
    ASSERT_EQ(cpuDefendInit(2, 2), 0);
    cpuDefenTaskStart();
    unsigned char name[] = {'d', 'e', 'f', 'a', 'u', 'l', 't'};
    octetstring value{name, sizeof name};
    EXPECT_EQ(cpuDefendGlobalSetApi(0, CPUDEFEND_GLOBAL_POLICY, &value), ENODEV);
    cpuDefenTaskTurn();
    EXPECT_EQ(gCpuDefend.held.count(), 0u); // nothing counts as programmed
    EXPECT_TRUE(list_empty(&gCpuDefend.slotList));
}

} // namespace
