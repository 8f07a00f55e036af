#include "client/client.h"

#include <gtest/gtest.h>

#include "cpuDefend_nm.h"
#include "daemon_process.h"
#include "fake_daemon.h"

using namespace cpudefend;

namespace
{

/** A client of a real daemon of its own. */
class ClientTest : public testing::Test
{
protected:
    /** The return code that a call ends with; 0 for none. */
    template <class Call> int32_t codeOf(Call call)
    {
        try {
            call();
        } catch (const Error &error) {
            EXPECT_EQ(error.failure(), Failure::Refused) << error.what();
            return error.code();
        }
        return 0;
    }

    uint32_t number(const CarPktIndex &index, uint32_t id)
    {
        return std::get<uint32_t>(client.get(index, id, 0));
    }

    DaemonProcess daemon;
    Client client;
    const CarPktIndex arp{"edge", CPUDEFEND_PKTTYPE_ARP};
};

} // namespace

TEST_F(ClientTest, PoliciesAreWalkedByName)
{
    const std::string longest(CPUDEFEND_NAME_MAXLEN, 'z');
    for (const char *name : {"b", "abc", longest.c_str(), "ab"})
        client.createPolicy(name);
    EXPECT_EQ(client.policyNames(),
              (std::vector<std::string>{"ab", "abc", "b", "default", longest}));
    EXPECT_EQ(client.next(PolicyIndex{"c"}), PolicyIndex{"default"});
    EXPECT_EQ(client.next(PolicyIndex{longest}), std::nullopt);
}

TEST_F(ClientTest, CarEntriesAreWalkedByLengthOfThePolicyName)
{
    client.createPolicy("b");
    const auto first = client.first<CarPktIndex>();
    ASSERT_EQ(first, (CarPktIndex{"b", 0}));
    EXPECT_EQ(client.next(*first), (CarPktIndex{"b", 1}));
    EXPECT_EQ(client.next(CarPktIndex{"b", 9}), (CarPktIndex{"default", 0}));
    EXPECT_EQ(client.next(CarPktIndex{"default", 9}), std::nullopt);
    constexpr uint32_t kIds[] = {CPUDEFEND_CARPKT_PPS, CPUDEFEND_CARPKT_MODE};
    const auto all = client.carEntries(kIds), one = client.carEntries(kIds, "b");
    ASSERT_EQ(all.size(), 20u);
    EXPECT_EQ(one.size(), 10u);
    EXPECT_EQ(all[9].index, (CarPktIndex{"b", 9}));
    EXPECT_EQ(all[10].index, (CarPktIndex{"default", 0}));
    EXPECT_EQ(all[19].values, (std::vector<Value>{512u, 0u}));
    EXPECT_EQ(codeOf([&] { client.carEntries(kIds, "c"); }), CPUDEFEND_ENONAME);
}

TEST_F(ClientTest, RulesAreMadeWalkedAndDestroyed)
{
    client.createPolicy("b");
    for (const RuleIndex &rule : {RuleIndex{"default", 2}, {"b", 9}, {"b", 3}})
        client.createRule(rule);
    EXPECT_EQ(client.first<RuleIndex>(), (RuleIndex{"b", 3}));
    EXPECT_EQ(client.next(RuleIndex{"b", 3}), (RuleIndex{"b", 9}));
    EXPECT_EQ(client.next(RuleIndex{"b", 9}), (RuleIndex{"default", 2}));
    EXPECT_EQ(client.next(RuleIndex{"default", 2}), std::nullopt);
    EXPECT_EQ(client.ruleIndexes("b"), (std::vector<uint32_t>{3, 9}));
    client.set(RuleIndex{"b", 3}, CPUDEFEND_USERDEFINED_IP4ACL, 70000u);
    EXPECT_EQ(client.get(RuleIndex{"b", 3}, CPUDEFEND_USERDEFINED_IP4ACL, 0), Value(4464u));
    client.destroyRule({"b", 3});
    EXPECT_FALSE(client.ruleExists({"b", 3}));
    EXPECT_EQ(codeOf([&] { client.createRule({"core", 1}); }), CPUDEFEND_ENOPOLICY);
    client.bind("b");
    EXPECT_EQ(codeOf([&] { client.createRule({"b", 1}); }), CPUDEFEND_EBOUND);
}

TEST_F(ClientTest, WithoutSlotsAndSourcesTheWalksAreEmpty)
{
    EXPECT_TRUE(client.slots().empty());
    EXPECT_TRUE(client.sources({}).empty());
    EXPECT_EQ(codeOf([&] { client.boundPolicy(SlotIndex{1, 5}); }), CPUDEFEND_ENOSLOT);
    EXPECT_EQ(codeOf([&] { client.get(SourceIndex{}, CPUDEFEND_SRCTRACE_TOTALNUM, 0); }),
              CPUDEFEND_EBADINDEX);
}

TEST_F(ClientTest, ANameFills32BytesBothWays)
{
    const std::string longest(CPUDEFEND_NAME_MAXLEN, 'z');
    client.createPolicy(longest);
    client.bind(longest);
    EXPECT_EQ(client.boundPolicy(), longest);
}

TEST_F(ClientTest, ABoundPolicyStoresAndSaysSo)
{
    client.createPolicy("edge");
    client.bind("edge");
    const PolicyIndex edge{"edge"};
    EXPECT_EQ(client.set(edge, CPUDEFEND_POLICY_WHITELISTIP4ACL, 5u), SetResult::StoredOnly);
    EXPECT_EQ(client.get(edge, CPUDEFEND_POLICY_WHITELISTIP4ACL, 0), Value(5u));
}

TEST_F(ClientTest, RefusalsCarryTheirCode)
{
    client.createPolicy("edge");
    const PolicyIndex edge{"edge"};
    EXPECT_EQ(codeOf([&] { client.bind("core"); }), CPUDEFEND_ENONAME);
    EXPECT_EQ(codeOf([&] { client.get(PolicyIndex{"core"}, 0, 0); }), CPUDEFEND_ENOENTRY);
    EXPECT_EQ(codeOf([&] { client.set(edge, CPUDEFEND_POLICY_REFCOUNT, 1u); }), CPUDEFEND_FAIL);
    client.set(edge, CPUDEFEND_POLICY_WHITELISTENABLE, 2u);
    client.set(edge, CPUDEFEND_POLICY_BLACKLISTENABLE, 2u);
    EXPECT_EQ(codeOf([&] { client.set(edge, CPUDEFEND_POLICY_WHITELISTIP4ACL, 5u); }),
              CPUDEFEND_EWHITELISTOFF);
    EXPECT_EQ(codeOf([&] { client.set(edge, CPUDEFEND_POLICY_BLACKLISTIP4ACL, 5u); }),
              CPUDEFEND_EBLACKLISTOFF);
    client.bind("edge");
    EXPECT_EQ(codeOf([&] { client.set(arp, CPUDEFEND_CARPKT_PPS, 1u); }), CPUDEFEND_EBOUND);
    EXPECT_EQ(codeOf([&] { client.destroyPolicy("edge"); }), CPUDEFEND_EBOUND);
}

TEST_F(ClientTest, ANameLongerThan32BytesMakesTheRequestMalformed)
{
    try {
        client.policyExists(std::string(CPUDEFEND_NAME_MAXLEN + 1, 'x'));
        FAIL() << "it passed";
    } catch (const Error &error) {
        EXPECT_EQ(error.failure(), Failure::RequestMalformed);
    }
}

TEST(Client, AnExhaustedPoolIsSaid)
{
    DaemonProcess daemon({"1"});
    Client client;
    try {
        client.createPolicy("edge");
        FAIL() << "it passed";
    } catch (const Error &error) {
        EXPECT_EQ(error.code(), CPUDEFEND_ENOMEM);
    }
}

TEST(Client, AWalkThatFailsIsNotTakenForItsEnd)
{
    FakeDaemon daemon([](int fd, const Bytes &request) {
        Bytes body = request;
        const uint8_t code[] = {0, 0, 0, 19};
        std::copy(std::begin(code), std::end(code), body.begin() + 12);
        reply(fd, body);
    });
    Client client{Channel(daemon.path())};
    EXPECT_THROW(client.first<PolicyIndex>(), Error);
}

TEST(Client, SlotsAreWalkedAndBound)
{
    DaemonProcess daemon({}, {}, CPUDEFEND_TEST_SLOT_DAEMON);
    Client client;
    EXPECT_EQ(client.slots(), (std::vector<SlotIndex>{{1, 5}, {1, 9}}));
    client.bind(SlotIndex{1, 2}, "default");
    EXPECT_EQ(client.boundPolicy(SlotIndex{1, 2}), "default");
    EXPECT_EQ(client.boundPolicy(SlotIndex{1, 5}), "");
    EXPECT_EQ(client.boundPolicy(), "");
}

TEST(Client, SourcesAreWalkedReadAndForgotten)
{
    DaemonProcess daemon({}, {}, CPUDEFEND_TEST_SLOT_DAEMON);
    Client client;
    SourceIndex filter;
    filter.pktType = CPUDEFEND_PKTTYPE_ARP;
    filter.filter = 0x80 >> CPUDEFEND_SRCTRACEIDX_SEARCHPKTTYPE;
    const auto arp = client.sources(filter);
    ASSERT_EQ(arp.size(), 2u);
    const std::array<uint8_t, 6> mac{0x02, 0x00, 0x5e, 0x00, 0x53, 10};
    EXPECT_EQ(arp[0], (SourceIndex{1, {192, 0, 2, 10}, CPUDEFEND_PKTTYPE_ARP, mac}));
    EXPECT_EQ(arp[1].interface, 4000000u);
    EXPECT_EQ(client.get(arp[0], CPUDEFEND_SRCTRACE_DSTIP, 4), Value("\306\63\144\1"));
    EXPECT_EQ(client.get(arp[0], CPUDEFEND_SRCTRACE_PTKDATA, 2), Value("\xa0\xa1"));
    EXPECT_EQ(client.sources({}).size(), 4u);
    client.resetSources();
    EXPECT_TRUE(client.sources({}).empty());
}

namespace
{

/** Answers every walk of the sources with one of interface 5, whose MAC has this length. */
void replyWithSource(int fd, const Bytes &request, std::size_t macLength)
{
    constexpr std::size_t kCodeAt = 12, kValueAt = 53;
    Encoder answer;
    answer.item(5u);
    for (const std::size_t length : {std::size_t{4}, std::size_t{1}, macLength, std::size_t{1}})
        answer.item(std::string(length, '\0'));
    Bytes body = request;
    std::fill_n(body.begin() + kCodeAt, 4, 0);
    const Bytes items = answer.take();
    std::copy(items.begin(), items.end(), body.begin() + kValueAt);
    reply(fd, body);
}

} // namespace

TEST(Client, AWalkOfSourcesThatGoesRoundInACircleEnds)
{
    FakeDaemon daemon([](int fd, const Bytes &request) { replyWithSource(fd, request, 6); });
    EXPECT_EQ(Client{Channel(daemon.path())}.sources({}).size(), 1u);
}

TEST(Client, AnIndexWithAFieldOfAnotherLengthIsMalformed)
{
    FakeDaemon daemon([](int fd, const Bytes &request) { replyWithSource(fd, request, 5); });
    try {
        Client{Channel(daemon.path())}.first<SourceIndex>();
        FAIL() << "it passed";
    } catch (const Error &error) {
        EXPECT_EQ(error.failure(), Failure::ReplyMalformed);
    }
}
