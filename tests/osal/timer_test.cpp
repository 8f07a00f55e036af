#include "zynosal.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <functional>
#include <list>
#include <random>
#include <vector>

namespace
{

uint64_t now;

class Timers : public testing::Test
{
protected:
    void SetUp() override
    {
        now = 1000;
        osClockSet([] { return now; });
        timerListInit(&list);
    }
    void TearDown() override { osClockSet(nullptr); }

    /** Arm @a node to note @a id, and to do @a then. */
    void arm(tTimerNode *node, uint32_t period, int id, std::function<void()> then = {})
    {
        actions[id] = std::move(then);
        ASSERT_EQ(timerStart(&list, node, period, onTimer, this, static_cast<uintptr_t>(id), 0), 0);
    }

    /** The ids noted by one check, @a later milliseconds from now. */
    std::vector<int> check(uint64_t later = 0)
    {
        now += later;
        called.clear();
        timerListCheck(&list);
        return called;
    }

    static int32_t onTimer(void *self, uintptr_t id, uintptr_t)
    {
        Timers *test = static_cast<Timers *>(self);
        test->called.push_back(static_cast<int>(id));
        if (test->actions[id])
            test->actions[id]();
        return 0;
    }

    tTimerLst list;
    tTimerNode a = {};
    tTimerNode b = {};
    tTimerNode c = {};
    std::function<void()> actions[1000];
    std::vector<int> called;
};

using Ids = std::vector<int>;

bool isArmed(const tTimerNode &node)
{
    return node.link.next || node.link.prev;
}

uint64_t systemMs()
{
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<uint64_t>(time.tv_sec) * 1000 +
           static_cast<uint64_t>(time.tv_nsec) / 1000000;
}

} // namespace

TEST_F(Timers, ClockIsTheOneSet)
{
    now = 0x123456789abcdef0;
    EXPECT_EQ(osClockNow(), now);
}

TEST_F(Timers, ClockIsMonotonicTimeUnlessSet)
{
    osClockSet(nullptr);
    const uint64_t before = systemMs();
    const uint64_t reading = osClockNow();
    EXPECT_GE(reading, before);
    EXPECT_LE(reading, systemMs());
}

TEST_F(Timers, UpTimeCountsHundredthsAndWraps)
{
    now = 12349;
    EXPECT_EQ(sysGetUpTime(), 1234u);
    now = 42949672959; // the last millisecond before 2^32 hundredths
    EXPECT_EQ(sysGetUpTime(), 0xffffffffu);
    now++;
    EXPECT_EQ(sysGetUpTime(), 0u);
}

TEST_F(Timers, PassesItsArguments)
{
    static void *arg1;
    static uintptr_t arg2, arg3;
    const tTimerFunc note = [](void *x, uintptr_t y, uintptr_t z) -> int32_t {
        arg1 = x;
        arg2 = y;
        arg3 = z;
        return -1; // of no consequence
    };
    ASSERT_EQ(timerStart(&list, &a, 0, note, &b, UINTPTR_MAX, 3), 0);
    timerListCheck(&list);
    EXPECT_EQ(arg1, &b);
    EXPECT_EQ(arg2, UINTPTR_MAX);
    EXPECT_EQ(arg3, 3u);
}

TEST_F(Timers, StartWithoutACallbackChangesNothing)
{
    EXPECT_EQ(timerStart(&list, &b, 10, nullptr, nullptr, 0, 0), -1);
    EXPECT_FALSE(isArmed(b));
    arm(&a, 10, 1);
    EXPECT_EQ(timerStart(&list, &a, 500, nullptr, nullptr, 0, 0), -1);
    EXPECT_EQ(check(10), Ids{1});
}

TEST_F(Timers, NextTimeoutStopsAtTheLargestInteger)
{
    arm(&a, UINT32_MAX, 1);
    EXPECT_EQ(timerListNextTimeout(&list), INT32_MAX);
    now += uint64_t{UINT32_MAX} - INT32_MAX;
    EXPECT_EQ(timerListNextTimeout(&list), INT32_MAX);
    now++;
    EXPECT_EQ(timerListNextTimeout(&list), INT32_MAX - 1);
    EXPECT_EQ(check(INT32_MAX - 2), Ids{});
    EXPECT_EQ(check(1), Ids{1});
}

TEST_F(Timers, IsDisarmedBeforeItsCall)
{
    bool armed = true;
    arm(&a, 10, 1, [&] { armed = isArmed(a) || timerListNextTimeout(&list) != -1; });
    check(10);
    EXPECT_FALSE(armed);
}

TEST_F(Timers, CallbackThatRearmsForNowRunsOncePerCheck)
{
    std::function<void()> again = [&] { arm(&a, 0, 1, again); };
    arm(&a, 0, 1, again);
    EXPECT_EQ(check(), Ids{1});
    EXPECT_EQ(check(), Ids{1});
}

TEST_F(Timers, TimerArmedInACallbackWaitsForTheNextCheck)
{
    arm(&a, 10, 1, [&] {
        arm(&b, 5, 2);
        now += 100; // a callback that takes its time
    });
    arm(&c, 10, 3);
    EXPECT_EQ(check(10), (Ids{1, 3}));
    EXPECT_EQ(check(), Ids{2});
}

TEST_F(Timers, CallbackStopsAnotherThatIsDueInTheSameCheck)
{
    arm(&a, 10, 1, [&] {
        timerStop(&list, &b);
        memset(&b, 0xee, sizeof b); // its record may be reused at once
    });
    arm(&b, 10, 2);
    arm(&c, 10, 3);
    EXPECT_EQ(check(10), (Ids{1, 3}));
}

TEST_F(Timers, CallbackPutsOffAnotherThatIsDueInTheSameCheck)
{
    arm(&a, 10, 1, [&] { arm(&b, 20, 2); });
    arm(&b, 10, 2);
    EXPECT_EQ(check(10), Ids{1});
    EXPECT_EQ(check(19), Ids{});
    EXPECT_EQ(check(1), Ids{2});
}

TEST_F(Timers, AgreeWithAModelOverManyOperations)
{
    constexpr int COUNT = 40;
    struct Armed {
        int id;
        uint64_t expiry;
    };
    tTimerNode nodes[COUNT] = {};
    std::list<Armed> model; // in the order they are due
    std::mt19937 random(7);
    size_t calls = 0;

    const auto stop = [&](int id) { model.remove_if([&](const Armed &t) { return t.id == id; }); };
    for (int step = 0; step < 20000; step++) {
        const int id = static_cast<int>(random() % COUNT);
        const uint32_t period = random() % 50;
        switch (random() % 4) {
        case 0:
        case 1: {
            stop(id);
            arm(&nodes[id], period, id);
            const auto after = std::find_if(model.begin(), model.end(), [&](const Armed &t) {
                return t.expiry > now + period;
            });
            model.insert(after, {id, now + period});
            break;
        }
        case 2:
            stop(id);
            timerStop(&list, &nodes[id]);
            break;
        default:
            now += random() % 10;
            Ids due;
            for (; !model.empty() && model.front().expiry <= now; model.pop_front())
                due.push_back(model.front().id);
            calls += due.size();
            ASSERT_EQ(check(), due) << "at step " << step;
        }
        const int32_t left =
            model.empty() ? -1 : static_cast<int32_t>(std::max(model.front().expiry, now) - now);
        ASSERT_EQ(timerListNextTimeout(&list), left) << "at step " << step;
    }
    EXPECT_GT(calls, 1000u);
}
