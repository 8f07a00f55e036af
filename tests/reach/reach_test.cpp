/**
 * Whether anything gets around a policy. Frames of a grammar that knows how Linux and its programs
 * read them, and nothing of how the packet program does, are sent to a host on which somebody
 * listens for everything.
 */
#include <cstdlib>
#include <iostream>

#include <gtest/gtest.h>

#include "denial.h"
#include "host.h"
#include "limits.h"
#include "linux/bpf_probe.h"
#include "linux/test_net.h"
#include "scene.h"

/** For the names of failed tests. */
void PrintTo(const PortKind &kind, std::ostream *out)
{
    *out << kind.name;
}

namespace
{

constexpr PortKind kinds[] = {
    {"VethNative", false, "native", false},  {"VethGeneric", false, "generic", false},
    {"TapNative", true, "native", false},    {"TapGeneric", true, "generic", false},
    {"BridgeNative", false, "native", true}, {"BridgeTap", true, "generic", true},
};

bool isFull()
{
    const char *asked = std::getenv("CPUDEFEND_REACH_FULL");
    return asked && std::string(asked) == "1";
}

uint64_t seed()
{
    const char *asked = std::getenv("CPUDEFEND_REACH_SEED");
    return asked ? std::strtoull(asked, nullptr, 0) : 1;
}

/** How often each step is done; in the full form so many times as often. */
uint64_t steps(uint64_t quick, uint64_t more)
{
    return isFull() ? more * quick : quick;
}

/** Of one seed, each test on each kind of port sends other frames. */
uint64_t seedOf(const std::string &test)
{
    return seed() * 1'000'003 + std::hash<std::string>()(test);
}

class Reach : public testing::TestWithParam<PortKind>
{
protected:
    void SetUp() override
    {
        if (std::string why = enterNameSpace(); !why.empty())
            GTEST_SKIP() << why;
        SKIP_WITHOUT_BPF();
        if (std::string why = missingFor(GetParam()); !why.empty())
            GTEST_SKIP() << why;
        std::cout << "seed " << seed() << " (CPUDEFEND_REACH_SEED)" << std::endl;
        scene = std::make_unique<Scene>(GetParam(), seedOf(testName()));
    }

    static std::string testName()
    {
        return testing::UnitTest::GetInstance()->current_test_info()->name();
    }

    void TearDown() override
    {
        if (scene)
            std::cout << scene->summary() << std::endl;
    }

    void protect()
    {
        scene->protect();
        court = std::make_unique<Court>(scene.get());
    }

    void expectNoWays() const
    {
        for (const Way &way : court->ways())
            ADD_FAILURE() << GetParam().name << ", " << way.text();
    }

    std::unique_ptr<Scene> scene;
    std::unique_ptr<Court> court;
};

/** Otherwise nothing that they do not see would say anything. */
TEST_P(Reach, EverybodySeesWhatNobodyHolds)
{
    std::vector<uint64_t> counts(scene->consumers().all().size());
    for (int i = 0; i < 15000; i += 50) {
        std::vector<Item> batch;
        for (int j = 0; j < 50; j++)
            batch.push_back(scene->next());
        const Seen seen = scene->watch(batch);
        for (size_t c = 0; c < counts.size(); c++)
            counts[c] += seen.by[c].count;
    }
    for (size_t c = 0; c < counts.size(); c++)
        EXPECT_GT(counts[c], 0u) << scene->consumers().all()[c].name;
}

TEST_P(Reach, NobodySeesWhatIsDenied)
{
    protect();
    deny(court.get(), Everything, steps(2000, 18));
    deny(court.get(), Protocols, steps(4000, 9)); // what is of none of them may hide them
    deny(court.get(), Ports, steps(4500, 18));    // few frames are for these
    expectNoWays();
}

TEST_P(Reach, NobodySeesMoreThanARate)
{
    protect();
    for (const RatePolicy &policy : ratePolicies())
        limit(court.get(), policy, steps(450, 8));
    expectNoWays();
}

TEST_P(Reach, NobodySeesASecondBurst)
{
    protect();
    limitByTurns(court.get(), steps(6, 10));
    expectNoWays();
}

INSTANTIATE_TEST_SUITE_P(Ports, Reach, testing::ValuesIn(kinds),
                         [](const auto &each) { return std::string(each.param.name); });

} // namespace
