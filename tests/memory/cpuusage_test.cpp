#include "cpuusage.h"

#include <cerrno>
#include <cstdint>

#include <gtest/gtest.h>

#include "scratch.h"

namespace
{

tCpuSample sample(uint64_t user, uint64_t idle, uint64_t iowait = 0)
{
    tCpuSample made = {};
    made.ticks[CPU_USER] = user;
    made.ticks[CPU_IDLE] = idle;
    made.ticks[CPU_IOWAIT] = iowait;
    return made;
}

/** The usage in hundredths of a percent, or -1 without a tick. */
int64_t usage(const tCpuSample &before, const tCpuSample &now, uint32_t scale = 10000)
{
    uint32_t value = 0;
    return cpuUsageCompute(&before, &now, scale, &value) == 0 ? int64_t{value} : -1;
}

} // namespace

/* ---- Parsing -------------------------------------------------------------------------- */

TEST(CpuSampleParse, FieldsAnOldKernelLacksAreZero)
{
    tCpuSample read;
    ASSERT_EQ(cpuSampleParse("cpu 1 2 3 4\n", &read), 0);
    EXPECT_EQ(read.ticks[CPU_IDLE], 4u);
    for (int i = CPU_IOWAIT; i < CPU_FIELDS; i++)
        EXPECT_EQ(read.ticks[i], 0u);
}

TEST(CpuSampleParse, TakesAll64Bits)
{
    tCpuSample read;
    ASSERT_EQ(cpuSampleParse("cpu  18446744073709551615 4294967296 0 9999999999999999999 0", &read),
              0);
    EXPECT_EQ(read.ticks[CPU_USER], UINT64_MAX);
    EXPECT_EQ(read.ticks[CPU_NICE], 0x100000000u);
    EXPECT_EQ(read.ticks[CPU_IDLE], 9999999999999999999u);
}

TEST(CpuSampleParse, RefusesOtherLinesAndLeavesTheSampleUntouched)
{
    const char *const lines[] = {
        "",
        "cpu",
        "cpu\n",
        "cpu \n",
        "cpu0 1 2 3 4",                         // one CPU alone
        "intr 1 2 3 4",                         //
        "cpu  1 2 3\n",                         // too few fields
        "cpu  1 2 3\n4 5 6 7 8",                // the next line is not this one's
        "cpu  1 2 x 4",                         //
        "cpu  1 2 3 4x",                        //
        "cpu  1 2 3 4 5 -6 7 8",                //
        "cpu  1 2 3 4 +5",                      //
        "cpu  1 2 3 4.5",                       //
        "cpu  18446744073709551616 2 3 4",      // 2^64
        "cpu  99999999999999999999999 2 3 4",   //
        "cpu  1 2 3 4 99999999999999999999999", //
    };
    for (const char *line : lines) {
        tCpuSample read = sample(4711, 0);
        EXPECT_EQ(cpuSampleParse(line, &read), -1) << line;
        EXPECT_EQ(read.ticks[CPU_USER], 4711u) << line;
    }
}

/* ---- Usage between two readings ------------------------------------------------------- */

TEST(CpuUsageCompute, IdleAndIowaitAreIdle)
{
    EXPECT_EQ(usage(sample(0, 0), sample(25, 60, 15)), 2500);
    EXPECT_EQ(usage(sample(0, 0), sample(0, 60, 40)), 0);
    EXPECT_EQ(usage(sample(0, 0), sample(7, 0, 0)), 10000);
}

TEST(CpuUsageCompute, EveryOtherFieldIsUse)
{
    for (int field = 0; field < CPU_FIELDS; field++) {
        tCpuSample now = {};
        now.ticks[field] = 30;
        now.ticks[CPU_IDLE] += 70;
        bool idle = field == CPU_IDLE || field == CPU_IOWAIT;
        EXPECT_EQ(usage({}, now), idle ? 0 : 3000) << field;
    }
}

TEST(CpuUsageCompute, WithoutATickThereIsNoUsage)
{
    EXPECT_EQ(usage(sample(5, 6, 7), sample(5, 6, 7)), -1);
    uint32_t value = 4711;
    tCpuSample same = sample(5, 6, 7);
    EXPECT_EQ(cpuUsageCompute(&same, &same, 100, &value), -1);
    EXPECT_EQ(value, 4711u);
}

TEST(CpuUsageCompute, CounterThatGoesBackwardsStandsStill)
{
    EXPECT_EQ(usage(sample(100, 100, 50), sample(150, 150, 10)), 5000); // iowait
    EXPECT_EQ(usage(sample(100, 100), sample(150, 50)), 10000);         // idle
    EXPECT_EQ(usage(sample(100, 100), sample(50, 150)), 0);             // user
    EXPECT_EQ(usage(sample(100, 100, 50), sample(1, 1, 1)), -1);        // all of them
}

TEST(CpuUsageCompute, GreatestCountersDoNotOverflow)
{
    EXPECT_EQ(usage({}, sample(UINT64_MAX, UINT64_MAX)), 5000);
    EXPECT_EQ(usage({}, sample(UINT64_MAX, 0)), 10000);
    EXPECT_EQ(usage({}, sample(0, UINT64_MAX, UINT64_MAX)), 0);
    tCpuSample all;
    for (uint64_t &ticks : all.ticks)
        ticks = UINT64_MAX;
    EXPECT_EQ(usage({}, all), 7500); // six of eight
}

/* ---- A meter -------------------------------------------------------------------------- */

TEST(CpuMeterRead, LineOfTheGreatestCountersFits)
{
    Scratch scratch;
    std::string line = "cpu ";
    for (int i = 0; i < 10; i++)
        line += " 18446744073709551615";
    tCpuMeter meter = {};
    uint32_t value = 0;
    ASSERT_EQ(cpuMeterRead(&meter, scratch.write("stat", line + "\n").c_str(), 10000, &value), 0);
    EXPECT_EQ(value, 7500u);
}

TEST(CpuMeterRead, TellsWhyItFailed)
{
    Scratch scratch;
    tCpuMeter meter = {};
    uint32_t value = 4711;
    EXPECT_EQ(cpuMeterRead(&meter, scratch.path("none").c_str(), 100, &value), ENOENT);
    EXPECT_EQ(cpuMeterRead(&meter, scratch.path("").c_str(), 100, &value), EISDIR);
    EXPECT_EQ(cpuMeterRead(&meter, scratch.write("empty", "").c_str(), 100, &value), EIO);
    EXPECT_EQ(value, 4711u);
}

TEST(CpuMeterRead, GoesOnAfterCountersWentBackwards)
{
    Scratch scratch;
    tCpuMeter meter = {};
    auto read = [&](const char *line) {
        uint32_t value = 4711;
        EXPECT_EQ(cpuMeterRead(&meter, scratch.write("stat", line).c_str(), 100, &value), 0);
        return value;
    };
    EXPECT_EQ(read("cpu  40 0 0 60"), 40u);
    EXPECT_EQ(read("cpu  0 0 0 0"), 40u); // counted afresh: the last value stands
    EXPECT_EQ(read("cpu  10 0 0 90"), 10u);
}
