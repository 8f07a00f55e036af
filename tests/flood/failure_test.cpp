/**
 * A daemon that dies, is followed by another, or is told to stop, while the flood goes on.
 */
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "flood_test.h"

namespace
{

constexpr uint32_t rate = 500;
constexpr char limit[] = "arp pps=500 mode=pps";
constexpr Seconds grace = 2s; // as in the platform file

class Failure : public FloodTest
{
protected:
    void SetUp() override
    {
        FloodTest::SetUp();
        if (IsSkipped())
            return;
        mkdir(bpf.c_str(), 0700);
        if (mount("none", bpf.c_str(), "bpf", 0, nullptr) != 0)
            GTEST_SKIP() << "no BPF file system can be mounted here: " << std::strerror(errno);
    }

    void TearDown() override
    {
        daemon.reset();
        umount2(bpf.c_str(), MNT_DETACH);
    }

    void startPinned(const std::string &more = "")
    {
        start(std::string(onePort) + "pin = \"" + pin + "\"\ngrace = 2\n" + more);
    }

    void startFlood()
    {
        arrivals.emplace(protectedPort);
        flood.emplace(peerPort, std::vector<Octets>{arpRequest(attacker, wanted)},
                      std::thread::hardware_concurrency());
    }

    /** Let some time of the flood go by. @return whether the limit was held, and packets still
     * passed */
    testing::AssertionResult isHeld(Seconds time) const
    {
        const auto begin = Clock::now();
        measure(time);
        const auto end = Clock::now();
        const double passed =
            static_cast<double>(between(arrivals->all(etherArp), begin, end).size());
        // The rest of what may pass is for the pauses of the flood.
        if (passed < 0.1 * rate * time.count())
            return testing::AssertionFailure() << passed << " packets passed, far fewer than may";
        const double more = excess(arrivals->all(etherArp), rate, bucketOf(rate));
        if (more > 0)
            return testing::AssertionFailure() << more << " packets above the rate passed";
        return testing::AssertionSuccess();
    }

    /** Whether the flood comes through, within a time. */
    bool isOpen(Seconds time) const
    {
        return within(std::chrono::duration_cast<std::chrono::milliseconds>(time), [this] {
            const uint64_t before = arrivals->count(etherArp);
            measure(20ms);
            return arrivals->count(etherArp) - before > rate;
        });
    }

    const std::string bpf = scratch.path("bpf");
    const std::string pin = bpf + "/cpudefend";
    std::optional<Arrivals> arrivals;
    std::optional<Flood> flood;
};

TEST_F(Failure, NothingAboveTheRatePassesWhenTheDaemonIsKilledAndFollowedByAnother)
{
    startPinned();
    bind({limit});
    startFlood();
    ASSERT_TRUE(isHeld(500ms));
    for (int i = 0; i < 3; i++) {
        daemon->stop(SIGKILL);
        ASSERT_TRUE(isProtected(protectedPort)) << i;
        ASSERT_TRUE(isHeld(500ms)) << "without a daemon, " << i;
        restart();
        ASSERT_TRUE(isProtected(protectedPort)) << i;
        ASSERT_TRUE(isHeld(300ms)) << "with a new daemon, " << i;
    }
    bind({limit});
    // Beyond the time at which what had not been bound again would have been dropped.
    EXPECT_TRUE(isHeld(grace + 1s)) << "with the policy bound again";
    flood->stop();
    EXPECT_LE(excess(arrivals->all(etherArp), rate, bucketOf(rate)), 0);
}

TEST_F(Failure, AnotherRateBoundByTheSuccessorGivesNoSecondBurst)
{
    startPinned();
    bind({limit});
    startFlood();
    ASSERT_TRUE(isHeld(500ms));
    daemon->stop(SIGKILL);
    restart();
    bind({"arp pps=100 mode=pps"});
    const auto bound = Clock::now();
    measure(grace + 1s);
    flood->stop();
    const auto all = arrivals->all(etherArp);
    EXPECT_LE(excess(all, rate, bucketOf(rate)), 0);
    const auto later = between(all, bound, Clock::now());
    EXPECT_LE(excess(later, 100, bucketOf(100)), 0);
    EXPECT_GE(static_cast<double>(later.size()), 0.1 * 100 * (grace + 1s).count());
}

TEST_F(Failure, WhatIsNotBoundAgainIsDroppedAfterTheGraceTimeAndNotBefore)
{
    startPinned();
    bind({limit});
    startFlood();
    ASSERT_TRUE(isHeld(500ms));
    daemon->stop(SIGKILL);
    const auto successor = Clock::now();
    restart();
    EXPECT_TRUE(isOpen(grace + 5s)) << "what nobody bound again is still in force";
    flood->stop();
    const auto before =
        arrivals->until(etherArp, successor + std::chrono::duration_cast<Clock::duration>(grace));
    EXPECT_LE(excess(before, rate, bucketOf(rate)), 0);
    EXPECT_TRUE(isProtected(protectedPort)) << "the port itself stays protected";
}

TEST_F(Failure, StopThatLeavesTheProtectionKeepsHoldingTheRate)
{
    startPinned("on_stop = \"leave\"\n");
    bind({limit});
    startFlood();
    ASSERT_TRUE(isHeld(500ms));
    const int status = daemon->stop(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_TRUE(isProtected(protectedPort));
    EXPECT_TRUE(isHeld(1s));
}

TEST_F(Failure, StopThatRemovesTheProtectionLeavesNothingBehind)
{
    startPinned();
    bind({limit});
    startFlood();
    ASSERT_TRUE(isHeld(500ms));
    const int status = daemon->stop(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_TRUE(within(2s, [] { return !isProtected(protectedPort); }));
    EXPECT_TRUE(isOpen(2s));
    flood->stop();
    EXPECT_EQ(ingressPrograms(protectedPort), 1u) << "more than the one that counts here";
    EXPECT_TRUE(!std::filesystem::exists(pin) || std::filesystem::is_empty(pin));
}

} // namespace
