/**
 * Counters of an entry, and slots that come and go with their ports.
 */
#include <net/if.h>

#include "flood_test.h"

namespace
{

using nlohmann::json;

constexpr char otherPort[] = "port1";
constexpr char otherPeer[] = "peer1";
constexpr char twoSlots[] = "pin = \"none\"\n"
                            "[[slot]]\nslot = 1\nports = [\"port0\"]\n"
                            "[[slot]]\nslot = 2\nports = [\"port1\"]\n";
constexpr uint32_t rate = 500;
constexpr char limit[] = "arp pps=500 mode=pps";
const json bothSlots = {"0/1", "0/2"};
const json firstSlot = {"0/1"};

struct Counted {
    uint64_t passed;
    uint64_t dropped;

    uint64_t sum() const { return passed + dropped; }
};

class Counters : public FloodTest
{
protected:
    Counted counted() const
    {
        const json entry = ctlJson(std::string("car show ") + policy + " arp").at(0);
        return {entry.at("passed"), entry.at("dropped")};
    }

    json slots() const
    {
        json names = json::array();
        for (const json &each : ctlJson("slot list"))
            names.push_back(each.at("slot"));
        return names;
    }

    /** Whether the daemon comes to know just these slots. */
    bool slotsBecome(const json &expected) const
    {
        return within(10s, [&] { return slots() == expected; });
    }

    /** Flood a port for some time. @return what was offered */
    uint64_t offer(const char *peer, Seconds time) const
    {
        Flood flood(peer, {arpRequest(attacker, wanted)}, std::thread::hardware_concurrency());
        measure(time);
        return flood.stop();
    }

    /** Whether the counters come to tell all that was offered, no more and no less. */
    testing::AssertionResult counts(uint64_t offered, uint64_t arrived) const
    {
        Counted now{};
        if (within(5s, [&] {
                now = counted();
                return now.sum() == offered && now.passed == arrived;
            }))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << now.passed << " + " << now.dropped << " counted, "
                                           << offered << " offered and " << arrived << " arrived";
    }

    /** Whether a flood of the port is held to the rate. */
    testing::AssertionResult isHeld(const char *which, const char *peer) const
    {
        Arrivals arrivals(which);
        offer(peer, 500ms);
        const auto all = arrivals.all(etherArp);
        if (all.size() <= bucketOf(rate) || excess(all, rate, bucketOf(rate)) > 0)
            return testing::AssertionFailure() << all.size() << " passed in half a second";
        return testing::AssertionSuccess();
    }
};

TEST_F(Counters, TellAllThatWasOffered)
{
    start();
    bind({limit});
    Arrivals arrivals(protectedPort);
    const uint64_t offered = offer(peerPort, 1s);
    EXPECT_TRUE(counts(offered, arrivals.count(etherArp)));
    EXPECT_GT(counted().dropped, 100'000u);
}

TEST_F(Counters, SumOverAllSlotsThatThePolicyIsBoundTo)
{
    addWire(otherPort, otherPeer);
    start(twoSlots);
    ASSERT_TRUE(slotsBecome(bothSlots)) << slots();
    bind({limit});
    Arrivals arrivals(protectedPort), others(otherPort);
    const uint64_t offered = offer(peerPort, 500ms) + offer(otherPeer, 500ms);
    EXPECT_TRUE(counts(offered, arrivals.count(etherArp) + others.count(etherArp)));
}

TEST_F(Counters, OfSlotsAreTheirOwn)
{
    addWire(otherPort, otherPeer);
    start(twoSlots);
    ASSERT_TRUE(slotsBecome(bothSlots)) << slots();
    makePolicy({limit});
    ctl(std::string("bind ") + policy + " --slot 0/2");
    Arrivals arrivals(protectedPort), others(otherPort);
    offer(peerPort, 300ms); // to a slot that has no policy
    const uint64_t offered = offer(otherPeer, 500ms);
    EXPECT_TRUE(counts(offered, others.count(etherArp)));
    EXPECT_GT(arrivals.count(etherArp), 1000u) << "a policy of another slot was in force";
}

class Slots : public Counters
{
};

TEST_F(Slots, HoldTheRateEachForItself)
{
    addWire(otherPort, otherPeer);
    start(twoSlots);
    ASSERT_TRUE(slotsBecome(bothSlots)) << slots();
    bind({limit});
    EXPECT_TRUE(isHeld(protectedPort, peerPort));
    EXPECT_TRUE(isHeld(otherPort, otherPeer));
}

TEST_F(Slots, AppearWhenTheirFirstPortDoes)
{
    start(twoSlots);
    ASSERT_TRUE(slotsBecome(firstSlot)) << slots();
    bind({limit});
    addWire(otherPort, otherPeer);
    ASSERT_TRUE(slotsBecome(bothSlots)) << slots();
    EXPECT_TRUE(within(10s, [] { return isProtected(otherPort); }));
    EXPECT_TRUE(isHeld(otherPort, otherPeer));
}

TEST_F(Slots, GoWithTheirLastPortAndComeBackProtected)
{
    addWire(otherPort, otherPeer);
    start(twoSlots);
    ASSERT_TRUE(slotsBecome(bothSlots)) << slots();
    bind({limit});
    Arrivals arrivals(protectedPort);
    uint64_t arrived = 0, offered = 0;
    for (int i = 0; i < 2; i++) {
        {
            Arrivals others(otherPort);
            offered += offer(peerPort, 300ms) + offer(otherPeer, 300ms);
            EXPECT_TRUE(
                counts(offered, arrived + arrivals.count(etherArp) + others.count(etherArp)));
            arrived += others.count(etherArp);
        }
        command(std::string("ip link delete ") + otherPeer);
        ASSERT_TRUE(slotsBecome(firstSlot)) << slots();
        addWire(otherPort, otherPeer);
        ASSERT_TRUE(slotsBecome(bothSlots)) << slots();
        ASSERT_TRUE(within(10s, [] { return isProtected(otherPort); }));
        EXPECT_TRUE(counts(offered, arrived + arrivals.count(etherArp))) << "after it came back";
    }
    EXPECT_TRUE(isHeld(otherPort, otherPeer));
    EXPECT_TRUE(isHeld(protectedPort, peerPort));
}

} // namespace
