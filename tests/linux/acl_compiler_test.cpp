#include <algorithm>
#include <atomic>
#include <ctime>
#include <gtest/gtest.h>

#include "acl_fixture.h"

using namespace zynlinux;

namespace
{

std::string describe(const cpd_acl_key &key)
{
    char text[256];
    std::snprintf(text, sizeof text,
                  "IPv%d, protocol %u, %08x:%08x:%08x:%08x port %u to %08x:%08x:%08x:%08x port %u, "
                  "extra 0x%x",
                  key.v6 ? 6 : 4, key.protocol, key.source[0], key.source[1], key.source[2],
                  key.source[3], key.source_port, key.destination[0], key.destination[1],
                  key.destination[2], key.destination[3], key.destination_port, key.extra);
    return text;
}

/** How many of the packets some list selected. */
size_t expectSameAsWalk(const BoundAcls &lists, const CompiledAcls &compiled, AclDice &dice,
                        int packets)
{
    size_t selected = 0;
    for (int i = 0; i < packets; i++) {
        cpd_acl_key key =
            dice.oneIn(3) ? dice.packet()
                          : dice.packetNear(lists[dice.below(static_cast<uint32_t>(lists.size()))]);
        uint32_t expected = walkAcls(lists, key);
        selected += expected != 0;
        EXPECT_EQ(compiled.decide(key), expected) << describe(key);
        if (testing::Test::HasFailure())
            break;
    }
    return selected;
}

class RandomAcls : public testing::TestWithParam<std::pair<uint32_t, uint32_t>>
{
};

TEST_P(RandomAcls, AreLookedUpAsTheyAreWalked)
{
    auto [lists, rules] = GetParam();
    size_t selected = 0, all = 0;
    for (uint32_t seed = 0; seed < 60 && !HasFailure(); seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        AclDice dice(seed);
        BoundAcls bound = dice.lists(1 + dice.below(lists), rules);
        CompiledAcls compiled(bound);
        ASSERT_TRUE(compiled.fits());
        selected += expectSameAsWalk(bound, compiled, dice, 2000);
        all += 2000;
    }
    // Else the packets tell nothing.
    EXPECT_GT(selected, all / 20);
    EXPECT_LT(selected, all - all / 20);
}

INSTANTIATE_TEST_SUITE_P(Sizes, RandomAcls,
                         testing::Values(std::pair(1u, 1u), std::pair(1u, 4u), std::pair(2u, 8u),
                                         std::pair(6u, 6u), std::pair(4u, 40u),
                                         std::pair(8u, 100u)));

// ---- What rules mean, one by one

cpd_acl_key packet(uint8_t protocol, uint32_t source = 0xc0000201,
                   uint32_t destination = 0xc6336407)
{
    cpd_acl_key key{};
    key.source[0] = source;
    key.destination[0] = destination;
    key.source_port = key.destination_port = CPD_ACL_NO_PORT;
    key.extra = CPD_ACL_NO_EXTRA;
    key.protocol = protocol;
    return key;
}

cpd_acl_key udp(uint32_t sourcePort, uint32_t destinationPort)
{
    cpd_acl_key key = packet(17);
    key.source_port = sourcePort;
    key.destination_port = destinationPort;
    return key;
}

cpd_acl_key withExtra(uint8_t protocol, uint32_t extra)
{
    cpd_acl_key key = packet(protocol);
    key.extra = extra;
    return key;
}

/** What one list of IPv4 says. */
class OneAcl
{
public:
    explicit OneAcl(const std::vector<std::string> &rules)
        : compiled_({aclList(AclFamily::Ipv4, rules)})
    {
        EXPECT_TRUE(compiled_.fits());
    }

    bool selects(const cpd_acl_key &key) const { return compiled_.decide(key) == 1; }

private:
    CompiledAcls compiled_;
};

TEST(CompiledAcl, FirstRuleThatMatchesDecides)
{
    OneAcl acl({"deny ip 192.0.2.1 any", "permit ip 192.0.2.0/24 any", "deny ip any any"});
    EXPECT_FALSE(acl.selects(packet(6, 0xc0000201)));
    EXPECT_TRUE(acl.selects(packet(6, 0xc0000202)));
    EXPECT_FALSE(acl.selects(packet(6, 0xc0000302)));
}

TEST(CompiledAcl, ThatDeniesLeavesThePacketToTheNext)
{
    CompiledAcls compiled({aclList(AclFamily::Ipv4, {"deny ip 192.0.2.1 any", "permit ip any any"}),
                           aclList(AclFamily::Ipv4, {"permit udp any any"})});
    EXPECT_EQ(compiled.decide(packet(17, 0xc0000201)), 2u);
    EXPECT_EQ(compiled.decide(packet(17, 0xc0000202)), 1u);
    EXPECT_EQ(compiled.decide(packet(6, 0xc0000201)), 0u);
}

TEST(CompiledAcl, MayBeBoundTwice)
{
    AclList list = aclList(AclFamily::Ipv4, {"permit udp any any"});
    EXPECT_EQ(CompiledAcls({list, list}).decide(packet(17)), 1u);
}

TEST(CompiledAcl, OfOneFamilyLeavesTheOtherAlone)
{
    CompiledAcls compiled({aclList(AclFamily::Ipv6, {"permit ip any any"}),
                           aclList(AclFamily::Ipv4, {"permit ip any any"})});
    cpd_acl_key key = packet(6);
    EXPECT_EQ(compiled.decide(key), 2u);
    key.v6 = 1;
    EXPECT_EQ(compiled.decide(key), 1u);
}

TEST(CompiledAcl, NoneSelectsNothing)
{
    CompiledAcls compiled({});
    EXPECT_TRUE(compiled.fits());
    EXPECT_EQ(compiled.decide(packet(6)), 0u);
}

TEST(CompiledAcl, PortsAreRangesWithBothEnds)
{
    OneAcl acl({"permit udp any port 1024-65535 any port 161"});
    EXPECT_TRUE(acl.selects(udp(1024, 161)));
    EXPECT_TRUE(acl.selects(udp(65535, 161)));
    EXPECT_FALSE(acl.selects(udp(1023, 161)));
    EXPECT_FALSE(acl.selects(udp(1024, 160)));
    EXPECT_FALSE(acl.selects(udp(1024, 162)));
}

TEST(CompiledAcl, PortIsNotInALaterFragmentNorInACutPacket)
{
    OneAcl acl({"permit udp any any port 0-65535"});
    EXPECT_TRUE(acl.selects(udp(0, 0)));
    EXPECT_FALSE(acl.selects(packet(17)));
    EXPECT_FALSE(acl.selects(withExtra(17, CPD_ACL_FRAGMENT)));
}

TEST(CompiledAcl, TypeIsNotInALaterFragmentNorInACutPacket)
{
    OneAcl acl({"permit icmp any any type 8"});
    EXPECT_TRUE(acl.selects(withExtra(1, 8)));
    EXPECT_FALSE(acl.selects(withExtra(1, 0)));
    EXPECT_FALSE(acl.selects(withExtra(1, CPD_ACL_NO_EXTRA)));
    EXPECT_FALSE(acl.selects(withExtra(1, CPD_ACL_FRAGMENT)));
}

TEST(CompiledAcl, FlagsAreSetOrClearAndTheOthersAreFree)
{
    OneAcl acl({"permit tcp any any flags syn,!ack"});
    for (uint32_t flags = 0; flags < 256; flags++)
        EXPECT_EQ(acl.selects(withExtra(6, flags)), (flags & 0x12) == 0x02) << flags;
}

TEST(CompiledAcl, FlagsAreNotInALaterFragmentNorInACutPacket)
{
    OneAcl acl({"permit tcp any any flags !syn"});
    EXPECT_TRUE(acl.selects(withExtra(6, 0)));
    EXPECT_FALSE(acl.selects(withExtra(6, CPD_ACL_NO_EXTRA)));
    EXPECT_FALSE(acl.selects(withExtra(6, CPD_ACL_FRAGMENT)));
}

TEST(CompiledAcl, FragmentsAreTheLaterOnesOfAnyProtocol)
{
    OneAcl acl({"permit ip any any fragments"});
    EXPECT_TRUE(acl.selects(withExtra(17, CPD_ACL_FRAGMENT)));
    EXPECT_TRUE(acl.selects(withExtra(200, CPD_ACL_FRAGMENT)));
    EXPECT_FALSE(acl.selects(udp(1, 2)));
    EXPECT_FALSE(acl.selects(withExtra(6, CPD_ACL_NO_EXTRA)));
}

TEST(CompiledAcl, RuleWithoutPortsMatchesFragmentsToo)
{
    OneAcl acl({"permit udp any any"});
    EXPECT_TRUE(acl.selects(withExtra(17, CPD_ACL_FRAGMENT)));
    EXPECT_TRUE(acl.selects(udp(1, 2)));
}

TEST(CompiledAcl, ChainsOfNestedPrefixesAreFollowedToTheEnd)
{
    std::vector<std::string> rules;
    for (int length = 128; length > 0; length--)
        rules.push_back(std::string(length % 2 ? "deny" : "permit") + " ip " +
                        (length == 128 ? "::" : "::/" + std::to_string(length)) + " any");
    CompiledAcls compiled({aclList(AclFamily::Ipv6, rules)});
    ASSERT_TRUE(compiled.fits());
    for (unsigned bit = 0; bit < 128; bit++) {
        cpd_acl_key key = packet(6, 0, 0);
        key.v6 = 1;
        key.source[bit / 32] = 0x80000000u >> bit % 32;
        // The address leaves the chain at this bit: the prefix of just that length holds.
        EXPECT_EQ(compiled.decide(key), bit > 0 && bit % 2 == 0 ? 1u : 0u) << bit;
    }
}

// ---- Many rules of the worst shapes

struct Shape {
    const char *name;
    AclFamily family;
    std::string (*rule)(AclDice &dice, uint32_t n);
    bool fitsAll; /**< whether 4,096 fit; where they don't, that may be said of fewer, too */
};

std::string v4Address(AclDice &dice)
{
    std::string text = std::to_string(1 + dice.below(223));
    for (int i = 0; i < 3; i++)
        text += '.' + std::to_string(dice.below(256));
    return text;
}

std::string v6Address(AclDice &dice)
{
    char text[64];
    std::snprintf(text, sizeof text, "2001:db8:%x:%x::%x:%x", dice.below(4), dice.below(65536),
                  dice.below(65536), dice.below(65536));
    return text;
}

std::string range(uint32_t low, uint32_t high)
{
    return std::to_string(low) + '-' + std::to_string(high);
}

std::string action(AclDice &dice)
{
    return dice.oneIn(3) ? "deny " : "permit ";
}

const Shape shapes[] = {
    {"Sources", AclFamily::Ipv4,
     [](AclDice &dice, uint32_t) { return action(dice) + "ip " + v4Address(dice) + " any"; }, true},
    {"SourcesOfIpv6", AclFamily::Ipv6,
     [](AclDice &dice, uint32_t) { return action(dice) + "ip " + v6Address(dice) + " any"; }, true},
    {"SourcesEachWithAPort", AclFamily::Ipv4,
     [](AclDice &dice, uint32_t n) {
         return action(dice) + "tcp " + v4Address(dice) + " any port " + std::to_string(n);
     },
     true},
    {"Pairs", AclFamily::Ipv4,
     [](AclDice &dice, uint32_t) {
         return action(dice) + "udp " + v4Address(dice) + ' ' + v4Address(dice);
     },
     true},
    {"PairsOfIpv6", AclFamily::Ipv6,
     [](AclDice &dice, uint32_t) {
         return action(dice) + "udp " + v6Address(dice) + ' ' + v6Address(dice);
     },
     true},
    {"PairsAndPorts", AclFamily::Ipv4,
     [](AclDice &dice, uint32_t n) {
         return action(dice) + "tcp " + v4Address(dice) + " port " +
                std::to_string(dice.below(65536)) + ' ' + v4Address(dice) + " port " +
                std::to_string(n);
     },
     true},
    {"PortRangesOverEachOther", AclFamily::Ipv4,
     [](AclDice &dice, uint32_t n) {
         return action(dice) + "udp any any port " + range(n, 30000 + dice.below(30000));
     },
     true},
    {"PortRangesOfEachSource", AclFamily::Ipv4,
     [](AclDice &dice, uint32_t n) {
         return action(dice) + "udp " + v4Address(dice) + " any port " +
                range(n, 30000 + dice.below(30000));
     },
     false},
    {"PortRangesOnBothSides", AclFamily::Ipv4,
     [](AclDice &dice, uint32_t n) {
         return action(dice) + "udp any port " + range(n, 65535 - n) + " any port " +
                range(dice.below(30000), 30000 + dice.below(30000));
     },
     false},
    {"SourceOrDestinationEachWithAPort", AclFamily::Ipv4,
     [](AclDice &dice, uint32_t n) {
         return action(dice) + "tcp " +
                (n % 2 ? v4Address(dice) + " any" : "any " + v4Address(dice)) + " port " +
                std::to_string(n);
     },
     false},
};

void PrintTo(const Shape &shape, std::ostream *out)
{
    *out << shape.name;
}

class ManyRules : public testing::TestWithParam<Shape>
{
protected:
    /** @return whether they fit */
    bool check(uint32_t count)
    {
        AclDice dice(count);
        std::vector<std::string> rules;
        for (uint32_t n = 0; n < count; n++)
            rules.push_back(GetParam().rule(dice, n));
        BoundAcls bound{aclList(GetParam().family, rules)};
        CompiledAcls compiled(bound);
        if (compiled.fits())
            expectSameAsWalk(bound, compiled, dice, 2000);
        return compiled.fits();
    }
};

TEST_P(ManyRules, FitOrAreRefusedButAreNeverWrong)
{
    EXPECT_TRUE(check(128));
    EXPECT_TRUE(check(1024) || !GetParam().fitsAll);
    EXPECT_EQ(check(4096), GetParam().fitsAll);
}

INSTANTIATE_TEST_SUITE_P(Shapes, ManyRules, testing::ValuesIn(shapes),
                         [](const auto &each) { return each.param.name; });

/** A list of the hosts 10.0.x.y with these numbers, each permitted on the port of its number. */
AclList portOfEachHost(uint32_t first, uint32_t count)
{
    AclList list{1, AclFamily::Ipv4, {}};
    for (uint32_t n = first; n < first + count; n++) {
        AclRule rule = parseAclRule("permit tcp 10.0.0.0 any", AclFamily::Ipv4);
        rule.source.address[0] += n;
        rule.destinationPorts = {static_cast<uint16_t>(n), static_cast<uint16_t>(n)};
        list.rules.push_back(rule);
    }
    return list;
}

TEST(CompiledAcl, MoreRowsThanThereAreMarksDoNotMeet)
{
    constexpr uint32_t each = aclRulesMax, all = 2 * each;
    CompiledAcls compiled({portOfEachHost(0, each), portOfEachHost(each, each)});
    ASSERT_TRUE(compiled.fits());
    for (uint32_t host = 0; host < all; host += 61)
        for (uint32_t port = 0; port < all; port++) {
            cpd_acl_key key = packet(6, 0x0a000000 + host);
            key.source_port = 1;
            key.destination_port = port;
            uint32_t expected = port != host ? 0 : host < each ? 1 : 2;
            ASSERT_EQ(compiled.decide(key), expected) << host << ", " << port;
        }
}

TEST(CompiledAcl, CellsBehindThoseInUseAreZero)
{
    CompiledAcls compiled({aclList(AclFamily::Ipv4, {"permit udp any any port 7"})});
    ASSERT_GT(compiled.cells(), size_t(CPD_ACL_PROTOCOLS));
    for (size_t cell = compiled.cells(); cell < CPD_ACL_CELLS; cell++)
        ASSERT_EQ(compiled.tables().cells[cell], 0u) << cell;
}

TEST(CompiledAcl, ThatFitsAgainAfterOneThatDidNotIsTheSame)
{
    auto tables = std::make_unique<cpd_tables>(), again = std::make_unique<cpd_tables>();
    AclList small = aclList(AclFamily::Ipv4, {"permit udp any any port 7"});
    const AclList *bound[] = {&small};
    ASSERT_NE(compileAcls(bound, *tables), 0u);
    std::ranges::fill(again->cells, 0xdeadbeef);
    ASSERT_NE(compileAcls(bound, *again), 0u);
    EXPECT_TRUE(std::ranges::equal(tables->cells, again->cells));
}

/** CPU time that compiling takes (s), of the same list so many times. @param fits receives whether
 */
double compileTime(const AclList &list, size_t times, bool *fits)
{
    auto now = [] {
        timespec time{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    };
    const std::vector<const AclList *> bound(times, &list);
    auto tables = std::make_unique<cpd_tables>();
    const double begin = now();
    *fits = compileAcls(bound, *tables) != 0;
    return now() - begin;
}

TEST(CompilingAcls, OfMoreRulesThanCanFitIsNotBegun)
{
    const AclList list = portOfEachHost(0, aclRulesMax);
    bool fits = false;
    const double once = compileTime(list, 1, &fits);
    EXPECT_TRUE(fits);
    EXPECT_LT(compileTime(list, 60, &fits), once);
    EXPECT_FALSE(fits);
}

TEST(CompilingAcls, EndsInTimeWhereEachProtocolHasAllRules)
{
    AclList list{1, AclFamily::Ipv4, {}};
    for (uint32_t n = 0; n < aclRulesMax; n++)
        list.rules.push_back(parseAclRule("deny ip any any", AclFamily::Ipv4));
    bool fits = false;
    const double withoutProtocols = compileTime(list, 16, &fits);
    EXPECT_TRUE(fits);
    for (uint32_t n = 0; n < aclRulesMax; n += 16)
        list.rules[n].protocol = static_cast<uint8_t>(n / 16);
    EXPECT_LT(compileTime(list, 16, &fits), 12 * withoutProtocols);
    EXPECT_FALSE(fits);
}

TEST(CompilingAcls, IsGivenUpWhenThatIsWanted)
{
    const AclList list = portOfEachHost(0, 16);
    const AclList *bound[] = {&list};
    auto tables = std::make_unique<cpd_tables>();
    std::atomic<bool> stop{false};
    EXPECT_NE(compileAcls(bound, *tables, &stop), 0u);
    stop = true;
    EXPECT_EQ(compileAcls(bound, *tables, &stop), 0u);
}

} // namespace
