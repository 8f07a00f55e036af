#include "host.h"

#include <cstdlib>
#include <fstream>
#include <unistd.h>

#include "linux/test_net.h"
#include "plan.h"

namespace
{

struct Setting {
    const char *name; /**< below /proc/sys/net */
    const char *value;
    bool mustBe = true; /**< whether all kernels have it */
};

constexpr Setting settings[] = {
    {"ipv4/ip_forward", "1"},
    {"ipv4/conf/all/rp_filter", "0"},
    {"ipv4/conf/default/rp_filter", "0"},
    {"ipv4/conf/all/accept_local", "1"},
    {"ipv4/conf/all/route_localnet", "1"},
    {"ipv4/conf/all/accept_source_route", "1"},
    {"ipv4/conf/all/bc_forwarding", "1"},
    {"ipv4/conf/all/accept_redirects", "0"},
    {"ipv4/conf/all/secure_redirects", "0"},
    {"ipv4/icmp_echo_ignore_broadcasts", "0"},
    {"ipv4/icmp_ratelimit", "0"},
    {"ipv4/ipfrag_high_thresh", "67108864"},
    {"ipv4/ipfrag_time", "2"},
    {"ipv4/ipfrag_max_dist", "0"},
    {"ipv4/tcp_syncookies", "2"}, // nothing is kept of a connection, so nothing is sent again
    {"ipv6/conf/all/forwarding", "1"},
    {"ipv6/conf/all/accept_source_route", "1"},
    {"ipv6/conf/default/accept_source_route", "1"},
    {"ipv6/conf/default/accept_ra", "0"},
    {"ipv6/conf/default/accept_redirects", "0"},
    {"ipv6/conf/default/accept_dad", "0"},
    {"ipv6/conf/default/router_solicitations", "0"},
    {"ipv6/conf/default/addr_gen_mode", "1"}, // no link-local address of its own choice
    {"ipv6/icmp/ratelimit", "0"},
    {"ipv6/ip6frag_high_thresh", "67108864"},
    {"ipv6/ip6frag_time", "2"},
};

void set(const Setting &setting)
{
    std::ofstream file(std::string("/proc/sys/net/") + setting.name);
    if (!(file << setting.value << std::flush) && setting.mustBe)
        throw std::runtime_error(std::string("couldn't set ") + setting.name);
}

void setMac(const std::string &device)
{
    command("ip link set " + device + " address 02:00:00:00:00:01");
}

/** Where what it forwards goes, to somebody who does not answer. */
void makeFarSide()
{
    const std::string far = farPort;
    command("ip link add " + far + " type veth peer name " + far + "-end");
    std::ofstream("/proc/sys/net/ipv6/conf/" + far + "-end/disable_ipv6") << 1;
    command("ip link set " + far + "-end arp off up");
    command("ip link set " + far + " mtu 9000 arp off up");
    command("ip route add 203.0.113.0/24 dev " + far);
    command("ip route add 2001:db8:f::/64 dev " + far);
}

void makeBridge()
{
    const std::string name = bridge;
    command("ip link add " + name + " type bridge forward_delay 200 mcast_snooping 0");
    setMac(name);
    command(std::string("ip link set ") + ownPort + " master " + name);
    // Every frame has a source address of its own.
    command(std::string("ip link set dev ") + ownPort + " type bridge_slave learning off");
    command("ip link set " + name + " mtu 9000 up");
    // A port that forwards goes on forwarding: nobody has to wait for its tree.
    command("ip link set " + name + " type bridge stp_state 1");
}

} // namespace

const char *addressed(const PortKind &kind)
{
    return kind.isBridged ? bridge : ownPort;
}

std::string missingFor(const PortKind &kind)
{
    if (kind.isTap && access("/dev/net/tun", R_OK | W_OK) != 0)
        return "no tap devices on this machine";
    if (kind.isBridged && std::system("ip link add probe type bridge 2>/dev/null") != 0)
        return "no bridges on this machine";
    return {};
}

std::unique_ptr<Wire> makeHost(const PortKind &kind)
{
    for (const Setting &each : settings)
        set(each);
    command("ip link set lo up");
    std::unique_ptr<Wire> wire = makeWire(kind);
    setMac(ownPort);
    if (kind.isBridged)
        makeBridge();
    for (const std::string &each : addressing(addressed(kind)))
        command(each);
    makeFarSide();
    return wire;
}
