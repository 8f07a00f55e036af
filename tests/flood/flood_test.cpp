#include "flood_test.h"

#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <sched.h>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/wait.h>
#include <thread>

#include <bpf/libbpf.h>

#include "demo/offload.h"
#include "front_end.h"
#include "linux/bpf_probe.h"

void addWire(const std::string &portName, const std::string &peerName)
{
    const std::string queues = " numrxqueues 2 numtxqueues 2 ";
    command("ip link add " + portName + queues + "type veth peer name " + peerName + queues);
    setOffload(portName, ETHTOOL_SGRO, true);
    command("ip link set " + portName + " arp off up");
    command("ip link set " + peerName + " arp off up");
    // Holds what the ring of the wire has no room for at the moment.
    command("tc qdisc add dev " + peerName + " root pfifo limit 20000");
}

bool isProtected(const std::string &portName)
{
    uint32_t program = 0;
    const int index = static_cast<int>(if_nametoindex(portName.c_str()));
    return index > 0 && bpf_xdp_query_id(index, 0, &program) == 0 && program != 0;
}

bool isFull()
{
    const char *asked = std::getenv("CPUDEFEND_FLOOD_FULL");
    return asked && std::string(asked) == "1";
}

void measure(Seconds time)
{
    std::this_thread::sleep_for(time);
}

namespace
{

/** Empty, or why this machine gives the test no name spaces. Afterwards the test is in them. */
std::string enterNameSpaces()
{
    if (std::string why = enterNameSpace(); !why.empty())
        return why;
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return std::string("no mount name space of its own: ") + std::strerror(errno);
    return {};
}

/** Empty, or why frames cannot be sent or counted here as these tests do. */
std::string sendingOrCountingMissing()
try {
    Arrivals arrivals(protectedPort);
    Generator(peerPort).send(frame(everybody, etherArp), 1);
    return {};
} catch (const std::runtime_error &missing) {
    return missing.what();
}

} // namespace

void FloodTest::SetUp()
{
    if (std::string why = enterNameSpaces(); !why.empty())
        GTEST_SKIP() << why;
    SKIP_WITHOUT_BPF();
    for (const char *which : {"all", "default"})
        std::ofstream(std::string("/proc/sys/net/ipv6/conf/") + which + "/disable_ipv6") << 1;
    command("ip link set lo up");
    addWire(protectedPort, peerPort);
    if (std::string why = sendingOrCountingMissing(); !why.empty())
        GTEST_SKIP() << why;
}

void FloodTest::start(const std::string &platform)
{
    file.emplace(platform);
    restart();
}

void FloodTest::restart()
{
    daemon.reset();
    daemon = std::make_unique<DaemonProcess>();
}

std::string FloodTest::ctl(const std::string &arguments) const
{
    return cpudefendctl(arguments);
}

nlohmann::json FloodTest::ctlJson(const std::string &arguments) const
{
    return nlohmann::json::parse(ctl("--json " + arguments));
}

void FloodTest::makePolicy(std::initializer_list<std::string> limits) const
{
    const std::string name = policy;
    ctl("policy add " + name);
    for (const std::string &limit : limits)
        ctl("car set " + name + " " + limit);
}

void FloodTest::bind(std::initializer_list<std::string> limits) const
{
    makePolicy(limits);
    ctl(std::string("bind ") + policy);
}
