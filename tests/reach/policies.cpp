#include "policies.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <stdexcept>

#include <unistd.h>

#include "client/client.h"
#include "front_end.h"
#include "plan.h"

const char *const denialNames[DENIALS] = {"everything", "protocols", "ports"};

namespace
{

/** The platform file's lists, by number. */
constexpr char lists[] = R"(
[[acl]] # all of IP
number = 104
family = "ipv4"
rules = ["permit ip any any"]
[[acl]]
number = 106
family = "ipv6"
rules = ["permit ip any any"]

[[acl]] # by protocol
number = 114
family = "ipv4"
rules = ["permit tcp any any", "permit udp any any", "permit icmp any any", "permit igmp any any",
         "permit ospf any any", "permit pim any any", "permit vrrp any any", "permit esp any any"]
[[acl]]
number = 116
family = "ipv6"
rules = ["permit tcp any any", "permit udp any any", "permit icmp6 any any", "permit ospf any any",
         "permit pim any any", "permit vrrp any any", "permit esp any any"]

[[acl]] # by what the transport header says
number = 124
family = "ipv4"
rules = ["permit tcp any any port 179", "permit tcp any any port 23 flags syn,!ack",
         "permit udp any any port 5000", "permit icmp any any type 8"]
[[acl]]
number = 126
family = "ipv6"
rules = ["permit tcp any any port 179", "permit tcp any any port 23 flags syn,!ack",
         "permit udp any any port 5000", "permit icmp6 any any type 128",
         "permit icmp6 any any type 135"]

[[acl]] # one protocol each
number = 134
family = "ipv4"
rules = ["permit tcp any any"]
[[acl]]
number = 136
family = "ipv6"
rules = ["permit tcp any any"]
[[acl]]
number = 144
family = "ipv4"
rules = ["permit udp any any"]
[[acl]]
number = 146
family = "ipv6"
rules = ["permit udp any any"]
[[acl]]
number = 154
family = "ipv4"
rules = ["permit icmp any any"]
[[acl]]
number = 156
family = "ipv6"
rules = ["permit icmp6 any any"]
)";

constexpr const char *types[] = {"dot1x", "arp", "igmpsnoop", "stpcustomer", "gvrp",
                                 "udld",  "vtp", "igmp",      "alb",         "dhcpsnoopip"};

void limitAll(const std::string &policy, const std::string &settings)
{
    for (const char *type : types)
        cpudefendctl("car set " + policy + " " + type + " " + settings);
}

void addDenial(const std::string &name, const std::string &number)
{
    cpudefendctl("policy add " + name + " black-list=on black-list-ip4-acl=" + number +
                 "4 black-list-ip6-acl=" + number + "6");
    limitAll(name, "action=deny");
}

// Rates so low that every way around them shows.
constexpr unsigned packetRate = 100, packetBurst = 2; // docs/platform.md, "Policers"
constexpr unsigned kilobits = 640, octetRate = kilobits * 1000 / 8, octetBurst = 1600;

// The same for frames of 60 octets, with a bucket that takes the same time to fill: what is left of
// one carries over to the other in proportion.
constexpr unsigned turnPacketRate = 2000, turnPacketBurst = turnPacketRate / 50;
constexpr unsigned turnOctetRate = 60 * turnPacketRate, turnKilobits = turnOctetRate * 8 / 1000;
constexpr unsigned turnOctetBurst = 60 * turnPacketBurst;

void addTypes(const std::string &name)
{
    cpudefendctl("policy add " + name);
    limitAll(name, "mode=pps pps=" + std::to_string(packetRate));
}

void addWhiteList(const std::string &name)
{
    const std::string rate = std::to_string(kilobits), burst = std::to_string(octetBurst);
    cpudefendctl("policy add " + name +
                 " white-list=on white-list-ip4-acl=104 white-list-ip6-acl=106"
                 " white-list-ip4-cir=" +
                 rate + " white-list-ip4-cbs=" + burst + " white-list-ip6-cir=" + rate +
                 " white-list-ip6-cbs=" + burst);
    limitAll(name, "action=deny");
}

void addRules(const std::string &name)
{
    cpudefendctl("policy add " + name);
    for (int i = 1; i <= 3; i++) {
        const std::string number = "1" + std::to_string(i + 2);
        cpudefendctl("rule add " + name + " " + std::to_string(i) + " ip4-acl=" + number +
                     "4 ip6-acl=" + number + "6 cir=" + std::to_string(kilobits) +
                     " cbs=" + std::to_string(octetBurst));
    }
    limitAll(name, "action=deny");
}

void addByPackets(const std::string &name)
{
    cpudefendctl("policy add " + name);
    limitAll(name, "mode=pps pps=" + std::to_string(turnPacketRate));
}

void addByOctets(const std::string &name)
{
    cpudefendctl("policy add " + name);
    limitAll(name, "mode=cir cir=" + std::to_string(turnKilobits) +
                       " cbs=" + std::to_string(turnOctetBurst));
}

/** How each policy is told to the daemon. */
const std::map<std::string, std::function<void(const std::string &)>> definitions = {
    {denialNames[Everything], [](const std::string &name) { addDenial(name, "10"); }},
    {denialNames[Protocols], [](const std::string &name) { addDenial(name, "11"); }},
    {denialNames[Ports], [](const std::string &name) { addDenial(name, "12"); }},
    {"types", addTypes},
    {"white", addWhiteList},
    {"rules", addRules},
    {turns[0], addByPackets},
    {turns[1], addByOctets},
};

Cap octets(const std::string &name, std::vector<std::string> consumers, unsigned limits = 1)
{
    return {name, std::move(consumers), Unit::Octet, 1.0 * octetRate * limits,
            1.0 * octetBurst * limits};
}

struct TypeCap {
    const char *name;
    const char *consumer;
    unsigned limits = 1; /**< of types that it sees */
};

constexpr TypeCap capped[] = {
    {"dot1x", "802.1X: authenticator"},
    {"arp", "ARP: reader"},
    {"arp, answered", "ARP: replies"},
    {"igmpsnoop and igmp", "IPv4: raw socket of IGMP", 2},
    {"stpcustomer", "STP: daemon"},
    {"gvrp", "GVRP: daemon"},
    {"udld", "UDLD: daemon"},
    {"vtp", "VTP: daemon"},
    {"alb", "ALB: learner"},
    {"alb, old", "ALB: old learner"},
    {"dhcpsnoopip, server's reader", "DHCP: reader of port 67"},
    {"dhcpsnoopip, client's reader", "DHCP: reader of port 68"},
    {"dhcpsnoopip, server's socket", "IPv4: UDP port 67"},
    {"dhcpsnoopip, client's socket", "IPv4: UDP port 68"},
};

std::vector<Cap> typeCaps(Unit unit, double rate, double burst)
{
    std::vector<Cap> caps;
    for (const TypeCap &each : capped)
        caps.push_back({each.name, {each.consumer}, unit, rate * each.limits, burst * each.limits});
    return caps;
}

} // namespace

std::vector<std::string> consumersOf(const std::vector<Cap> &caps)
{
    std::vector<std::string> names;
    for (const Cap &cap : caps)
        names.insert(names.end(), cap.consumers.begin(), cap.consumers.end());
    return names;
}

const std::vector<RatePolicy> &ratePolicies()
{
    static const std::vector<std::string> ofIp = {"IPv4: *", "IPv6: *", "TCP: *"};
    static const std::vector<Cap> ofTypes = typeCaps(Unit::Packet, packetRate, packetBurst);
    static const std::vector<RatePolicy> all = {
        {"types", consumersOf(ofTypes), ofTypes},
        {"white",
         ofIp,
         {octets("IPv4 to the box", {"IPv4: raw socket*", "IPv4: UDP port*", "IPv4: echo replies"}),
          octets("IPv4 delivered", {"IPv4: delivered"}),
          octets("IPv6 to the box", {"IPv6: raw socket*", "IPv6: UDP port*", "IPv6: echo replies"}),
          octets("IPv6 delivered", {"IPv6: delivered"})}},
        {"rules",
         ofIp,
         {octets("TCP in both", {"TCP: segments"}, 2), octets("UDP in IPv4", {"IPv4: UDP port*"}),
          octets("UDP in IPv6", {"IPv6: UDP port*"}),
          octets("ICMP", {"IPv4: echo", "IPv4: echo replies"}),
          octets("ICMPv6", {"IPv6: echo", "IPv6: neighbour discovery"})}},
    };
    return all;
}

const std::vector<Cap> &turningCaps(Unit unit)
{
    static const std::vector<Cap> caps[] = {
        typeCaps(Unit::Packet, turnPacketRate, turnPacketBurst),
        typeCaps(Unit::Octet, turnOctetRate, turnOctetBurst),
    };
    return caps[unit == Unit::Octet];
}

Protection::Protection(const PortKind &kind)
    : file_("/tmp/reach-" + std::to_string(getpid()) + ".toml")
{
    std::ofstream(file_) << "ports = [\"" << ownPort << "\"]\nmode = \"" << kind.mode
                         << "\"\npin = \"none\"\nunread_pps = 0\n"
                         << lists;
    setenv("CPUDEFEND_PLATFORM", file_.c_str(), 1);
    daemon_ = std::make_unique<DaemonProcess>();
}

Protection::~Protection()
{
    daemon_.reset();
    unsetenv("CPUDEFEND_PLATFORM");
    std::remove(file_.c_str());
}

void Protection::bind(const std::string &policy)
{
    if (told_.insert(policy).second)
        definitions.at(policy)(policy);
    cpudefend::Client().bind(policy);
}

void Protection::unbind()
{
    cpudefend::Client().unbind();
}
