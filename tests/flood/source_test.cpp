/**
 * Who floods, as the management channel tells; and what finding that out costs the daemon.
 */
#include <fstream>
#include <map>
#include <net/if.h>
#include <sstream>
#include <tuple>

#include "flood_test.h"

namespace
{

using nlohmann::json;

constexpr size_t dataLength = 80; // bytes kept of a traced packet

/** A sender, and what the daemon is to say about it. */
struct Attacker {
    const char *type;
    Host host;
    const char *ip;
    const char *mac;
    unsigned outerVlan;
    unsigned innerVlan;
    const char *destination;
    Octets frame;
};

/** The priority bits in the tags are none of the VLAN's. */
std::vector<Attacker> attackers()
{
    std::vector<Attacker> all = {
        {"arp",
         {{0x02, 0, 0, 0, 1, 1}, {192, 0, 2, 101}},
         "192.0.2.101",
         "02:00:00:00:01:01",
         0,
         0,
         "192.0.2.1",
         {}},
        {"arp",
         {{0x02, 0, 0, 0, 1, 2}, {192, 0, 2, 102}, {{customerTag, 0x6064}}},
         "192.0.2.102",
         "02:00:00:00:01:02",
         100,
         0,
         "192.0.2.1",
         {}},
        {"arp",
         {{0x02, 0, 0, 0, 1, 3}, {192, 0, 2, 103}, {{serviceTag, 0x20c8}, {customerTag, 0xe01e}}},
         "192.0.2.103",
         "02:00:00:00:01:03",
         200,
         30,
         "192.0.2.1",
         {}},
        {"arp",
         {{0x02, 0, 0, 0, 1, 4}, {198, 51, 100, 4}},
         "198.51.100.4",
         "02:00:00:00:01:04",
         0,
         0,
         "192.0.2.1",
         {}},
        {"igmp",
         {{0x02, 0, 0, 0, 2, 1}, {192, 0, 2, 201}},
         "192.0.2.201",
         "02:00:00:00:02:01",
         0,
         0,
         "224.0.0.1",
         {}},
        {"igmp",
         {{0x02, 0, 0, 0, 2, 2}, {192, 0, 2, 202}, {{customerTag, 0x0ffe}}},
         "192.0.2.202",
         "02:00:00:00:02:02",
         0xffe,
         0,
         "224.0.0.2",
         {}},
    };
    for (Attacker &each : all)
        each.frame = arpRequest(each.host, wanted);
    all[3].frame = arpRequest(all[3].host, wanted, 300);
    std::fill(all[3].frame.begin() + 60, all[3].frame.end(), 0x5a); // not all of it is kept
    all[4].frame = igmpQuery(all[4].host);
    all[5].frame = igmpLeave(all[5].host, {239, 1, 2, 3});
    return all;
}

std::vector<Octets> framesOf(const std::vector<Attacker> &all)
{
    std::vector<Octets> frames;
    for (const Attacker &each : all)
        frames.push_back(each.frame);
    return frames;
}

std::string hexadecimal(Octets octets)
{
    std::string text;
    octets.resize(dataLength);
    for (uint8_t octet : octets) {
        constexpr char digits[] = "0123456789abcdef";
        text += {digits[octet >> 4], digits[octet & 0xf]};
    }
    return text;
}

/** What is told of a source, and must be right in every field but its running total. */
json expected(const Attacker &attacker)
{
    return {{"interface", if_nametoindex(protectedPort)},
            {"interface-name", protectedPort},
            {"ip", attacker.ip},
            {"type", attacker.type},
            {"mac", attacker.mac},
            {"destination", attacker.destination},
            {"outer-vlan", attacker.outerVlan},
            {"inner-vlan", attacker.innerVlan}};
}

json withoutTotal(json source)
{
    source.erase("total");
    return source;
}

/** The same sources in one order, whatever the daemon's is. */
std::map<std::string, json> byMac(const json &sources)
{
    std::map<std::string, json> found;
    for (const json &each : sources)
        found[each.at("mac")] = withoutTotal(each);
    return found;
}

/** CPU time of a process so far. */
Seconds cpuTime(pid_t process)
{
    uint64_t ns = 0;
    std::ifstream("/proc/" + std::to_string(process) + "/schedstat") >> ns;
    return std::chrono::nanoseconds(ns);
}

class Sources : public FloodTest
{
protected:
    void SetUp() override
    {
        FloodTest::SetUp();
        if (IsSkipped())
            return;
        start();
        makePolicy({"arp pps=200 mode=pps", "igmp pps=200 mode=pps", "igmpsnoop pps=200 mode=pps"});
        ctl(std::string("policy set ") + policy +
            " source-trace=on source-trace-data=on source-trace-threshold=5"
            " source-trace-alarm-threshold=65535");
        ctl(std::string("bind ") + policy);
    }

    json list() const { return ctlJson("source list"); }

    /** Of the daemon, over some seconds. */
    void expectLittleCpuTime() const
    {
        constexpr double most = 0.05; // of a CPU
        const Seconds before = cpuTime(daemon->pid());
        const auto begin = Clock::now();
        measure(3s);
        const double used = (cpuTime(daemon->pid()) - before) / Seconds(Clock::now() - begin);
        RecordProperty("cpu", std::to_string(used));
        EXPECT_LT(used, most);
    }
};

TEST_F(Sources, AreExactlyThoseThatFlood)
{
    const auto all = attackers();
    Flood flood(peerPort, framesOf(all), std::thread::hardware_concurrency());
    // Others, of types that are not traced.
    sendEvenly(peerPort, frame(accessEntities, etherEapol), 1000, 1000);
    EXPECT_TRUE(within(10s, [&] { return list().size() >= all.size(); }));
    measure(1s); // in which nobody else must be named
    flood.stop();

    std::map<std::string, json> named;
    for (const Attacker &each : all)
        named[each.mac] = expected(each);
    const json found = list();
    EXPECT_EQ(found.size(), named.size());
    EXPECT_EQ(json(byMac(found)), json(named));
}

TEST_F(Sources, ComeWithTheFirstBytesOfTheirPackets)
{
    const auto all = attackers();
    Flood flood(peerPort, framesOf(all), 1);
    ASSERT_TRUE(within(10s, [&] { return list().size() >= all.size(); }));
    flood.stop();
    for (const Attacker &each : all) {
        const json source = ctlJson(std::string("source show ") + protectedPort + " " + each.ip +
                                    " " + each.type + " " + each.mac);
        ASSERT_EQ(source.size(), 1u);
        EXPECT_EQ(source[0].at("data"), hexadecimal(each.frame)) << each.mac;
        EXPECT_GT(source[0].at("total").get<uint32_t>(), 5u);
    }
}

TEST_F(Sources, WithinTheRateAreNobodys)
{
    sendEvenly(peerPort, arpRequest(attacker, wanted), 20, 40);
    EXPECT_EQ(list(), json::array());
}

TEST_F(Sources, CostTheDaemonLittleWhateverTheFlood)
{
    Flood flood(peerPort, framesOf(attackers()), std::thread::hardware_concurrency());
    ASSERT_TRUE(within(10s, [&] { return !list().empty(); }));
    expectLittleCpuTime();
    EXPECT_GT(flood.stop(), 500'000u) << "this was no flood";
    EXPECT_EQ(list().size(), attackers().size());
}

TEST_F(Sources, AreNotThoseWhoSendALittleMeanwhile)
{
    const Host innocent = {{0x02, 0, 0, 0, 3, 1}, {192, 0, 2, 9}};
    Flood flood(peerPort, {attackers()[0].frame}, 1);
    sendEvenly(peerPort, arpRequest(innocent, wanted), 20, 60);
    const json found = list();
    ASSERT_EQ(found.size(), 1u) << found;
    EXPECT_EQ(found[0].at("mac"), attackers()[0].mac);
}

/** Sources that are none: addresses that one sender makes up, the number of them given. */
class BesideSpoofedOnes : public Sources, public testing::WithParamInterface<uint32_t>
{
protected:
    static constexpr Host nobody = {{0x02, 0xee, 0xee, 0, 0, 0}, {10, 0, 0, 0}};
    static constexpr char flooderMac[] = "02:00:00:00:00:a0";

    /** On the CPU of the flooder, so that neither sends more. */
    const Flood &spoof()
    {
        return spoofed.emplace(peerPort, std::vector<Octets>{arpRequest(nobody, wanted)}, 1,
                               GetParam());
    }

    const Flood &flood()
    {
        return flooder.emplace(peerPort, std::vector<Octets>{arpRequest(attacker, wanted)}, 1);
    }

    static uint32_t totalOf(const json &sources, const std::string &mac)
    {
        for (const json &each : sources)
            if (each.at("mac") == mac)
                return each.at("total");
        return 0;
    }

    std::optional<Flood> spoofed, flooder;
};

TEST_P(BesideSpoofedOnes, TheFlooderIsNamedFirst)
{
    spoof();
    flood();
    json first;
    ASSERT_TRUE(within(2s, [&] { return !(first = list()).empty(); }));
    EXPECT_GT(totalOf(first, flooderMac), 0u) << first.dump(1);
    expectLittleCpuTime(); // however many are to be told apart
    const json last = list();
    for (const json &each : last)
        EXPECT_LE(each.at("total"), totalOf(last, flooderMac)) << each;
}

/** What they can take of the table, they have taken by then. */
TEST_P(BesideSpoofedOnes, TheFlooderIsNamedAlsoWhenItComesLater)
{
    spoof();
    measure(2s);
    const json before = list();
    flood();
    EXPECT_TRUE(within(2s, [&] { return totalOf(list(), flooderMac) > 0; })) << before.size();
    RecordProperty("spoofed", std::to_string(before.size()));
}

INSTANTIATE_TEST_SUITE_P(, BesideSpoofedOnes, testing::Values(32, 1000, 30000));

} // namespace
