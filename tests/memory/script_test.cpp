/**
 * What a test may script: readings of the CPU usage, the role, and the result of the nth call.
 */
#include <cerrno>
#include <vector>

#include "memory_fixture.h"

using UsageSeries = Memory;
using RoleChange = Memory;
using FailAt = Memory;

namespace
{

/** So many readings of a selector. */
std::vector<uint32_t> readings(uint32_t selector, size_t count)
{
    std::vector<uint32_t> found;
    for (size_t i = 0; i < count; i++) {
        uint32_t value = UINT32_MAX;
        EXPECT_EQ(zynHwCpuGet(selector, HW_CPU_USED, &value), 0);
        found.push_back(value);
    }
    return found;
}

using Values = std::vector<uint32_t>;

const uint32_t ramp[] = {2000, 7500, 0, 9100};
const uint32_t steep[] = {10, 99};

} // namespace

/* ---- CPU usage ------------------------------------------------------------------------ */

TEST_F(UsageSeries, IsReadInTurnAndItsLastValueStays)
{
    ASSERT_EQ(zynMemoryUsageSet(1, ramp, 4), 0);
    EXPECT_EQ(readings(1, 6), (Values{2000, 7500, 0, 9100, 9100, 9100}));
}

TEST_F(UsageSeries, SelectorsAreIndependent)
{
    ASSERT_EQ(zynMemoryUsageSet(1, ramp, 4), 0);
    ASSERT_EQ(zynMemoryUsageSet(0, steep, 2), 0);
    EXPECT_EQ(readings(1, 2), (Values{2000, 7500}));
    EXPECT_EQ(readings(0, 2), (Values{10, 99}));
    EXPECT_EQ(readings(1, 2), (Values{0, 9100}));
}

TEST_F(UsageSeries, WrongOnesAreRefusedAndChangeNothing)
{
    zynMemoryUsageSet(1, ramp, 4);
    EXPECT_EQ(zynMemoryUsageSet(2, steep, 2), EINVAL);
    EXPECT_EQ(zynMemoryUsageSet(1, steep, 0), EINVAL);
    EXPECT_EQ(readings(1, 1), Values{2000});
}

TEST_F(UsageSeries, WithoutOneTheUsageIsMeasuredAgain)
{
    const uint32_t impossible[] = {4711000};
    ASSERT_EQ(zynMemoryUsageSet(0, impossible, 1), 0);
    ASSERT_EQ(zynMemoryUsageSet(1, impossible, 1), 0);
    EXPECT_EQ(readings(0, 1), Values{4711000});
    ASSERT_EQ(zynMemoryUsageSet(0, nullptr, 0), 0);
    EXPECT_LE(readings(0, 1)[0], 100u);
    EXPECT_EQ(readings(1, 1), Values{4711000});
    zynMemoryReset();
    EXPECT_LE(readings(1, 1)[0], 10000u);
}

/* ---- Role ----------------------------------------------------------------------------- */

TEST_F(RoleChange, HoldsFromTheNextQueryOnAndKeepsWhatIsProgrammed)
{
    ASSERT_EQ(carAdd(&slotA, car(1, 100)), 0);
    for (int32_t isSlave : {1, 0, 1}) {
        zynMemoryRoleSet(isSlave);
        EXPECT_EQ(zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISSLAVE, nullptr) == 0, isSlave == 1);
        EXPECT_EQ(zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISMASTER, nullptr) == 0, isSlave == 0);
        EXPECT_EQ(ppsInForce(&slotA, 1), 100);
    }
}

/* ---- The nth call --------------------------------------------------------------------- */

TEST_F(FailAt, ResetWithdrawsIt)
{
    zynMemoryFailAt(1, EIO);
    zynMemoryReset();
    EXPECT_EQ(carAdd(system, car(1, 100)), 0);
}
