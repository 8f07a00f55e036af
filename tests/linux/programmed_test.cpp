/**
 * From what was programmed at a place to the policy in force there, and what becomes of policers.
 */
#include <gtest/gtest.h>
#include <map>
#include <vector>

#include "base/failure.h"
#include "policy/policer_settings.h"
#include "policy/programmed.h"

using namespace zynlinux;

namespace
{

class PlaceTest : public testing::Test
{
protected:
    static tHwCpuDefendPktCarEntry car(uint32_t type, uint32_t pps, uint8_t bits = ZYN_HW_CAR_PPS)
    {
        tHwCpuDefendPktCarEntry entry{};
        entry.pktType = type;
        entry.pps = pps;
        entry.cir = 1000;
        entry.cbs = 6400;
        entry.queue = 5;
        entry.priority = 6;
        entry.res = bits;
        entry.op = ZYN_HW_OP_PERMIT;
        return entry;
    }

    static layer::tAclSetting permit(uint16_t number, uint32_t cir)
    {
        return {number, ZYN_HW_OP_PERMIT, cir, 6400, 6400};
    }

    static layer::tAclSetting deny(uint16_t number) { return {number, ZYN_HW_OP_DENY, 0, 0, 0}; }

    /** Put what is programmed in force. */
    cpd_policy settle()
    {
        Draft draft = place.draft();
        cpd_policy policy = draft.policy();
        draft.moveTokens(now);
        draft.settle(now);
        return policy;
    }

    /** Tokens of a packet policer that are there now. */
    uint64_t tokens(uint32_t policer)
    {
        cpd_policer copy = memory[policer];
        uint64_t passed = 0;
        for (;; passed++) {
            uint64_t next = cpd_police(copy.word[CPD_PACKETS], &copy.settings[CPD_PACKETS], 1, now);
            if (next == copy.word[CPD_PACKETS])
                return passed;
            copy.word[CPD_PACKETS] = next;
        }
    }

    void spend(uint32_t policer, uint64_t count)
    {
        cpd_policer &spent = memory[policer];
        for (uint64_t i = 0; i < count; i++)
            spent.word[CPD_PACKETS] =
                cpd_police(spent.word[CPD_PACKETS], &spent.settings[CPD_PACKETS], 1, now);
    }

    std::vector<cpd_policer> memory = std::vector<cpd_policer>(CPD_POLICERS);
    uint64_t now = 1'000'000'000'000; // ns
    PolicerPool pool{memory.data()};
    Programmed place{pool, 100};
};

TEST_F(PlaceTest, NothingProgrammedRulesNothing)
{
    Draft draft = place.draft();
    EXPECT_FALSE(draft.rulesAnything());
    for (const cpd_rule &rule : draft.policy().types)
        EXPECT_EQ(rule.flags, 0);
}

TEST_F(PlaceTest, BitsSayWhatIsInForceOfAnEntry)
{
    const std::vector<std::pair<int, int>> flagsOf = {
        {0, CPD_RULE_PACKETS},
        {ZYN_HW_CAR_PPS, CPD_RULE_PACKETS},
        {ZYN_HW_CAR_CIR, CPD_RULE_BYTES},
        {ZYN_HW_CAR_CBS, CPD_RULE_BYTES},
        {ZYN_HW_CAR_CIR | ZYN_HW_CAR_PPS, CPD_RULE_BYTES | CPD_RULE_PACKETS},
        {ZYN_HW_CAR_QUEUE, CPD_RULE_PACKETS | CPD_RULE_QUEUE},
        {ZYN_HW_CAR_PRIORITY, CPD_RULE_PACKETS | CPD_RULE_PRIORITY}};
    for (const auto &[bits, flags] : flagsOf) {
        Programmed other(pool, 100);
        other.cars.add(car(CPD_ARP, 100, static_cast<uint8_t>(bits)));
        Draft draft = other.draft();
        EXPECT_TRUE(draft.rulesAnything());
        EXPECT_EQ(draft.policy().types[CPD_ARP].flags, flags) << bits;
        EXPECT_EQ(draft.policy().types[CPD_ARP].queue, 5);
        EXPECT_EQ(draft.policy().types[CPD_ARP].priority, 6);
    }
}

TEST_F(PlaceTest, OnlyDhcpWithoutAnEntryHasAStandIn)
{
    for (bool own : {false, true})
        for (bool snooping : {false, true}) {
            Programmed other(pool, 100);
            for (uint16_t type : {CPD_DHCPCLIENT, CPD_DHCPSERVER, CPD_DHCP6REPLY, CPD_DHCP6REQUEST})
                if (own)
                    other.cars.add(car(type, 100));
            for (uint16_t type : {CPD_DHCPSNOOPIP, CPD_DHCPSNOOPIP6})
                if (snooping)
                    other.cars.add(car(type, 100));
            std::map<int, int> expected;
            for (int type = 0; type < CPD_TYPES; type++)
                expected[type] = 0;
            if (snooping && !own) {
                expected[CPD_DHCPCLIENT] = expected[CPD_DHCPSERVER] = CPD_DHCPSNOOPIP;
                expected[CPD_DHCP6REPLY] = expected[CPD_DHCP6REQUEST] = CPD_DHCPSNOOPIP6;
            }
            Draft draft = other.draft();
            for (const auto &[type, as] : expected)
                EXPECT_EQ(draft.policy().stand_in[type], as) << type;
        }
}

TEST_F(PlaceTest, DenyNeedsNoPolicer)
{
    tHwCpuDefendPktCarEntry entry = car(CPD_ARP, 100);
    entry.op = ZYN_HW_OP_DENY;
    place.cars.add(entry);
    place.acls.push_back(deny(7));
    cpd_policy policy = settle();
    EXPECT_EQ(policy.types[CPD_ARP].flags, CPD_RULE_DENY);
    EXPECT_EQ(policy.types[CPD_ARP].policer, 0u);
    EXPECT_EQ(policy.acls[0].flags, CPD_RULE_DENY);
    EXPECT_EQ(policy.acls[0].policer, 0u);
}

TEST_F(PlaceTest, AclEntriesStandInTheOrderProgrammed)
{
    place.acls = {permit(30, 64), deny(10), permit(20, 128)};
    cpd_policy policy = settle();
    ASSERT_EQ(policy.acl_count, 3u);
    EXPECT_EQ(policy.acl_number[0], 30);
    EXPECT_EQ(policy.acl_number[1], 10);
    EXPECT_EQ(policy.acl_number[2], 20);
    EXPECT_EQ(policy.acls[0].flags, CPD_RULE_BYTES);
    EXPECT_EQ(policy.acls[1].flags, CPD_RULE_DENY);
    EXPECT_NE(policy.acls[0].policer, policy.acls[2].policer);
    EXPECT_EQ(memory[policy.acls[2].policer].settings[CPD_BYTES].depth,
              byteSettings(128, 6400).depth);
}

TEST_F(PlaceTest, NewestAclEntryWithTheSameSettingsIsRemoved)
{
    place.acls = {permit(30, 64), deny(10), permit(30, 64), permit(30, 65)};
    EXPECT_FALSE(place.removeAcl(permit(30, 66)));
    EXPECT_TRUE(place.removeAcl(permit(30, 64)));
    ASSERT_EQ(place.acls.size(), 3u);
    EXPECT_EQ(place.aclNumbers(), (std::vector<uint16_t>{30, 10, 30}));
    EXPECT_EQ(place.acls[2].cir, 65u);
}

TEST_F(PlaceTest, SameRateKeepsItsPolicer)
{
    place.cars.add(car(CPD_ARP, 100));
    uint32_t first = settle().types[CPD_ARP].policer;
    place.cars.add(car(CPD_DOT1X, 50));
    EXPECT_EQ(settle().types[CPD_ARP].policer, first);
    place.cars.add(car(CPD_ARP, 100, 0)); // other bits, the same rate
    EXPECT_EQ(settle().types[CPD_ARP].policer, first);
}

TEST_F(PlaceTest, ChangeOfRateTakesAnotherPolicerWithTheTokensThatWereLeft)
{
    place.cars.add(car(CPD_ARP, 50'000)); // 1000 at once
    uint32_t first = settle().types[CPD_ARP].policer;
    spend(first, 700);
    place.cars.add(car(CPD_ARP, 40'000));
    uint32_t second = settle().types[CPD_ARP].policer;
    EXPECT_NE(second, first);
    EXPECT_EQ(tokens(second), 300u);
}

TEST_F(PlaceTest, NoTokenIsSpentTwiceWhileOnePolicerTakesThePlaceOfAnother)
{
    place.cars.add(car(CPD_ARP, 50'000)); // 1000 at once
    uint32_t first = settle().types[CPD_ARP].policer;
    spend(first, 300);
    place.cars.add(car(CPD_ARP, 40'000)); // 800 at once
    Draft draft = place.draft();
    EXPECT_EQ(tokens(first), 700u); // a draft alone changes nothing
    draft.moveTokens(now);
    EXPECT_EQ(tokens(first), 0u);
    EXPECT_EQ(tokens(draft.policy().types[CPD_ARP].policer), 700u);
    draft.settle(now);
    EXPECT_EQ(tokens(draft.policy().types[CPD_ARP].policer), 700u);
}

TEST_F(PlaceTest, WhatTheFormerPolicerStillLetPassIsChargedToItsSuccessor)
{
    place.cars.add(car(CPD_ARP, 50'000));
    uint32_t first = settle().types[CPD_ARP].policer;
    place.cars.add(car(CPD_ARP, 40'000));
    Draft draft = place.draft();
    draft.moveTokens(now);
    const uint64_t later = now + 2'000'000; // 2 ms bring the former one 100 tokens
    cpd_policer &former = memory[first];
    for (int i = 0; i < 60; i++)
        former.word[CPD_PACKETS] =
            cpd_police(former.word[CPD_PACKETS], &former.settings[CPD_PACKETS], 1, later);
    draft.settle(later);
    cpd_policer next = memory[draft.policy().types[CPD_ARP].policer];
    uint64_t debt = cpd_debt(next.word[CPD_PACKETS], &next.settings[CPD_PACKETS], later);
    EXPECT_EQ(debt, cpd_cost(60, &next.settings[CPD_PACKETS]));
}

TEST_F(PlaceTest, UndoneDraftGivesTheTokensBack)
{
    place.cars.add(car(CPD_ARP, 40'000));
    uint32_t first = settle().types[CPD_ARP].policer;
    spend(first, 300);
    place.cars.add(car(CPD_ARP, 50'000));
    {
        Draft draft = place.draft();
        draft.moveTokens(now);
        EXPECT_EQ(tokens(first), 0u);
        draft.undo(now);
    }
    EXPECT_EQ(tokens(first), 500u);
}

TEST_F(PlaceTest, WhatThePolicerLetPassUntilTheDraftWasUndoneIsChargedToIt)
{
    place.cars.add(car(CPD_ARP, 1000)); // 20 at once
    uint32_t first = settle().types[CPD_ARP].policer;
    spend(first, 20);
    place.cars.add(car(CPD_ARP, 2000));
    Draft draft = place.draft();
    draft.moveTokens(now);
    now += 20'000'000; // which bring it 20 tokens
    EXPECT_EQ(tokens(first), 20u);
    spend(first, 15);
    draft.undo(now);
    EXPECT_EQ(tokens(first), 5u);
}

/** What part of the bucket is full, in hundredths. */
uint64_t filled(const cpd_policer &policer, cpd_kind kind, uint64_t now)
{
    const cpd_settings &settings = policer.settings[kind];
    return 100 - cpd_debt(policer.word[kind], &settings, now) * 100 / settings.depth;
}

TEST_F(PlaceTest, ChangeOfKindCarriesOverTheSameShareOfTheBucket)
{
    constexpr uint32_t packets = 0x20, bytes = 0xc0;
    place.cars.add(car(CPD_ARP, 50'000, packets));
    uint32_t policer = settle().types[CPD_ARP].policer;
    spend(policer, 750); // of 1000
    place.cars.add(car(CPD_ARP, 50'000, bytes));
    policer = settle().types[CPD_ARP].policer;
    EXPECT_EQ(filled(memory[policer], CPD_BYTES, now), 25u);
    place.cars.add(car(CPD_ARP, 50'000, packets));
    policer = settle().types[CPD_ARP].policer;
    EXPECT_EQ(tokens(policer), 250u);
}

TEST_F(PlaceTest, NoNumberOfChangesOfKindGivesASecondBurst)
{
    uint64_t passed = 0;
    for (int i = 0; i < 50; i++) {
        place.cars.add(car(CPD_ARP, 50'000, i % 2 == 0 ? 0x20 : i % 4 == 1 ? 0xc0 : 0xe0));
        const uint32_t policer = settle().types[CPD_ARP].policer;
        if (i % 2 != 0)
            continue;
        passed += tokens(policer);
        spend(policer, tokens(policer));
    }
    EXPECT_EQ(passed, 1000u);
}

TEST_F(PlaceTest, KindThatIsAddedStartsWithTheShareOfTheOther)
{
    place.cars.add(car(CPD_ARP, 50'000, 0x20));
    spend(settle().types[CPD_ARP].policer, 400);
    place.cars.add(car(CPD_ARP, 50'000, 0xe0));
    const uint32_t policer = settle().types[CPD_ARP].policer;
    EXPECT_EQ(tokens(policer), 600u);
    EXPECT_EQ(filled(memory[policer], CPD_BYTES, now), 60u);
}

TEST_F(PlaceTest, WhatTheFormerKindStillLetPassIsChargedToTheNext)
{
    place.cars.add(car(CPD_ARP, 50'000, 0x20));
    const uint32_t first = settle().types[CPD_ARP].policer;
    place.cars.add(car(CPD_ARP, 50'000, 0xc0));
    Draft draft = place.draft();
    draft.moveTokens(now);
    now += 2'000'000; // 2 ms bring the former one 100 tokens
    spend(first, 100);
    draft.settle(now);
    EXPECT_NEAR(filled(memory[draft.policy().types[CPD_ARP].policer], CPD_BYTES, now), 90, 1);
}

TEST_F(PlaceTest, UndoneChangeOfKindGivesTheTokensBack)
{
    place.cars.add(car(CPD_ARP, 50'000, 0x20));
    const uint32_t first = settle().types[CPD_ARP].policer;
    spend(first, 300);
    place.cars.add(car(CPD_ARP, 50'000, 0xc0));
    Draft draft = place.draft();
    draft.moveTokens(now);
    EXPECT_EQ(tokens(first), 0u);
    draft.undo(now);
    EXPECT_EQ(tokens(first), 700u);
}

TEST_F(PlaceTest, UnreadIsLimitedWhileAnythingIsInForce)
{
    EXPECT_EQ(settle().types[CPD_UNREAD].flags, 0);
    place.cars.add(car(CPD_ARP, 50'000));
    const cpd_rule unread = settle().types[CPD_UNREAD];
    EXPECT_EQ(unread.flags, CPD_RULE_PACKETS);
    EXPECT_EQ(tokens(unread.policer), packetBucket(100));
    place.cars.add(car(CPD_ARP, 10'000));
    EXPECT_EQ(settle().types[CPD_UNREAD].policer, unread.policer);
    place.cars = {};
    EXPECT_EQ(settle().types[CPD_UNREAD].flags, 0);
    place.acls = {deny(10)};
    EXPECT_EQ(settle().types[CPD_UNREAD].policer, unread.policer);
}

TEST_F(PlaceTest, UnreadIsDroppedAtARateOfZero)
{
    Programmed other(pool, 0);
    other.acls = {deny(10)};
    EXPECT_EQ(other.draft().policy().types[CPD_UNREAD].flags, CPD_RULE_DENY);
}

TEST_F(PlaceTest, EntryThatComesBackFindsTheTokensThatItLeft)
{
    place.cars.add(car(CPD_ARP, 50'000));
    spend(settle().types[CPD_ARP].policer, 990);
    place.cars.remove(car(CPD_ARP, 50'000));
    EXPECT_EQ(settle().types[CPD_ARP].flags, 0);
    place.cars.add(car(CPD_ARP, 50'000));
    EXPECT_EQ(tokens(settle().types[CPD_ARP].policer), 10u);
}

TEST_F(PlaceTest, AclThatComesBackFindsTheTokensThatItLeft)
{
    place.acls = {permit(30, 64)};
    uint32_t first = settle().acls[0].policer;
    place.acls.clear();
    settle();
    place.acls = {deny(10), permit(30, 64)};
    EXPECT_EQ(settle().acls[1].policer, first);
}

TEST_F(PlaceTest, DraftThatIsNotSettledGivesItsPolicersBack)
{
    place.cars.add(car(CPD_ARP, 100));
    for (int i = 0; i < 2 * CPD_POLICERS; i++)
        place.draft(); // would throw once they had run out
    EXPECT_EQ(settle().types[CPD_ARP].flags, CPD_RULE_PACKETS);
}

TEST_F(PlaceTest, AnyNumberOfChangesNeverUsesUpThePolicers)
{
    for (uint32_t i = 0; i < 3 * CPD_POLICERS; i++) {
        place.cars.add(car(CPD_ARP, 100 + i % 7));
        place.acls = {permit(static_cast<uint16_t>(1 + i % 1000), 64 + i % 5)};
        settle();
        place.cars.remove(car(CPD_ARP, 100 + i % 7));
    }
    for (uint32_t i = 1; i < CPD_POLICERS / 2; i++)
        pool.take();
}

TEST_F(PlaceTest, InheritedPolicersGoOnUnderTheSameRate)
{
    place.cars.add(car(CPD_ARP, 50'000));
    place.acls = {permit(30, 64)};
    cpd_policy left = settle();
    spend(left.types[CPD_ARP].policer, 600);

    PolicerPool otherPool(memory.data());
    Programmed successor(otherPool, 100);
    successor.inherit(left);
    successor.cars.add(car(CPD_ARP, 50'000));
    successor.acls = {permit(30, 64), permit(31, 64)};
    Draft draft = successor.draft();
    EXPECT_EQ(draft.policy().types[CPD_ARP].policer, left.types[CPD_ARP].policer);
    EXPECT_EQ(draft.policy().acls[0].policer, left.acls[0].policer);
    EXPECT_NE(draft.policy().acls[1].policer, left.acls[0].policer);
    EXPECT_NE(draft.policy().acls[1].policer, left.types[CPD_ARP].policer);
    EXPECT_EQ(tokens(left.types[CPD_ARP].policer), 400u);
}

TEST_F(PlaceTest, InheritedNonsenseIsNotFollowed)
{
    cpd_policy nonsense{};
    nonsense.acl_count = UINT32_MAX;
    for (cpd_rule &rule : nonsense.types)
        rule = {CPD_RULE_PACKETS, 0, 0, 0, UINT32_MAX};
    for (cpd_rule &rule : nonsense.acls)
        rule = {CPD_RULE_BYTES, 0, 0, 0, 0};
    place.inherit(nonsense);
    place.cars.add(car(CPD_ARP, 100));
    uint32_t policer = settle().types[CPD_ARP].policer;
    EXPECT_GT(policer, 0u);
    EXPECT_LT(policer, static_cast<uint32_t>(CPD_POLICERS));
}

TEST(PolicerPoolTest, GivesEachNumberOnceAndNeverZero)
{
    std::vector<cpd_policer> memory(CPD_POLICERS);
    PolicerPool pool(memory.data());
    std::vector<bool> seen(CPD_POLICERS);
    for (uint32_t i = 1; i < CPD_POLICERS; i++) {
        uint32_t index = pool.take();
        ASSERT_GT(index, 0u);
        ASSERT_FALSE(seen[index]);
        seen[index] = true;
    }
    EXPECT_THROW(pool.take(), Failure);
    pool.release(17);
    EXPECT_EQ(pool.take(), 17u);
    EXPECT_FALSE(pool.take(17));
    EXPECT_FALSE(pool.take(0));
    EXPECT_FALSE(pool.take(CPD_POLICERS));
}

} // namespace
