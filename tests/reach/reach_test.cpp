/**
 * Whether anything gets around a policy. Frames of a grammar that knows how Linux and its programs
 * read them, and nothing of how the packet program does, are sent to a host on which somebody
 * listens for everything.
 */
#include <cstdlib>
#include <iostream>

#include <gtest/gtest.h>

#include "judge.h"
#include "linux/bpf_probe.h"
#include "linux/test_net.h"
#include "scene.h"

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

/** Frames of the quick form; the full one sends twenty times as many. */
uint64_t frames(uint64_t quick)
{
    return isFull() ? 20 * quick : quick;
}

class Reach : public testing::TestWithParam<PortKind>
{
protected:
    void SetUp() override
    {
        if (std::string why = enterNameSpace(); !why.empty())
            GTEST_SKIP() << why;
        SKIP_WITHOUT_BPF();
        std::cout << "seed " << seed() << " (CPUDEFEND_REACH_SEED)" << std::endl;
        scene = std::make_unique<Scene>(GetParam(), seed());
    }

    void protect()
    {
        scene->protect();
        judge = std::make_unique<Judge>(scene.get());
    }

    void expectNoWays() const
    {
        for (const Way &way : judge->ways())
            ADD_FAILURE() << GetParam().name << ", " << way.text();
    }

    std::unique_ptr<Scene> scene;
    std::unique_ptr<Judge> judge;
};

/** Otherwise nothing that they do not see would say anything. */
TEST_P(Reach, EverybodySeesWhatNobodyHolds)
{
    std::vector<uint64_t> counts(scene->consumers().all().size());
    for (int i = 0; i < 4000; i += 50) {
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
    for (Denial denial : {Everything, Protocols, Ports})
        judge->deny(denial, frames(2500));
    expectNoWays();
}

TEST_P(Reach, NobodySeesMoreThanARate)
{
    protect();
    for (const RatePolicy &policy : ratePolicies())
        judge->limit(policy, frames(300));
    expectNoWays();
}

INSTANTIATE_TEST_SUITE_P(Ports, Reach, testing::ValuesIn(kinds),
                         [](const auto &each) { return std::string(each.param.name); });

} // namespace
