#include "zynosal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

class Semaphore : public testing::Test
{
protected:
    void SetUp() override { ASSERT_NE(sem, nullptr); }
    void TearDown() override { OsixDeleteSem(sem); }

    int32_t takeInAnotherThread(int32_t wait)
    {
        return inAnotherThread([&] {
            const int32_t result = OsixTakeSem(sem, wait);
            if (result == 0)
                OsixGiveSem(sem);
            return result;
        });
    }

    template <typename F> static int32_t inAnotherThread(F what)
    {
        return std::async(std::launch::async, what).get();
    }

    tOsixSemId sem = OsixCreateMSem(13);
};

} // namespace

TEST_F(Semaphore, OptionsDoNotMatter)
{
    for (uint32_t options : {0u, 1u, UINT32_MAX}) {
        tOsixSemId other = OsixCreateMSem(options);
        ASSERT_NE(other, nullptr);
        EXPECT_EQ(OsixTakeSem(other, 0), 0);
        EXPECT_EQ(OsixGiveSem(other), 0);
        OsixDeleteSem(other);
    }
}

TEST_F(Semaphore, HolderTakesItAgain)
{
    EXPECT_EQ(OsixTakeSem(sem, OSIX_WAIT_FOREVER), 0);
    EXPECT_EQ(OsixTakeSem(sem, OSIX_WAIT_FOREVER), 0);
    EXPECT_EQ(OsixTakeSem(sem, 0), 0);
    for (int given = 0; given < 3; given++) {
        EXPECT_EQ(takeInAnotherThread(0), -1) << "after " << given << " gives";
        EXPECT_EQ(OsixGiveSem(sem), 0);
    }
    EXPECT_EQ(takeInAnotherThread(0), 0);
}

TEST_F(Semaphore, OnlyTheHolderGivesIt)
{
    EXPECT_EQ(OsixGiveSem(sem), -1);
    ASSERT_EQ(OsixTakeSem(sem, OSIX_WAIT_FOREVER), 0);
    EXPECT_EQ(inAnotherThread([&] { return OsixGiveSem(sem); }), -1);
    EXPECT_EQ(takeInAnotherThread(0), -1); // still held
    EXPECT_EQ(OsixGiveSem(sem), 0);
    EXPECT_EQ(OsixGiveSem(sem), -1);
}

TEST_F(Semaphore, FiniteWaitEndsInTime)
{
    ASSERT_EQ(OsixTakeSem(sem, OSIX_WAIT_FOREVER), 0);
    const auto start = steady_clock::now();
    EXPECT_EQ(takeInAnotherThread(1050), -1); // more than a second: both fields of the deadline
    EXPECT_GE(steady_clock::now() - start, milliseconds(1045));
    EXPECT_EQ(OsixGiveSem(sem), 0);
}

TEST_F(Semaphore, WaiterGetsItWhenItIsGiven)
{
    for (int32_t wait : {OSIX_WAIT_FOREVER, -2, 60000, INT32_MAX}) {
        ASSERT_EQ(OsixTakeSem(sem, OSIX_WAIT_FOREVER), 0);
        std::atomic<bool> given = false;
        std::future<bool> waiter = std::async(std::launch::async, [&] {
            const bool taken = OsixTakeSem(sem, wait) == 0;
            const bool afterwards = given;
            return taken && OsixGiveSem(sem) == 0 && afterwards;
        });
        EXPECT_EQ(waiter.wait_for(milliseconds(20)), std::future_status::timeout);
        given = true;
        EXPECT_EQ(OsixGiveSem(sem), 0);
        EXPECT_TRUE(waiter.get()) << wait;
    }
}

TEST(SemaphoreDelete, AllowsNull)
{
    OsixDeleteSem(nullptr);
    SUCCEED();
}
