/**
 * The daemon on a platform that programs what it is told and leaves out all that may be left out.
 * Whatever else is asked of it, the example layer refuses.
 */
#include <cstring>
#include <gtest/gtest.h>
#include <map>

#include "cpuDefend.h"
#include "cpuDefend_nm_api.h"
#include "zynacl.h"

static std::map<uint32_t, uint32_t> programmed; // CAR entries by packet type

static int32_t set(bool add, const void *entry)
{
    const uint32_t type = static_cast<const tHwCpuDefendPktCarEntry *>(entry)->pktType;
    programmed[type] += add ? 1 : -1u;
    return 0;
}

int32_t zynHwSlotSet(const tSlotIndex *, uint32_t cmd, void *arg, int32_t)
{
    return set(cmd == HW_SLOT_CPUDEFENDPKTCARADD, arg);
}

int32_t zynScalarSetApi(uint32_t, uint32_t, tHwApiFunc *func)
{
    return set(func->hwCmd == HW_SYS_CPUDEFENDPKTCARADD, func->arg);
}

int32_t acl_cpudefend_add(const tSlotIndex *, uint16_t, uint32_t, uint32_t, uint32_t, uint32_t)
{
    return 0;
}

int32_t acl_cpudefend_del(const tSlotIndex *, uint16_t, uint32_t, uint32_t, uint32_t, uint32_t)
{
    return 0;
}

namespace
{

TEST(MinimalPlatform, IsEnoughForTheEventLoopAndForBinding)
{
    ASSERT_EQ(cpuDefendInit(2, 2), 0);
    cpuDefenTaskStart();
    EXPECT_EQ(gCpuDefend.pktSock, 0); // no source of packets, so none is waited for
    EXPECT_TRUE(list_empty(&gCpuDefend.slotList));

    unsigned char name[] = {'d', 'e', 'f', 'a', 'u', 'l', 't'};
    octetstring value{name, sizeof name};
    EXPECT_EQ(cpuDefendGlobalSetApi(0, CPUDEFEND_GLOBAL_POLICY, &value), 0);
    EXPECT_EQ(programmed[9], 1u);
    cpuDefenTaskTurn();

    tcpuDefendCarPktIdx index{};
    memcpy(index.policyName, name, sizeof name);
    index.policyNameLen = sizeof name;
    index.pktType = 1;
    octetstring passed{};
    EXPECT_EQ(cpuDefendCarPktGetApi(&index, CPUDEFEND_CARPKT_PASSNUM, &passed), 0); // not counted
    value.len = 0;
    EXPECT_EQ(cpuDefendGlobalSetApi(0, CPUDEFEND_GLOBAL_POLICY, &value), 0);
    EXPECT_EQ(programmed[9], 0u);
    cpuDefendRelease();
}

} // namespace
