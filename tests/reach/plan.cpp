#include "plan.h"

#include <arpa/inet.h>
#include <stdexcept>

namespace
{

struct Text {
    const char *what;
    const char *address;
};

std::vector<Address> parsed(std::initializer_list<Text> texts)
{
    std::vector<Address> all;
    for (const Text &text : texts) {
        const bool isSix = std::string(text.address).find(':') != std::string::npos;
        Octets octets(isSix ? 16 : 4);
        if (inet_pton(isSix ? AF_INET6 : AF_INET, text.address, octets.data()) != 1)
            throw std::runtime_error(std::string("no address: ") + text.address);
        all.push_back({text.what, octets});
    }
    return all;
}

} // namespace

const std::vector<Address> &destinations4()
{
    static const std::vector<Address> all = parsed({
        {"to an own address", "10.7.0.1"},
        {"to an address of the loopback device", "10.7.9.9"},
        {"to a local route of a host", "10.8.0.1"},
        {"to a local route of a prefix", "10.9.3.4"},
        {"to a local route of another table", "10.10.3.4"},
        {"to 255.255.255.255", "255.255.255.255"},
        {"to the subnet's broadcast address", "10.7.0.255"},
        {"to the subnet's first address", "10.7.0.0"},
        {"to 0.0.0.0", "0.0.0.0"},
        {"to 127.0.0.1", "127.0.0.1"},
        {"to a joined group", "224.0.0.9"},
        {"to all systems", "224.0.0.1"},
        {"to a joined group of an organisation", "239.1.1.1"},
        {"to a group that nobody joined", "224.0.0.77"},
        {"to somebody whom it forwards to", "203.0.113.5"},
        {"to a neighbour", "10.7.0.2"},
        {"to class E", "240.0.0.1"},
    });
    return all;
}

const std::vector<Address> &sources4()
{
    static const std::vector<Address> all = parsed({
        {"from afar", "198.18.0.0"}, // with the frame's number in its low bits
        {"from the gateway", "10.7.0.2"},
        {"from 0.0.0.0", "0.0.0.0"},
        {"from its own address", "10.7.0.1"},
        {"from 127.0.0.1", "127.0.0.1"},
        {"from 255.255.255.255", "255.255.255.255"},
        {"from a group", "224.0.0.1"},
    });
    return all;
}

const std::vector<Address> &destinations6()
{
    static const std::vector<Address> all = parsed({
        {"to an own address", "2001:db8:7::1"},
        {"to the link-local address", "fe80::1"},
        {"to a local route of a host", "2001:db8:8::1"},
        {"to a local route of a prefix", "2001:db8:9::5"},
        {"to a local route of another table", "2001:db8:10::5"},
        {"to all nodes", "ff02::1"},
        {"to the group for its own address", "ff02::1:ff00:1"},
        {"to all routers", "ff02::2"},
        {"to a joined group", "ff02::9"},
        {"to all DHCP agents", "ff02::1:2"},
        {"to a group on the node", "ff01::1"},
        {"to the subnet's anycast address", "2001:db8:7::"},
        {"to ::1", "::1"},
        {"to ::", "::"},
        {"to IPv4 in IPv6", "::ffff:10.7.0.1"},
        {"to somebody whom it forwards to", "2001:db8:f::5"},
        {"to a neighbour", "2001:db8:7::2"},
    });
    return all;
}

const std::vector<Address> &sources6()
{
    static const std::vector<Address> all = parsed({
        {"from afar", "2001:db8:a::"}, // with the frame's number in its low bits
        {"from the gateway", "fe80::2"},
        {"from a neighbour", "2001:db8:7::2"},
        {"from ::", "::"},
        {"from its own address", "2001:db8:7::1"},
        {"from ::1", "::1"},
        {"from a group", "ff02::1"},
    });
    return all;
}

std::vector<std::string> addressing(const std::string &device)
{
    const std::string gateway = " lladdr 02:00:00:00:00:02 nud permanent dev " + device;
    return {
        "ip address add 10.7.0.1/24 brd + dev " + device,
        "ip address add 10.7.9.9/32 dev lo",
        "ip route add local 10.8.0.1/32 dev lo",
        "ip route add local 10.9.0.0/16 dev lo",
        "ip route add local 10.10.0.0/16 dev lo table 100",
        "ip rule add lookup 100",
        "ip neighbour replace 10.7.0.2" + gateway,
        "ip route add default via 10.7.0.2 dev " + device,
        "ip address add fe80::1/64 dev " + device + " nodad",
        "ip address add 2001:db8:7::1/64 dev " + device + " nodad",
        "ip route add local 2001:db8:8::1/128 dev lo",
        "ip route add local 2001:db8:9::/48 dev lo",
        "ip -6 route add local 2001:db8:10::/48 dev lo table 100",
        "ip -6 rule add lookup 100",
        "ip neighbour replace fe80::2" + gateway,
        "ip neighbour replace 2001:db8:7::2" + gateway,
        "ip route add default via 2001:db8:7::2 dev " + device,
    };
}
