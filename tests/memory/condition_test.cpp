#include <cerrno>
#include <cstring>

#include "memory_fixture.h"
#include "scratch.h"

using Role = Memory;
using Ports = Memory;

/* ---- Role ----------------------------------------------------------------------------- */

TEST_F(Role, MasterUnlessToldOtherwise)
{
    EXPECT_EQ(zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISMASTER, nullptr), 0);
    EXPECT_NE(zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISSLAVE, nullptr), 0);
}

TEST_F(Role, SlaveAnswersTheOtherWayRound)
{
    zynMemoryRoleSet(1);
    EXPECT_NE(zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISMASTER, nullptr), 0);
    EXPECT_EQ(zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISSLAVE, nullptr), 0);
    zynMemoryReset();
    EXPECT_EQ(zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISMASTER, nullptr), 0);
}

/* ---- CPU usage ------------------------------------------------------------------------ */

struct CpuGet : Memory {
    CpuGet() : path(scratch.path("stat")) { zynMemoryCpuStatSet(path.c_str()); }

    void kernelShows(const std::string &line) { scratch.write("stat", line + "\ncpu0 1 1 1 1\n"); }

    /** A reading, or -1 when it failed. */
    int64_t usage(uint32_t selector)
    {
        uint32_t value = 0;
        return zynHwCpuGet(selector, HW_CPU_USED, &value) == 0 ? int64_t{value} : -1;
    }

    Scratch scratch;
    std::string path;
};

TEST_F(CpuGet, FirstReadingIsSinceBoot)
{
    kernelShows("cpu  20 5 0 60 15 0 0 0 0 0");
    EXPECT_EQ(usage(0), 25);
    EXPECT_EQ(usage(1), 2500);
}

TEST_F(CpuGet, LaterReadingsAreSinceTheLastOfTheSameSelector)
{
    kernelShows("cpu  0 0 0 100");
    EXPECT_EQ(usage(0), 0);
    kernelShows("cpu  50 0 0 150");
    EXPECT_EQ(usage(0), 50);
    EXPECT_EQ(usage(1), 2500); // its first: since boot
    kernelShows("cpu  150 0 0 250");
    EXPECT_EQ(usage(1), 5000);
    kernelShows("cpu  250 0 0 250");
    EXPECT_EQ(usage(1), 10000);
    EXPECT_EQ(usage(0), 66); // 200 of 300 ticks
}

TEST_F(CpuGet, WithoutATickTheLastValueStands)
{
    kernelShows("cpu  0 0 0 0");
    EXPECT_EQ(usage(0), 0);
    kernelShows("cpu  30 0 0 70");
    EXPECT_EQ(usage(0), 30);
    EXPECT_EQ(usage(0), 30);
    EXPECT_EQ(usage(0), 30);
}

TEST_F(CpuGet, FailureLeavesTheValueUntouched)
{
    uint32_t value = 4711;
    EXPECT_EQ(zynHwCpuGet(0, HW_CPU_USED, &value), ENOENT); // no such file
    kernelShows("memory full of");
    EXPECT_EQ(zynHwCpuGet(0, HW_CPU_USED, &value), EIO);
    EXPECT_EQ(zynHwCpuGet(2, HW_CPU_USED, &value), EINVAL);
    EXPECT_EQ(zynHwCpuGet(0, HW_CPU_USED + 1, &value), EINVAL);
    EXPECT_EQ(zynHwCpuGet(0, HW_CPU_USED, nullptr), EINVAL);
    EXPECT_EQ(value, 4711u);
}

TEST_F(CpuGet, ReadsTheKernel)
{
    zynMemoryCpuStatSet(nullptr);
    uint32_t value = UINT32_MAX;
    ASSERT_EQ(zynHwCpuGet(0, HW_CPU_USED, &value), 0);
    EXPECT_LE(value, 100u);
    value = UINT32_MAX;
    ASSERT_EQ(zynHwCpuGet(1, HW_CPU_USED, &value), 0);
    EXPECT_LE(value, 10000u);
}

/* ---- Interface units ------------------------------------------------------------------ */

TEST_F(Ports, EveryUnitBelongsToTheSystemItself)
{
    for (uint32_t unit : {0u, 7u, 0xffffffffu}) {
        tPhyIfInfo info;
        memset(&info, 0xa5, sizeof info);
        ASSERT_EQ(sysIndexTrans(unit, SYS_INDEX_TRANS_PHY, &info), 0);
        EXPECT_EQ(info.unit, 0u);
        EXPECT_EQ(info.slot, 0u);
        EXPECT_EQ(info.port, unit);
        EXPECT_EQ(info.channel, 0u);
        EXPECT_EQ(info.virtualnum, 0u);
        EXPECT_EQ(info.endType, 0u);
        EXPECT_EQ(info.card, 0u);
    }
}
